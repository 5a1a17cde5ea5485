#pragma once

#include "TestServer.h"

#include <qel/RunLoop.h>
#include <qel/core/QELHostname.h>
#include <qel/core/net/CurlMulti.h>

#include <gtest/gtest.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <string>

namespace qel::core::net::testing {

// A trusted CA written to a file, a server it certified for 127.0.0.1 and
// localhost, and the core kit configured to reach it.
class NetworkTest : public ::testing::Test {
 protected:
  NetworkTest() {
    authority_.writePem(caFile_);
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

  TestCertificate authority_ = TestCertificate::authority("QEL Test CA");
  std::string caFile_ = ::testing::TempDir() + "qel-test-ca-" + std::to_string(getpid()) + ".pem";
  TestServer server_{loop().context(), authority_.issue("DNS:localhost,DNS:cabin.test,DNS:named.test,IP:127.0.0.1")};
};

}  // namespace qel::core::net::testing
