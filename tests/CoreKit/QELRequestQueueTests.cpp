#include <qel/core/QELHostname.h>
#include <qel/core/QELRequestQueue.h>
#include <qel/core/testing/ScriptedTransports.h>

#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <vector>

namespace qel::core {
namespace {

using namespace std::chrono_literals;
using testing::ScriptedEnvironment;
using Urls = std::vector<std::string>;

struct TestRequest : QELRESTRequest {
  TestRequest(std::optional<std::string> url, int retries, const std::shared_ptr<QELRequestDelegate>& delegate)
      : QELRESTRequest(delegate), url(std::move(url)), retries(retries) {}
  std::optional<std::string> requestURL() const override { return url; }
  int numberOfRetries() const override { return retries; }

  std::optional<std::string> url;
  int retries;
};

// Records outcomes as "finish <url> <body>" or "fail <url> <error>", then
// runs its hook.
struct RecordingDelegate : QELRequestDelegate {
  void requestDidFinish(const std::shared_ptr<QELRequest>& request, const Data& data) override {
    record("finish ", request, std::string(data.begin(), data.end()));
  }
  void requestDidFail(const std::shared_ptr<QELRequest>& request, const Error& error) override {
    record("fail ", request, error.localizedDescription);
  }
  void record(const char* what, const std::shared_ptr<QELRequest>& request, const std::string& detail) {
    outcomes.push_back(what + request->requestURL().value_or("") + " " + detail);
    if (hook) hook(request);
  }

  Urls outcomes;
  std::function<void(const std::shared_ptr<QELRequest>&)> hook;
};

class QELRequestQueueTest : public ::testing::Test {
 protected:
  Urls attemptedURLs() {
    Urls urls;
    for (const auto& attempt : env_.requests().attempts()) urls.push_back(attempt.url);
    return urls;
  }
  std::shared_ptr<TestRequest> request(const std::string& url, int retries = 0) {
    return std::make_shared<TestRequest>(url, retries, delegate_);
  }
  void runPending() { RunLoop::current().runPending(); }
  void advance(RunLoop::Duration duration) { RunLoop::current().advance(duration); }
  // The oldest open attempt ends, and the loop delivers that.
  void finishNext(std::string_view body) {
    env_.requests().finishNext(body);
    runPending();
  }
  void failNext(std::string error = "scripted failure") {
    env_.requests().failNext(std::move(error));
    runPending();
  }
  // The open attempt fails, and the retry comes no earlier than `earliest`
  // and no later than `latest`.
  void retryWithin(RunLoop::Duration earliest, RunLoop::Duration latest,
                   std::optional<std::chrono::seconds> retryAfter = std::nullopt) {
    const auto before = env_.requests().attempts().size();
    env_.requests().failNext("unavailable", retryAfter);
    runPending();
    advance(earliest - 1ms);
    EXPECT_EQ(env_.requests().attempts().size(), before) << "a retry came early, after " << before << " attempts";
    advance(latest - earliest + 1ms);
    ASSERT_EQ(env_.requests().attempts().size(), before + 1) << "a retry is missing, after " << before << " attempts";
  }

  ScriptedEnvironment env_;
  std::shared_ptr<RecordingDelegate> delegate_ = std::make_shared<RecordingDelegate>();
  std::shared_ptr<QELRequestQueue> queue_ = QELRequestQueue::create();
};

TEST_F(QELRequestQueueTest, RunsFirstInFirstOutNeverAboveTheLimit) {
  queue_->setMaxConcurrentOperationCount(2);
  for (const char* url : {"/a", "/b", "/c", "/d", "/e"}) queue_->addRequest(request(url));
  // Nothing starts, and nothing is told, from within addRequest().
  EXPECT_TRUE(env_.requests().attempts().empty());
  runPending();
  EXPECT_EQ(attemptedURLs(), (Urls{"/a", "/b"}));

  env_.requests().finish(1, "B");  // the second one ends first
  EXPECT_TRUE(delegate_->outcomes.empty()) << "told outside a callout of the loop";
  runPending();
  env_.requests().fail(0, "down");
  runPending();
  EXPECT_EQ(attemptedURLs(), (Urls{"/a", "/b", "/c", "/d"}));

  for (const char* body : {"C", "D", "E"}) finishNext(body);
  EXPECT_EQ(attemptedURLs(), (Urls{"/a", "/b", "/c", "/d", "/e"}));
  EXPECT_EQ(delegate_->outcomes,
            (Urls{"finish /b B", "fail /a down", "finish /c C", "finish /d D", "finish /e E"}));
  EXPECT_EQ(queue_->operationCount(), 0u);
}

// Three retries span more than half a minute, each at a random moment within
// its window (so that a cabin's devices spread out), and never before the
// server's Retry-After, which counts up to a minute.
TEST_F(QELRequestQueueTest, RetriesWithGrowingJitteredDelaysKeepingTheSlotThenTellsOnce) {
  queue_->setMaxConcurrentOperationCount(1);
  for (const auto& [url, retries] : {std::pair{"/a", 3}, {"/b", 3}, {"/c", 1}})
    queue_->addRequest(request(url, retries));
  runPending();

  retryWithin(1500ms, 2s);
  retryWithin(7500ms, 10s);
  retryWithin(22500ms, 30s);
  EXPECT_EQ(env_.requests().attempts().back().url, "/a") << "the slot was given away";
  EXPECT_TRUE(delegate_->outcomes.empty());
  failNext("unavailable");
  EXPECT_EQ(delegate_->outcomes, (Urls{"fail /a unavailable"}));

  // Retry-After: later than the backoff is heeded, beyond a minute it is not.
  retryWithin(20s, 20s, 20s);
  retryWithin(60s, 60s, std::chrono::hours(24));
  retryWithin(22500ms, 30s, 1s);
  finishNext("ok");

  // A retry that succeeds finishes.
  failNext();
  advance(2s);
  finishNext("ok");
  advance(60s);
  EXPECT_EQ(attemptedURLs(), (Urls{"/a", "/a", "/a", "/a", "/b", "/b", "/b", "/b", "/c", "/c"}));
  EXPECT_EQ(delegate_->outcomes, (Urls{"fail /a unavailable", "finish /b ok", "finish /c ok"}));
}

// An application's policy replaces the windows above: exact waits here (no
// jitter), growing threefold to a cap, and Retry-After heeded up to its own
// limit. A policy that makes no sense is refused for the defaults.
TEST_F(QELRequestQueueTest, RetriesFollowTheConfiguredPolicy) {
  QELConfiguration configuration;
  configuration.reconnect = ReconnectPolicy{};
  configuration.reconnect->requests = {100ms, 3.0, 1s, 0.0};
  configuration.reconnect->maximumRetryAfter = 5s;
  QELConfiguration::set(configuration);
  queue_->addRequest(request("/a", 6));
  runPending();
  for (const auto wait : {100ms, 300ms, 900ms, 1000ms}) retryWithin(wait, wait);
  retryWithin(5s, 5s, 60s);
  retryWithin(2s, 2s, 2s);
  finishNext("ok");

  configuration.reconnect->requests.multiplier = 0.5;
  QELConfiguration::set(configuration);
  EXPECT_EQ(QELConfiguration::current()->reconnect, ReconnectPolicy{});
  QELConfiguration::set({});
}

TEST_F(QELRequestQueueTest, CancelInEachStateSilencesTheRequestFreesItsSlotAndKeepsTheOthersInOrder) {
  queue_->setMaxConcurrentOperationCount(1);
  auto early = request("/early"), running = request("/running"), waiting = request("/waiting");
  auto backingOff = request("/backing-off", 2), delivered = request("/delivered");
  early->cancel();  // before it is even added
  for (auto r : {early, running, waiting, backingOff, delivered, request("/last")})
    queue_->addRequest(r);
  runPending();
  waiting->cancel();  // never sent
  EXPECT_EQ(queue_->operationCount(), 4u);

  // Running: the attempt is cancelled; the next starts from a later callout.
  running->cancel();
  EXPECT_TRUE(env_.requests().attempts()[0].cancelled);
  EXPECT_EQ(env_.requests().attempts().size(), 1u);
  runPending();
  EXPECT_EQ(attemptedURLs(), (Urls{"/running", "/backing-off"}));

  // Between attempts: the retry never happens.
  failNext();
  backingOff->cancel();
  runPending();
  advance(10s);
  EXPECT_EQ(attemptedURLs(), (Urls{"/running", "/backing-off", "/delivered"}));

  // Finished by the network, cancelled before the loop delivered it.
  env_.requests().finishNext("late");
  delivered->cancel();
  runPending();
  finishNext("done");
  EXPECT_EQ(attemptedURLs(), (Urls{"/running", "/backing-off", "/delivered", "/last"}));
  EXPECT_EQ(delegate_->outcomes, (Urls{"finish /last done"}));
  EXPECT_EQ(queue_->operationCount(), 0u);

  // Cancels behind a busy slot leave the others in order.
  std::vector<std::shared_ptr<TestRequest>> requests;
  for (const char* url : {"/busy", "/1", "/2", "/3", "/4", "/5"})
    queue_->addRequest(requests.emplace_back(request(url)));
  runPending();
  for (int i : {1, 2, 4}) requests[static_cast<std::size_t>(i)]->cancel();  // the last one compacts
  EXPECT_EQ(queue_->operationCount(), 3u);
  for (int i = 0; i < 3; ++i) finishNext("ok");
  EXPECT_EQ(attemptedURLs(), (Urls{"/running", "/backing-off", "/delivered", "/last", "/busy", "/3", "/5"}));
  EXPECT_EQ(queue_->operationCount(), 0u);
}

TEST_F(QELRequestQueueTest, DelegateMayAddAndCancelRequestsFromItsCallback) {
  queue_->setMaxConcurrentOperationCount(1);
  auto b = request("/b");
  for (const auto& r : {request("/a"), b, request("/c")}) queue_->addRequest(r);
  delegate_->hook = [&](const std::shared_ptr<QELRequest>& finished) {
    if (finished->requestURL() != "/a") return;
    queue_->addRequest(request("/d"));  // behind those already waiting
    b->cancel();  // already started when the delegate hears of /a: /c takes over
  };
  runPending();
  finishNext("A");
  EXPECT_TRUE(env_.requests().attempts()[1].cancelled);
  finishNext("C");
  finishNext("D");
  EXPECT_EQ(attemptedURLs(), (Urls{"/a", "/b", "/c", "/d"}));
  EXPECT_EQ(delegate_->outcomes, (Urls{"finish /a A", "finish /c C", "finish /d D"}));
}

TEST_F(QELRequestQueueTest, RequestsOutliveTheQueueAndTheirDelegates) {
  queue_->setMaxConcurrentOperationCount(1);
  auto other = std::make_shared<RecordingDelegate>();
  queue_->addRequest(std::make_shared<TestRequest>("/orphan", 0, other));
  for (const char* url : {"/a", "/b", "/c"}) queue_->addRequest(request(url));
  delegate_->hook = [&](const std::shared_ptr<QELRequest>&) { queue_.reset(); };
  runPending();
  other.reset();
  finishNext("unheard");  // silently, letting the next one run
  finishNext("A");
  ASSERT_EQ(queue_, nullptr);
  finishNext("B");
  failNext("gone");
  EXPECT_EQ(attemptedURLs(), (Urls{"/orphan", "/a", "/b", "/c"}));
  EXPECT_EQ(delegate_->outcomes, (Urls{"finish /a A", "finish /b B", "fail /c gone"}));
}

TEST_F(QELRequestQueueTest, RequestWithoutURLFailsWithoutBeingSentOrRetried) {
  queue_->addRequest(std::make_shared<TestRequest>(std::nullopt, 3, delegate_));
  queue_->addRequest(QELImageDownloadRequest::initWithImageURL("", delegate_));
  queue_->addRequest(QELImageDownloadRequest::initWithImageURL("/maps/a.png", delegate_));
  runPending();
  advance(10s);
  ASSERT_EQ(attemptedURLs(), (Urls{"/maps/a.png"}));
  EXPECT_EQ(env_.requests().attempts()[0].kind, QELRequest::Kind::ImageDownload);
  EXPECT_EQ(delegate_->outcomes.size(), 2u);  // both failed, once
}

TEST_F(QELRequestQueueTest, QueueWithoutItsOwnTransportFollowsTheSharedOne) {
  auto pinned = std::make_shared<testing::ScriptedRequestTransport>();
  auto pinnedQueue = QELRequestQueue::create(pinned);
  {
    ScriptedEnvironment later;  // installs another shared transport after the queues exist
    queue_->addRequest(request("/follows"));
    queue_->addRequest(request("/unlimited"));
    pinnedQueue->addRequest(request("/pinned"));
    runPending();
    EXPECT_EQ(later.requests().openAttempts().size(), 2u);
    later.requests().finishNext("x");
    later.requests().finishNext("y");
    runPending();
  }
  ASSERT_EQ(pinned->attempts().size(), 1u);
  EXPECT_EQ(pinned->attempts()[0].url, "/pinned");
  EXPECT_TRUE(env_.requests().attempts().empty());
  pinned->finishNext("z");  // an open attempt would keep the queue and its transport alive
  runPending();
}

TEST_F(QELRequestQueueTest, TheDefaultTransportFailsClearlyWithoutACabinHost) {
  RequestTransport::setShared(nullptr);  // the environment puts its own back afterwards
  QELConfiguration::set({});
  auto queue = QELRequestQueue::create();
  queue->addRequest(request("/a", 1));
  runPending();
  advance(2s);
  RunLoop::current().runUntil([&] { return !delegate_->outcomes.empty(); }, 5s);
  ASSERT_EQ(delegate_->outcomes.size(), 1u);
  EXPECT_EQ(delegate_->outcomes[0].rfind("fail /a ", 0), 0u) << delegate_->outcomes[0];
}

}  // namespace
}  // namespace qel::core
