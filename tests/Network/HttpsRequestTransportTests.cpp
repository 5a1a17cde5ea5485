#include "NetworkTestSupport.h"

#include <qel/core/QELRequestQueue.h>
#include <qel/core/net/HttpsRequestTransport.h>
#include <qel/core/net/NetworkError.h>

#include <gmock/gmock.h>
#include <sys/resource.h>

namespace qel::core::net::testing {
namespace {

using namespace std::chrono_literals;

// Each outcome as one string, so that a test compares a whole table at once:
// the body (or its size, when large), "status <code>" or "error <code>".
class RecordingDelegate : public QELRequestDelegate {
 public:
  void requestDidFinish(const std::shared_ptr<QELRequest>&, const Data& data) override {
    const bool large = data.size() > 100;
    outcomes.push_back(large ? std::to_string(data.size()) + " bytes" : std::string(data.begin(), data.end()));
  }
  void requestDidFail(const std::shared_ptr<QELRequest>&, const Error& error) override {
    outcomes.push_back((error.domain == kHTTPStatusErrorDomain ? "status " : "error ") + std::to_string(error.code));
    descriptions += error.localizedDescription + "\n";
  }
  std::vector<std::string> outcomes;
  std::string descriptions;
};

std::string failed(NetworkErrorCode code) { return "error " + std::to_string(static_cast<int>(code)); }

class ServiceRequest : public QELRESTRequest {
 public:
  std::optional<std::string> requestURL() const override { return url; }
  std::string url;

 private:
  friend class QELRESTRequest;
  explicit ServiceRequest(std::weak_ptr<QELRequestDelegate> delegate) : QELRESTRequest(std::move(delegate)) {}
};

// Completions are collected for a whole pass of the multi handle before any
// runs; one that frees a handle (here: removes it and reuses it for another
// transfer, as the allocator may hand out a freed handle's address) must not
// pass the old transfer's result to the new one.
TEST(CurlMultiTest, ACompletionReachesOnlyTheTransferItBelongsTo) {
  auto& loop = RunLoop::current();
  auto& multi = CurlMulti::of(loop.context());
  CURL* first = curl_easy_init();
  CURL* second = curl_easy_init();
  // Both fail in the same pass, without I/O.
  curl_easy_setopt(first, CURLOPT_URL, "unknown://a");
  curl_easy_setopt(second, CURLOPT_URL, "unknown://b");
  std::vector<CURLcode> reused;
  ASSERT_TRUE(multi.add(first, [&](CURLcode) {
    multi.remove(second);
    curl_easy_reset(second);
    curl_easy_setopt(second, CURLOPT_URL, "http://[");
    multi.add(second, [&](CURLcode result) { reused.push_back(result); });
  }));
  ASSERT_TRUE(multi.add(second, [](CURLcode) {}));
  loop.runUntil([&] { return !reused.empty(); }, std::chrono::seconds(10));
  loop.runPending();
  EXPECT_EQ(reused, std::vector<CURLcode>{CURLE_URL_MALFORMAT});
  curl_easy_cleanup(first);
  curl_easy_cleanup(second);
}

class HttpsRequestTransportTests : public NetworkTest {
 protected:
  HttpsRequestTransportTests() { useTransport(); }

  std::shared_ptr<HttpsRequestTransport> useTransport(HttpsRequestTransport::Options options = {}) {
    auto transport = std::make_shared<HttpsRequestTransport>(std::move(options));
    queue_ = QELRequestQueue::create(transport);
    queue_->setMaxConcurrentOperationCount(1);
    return transport;
  }
  void service(const std::string& url) {
    auto request = QELRESTRequest::requestWithDelegate<ServiceRequest>(delegate_);
    request->url = url;
    queue_->addRequest(request);
  }
  void image(const std::string& url) { queue_->addRequest(QELImageDownloadRequest::initWithImageURL(url, delegate_)); }
  bool waitForOutcomes(std::size_t count) {
    return runUntil([&] { return delegate_->outcomes.size() >= count; });
  }
  std::string url(const std::string& host, std::uint16_t port, const std::string& path) {
    return "https://" + host + ":" + std::to_string(port) + path;
  }

  std::shared_ptr<RecordingDelegate> delegate_ = std::make_shared<RecordingDelegate>();
  std::shared_ptr<QELRequestQueue> queue_;
};

TEST_F(HttpsRequestTransportTests, AnswersOtherThanSuccessWithinTheSizeLimitFail) {
  service("https://127.0.0.1/status/404");
  service("https://127.0.0.1/redirect");
  service("https://127.0.0.1/big");
  image("/big.png");  // images may be far larger than service answers
  ASSERT_TRUE(waitForOutcomes(4));
  EXPECT_EQ(delegate_->outcomes,
            (std::vector<std::string>{"status 404", failed(NetworkErrorCode::Redirect),
                                      failed(NetworkErrorCode::TooLarge), std::to_string(1024 * 1024 + 1) + " bytes"}))
      << delegate_->descriptions;
  // The refused redirect's Location is the server's text: it reaches the
  // application's status line, so it arrives escaped, with no control byte.
  EXPECT_TRUE(std::none_of(delegate_->descriptions.begin(), delegate_->descriptions.end(),
                           [](char c) { return c != '\n' && (static_cast<unsigned char>(c) < 0x20 || c == 0x7f); }))
      << delegate_->descriptions;

  // The server's Retry-After reaches the queue, in either form (a day at most).
  auto transport = useTransport();
  const std::pair<const char*, std::optional<std::chrono::seconds>> cases[] = {
      {"7", 7s}, {"date", 24h}, {"soon", std::nullopt}};
  for (const auto& [value, expected] : cases) {
    std::optional<TransportResult> result;
    auto request = QELRESTRequest::requestWithDelegate<ServiceRequest>(delegate_);
    request->url = std::string("https://127.0.0.1/status/503?retry-after=") + value;
    auto operation = transport->start(*request, [&](TransportResult r) { result = std::move(r); });
    ASSERT_TRUE(runUntil([&] { return result.has_value(); }));
    EXPECT_EQ(result->retryAfter, expected) << value;
  }
}

// 64 MiB of zeros gzipped, as a transfer coding (which curl would inflate
// unasked, up to the picture's cap) and as a content coding: refused at the
// header, so the process's peak memory grows by far less than the picture's
// cap (it grew by 37 MiB when the transfer coding was inflated).
TEST_F(HttpsRequestTransportTests, CodingsNeverAskedForAreRefusedBeforeAnythingIsInflated) {
  image("/maps/1.png");  // a connection and TLS set up before measuring
  ASSERT_TRUE(waitForOutcomes(1));
  delegate_->outcomes.clear();
  rusage before{};
  getrusage(RUSAGE_SELF, &before);
  image("/gzip-bomb.png");
  image("/gzip-bomb");
  ASSERT_TRUE(waitForOutcomes(2));
  rusage after{};
  getrusage(RUSAGE_SELF, &after);
  EXPECT_EQ(delegate_->outcomes, (std::vector<std::string>{failed(NetworkErrorCode::Io), failed(NetworkErrorCode::Io)}))
      << delegate_->descriptions;
  EXPECT_THAT(delegate_->descriptions, ::testing::HasSubstr("not asked for (Transfer-Encoding: gzip)"));
  EXPECT_LT(after.ru_maxrss - before.ru_maxrss, static_cast<long>(QELImageDownloadRequest::kMaximumResponseSize / 1024))
      << "KiB more at the peak";
}

TEST_F(HttpsRequestTransportTests, OnlyTheCabinHostCertifiedByTheTrustedAuthorityIsReached) {
  const cabinsim::CertificateAuthority stranger("Stranger CA");
  TestServer impostor(loop().context(), stranger.issue({"localhost", "127.0.0.1"}));
  TestServer misnamed(loop().context(), authority_.issue({"cabin.example", "10.0.0.1"}));
  service(url("127.0.0.1", impostor.port(), "/"));
  service(url("127.0.0.1", misnamed.port(), "/"));
  service(url("localhost", misnamed.port(), "/"));
  service(url("localhost", server_.port(), "/by-name"));
  image("https://attacker.example/maps/a.png");
  image("http://127.0.0.1:" + std::to_string(server_.port()) + "/maps/a.png");
  ASSERT_TRUE(waitForOutcomes(6));

  const auto untrusted = failed(NetworkErrorCode::Certificate);
  const auto refused = failed(NetworkErrorCode::RefusedURL);
  EXPECT_EQ(delegate_->outcomes,
            (std::vector<std::string>{untrusted, untrusted, untrusted, "body of /by-name", refused, refused}))
      << delegate_->descriptions;
  EXPECT_TRUE(impostor.requestTargets().empty());
  EXPECT_TRUE(misnamed.requestTargets().empty());
  EXPECT_EQ(server_.acceptCount(), 1);  // for the request by name: refused images never connect

  // A cabin server restarted with a new throw-away CA writes it to the same
  // file: that CA is trusted now, and nothing verified under the old one (the
  // idle connection by name, its TLS session) is used again.
  std::ofstream(caFile_) << stranger.certificatePem();
  service(url("127.0.0.1", impostor.port(), "/renewed"));
  service(url("localhost", server_.port(), "/old"));
  ASSERT_TRUE(waitForOutcomes(8));
  EXPECT_EQ(std::vector(delegate_->outcomes.begin() + 6, delegate_->outcomes.end()),
            (std::vector<std::string>{"body of /renewed", untrusted}))
      << delegate_->descriptions;
}

TEST_F(HttpsRequestTransportTests, ACancelledAttemptNeverCompletesAndASilentPeerFailsWithinTheInactivityWindow) {
  HttpsRequestTransport::Options options;
  options.inactivityTimeout = 1s;
  const auto transport = useTransport(options);
  // Straight to the transport: the queue would hide a late completion.
  const auto completed = std::make_shared<bool>(false);
  const auto cancelled = QELImageDownloadRequest::initWithImageURL("/held", delegate_);
  const auto attempt = transport->start(*cancelled, [completed](TransportResult) { *completed = true; });
  ASSERT_TRUE(runUntil([&] { return server_.requestTargets().size() == 1; }));
  attempt->cancel();
  server_.releaseHeld();

  // A picture that keeps coming for three times the window arrives; one that
  // stops does not hold the queue for longer than the window (and a second).
  const auto started = std::chrono::steady_clock::now();
  image("/trickle");
  image("/silent");
  ASSERT_TRUE(waitForOutcomes(2));
  EXPECT_EQ(delegate_->outcomes, (std::vector<std::string>{"1201 bytes", failed(NetworkErrorCode::Timeout)}))
      << delegate_->descriptions;
  EXPECT_LT(std::chrono::steady_clock::now() - started, 3s + 2500ms);
  EXPECT_FALSE(*completed);
}

TEST_F(HttpsRequestTransportTests, InterimAndCloseDelimitedAnswersReachOnlyTheRequestThatAskedForThem) {
  // As the framework composes it: no port, so the configured one applies.
  service("https://127.0.0.1/early/map");
  image("/early/1.png");
  image("/close/2.png");
  service("https://127.0.0.1/early/map2");
  ASSERT_TRUE(waitForOutcomes(4));
  // Interim answers keep the connection; the closed one is not used again.
  EXPECT_EQ(server_.acceptCount(), 2);
  // Nor is one the server dropped while it was idle.
  server_.dropIdleConnections();
  image("/maps/3.png");
  ASSERT_TRUE(waitForOutcomes(5));
  EXPECT_EQ(delegate_->outcomes, (std::vector<std::string>{"body of /early/map", "body of /early/1.png",
                                                           "body of /close/2.png", "body of /early/map2",
                                                           "body of /maps/3.png"}))
      << delegate_->descriptions;
  EXPECT_EQ(server_.acceptCount(), 3);
}

TEST_F(HttpsRequestTransportTests, ADeadFirstAddressCostsOnlyItsShortWindow) {
  // From the fixed table, then from a name server (another name: no connection is reused).
  DeadFirstAddresses addresses(server_.port());
  auto& configuration = addresses.configuration;
  for (const char* host : {"cabin.test", "named.test"}) {
    SCOPED_TRACE(host);
    configuration.host = host;
    QELConfiguration::set(configuration);
    const auto started = std::chrono::steady_clock::now();
    image("/maps/1.png");
    ASSERT_TRUE(waitForOutcomes(delegate_->outcomes.size() + 1));
    EXPECT_EQ(delegate_->outcomes.back(), "body of /maps/1.png") << delegate_->descriptions;
    EXPECT_LT(std::chrono::steady_clock::now() - started, 1500ms);
  }
}

TEST_F(HttpsRequestTransportTests, ManySilentAddressesShareOneBudget) {
  // Twelve windows would reach the server after 3 s; the budget ends it first.
  SilentAddresses addresses(server_.port(), 12);
  QELConfiguration::set(addresses.configuration);
  HttpsRequestTransport::Options options;
  options.addressBudget = 1s;
  useTransport(options);
  const auto started = std::chrono::steady_clock::now();
  image("/maps/1.png");
  ASSERT_TRUE(waitForOutcomes(1));
  EXPECT_EQ(delegate_->outcomes.back(), failed(NetworkErrorCode::Connect)) << delegate_->descriptions;
  EXPECT_LT(std::chrono::steady_clock::now() - started, 2s);
  EXPECT_TRUE(server_.requestTargets().empty());
}

TEST_F(HttpsRequestTransportTests, ConnectionsAreBoundedExpireWhenIdleAndResumeTls) {
  HttpsRequestTransport::Options options;
  options.maximumConnections = 2;
  options.maximumIdleTime = 1s;
  useTransport(options);
  queue_->setMaxConcurrentOperationCount(4);
  for (int i = 0; i < 4; ++i) image("/held");
  ASSERT_TRUE(runUntil([&] { return server_.requestTargets().size() == 4; }));
  server_.releaseHeld();
  ASSERT_TRUE(waitForOutcomes(4));
  EXPECT_TRUE(runUntil([&] { return server_.openCount() <= 2; }));
  // Unused, they close on their own; later ones resume the TLS session.
  EXPECT_TRUE(runUntil([&] { return server_.openCount() == 0; }));
  const int resumed = server_.resumedCount();
  image("/maps/1.png");
  ASSERT_TRUE(waitForOutcomes(5));
  EXPECT_EQ(server_.resumedCount(), resumed + 1);
}

}  // namespace
}  // namespace qel::core::net::testing
