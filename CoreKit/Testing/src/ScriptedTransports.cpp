#include "qel/core/testing/ScriptedTransports.h"

#include <qel/RunLoop.h>

#include <stdexcept>

namespace qel::core::testing {
namespace {

constexpr std::string_view kDomain = lastPathComponent(__FILE__);

}  // namespace

struct ScriptedRequestTransport::Operation : TransportOperation {
  void cancel() override {
    if (cancelled) return;
    cancelled = true;
    completion = nullptr;
    if (owner) {
      owner->attempts_[index].open = false;
      owner->attempts_[index].cancelled = true;
    }
  }

  ScriptedRequestTransport* owner;
  std::size_t index;
  Completion completion;
  bool cancelled = false;
};

ScriptedRequestTransport::~ScriptedRequestTransport() {
  // Operations may outlive the transport inside posted completions.
  for (auto& operation : operations_) operation->owner = nullptr;
}

std::shared_ptr<TransportOperation> ScriptedRequestTransport::start(const QELRequest& request,
                                                                    Completion completion) {
  Attempt attempt{request.requestURL().value_or(""), request.kind(), {}, true, false};
  if (auto self = request.weak_from_this().lock()) {
    attempt.request = std::static_pointer_cast<const QELRequest>(self);
  }
  attempts_.push_back(std::move(attempt));
  auto operation = std::make_shared<Operation>();
  operation->owner = this;
  operation->index = attempts_.size() - 1;
  operation->completion = std::move(completion);
  operations_.push_back(operation);
  return operation;
}

std::vector<std::size_t> ScriptedRequestTransport::openAttempts() const {
  std::vector<std::size_t> open;
  for (std::size_t i = 0; i < attempts_.size(); ++i) {
    if (attempts_[i].open) open.push_back(i);
  }
  return open;
}

void ScriptedRequestTransport::finish(std::size_t index, std::string_view body) {
  finish(index, Data(body.begin(), body.end()));
}

namespace {

// Posts the outcome as a network would deliver it; a cancel before the loop
// gets to it still wins.
template <class Operation>
void deliver(const std::shared_ptr<Operation>& operation, TransportResult result) {
  RunLoop::current().post([operation, result = std::move(result)]() mutable {
    if (operation->cancelled || !operation->completion) return;
    auto completion = std::move(operation->completion);
    operation->completion = nullptr;
    completion(std::move(result));
  });
}

}  // namespace

void ScriptedRequestTransport::finish(std::size_t index, Data body) {
  if (index >= attempts_.size() || !attempts_[index].open) {
    throw std::logic_error("scripted attempt " + std::to_string(index) + " is not open");
  }
  attempts_[index].open = false;
  deliver(operations_[index], TransportResult{std::nullopt, std::move(body)});
}

void ScriptedRequestTransport::fail(std::size_t index, std::string description,
                                    std::optional<std::chrono::seconds> retryAfter) {
  if (index >= attempts_.size() || !attempts_[index].open) {
    throw std::logic_error("scripted attempt " + std::to_string(index) + " is not open");
  }
  attempts_[index].open = false;
  deliver(operations_[index],
          TransportResult{Error{"QELScriptedTransport", -1, std::move(description)}, {}, retryAfter});
}

void ScriptedRequestTransport::finishNext(std::string_view body) {
  const auto open = openAttempts();
  if (open.empty()) throw std::logic_error("no scripted attempt is open");
  finish(open.front(), body);
}

void ScriptedRequestTransport::failNext(std::string description, std::optional<std::chrono::seconds> retryAfter) {
  const auto open = openAttempts();
  if (open.empty()) throw std::logic_error("no scripted attempt is open");
  fail(open.front(), std::move(description), retryAfter);
}

void ScriptedEventTransport::start(QELEventManager& manager) {
  manager_ = &manager;
  ++startCount_;
}

void ScriptedEventTransport::stop() { manager_ = nullptr; }

void ScriptedEventTransport::connect() {
  if (!manager_) {
    QELLogging::log("Scripted connect ignored: the event transport is not running.", 2, kDomain);
    return;
  }
  manager_->transportDidConnect();
}

void ScriptedEventTransport::disconnect() {
  if (!manager_) {
    QELLogging::log("Scripted disconnect ignored: the event transport is not running.", 2, kDomain);
    return;
  }
  manager_->transportDidDisconnect();
}

void ScriptedEventTransport::deliver(std::string name, UserInfo userInfo) {
  if (!manager_) {
    QELLogging::log("Scripted event %s ignored: the event transport is not running.", 2, kDomain,
                    name);
    return;
  }
  manager_->transportDidReceiveEvent(QELEvent::create(std::move(name), std::move(userInfo)));
}

void ScriptedEventTransport::deliver(std::string name, boost::json::object userInfo) {
  deliver(std::move(name), std::make_shared<const boost::json::object>(std::move(userInfo)));
}

ScriptedEnvironment::ScriptedEnvironment()
    : requests_(std::make_shared<ScriptedRequestTransport>()),
      events_(nullptr),
      savedThreshold_(QELLogging::threshold()),
      savedRequestTransport_(RequestTransport::shared()),
      savedSink_(QELLogging::sink()) {
  auto& loop = RunLoop::current();
  if (!loop.usesManualClock()) loop.useManualClock();

  QELLogging::setThreshold(5);
  QELLogging::setSink([this](int level, std::string_view domain, std::string_view message) {
    logs_.push_back(LogRecord{level, std::string(domain), std::string(message)});
  });

  RequestTransport::setShared(requests_);
  auto events = std::make_unique<ScriptedEventTransport>();
  events_ = events.get();
  savedEventTransport_ = QELEventManager::defaultManager().replaceTransport(std::move(events));
}

ScriptedEnvironment::~ScriptedEnvironment() {
  // Ours comes back and is destroyed here.
  QELEventManager::defaultManager().replaceTransport(std::move(savedEventTransport_));
  RequestTransport::setShared(std::move(savedRequestTransport_));
  QELLogging::setSink(std::move(savedSink_));
  QELLogging::setThreshold(savedThreshold_);
}

std::vector<ScriptedEnvironment::LogRecord> ScriptedEnvironment::logsContaining(
    std::string_view text) const {
  std::vector<LogRecord> found;
  for (const auto& record : logs_) {
    if (record.message.find(text) != std::string::npos) found.push_back(record);
  }
  return found;
}

}  // namespace qel::core::testing
