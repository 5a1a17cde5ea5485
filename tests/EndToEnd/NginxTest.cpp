// The framework against a real web server: nginx serves the map data and the
// pictures as files that the test rewrites between updates, over HTTP/2 (the
// other tests cover HTTP/1.1), and passes the event channel on to a small
// WebSocket server. The test runs its own nginx (its own prefix and
// configuration, loopback, free ports) and stops it again.

#include "../Network/NetworkTestSupport.h"

#include <QELMaps/QELMaps.h>

#include <cabinsim/Events.h>
#include <cabinsim/MapRenderer.h>

#include <qel/RunLoop.h>
#include <qel/core/QELHostname.h>
#include <qel/core/QELRequest.h>
#include <qel/core/ResponseCache.h>
#include <qel/core/net/HttpsRequestTransport.h>

#include <gtest/gtest.h>
#include <boost/asio/ip/tcp.hpp>

#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <map>
#include <set>
#include <sstream>

extern char** environ;

namespace qel {
namespace {

using namespace std::chrono_literals;
using core::net::testing::TestServer;
namespace fs = std::filesystem;

std::uint16_t freePort() {
  boost::asio::io_context context;
  boost::asio::ip::tcp::acceptor probe(context, {boost::asio::ip::make_address("127.0.0.1"), 0});
  return probe.local_endpoint().port();
}

std::string readAll(const fs::path& path) {
  std::ifstream file(path);
  std::stringstream text;
  text << file.rdbuf();
  return text.str();
}

class NginxTest : public ::testing::Test {
 protected:
  void SetUp() override {
    for (const char* folder : {"www/maps", "www/slow", "www/skelion/services/maps/v1", "tmp"})
      fs::create_directories(prefix_ / folder);
    const auto identity = authority_.issue({"127.0.0.1"});
    std::ofstream(prefix_ / "server.pem") << identity.certificateChainPem;
    std::ofstream(prefix_ / "server.key") << identity.privateKeyPem;
    std::ofstream(prefix_ / "ca.pem") << identity.trustAnchorPem;

    std::ofstream(prefix_ / "nginx.conf")
        << "error_log " << (prefix_ / "error.log").string() << " warn;\npid nginx.pid;\n"
        << "events { worker_connections 64; }\nhttp {\n"
        << "default_type application/json; types { image/png png; }\n"
        << "log_format test '$server_port $server_protocol $request_uri $status $connection $body_bytes_sent';\n"
        << "access_log " << (prefix_ / "access.log").string() << " test;\n"
        << "client_body_temp_path tmp; proxy_temp_path tmp; fastcgi_temp_path tmp; uwsgi_temp_path tmp; "
           "scgi_temp_path tmp;\n"
        << "ssl_certificate server.pem; ssl_certificate_key server.key; root " << (prefix_ / "www").string() << ";\n"
        << "proxy_http_version 1.1; proxy_set_header Upgrade $http_upgrade; proxy_set_header Connection upgrade; "
           "proxy_read_timeout 1h;\n"
        << "server { listen 127.0.0.1:" << port_ << " ssl http2; location /slow/ { limit_rate 32k; } "
        << "location /skelion/events { proxy_pass https://127.0.0.1:" << events_.port() << "; } }\n}\n";
    const std::string prefix = prefix_.string() + "/";
    const char* argv[] = {
        QEL_NGINX, "-p", prefix.c_str(), "-c", "nginx.conf", "-e", "error.log", "-g", "daemon off; master_process off;",
        nullptr};
    ASSERT_EQ(posix_spawn(&nginx_, QEL_NGINX, nullptr, nullptr, const_cast<char**>(argv), environ), 0);
    // nginx writes its pid file once it listens.
    const bool ready = loop().runUntil(
        [&] {
          if (waitpid(nginx_, nullptr, WNOHANG) == nginx_) return (nginx_ = 0), true;
          loop().runFor(10ms);
          return fs::exists(prefix_ / "nginx.pid");
        },
        10s);
    ASSERT_TRUE(ready && nginx_ != 0) << "nginx did not start: " << readAll(prefix_ / "error.log");
    core::QELConfiguration configuration;
    configuration.host = "127.0.0.1";
    configuration.port = port_;
    configuration.caFile = (prefix_ / "ca.pem").string();
    core::QELConfiguration::set(configuration);
  }

  void TearDown() override {
    if (nginx_ > 0) {
      kill(nginx_, SIGTERM);
      waitpid(nginx_, nullptr, 0);
    }
    core::QELConfiguration::set({});
    fs::remove_all(prefix_);
  }

  static RunLoop& loop() { return RunLoop::current(); }

  // Publishes picture `sequence` at 800x600: the file first, then the map
  // data that names it. Returns the "images" text for an update event.
  std::string publish(int sequence) {
    cabinsim::MapScene scene;
    scene.sequence = static_cast<std::uint64_t>(sequence);
    const std::string path = "/maps/" + std::to_string(sequence) + ".png";
    std::ofstream(prefix_ / ("www" + path), std::ios::binary) << renderer_.renderPng(scene, 800, 600);
    const std::string images = R"([{"width":800,"height":600,"src":")" + path + R"("}])";
    std::ofstream(prefix_ / "www/skelion/services/maps/v1/flight_map") << R"({"images":)" << images << "}";
    return images;
  }

  fs::path prefix_ = fs::temp_directory_path() / ("qelmaps-nginx-" + std::to_string(::getpid()));
  cabinsim::CertificateAuthority authority_{"QEL Test CA"};
  TestServer events_{loop().context(), authority_.issue({"127.0.0.1"})};
  std::uint16_t port_ = freePort();
  cabinsim::MapRenderer renderer_;
  pid_t nginx_ = 0;
};

TEST_F(NginxTest, MapDataAndPicturesComeFromFilesOverHttp2) {
  publish(1);
  auto maps = QELBroadcastMapsV1::create();
  maps->setCurrentResolutionWithCGSize({800, 600});
  maps->start();
  ASSERT_TRUE(loop().runUntil([&] { return maps->mapImage() != nullptr; }, 15s)) << readAll(prefix_ / "error.log");
  const auto first = maps->mapImage();
  ASSERT_TRUE(loop().runUntil([&] { return !events_.requestTargets().empty(); }, 10s));
  EXPECT_EQ(events_.requestTargets().front(), "/skelion/events");

  // The next update: new files, then the event that announces them.
  events_.send(cabinsim::makeUpdateEvent(publish(2)));
  ASSERT_TRUE(loop().runUntil([&] { return maps->mapImage() != first; }, 15s)) << readAll(prefix_ / "error.log");
  EXPECT_FALSE(*maps->mapImage() == *first);
  maps->stop();
  const auto log = readAll(prefix_ / "access.log");
  for (const char* uri : {"/skelion/services/maps/v1/flight_map 200", "/maps/1.png 200"})
    EXPECT_NE(log.find(std::to_string(port_) + " HTTP/2.0 " + uri), std::string::npos) << log;
}

// Answers held in memory, as the host's disk cache holds them.
class HeldAnswers : public core::ResponseCache {
 public:
  std::map<std::string, std::pair<core::Validators, Data>> held;
  std::optional<core::Validators> validatorsFor(const std::string& url) override {
    const auto found = held.find(url);
    return found == held.end() ? std::nullopt : std::optional(found->second.first);
  }
  std::optional<Data> bodyFor(const std::string& url) override {
    const auto found = held.find(url);
    return found == held.end() ? std::nullopt : std::optional(found->second.second);
  }
};

// nginx answers conditional requests by itself: a picture held with its
// validators is confirmed with a 304 and no body, and the held bytes are the
// answer; a changed file is sent whole again.
TEST_F(NginxTest, AHeldPictureIsRevalidatedWithoutItsBytesCrossing) {
  publish(1);
  core::net::HttpsRequestTransport transport;
  std::vector<core::TransportResult> answers;
  const auto fetch = [&] {
    transport.start(*core::QELImageDownloadRequest::initWithImageURL("/maps/1.png", {}),
                    [&answers](core::TransportResult result) { answers.push_back(std::move(result)); });
    return loop().runUntil([&] { return !answers.empty(); }, 10s);
  };
  ASSERT_TRUE(fetch());
  const auto first = std::move(answers.back());
  answers.clear();
  ASSERT_FALSE(first.error);
  EXPECT_FALSE(first.notModified);
  ASSERT_FALSE(first.validators.etag.empty());
  ASSERT_FALSE(first.validators.lastModified.empty());

  auto cache = std::make_shared<HeldAnswers>();
  cache->held["/maps/1.png"] = {first.validators, first.data};
  core::ResponseCache::setCurrent(cache);
  ASSERT_TRUE(fetch());
  EXPECT_TRUE(answers.back().notModified);
  EXPECT_EQ(answers.back().data, first.data);
  answers.clear();

  // Another picture under the same name: sent whole, with new validators.
  cabinsim::MapScene scene;
  scene.sequence = 7;
  std::ofstream(prefix_ / "www/maps/1.png", std::ios::binary) << renderer_.renderPng(scene, 400, 300);
  fs::last_write_time(prefix_ / "www/maps/1.png", fs::file_time_type::clock::now() + 10s);
  ASSERT_TRUE(fetch());
  core::ResponseCache::setCurrent(nullptr);
  EXPECT_FALSE(answers.back().notModified);
  EXPECT_NE(answers.back().data, first.data);
  EXPECT_NE(answers.back().validators, first.validators);

  std::istringstream log(readAll(prefix_ / "access.log"));
  std::vector<std::string> statuses;
  for (std::string line; std::getline(log, line);) {
    std::istringstream fields(line);
    std::string port, protocol, uri, status, connection, bytes;
    fields >> port >> protocol >> uri >> status >> connection >> bytes;
    if (uri == "/maps/1.png") statuses.push_back(status + " " + (bytes == "0" ? "no body" : "body"));
  }
  EXPECT_EQ(statuses, (std::vector<std::string>{"200 body", "304 no body", "200 body"}));
}

TEST_F(NginxTest, ACancelledHttp2DownloadResetsItsStreamAndKeepsTheConnection) {
  publish(1);
  std::ofstream(prefix_ / "www/slow/big.png") << std::string(1 << 20, 'x');  // 32 s at nginx's rate

  core::net::HttpsRequestTransport transport;
  std::vector<std::string> answered;
  const auto fetch = [&](const std::string& path) {
    return transport.start(*core::QELImageDownloadRequest::initWithImageURL(path, {}),
                           [&answered, path](core::TransportResult result) {
                             EXPECT_FALSE(result.error) << result.error->localizedDescription;
                             answered.push_back(path);
                           });
  };
  fetch("/maps/1.png");
  ASSERT_TRUE(loop().runUntil([&] { return answered.size() == 1; }, 10s));
  // The slow download goes out before the next request on the same
  // connection, so once that one is answered the slow one is under way.
  const auto slow = fetch("/slow/big.png");
  fetch("/maps/1.png?second");
  ASSERT_TRUE(loop().runUntil([&] { return answered.size() == 2; }, 10s));
  slow->cancel();
  fetch("/maps/1.png?third");
  ASSERT_TRUE(loop().runUntil([&] { return answered.size() == 3; }, 10s));
  EXPECT_EQ(answered, (std::vector<std::string>{"/maps/1.png", "/maps/1.png?second", "/maps/1.png?third"}));

  // nginx logs each stream when it ends; every one was on one connection.
  ASSERT_TRUE(loop().runUntil(
      [&] {
        loop().runFor(10ms);
        return readAll(prefix_ / "access.log").find(" /slow/big.png ") != std::string::npos;
      },
      10s))
      << "the slow download was not ended";
  std::istringstream log(readAll(prefix_ / "access.log"));
  std::set<std::string> connections;
  for (std::string port, protocol, uri, status, connection, bytes;
       log >> port >> protocol >> uri >> status >> connection >> bytes;)
    connections.insert(connection);
  EXPECT_EQ(connections.size(), 1u) << readAll(prefix_ / "access.log");
}

}  // namespace
}  // namespace qel
