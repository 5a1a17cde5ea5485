#pragma once

#include <qel/core/QELEventManager.h>
#include <qel/core/QELLogging.h>
#include <qel/core/RequestTransport.h>

#include <boost/json/object.hpp>

#include <deque>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace qel::core::testing {

// A request transport driven by the test: every attempt is recorded and
// stays open until the test finishes or fails it. Completions are posted to
// the run loop, as a network would deliver them.
//
//   auto transport = std::make_shared<ScriptedRequestTransport>();
//   RequestTransport::setShared(transport);
//   ... code adds a request ...
//   ASSERT_EQ(transport->attempts().size(), 1u);
//   transport->finish(0, R"({"images": []})");
//   loop.runPending();
class ScriptedRequestTransport : public RequestTransport {
 public:
  struct Attempt {
    std::string url;  // empty when the request had no URL
    QELRequest::Kind kind;
    std::weak_ptr<const QELRequest> request;
    bool open = true;      // neither finished, failed nor cancelled yet
    bool cancelled = false;
  };

  ScriptedRequestTransport() = default;
  ScriptedRequestTransport(const ScriptedRequestTransport&) = delete;
  ScriptedRequestTransport& operator=(const ScriptedRequestTransport&) = delete;
  ~ScriptedRequestTransport() override;

  std::shared_ptr<TransportOperation> start(const QELRequest& request, Completion completion) override;

  // Every attempt so far, oldest first.
  const std::vector<Attempt>& attempts() const { return attempts_; }
  // Indices of the attempts still open.
  std::vector<std::size_t> openAttempts() const;

  // Finishing or failing an attempt that is not open throws std::logic_error.
  void finish(std::size_t index, std::string_view body);
  void finish(std::size_t index, Data body);
  void fail(std::size_t index, std::string description = "scripted failure",
            std::optional<std::chrono::seconds> retryAfter = std::nullopt);
  // Finishes or fails the oldest open attempt.
  void finishNext(std::string_view body);
  void failNext(std::string description = "scripted failure",
                std::optional<std::chrono::seconds> retryAfter = std::nullopt);

 private:
  struct Operation;
  std::vector<Attempt> attempts_;
  std::vector<std::shared_ptr<Operation>> operations_;
};

// An event channel driven by the test; each call reaches the manager's
// targets synchronously, as a callout of the run loop would. While the
// manager has not started it (no targets), the calls only log.
class ScriptedEventTransport : public EventTransport {
 public:
  ScriptedEventTransport() = default;
  ScriptedEventTransport(const ScriptedEventTransport&) = delete;
  ScriptedEventTransport& operator=(const ScriptedEventTransport&) = delete;

  void start(QELEventManager& manager) override;
  void stop() override;

  bool isRunning() const { return manager_ != nullptr; }
  int startCount() const { return startCount_; }

  void connect();
  void disconnect();
  void deliver(std::string name, UserInfo userInfo);
  void deliver(std::string name, boost::json::object userInfo);

 private:
  QELEventManager* manager_ = nullptr;
  int startCount_ = 0;
};

// Installs scripted transports for one test and puts things back afterwards:
// a fresh scripted request transport as the shared one, a scripted event
// transport on the default manager, a manual clock on the current run loop
// (left on afterwards), and log capture with the threshold at 5. The
// destructor restores the earlier transports, sink and threshold.
//
// Create it before the objects under test (so that it outlives them) and do
// not install other event transports while it lives.
//
//   qel::core::testing::ScriptedEnvironment env;
//   auto queue = QELRequestQueue::create();  // uses env.requests()
//   ...
//   env.requests().finishNext("{}");
//   qel::RunLoop::current().runPending();
class ScriptedEnvironment {
 public:
  ScriptedEnvironment();
  ~ScriptedEnvironment();
  ScriptedEnvironment(const ScriptedEnvironment&) = delete;
  ScriptedEnvironment& operator=(const ScriptedEnvironment&) = delete;

  struct LogRecord {
    int level;
    std::string domain;
    std::string message;
  };

  ScriptedRequestTransport& requests() { return *requests_; }
  ScriptedEventTransport& events() { return *events_; }
  const std::vector<LogRecord>& logs() const { return logs_; }
  void clearLogs() { logs_.clear(); }
  // Messages logged so far that contain `text`.
  std::vector<LogRecord> logsContaining(std::string_view text) const;

 private:
  std::shared_ptr<ScriptedRequestTransport> requests_;
  ScriptedEventTransport* events_;  // owned by the default event manager
  std::vector<LogRecord> logs_;
  int savedThreshold_;
  std::shared_ptr<RequestTransport> savedRequestTransport_;
  std::unique_ptr<EventTransport> savedEventTransport_;
  QELLogging::Sink savedSink_;
};

}  // namespace qel::core::testing
