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

class TestRequest : public QELRESTRequest {
 public:
  std::optional<std::string> requestURL() const override { return url_; }
  int numberOfRetries() const override { return retries_; }

  static std::shared_ptr<TestRequest> make(const std::shared_ptr<QELRequestDelegate>& delegate,
                                           std::optional<std::string> url, int retries = 0) {
    auto request = requestWithDelegate<TestRequest>(delegate);
    request->url_ = std::move(url);
    request->retries_ = retries;
    return request;
  }

 private:
  friend class QELRESTRequest;
  explicit TestRequest(const std::shared_ptr<QELRequestDelegate>& delegate) : QELRESTRequest(delegate) {}

  std::optional<std::string> url_;
  int retries_ = 0;
};

// Records outcomes as "finish <url> <body>" / "fail <url> <error>" and runs an
// optional hook after recording.
class RecordingDelegate : public QELRequestDelegate {
 public:
  void requestDidFinish(const std::shared_ptr<QELRequest>& request, const Data& data) override {
    record("finish " + request->requestURL().value_or("") + " " + std::string(data.begin(), data.end()),
           request);
  }
  void requestDidFail(const std::shared_ptr<QELRequest>& request, const Error& error) override {
    record("fail " + request->requestURL().value_or("") + " " + error.localizedDescription, request);
  }

  std::vector<std::string> outcomes;
  std::function<void(const std::shared_ptr<QELRequest>&)> hook;

 private:
  void record(std::string outcome, const std::shared_ptr<QELRequest>& request) {
    outcomes.push_back(std::move(outcome));
    if (hook) hook(request);
  }
};

class QELRequestQueueTest : public ::testing::Test {
 protected:
  std::vector<std::string> attemptedURLs() {
    std::vector<std::string> urls;
    for (const auto& attempt : env_.requests().attempts()) urls.push_back(attempt.url);
    return urls;
  }
  std::shared_ptr<TestRequest> request(const std::string& url, int retries = 0) {
    return TestRequest::make(delegate_, url, retries);
  }
  void runPending() { RunLoop::current().runPending(); }
  void advance(RunLoop::Duration duration) { RunLoop::current().advance(duration); }

  ScriptedEnvironment env_;
  std::shared_ptr<RecordingDelegate> delegate_ = std::make_shared<RecordingDelegate>();
  std::shared_ptr<QELRequestQueue> queue_ = QELRequestQueue::create();
  using Urls = std::vector<std::string>;
};

TEST_F(QELRequestQueueTest, RunsFirstInFirstOutNeverAboveTheLimit) {
  queue_->setMaxConcurrentOperationCount(2);
  for (const char* url : {"/a", "/b", "/c", "/d", "/e"}) queue_->addRequest(request(url));
  // Nothing starts, and nothing is told, from within addRequest().
  EXPECT_TRUE(env_.requests().attempts().empty());
  EXPECT_EQ(queue_->operationCount(), 5u);

  runPending();
  EXPECT_EQ(attemptedURLs(), (Urls{"/a", "/b"}));

  env_.requests().finish(1, "B");  // the second one ends first
  runPending();
  EXPECT_EQ(attemptedURLs(), (Urls{"/a", "/b", "/c"}));
  EXPECT_EQ(env_.requests().openAttempts(), (std::vector<std::size_t>{0, 2}));

  env_.requests().fail(0, "down");
  runPending();
  EXPECT_EQ(attemptedURLs(), (Urls{"/a", "/b", "/c", "/d"}));

  env_.requests().finishNext("C");
  env_.requests().finishNext("D");
  runPending();
  EXPECT_EQ(attemptedURLs(), (Urls{"/a", "/b", "/c", "/d", "/e"}));
  env_.requests().finishNext("E");
  runPending();

  EXPECT_EQ(delegate_->outcomes,
            (Urls{"finish /b B", "fail /a down", "finish /c C", "finish /d D", "finish /e E"}));
  EXPECT_EQ(queue_->operationCount(), 0u);
}

TEST_F(QELRequestQueueTest, DefaultHasNoLimitAndRaisingTheLimitStartsWaitingRequests) {
  EXPECT_LT(queue_->maxConcurrentOperationCount(), 1);
  for (const char* url : {"/a", "/b", "/c"}) queue_->addRequest(request(url));
  runPending();
  EXPECT_EQ(env_.requests().openAttempts().size(), 3u);

  auto limited = QELRequestQueue::create();
  limited->setMaxConcurrentOperationCount(1);
  for (const char* url : {"/x", "/y", "/z"}) limited->addRequest(request(url));
  runPending();
  EXPECT_EQ(env_.requests().openAttempts().size(), 4u);
  limited->setMaxConcurrentOperationCount(3);
  runPending();
  EXPECT_EQ(env_.requests().openAttempts().size(), 6u);
}

TEST_F(QELRequestQueueTest, CompletionsArriveFromTheLoopOnly) {
  queue_->addRequest(request("/a"));
  runPending();
  env_.requests().finish(0, "body");
  EXPECT_TRUE(delegate_->outcomes.empty());
  runPending();
  EXPECT_EQ(delegate_->outcomes, (Urls{"finish /a body"}));
}

TEST_F(QELRequestQueueTest, RetriesWithGrowingDelaysKeepingTheSlotThenFails) {
  EXPECT_EQ(QELRequestQueue::retryDelay(1), 500ms);
  EXPECT_EQ(QELRequestQueue::retryDelay(2), 1s);
  EXPECT_EQ(QELRequestQueue::retryDelay(3), 2s);

  queue_->setMaxConcurrentOperationCount(1);
  queue_->addRequest(request("/a", 3));
  queue_->addRequest(request("/b"));
  runPending();

  const RunLoop::Duration delays[] = {500ms, 1s, 2s};
  for (std::size_t retry = 0; retry < 3; ++retry) {
    env_.requests().failNext("timeout");
    runPending();
    EXPECT_EQ(env_.requests().attempts().size(), retry + 1);
    advance(delays[retry] - 1ms);
    EXPECT_EQ(env_.requests().attempts().size(), retry + 1) << "retry " << retry << " came early";
    advance(1ms);
    ASSERT_EQ(env_.requests().attempts().size(), retry + 2) << "retry " << retry << " missing";
    EXPECT_EQ(env_.requests().attempts().back().url, "/a") << "the slot was given away";
    EXPECT_TRUE(delegate_->outcomes.empty());
  }

  env_.requests().failNext("timeout");
  runPending();
  EXPECT_EQ(delegate_->outcomes, (Urls{"fail /a timeout"}));
  EXPECT_EQ(attemptedURLs(), (Urls{"/a", "/a", "/a", "/a", "/b"}));
  advance(60s);
  EXPECT_EQ(env_.requests().attempts().size(), 5u);
}

TEST_F(QELRequestQueueTest, RetryThatSucceedsFinishes) {
  queue_->addRequest(request("/a", 3));
  runPending();
  env_.requests().failNext();
  runPending();
  advance(500ms);
  env_.requests().finishNext("ok");
  runPending();
  EXPECT_EQ(delegate_->outcomes, (Urls{"finish /a ok"}));
  advance(60s);
  EXPECT_EQ(env_.requests().attempts().size(), 2u);
}

TEST_F(QELRequestQueueTest, CancelInEachStateSilencesTheRequestAndFreesItsSlot) {
  queue_->setMaxConcurrentOperationCount(1);
  auto running = request("/running");
  auto waiting = request("/waiting");
  auto backingOff = request("/backing-off", 2);
  auto delivered = request("/delivered");
  auto last = request("/last");
  for (const auto& r : {running, waiting, backingOff, delivered, last}) queue_->addRequest(r);
  runPending();

  // Waiting: never sent.
  waiting->cancel();
  EXPECT_TRUE(waiting->isCancelled());

  // Running: the attempt is cancelled; the next starts from a later callout.
  running->cancel();
  EXPECT_TRUE(env_.requests().attempts()[0].cancelled);
  EXPECT_EQ(env_.requests().attempts().size(), 1u);
  runPending();
  EXPECT_EQ(attemptedURLs(), (Urls{"/running", "/backing-off"}));

  // Between attempts: the retry never happens.
  env_.requests().failNext();
  runPending();
  backingOff->cancel();
  runPending();
  EXPECT_EQ(attemptedURLs(), (Urls{"/running", "/backing-off", "/delivered"}));
  advance(10s);
  EXPECT_EQ(env_.requests().attempts().size(), 3u);

  // Finished by the network, cancelled before the loop delivered it.
  env_.requests().finishNext("late");
  delivered->cancel();
  runPending();
  EXPECT_EQ(attemptedURLs(), (Urls{"/running", "/backing-off", "/delivered", "/last"}));

  env_.requests().finishNext("done");
  runPending();
  EXPECT_EQ(delegate_->outcomes, (Urls{"finish /last done"}));
  EXPECT_EQ(queue_->operationCount(), 0u);
}

TEST_F(QELRequestQueueTest, RequestCancelledBeforeItIsAddedIsIgnored) {
  auto r = request("/a");
  r->cancel();
  queue_->addRequest(r);
  runPending();
  EXPECT_TRUE(env_.requests().attempts().empty());
  EXPECT_EQ(queue_->operationCount(), 0u);
}

TEST_F(QELRequestQueueTest, CancelCallsTheHandlerOnce) {
  auto r = request("/a");
  int calls = 0;
  r->setCancelHandler([&] { ++calls; });
  r->cancel();
  r->cancel();
  EXPECT_EQ(calls, 1);
}

TEST_F(QELRequestQueueTest, RequestWhoseDelegateIsGoneEndsSilentlyAndLetsTheNextRun) {
  queue_->setMaxConcurrentOperationCount(1);
  auto other = std::make_shared<RecordingDelegate>();
  auto orphan = TestRequest::make(other, "/orphan");
  queue_->addRequest(orphan);
  queue_->addRequest(request("/next"));
  runPending();
  other.reset();
  EXPECT_EQ(orphan->delegate(), nullptr);

  env_.requests().finishNext("unheard");
  runPending();
  EXPECT_EQ(attemptedURLs(), (Urls{"/orphan", "/next"}));
  env_.requests().finishNext("heard");
  runPending();
  EXPECT_EQ(delegate_->outcomes, (Urls{"finish /next heard"}));
}

TEST_F(QELRequestQueueTest, DelegateMayAddRequestsFromItsCallbackWhichQueueBehindWaitingOnes) {
  queue_->setMaxConcurrentOperationCount(1);
  queue_->addRequest(request("/a"));
  queue_->addRequest(request("/b"));
  delegate_->hook = [&](const std::shared_ptr<QELRequest>& finished) {
    if (finished->requestURL() == "/a") queue_->addRequest(request("/c"));
  };
  runPending();
  env_.requests().finishNext("A");
  runPending();
  EXPECT_EQ(attemptedURLs(), (Urls{"/a", "/b"}));
  env_.requests().finishNext("B");
  runPending();
  env_.requests().finishNext("C");
  runPending();
  EXPECT_EQ(attemptedURLs(), (Urls{"/a", "/b", "/c"}));
  EXPECT_EQ(delegate_->outcomes, (Urls{"finish /a A", "finish /b B", "finish /c C"}));
}

TEST_F(QELRequestQueueTest, DelegateMayCancelAWaitingRequestFromItsCallback) {
  queue_->setMaxConcurrentOperationCount(1);
  auto b = request("/b");
  queue_->addRequest(request("/a"));
  queue_->addRequest(b);
  queue_->addRequest(request("/c"));
  delegate_->hook = [&](const std::shared_ptr<QELRequest>&) { b->cancel(); };
  runPending();
  env_.requests().finishNext("A");
  runPending();
  // /b had already been started when the delegate heard of /a; its cancel
  // lets /c take over.
  EXPECT_EQ(attemptedURLs(), (Urls{"/a", "/b", "/c"}));
  EXPECT_TRUE(env_.requests().attempts()[1].cancelled);
  delegate_->hook = nullptr;
  env_.requests().finishNext("C");
  runPending();
  EXPECT_EQ(delegate_->outcomes, (Urls{"finish /a A", "finish /c C"}));
}

TEST_F(QELRequestQueueTest, RequestsOutliveTheQueueEvenWhenADelegateDropsIt) {
  queue_->setMaxConcurrentOperationCount(1);
  for (const char* url : {"/a", "/b", "/c"}) queue_->addRequest(request(url));
  delegate_->hook = [&](const std::shared_ptr<QELRequest>&) { queue_.reset(); };
  runPending();
  env_.requests().finishNext("A");
  runPending();
  ASSERT_EQ(queue_, nullptr);
  env_.requests().finishNext("B");
  runPending();
  env_.requests().failNext("gone");
  runPending();
  EXPECT_EQ(delegate_->outcomes, (Urls{"finish /a A", "finish /b B", "fail /c gone"}));
}

TEST_F(QELRequestQueueTest, RequestWithoutURLFailsWithoutBeingSentOrRetried) {
  queue_->setMaxConcurrentOperationCount(1);
  queue_->addRequest(TestRequest::make(delegate_, std::nullopt, 3));
  queue_->addRequest(QELImageDownloadRequest::initWithImageURL("", delegate_));
  queue_->addRequest(request("/next"));
  runPending();
  advance(10s);
  EXPECT_EQ(attemptedURLs(), (Urls{"/next"}));
  ASSERT_EQ(delegate_->outcomes.size(), 2u);
  EXPECT_EQ(delegate_->outcomes[0].rfind("fail ", 0), 0u);
  EXPECT_EQ(delegate_->outcomes[1].rfind("fail ", 0), 0u);
}

TEST_F(QELRequestQueueTest, ImageDownloadRequestCarriesItsURLAndKind) {
  auto image = QELImageDownloadRequest::initWithImageURL("/maps/a.png", delegate_);
  EXPECT_EQ(image->kind(), QELRequest::Kind::ImageDownload);
  EXPECT_EQ(image->requestURL(), "/maps/a.png");
  EXPECT_EQ(image->delegate(), delegate_);
  queue_->addRequest(image);
  runPending();
  ASSERT_EQ(env_.requests().attempts().size(), 1u);
  EXPECT_EQ(env_.requests().attempts()[0].kind, QELRequest::Kind::ImageDownload);
  EXPECT_EQ(env_.requests().attempts()[0].request.lock(), image);
}

TEST_F(QELRequestQueueTest, QueueWithoutItsOwnTransportFollowsTheSharedOne) {
  auto pinned = std::make_shared<testing::ScriptedRequestTransport>();
  auto pinnedQueue = QELRequestQueue::create(pinned);
  {
    ScriptedEnvironment later;  // installs another shared transport after the queues exist
    queue_->addRequest(request("/follows"));
    pinnedQueue->addRequest(request("/pinned"));
    runPending();
    ASSERT_EQ(later.requests().attempts().size(), 1u);
    EXPECT_EQ(later.requests().attempts()[0].url, "/follows");
    later.requests().finishNext("x");
    runPending();
  }
  ASSERT_EQ(pinned->attempts().size(), 1u);
  EXPECT_EQ(pinned->attempts()[0].url, "/pinned");
  EXPECT_TRUE(env_.requests().attempts().empty());
  pinned->finishNext("y");  // an open attempt would keep the queue and its transport alive
  runPending();
}

TEST_F(QELRequestQueueTest, TheDefaultTransportFailsClearlyWithoutACabinHost) {
  RequestTransport::setShared(nullptr);  // the environment puts its own back afterwards
  QELConfiguration::set({});
  auto queue = QELRequestQueue::create();
  queue->addRequest(request("/a", 1));
  EXPECT_TRUE(delegate_->outcomes.empty());
  runPending();
  advance(1s);
  RunLoop::current().runUntil([&] { return !delegate_->outcomes.empty(); }, 5s);
  ASSERT_EQ(delegate_->outcomes.size(), 1u);
  EXPECT_EQ(delegate_->outcomes[0].rfind("fail /a ", 0), 0u) << delegate_->outcomes[0];
}

}  // namespace
}  // namespace qel::core
