#pragma once

#include "TestDnsServer.h"
#include "TestServer.h"

#include <qel/RunLoop.h>
#include <qel/core/QELHostname.h>
#include <qel/core/net/CurlMulti.h>

#include <gtest/gtest.h>
#include <unistd.h>
#include <boost/asio/ip/tcp.hpp>

#include <chrono>
#include <cstdio>
#include <deque>
#include <filesystem>
#include <fstream>
#include <string>

namespace qel::core::net::testing {

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
inline long openDescriptors() {
  long count = 0;
  std::error_code error;
  for (auto it = std::filesystem::directory_iterator("/proc/self/fd", error); !error && it != decltype(it)(); ++it) {
    ++count;
  }
  return count;
}

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
