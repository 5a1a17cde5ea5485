#pragma once

#include "TestCertificates.h"
#include "TestServer.h"

#include <qel/RunLoop.h>
#include <qel/core/QELHostname.h>
#include <qel/core/QELLogging.h>
#include <qel/core/net/ConnectionPool.h>

#include <gtest/gtest.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

namespace qel::core::net::testing {

// A trusted CA written to a file, a server it certified for 127.0.0.1 and
// localhost, the core kit configured to reach it, and captured log lines.
class NetworkTest : public ::testing::Test {
 protected:
  NetworkTest()
      : authority_(TestCertificate::authority("QEL Test CA")),
        caFile_(authority_.certificatePem()),
        server_(loop().context(), TestCertificate::issue(authority_, {"localhost"}, {"127.0.0.1"})) {
    configure("127.0.0.1", server_.port(), caFile_.path());
    QELLogging::setSink([this](int level, std::string_view domain, std::string_view message) {
      logs_.push_back(std::to_string(level) + " " + std::string(domain) + " " + std::string(message));
    });
  }

  ~NetworkTest() override {
    QELLogging::setSink({});
    if (HasFailure() || std::getenv("QEL_TEST_SHOW_LOGS")) {
      for (const auto& line : logs_) std::fprintf(stderr, "log: %s\n", line.c_str());
    }
    QELConfiguration::set({});
    ConnectionPool::of(loop().context()).clear();
  }

  static RunLoop& loop() { return RunLoop::current(); }
  static bool runUntil(const std::function<bool()>& predicate,
                       std::chrono::milliseconds timeout = std::chrono::seconds(10)) {
    return loop().runUntil(predicate, timeout);
  }

  static void configure(std::string host, std::uint16_t port, std::string caFile) {
    QELConfiguration configuration;
    configuration.host = std::move(host);
    configuration.port = port;
    configuration.caFile = std::move(caFile);
    QELConfiguration::set(configuration);
  }

  std::vector<std::string> logsContaining(const std::string& text) const {
    std::vector<std::string> found;
    for (const auto& line : logs_) {
      if (line.find(text) != std::string::npos) found.push_back(line);
    }
    return found;
  }

  TestCertificate authority_;
  TemporaryFile caFile_;
  TestServer server_;
  std::vector<std::string> logs_;
};

}  // namespace qel::core::net::testing
