#pragma once

#include "TestDnsServer.h"

#include "cabinsim/Certificates.h"

#include <qel/RunLoop.h>
#include <qel/core/QELHostname.h>
#include <qel/core/net/CurlMulti.h>

#include <gtest/gtest.h>
#include <unistd.h>
#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>

#include <chrono>
#include <cstdint>
#include <cstdio>
#include <deque>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>
#include <string>
#include <vector>

namespace qel::core::net::testing {

// A small HTTPS and secure WebSocket server on 127.0.0.1 and a free port, run
// by the same loop as the code under test.
//
// It answers GET <target> with "body of <target>", except "/status/<code>"
// with that status (and "?retry-after=<value>" as that header, "date" a
// date in 2037), "/big..." with one byte more than a service answer may
// have, and "/held" not until releaseHeld(). "/early..." sends an interim
// 103 answer first; "/close..." ends its body by closing the connection;
// "/trickle" sends 1201 bytes, 100 every 250 ms; "/silent" sends 100 of 101
// and the last one on releaseHeld(). "/gzip-bomb..." is 64 MiB of zeros
// gzipped, unasked: as a transfer coding for a path ending in ".png", else
// as a content coding.
// An upgrade request to any path becomes a WebSocket the test pushes frames
// into; it answers pings.
class TestServer {
 public:
  TestServer(boost::asio::io_context& ioContext, const cabinsim::ServerIdentity& identity);
  ~TestServer();
  TestServer(const TestServer&) = delete;
  TestServer& operator=(const TestServer&) = delete;

  std::uint16_t port() const;
  // TCP connections accepted, and the targets of the HTTP requests read, so far.
  int acceptCount() const;
  // Connections open now, and handshakes that resumed an earlier TLS session.
  int openCount() const;
  int resumedCount() const;
  const std::vector<std::string>& requestTargets() const;
  void releaseHeld();
  // Closes the idle keep-alive connections without a word, as a server does
  // when its keep-alive timeout runs out.
  void dropIdleConnections();

  // To every WebSocket: a frame, or a clean close.
  void send(const std::string& frame, bool binary = false);
  void closeWebSockets(const std::string& reason = {}, std::uint16_t code = 1000);
  // Every WebSocket stops reading and writing, pongs included, with its
  // connection left open: a link that silently stopped carrying anything.
  void silenceWebSockets();

  struct State;

 private:
  std::shared_ptr<State> state_;
};

// `count` dead hosts at 127.0.0.2 and up on `port` (each a listener whose
// accept queue is full drops connection requests without a word), then
// 127.0.0.1, as the fixed table entry for "cabin.test" in `configuration`.
struct SilentAddresses {
  SilentAddresses(std::uint16_t port, int count) {
    std::string addresses;
    for (int i = 0; i < count; ++i) {
      const auto address = boost::asio::ip::make_address("127.0.0." + std::to_string(2 + i));
      auto& acceptor = acceptors.emplace_back(RunLoop::current().context());
      acceptor.open(boost::asio::ip::tcp::v4());
      acceptor.bind({address, port});
      acceptor.listen(0);
      fillers.emplace_back(RunLoop::current().context()).connect(acceptor.local_endpoint());
      addresses += address.to_string() + ",";
    }
    configuration.host = "cabin.test";
    configuration.resolve = {"cabin.test:" + std::to_string(port) + ":" + addresses + "127.0.0.1"};
  }
  std::deque<boost::asio::ip::tcp::acceptor> acceptors;
  std::deque<boost::asio::ip::tcp::socket> fillers;
  QELConfiguration configuration = QELConfiguration::effective();
};

// Two names for 127.0.0.1 on `port` whose first address is one dead host:
// "cabin.test" in the fixed table and "named.test" at a name server.
struct DeadFirstAddresses : SilentAddresses {
  explicit DeadFirstAddresses(std::uint16_t port) : SilentAddresses(port, 1) {
    dns.add("named.test", {"127.0.0.2", "127.0.0.1"});
    configuration.dnsServers = dns.address();
  }
  TestDnsServer dns{RunLoop::current().context()};
};

// Descriptors this process has open now.
inline long openDescriptors() { return std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {}); }

// A trusted CA written to a file, a server it certified for 127.0.0.1 and
// localhost, and the core kit configured to reach it.
class NetworkTest : public ::testing::Test {
 protected:
  NetworkTest() {
    std::ofstream(caFile_) << authority_.certificatePem();
    configure(server_.port());
  }
  ~NetworkTest() override {
    QELConfiguration::set({});
    CurlMulti::of(loop().context()).closeIdleConnections();
    std::remove(caFile_.c_str());
  }

  static RunLoop& loop() { return RunLoop::current(); }
  static bool runUntil(const std::function<bool()>& predicate) {
    return loop().runUntil(predicate, std::chrono::seconds(10));
  }
  void configure(std::uint16_t port) {
    QELConfiguration configuration;
    configuration.host = "127.0.0.1";
    configuration.port = port;
    configuration.caFile = caFile_;
    QELConfiguration::set(configuration);
  }

  cabinsim::CertificateAuthority authority_{"QEL Test CA"};
  std::string caFile_ = ::testing::TempDir() + "qel-test-ca-" + std::to_string(getpid()) + ".pem";
  TestServer server_{loop().context(), authority_.issue({"localhost", "cabin.test", "named.test", "127.0.0.1"})};
};

}  // namespace qel::core::net::testing
