#include "NetworkTestSupport.h"

#include <qel/core/QELRequestQueue.h>
#include <qel/core/net/HttpsRequestTransport.h>
#include <qel/core/net/NetworkError.h>

namespace qel::core::net::testing {
namespace {

using namespace std::chrono_literals;

class RecordingDelegate : public QELRequestDelegate {
 public:
  void requestDidFinish(const std::shared_ptr<QELRequest>&, const Data& data) override {
    bodies.emplace_back(data.begin(), data.end());
  }
  void requestDidFail(const std::shared_ptr<QELRequest>&, const Error& error) override { errors.push_back(error); }
  std::size_t calls() const { return bodies.size() + errors.size(); }

  std::vector<std::string> bodies;
  std::vector<Error> errors;
};

class ServiceRequest : public QELRESTRequest {
 public:
  std::optional<std::string> requestURL() const override { return url; }
  std::string url;

 private:
  friend class QELRESTRequest;
  explicit ServiceRequest(std::weak_ptr<QELRequestDelegate> delegate) : QELRESTRequest(std::move(delegate)) {}
};

class HttpsRequestTransportTests : public NetworkTest {
 protected:
  HttpsRequestTransportTests() {
    server_.setHandler([](const TestServer::Request& request) -> std::optional<TestServer::Response> {
      const std::string target(request.target());
      if (target == "/missing") return TestServer::Response{404, "no such thing"};
      if (target == "/moved") return TestServer::Response{302, "", {{"Location", "https://elsewhere.example/"}}};
      if (target.starts_with("/big")) return TestServer::Response{200, std::string(1024 * 1024 + 1, 'x')};
      if (target == "/held") return std::nullopt;
      return TestServer::Response{200, "body of " + target};
    });
  }

  void useTransport(HttpsRequestTransport::Options options = {}) {
    queue_ = QELRequestQueue::create(std::make_shared<HttpsRequestTransport>(std::move(options)));
    queue_->setMaxConcurrentOperationCount(1);
  }

  std::shared_ptr<ServiceRequest> service(const std::string& url) {
    auto request = QELRESTRequest::requestWithDelegate<ServiceRequest>(delegate_);
    request->url = url;
    queue_->addRequest(request);
    return request;
  }
  std::shared_ptr<QELImageDownloadRequest> image(const std::string& url) {
    auto request = QELImageDownloadRequest::initWithImageURL(url, delegate_);
    queue_->addRequest(request);
    return request;
  }
  bool waitForCalls(std::size_t count, std::chrono::milliseconds timeout = 10s) {
    return runUntil([&] { return delegate_->calls() >= count; }, timeout);
  }
  Error onlyError() {
    EXPECT_EQ(delegate_->errors.size(), 1u);
    EXPECT_TRUE(delegate_->bodies.empty());
    return delegate_->errors.empty() ? Error{} : delegate_->errors.front();
  }

  std::shared_ptr<RecordingDelegate> delegate_ = std::make_shared<RecordingDelegate>();
  std::shared_ptr<QELRequestQueue> queue_;
};

TEST_F(HttpsRequestTransportTests, FetchesServiceAndImageOverOneKeptAliveConnection) {
  useTransport();
  // As the framework composes it: no port, so the configured one applies.
  service("https://127.0.0.1/skelion/services/maps/v1/flight_map");
  image("/maps/800x600/1.png");
  ASSERT_TRUE(waitForCalls(2));

  ASSERT_TRUE(delegate_->errors.empty()) << delegate_->errors.front().localizedDescription;
  EXPECT_EQ(delegate_->bodies,
            (std::vector<std::string>{"body of /skelion/services/maps/v1/flight_map", "body of /maps/800x600/1.png"}));
  EXPECT_EQ(server_.acceptCount(), 1);
}

TEST_F(HttpsRequestTransportTests, AConnectionTheServerDroppedIsReplacedWithinTheAttempt) {
  useTransport();
  image("/maps/1.png");
  ASSERT_TRUE(waitForCalls(1));
  server_.dropIdleConnections();
  ASSERT_TRUE(runUntil([&] { return server_.closedCount() == 1; }));

  image("/maps/2.png");
  ASSERT_TRUE(waitForCalls(2));
  ASSERT_TRUE(delegate_->errors.empty()) << delegate_->errors.front().localizedDescription;
  EXPECT_EQ(delegate_->bodies.back(), "body of /maps/2.png");
  EXPECT_EQ(server_.acceptCount(), 2);
}

TEST_F(HttpsRequestTransportTests, StatusesOtherThanSuccessAndLargeBodiesFail) {
  useTransport();
  service("https://127.0.0.1/missing");
  service("https://127.0.0.1/moved");
  service("https://127.0.0.1/big");  // one byte over the service limit
  image("/big.png");                 // images may be far larger
  ASSERT_TRUE(waitForCalls(4));

  ASSERT_EQ(delegate_->errors.size(), 3u);
  EXPECT_EQ(delegate_->errors[0].domain, kHTTPStatusErrorDomain);
  EXPECT_EQ(delegate_->errors[0].code, 404);
  EXPECT_EQ(delegate_->errors[1].code, static_cast<int>(NetworkErrorCode::Redirect));
  EXPECT_NE(delegate_->errors[1].localizedDescription.find("302"), std::string::npos);
  EXPECT_EQ(delegate_->errors[2].code, static_cast<int>(NetworkErrorCode::TooLarge));
  ASSERT_EQ(delegate_->bodies.size(), 1u);
  EXPECT_EQ(delegate_->bodies[0].size(), 1024u * 1024 + 1);
  // Nothing was followed to the redirect's target.
  EXPECT_EQ(server_.requestTargets().size(), 4u);
}

TEST_F(HttpsRequestTransportTests, ServerCertifiedByAnotherAuthorityIsRefused) {
  const auto stranger = TestCertificate::authority("Stranger CA");
  TestServer impostor(loop().context(), TestCertificate::issue(stranger, {"localhost"}, {"127.0.0.1"}));
  useTransport();
  service("https://127.0.0.1:" + std::to_string(impostor.port()) + "/skelion/services/maps/v1/flight_map");
  ASSERT_TRUE(waitForCalls(1));

  const Error error = onlyError();
  EXPECT_EQ(error.code, static_cast<int>(NetworkErrorCode::Handshake));
  EXPECT_NE(error.localizedDescription.find("certificate"), std::string::npos) << error.localizedDescription;
  EXPECT_TRUE(impostor.requestTargets().empty());
}

TEST_F(HttpsRequestTransportTests, ANewAuthorityWrittenToTheSameCAFileIsTrusted) {
  useTransport();
  image("/maps/1.png");
  ASSERT_TRUE(waitForCalls(1));

  // As when a cabin server restarts with a fresh throw-away CA at the same path.
  const auto renewed = TestCertificate::authority("Renewed CA");
  TestServer restarted(loop().context(), TestCertificate::issue(renewed, {"localhost"}, {"127.0.0.1"}));
  restarted.setHandler([](const TestServer::Request&) { return TestServer::Response{200, "renewed"}; });
  caFile_.rewrite(renewed.certificatePem());
  configure("127.0.0.1", restarted.port(), caFile_.path());
  image("/maps/1.png");
  ASSERT_TRUE(waitForCalls(2));
  ASSERT_TRUE(delegate_->errors.empty()) << delegate_->errors.front().localizedDescription;
  EXPECT_EQ(delegate_->bodies.back(), "renewed");
}

TEST_F(HttpsRequestTransportTests, CertificateMustNameTheHostAskedFor) {
  TestServer misnamed(loop().context(), TestCertificate::issue(authority_, {"cabin.example"}, {"10.0.0.1"}));
  const std::string port = std::to_string(misnamed.port());
  useTransport();
  service("https://127.0.0.1:" + port + "/by-address");
  service("https://localhost:" + port + "/by-name");
  // The right certificate is accepted by name as well as by address.
  service("https://localhost:" + std::to_string(server_.port()) + "/by-name");
  ASSERT_TRUE(waitForCalls(3));

  ASSERT_EQ(delegate_->errors.size(), 2u);
  for (const auto& error : delegate_->errors) {
    EXPECT_EQ(error.code, static_cast<int>(NetworkErrorCode::Handshake)) << error.localizedDescription;
  }
  EXPECT_EQ(delegate_->bodies, std::vector<std::string>{"body of /by-name"});
  EXPECT_TRUE(misnamed.requestTargets().empty());
}

TEST_F(HttpsRequestTransportTests, ImagesFromElsewhereAreRefusedWithoutConnecting) {
  useTransport();
  const std::string port = std::to_string(server_.port());
  const std::vector<std::string> sources = {"https://attacker.example/maps/a.png",
                                            "http://127.0.0.1:" + port + "/maps/a.png"};
  for (const auto& source : sources) image(source);
  ASSERT_TRUE(waitForCalls(2));

  ASSERT_EQ(delegate_->errors.size(), 2u);
  for (std::size_t i = 0; i < sources.size(); ++i) {
    EXPECT_EQ(delegate_->errors[i].code, static_cast<int>(NetworkErrorCode::RefusedURL));
    EXPECT_EQ(logsContaining(sources[i]).size(), 1u) << sources[i];
  }
  EXPECT_EQ(server_.acceptCount(), 0);
}

TEST_F(HttpsRequestTransportTests, CancelledRequestNeverCallsBack) {
  useTransport();
  auto request = image("/held");
  ASSERT_TRUE(runUntil([&] { return server_.requestTargets().size() == 1; }));
  request->cancel();
  // The answer still arrives, on a connection the client has closed.
  server_.releaseHeld(TestServer::Response{200, "too late"});
  ASSERT_TRUE(runUntil([&] { return server_.closedCount() == 1; }));

  image("/after");
  ASSERT_TRUE(waitForCalls(1));
  EXPECT_EQ(delegate_->bodies, std::vector<std::string>{"body of /after"});
  EXPECT_TRUE(delegate_->errors.empty());
  EXPECT_EQ(server_.acceptCount(), 2);  // the cancelled connection was not reused
}

TEST_F(HttpsRequestTransportTests, UnansweredRequestTimesOut) {
  HttpsRequestTransport::Options options;
  options.requestTimeout = 200ms;
  useTransport(options);
  image("/held");
  ASSERT_TRUE(waitForCalls(1));
  EXPECT_EQ(onlyError().code, static_cast<int>(NetworkErrorCode::Timeout));
}

}  // namespace
}  // namespace qel::core::net::testing
