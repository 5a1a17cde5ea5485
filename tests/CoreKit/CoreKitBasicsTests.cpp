#include <qel/core/CoreKit.h>
#include <qel/core/ReconnectPolicy.h>
#include <qel/core/testing/ScriptedTransports.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <map>
#include <random>
#include <regex>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

namespace qel::core {
namespace {

using namespace std::chrono_literals;
using testing::ScriptedEnvironment;

// Counts how often it is described, to see whether a line was formatted.
class Described : public Object {
 public:
  std::string description() const override {
    ++descriptions;
    return "<described>";
  }
  mutable int descriptions = 0;
};

TEST(QELLoggingTest, DropsLinesAboveTheThresholdBeforeFormattingThemAndWritesTheRestToStandardError) {
  const auto transport = RequestTransport::shared();
  const int threshold = QELLogging::threshold();
  {
    ScriptedEnvironment env;
    QELLogging::setThreshold(3);
    auto object = std::make_shared<Described>();
    QELLogging::log("%s %d %@ %@", 3, "Domain.cpp", "text", -7, object, boost::json::value(800.0));
    QELLogging::log("hidden %@", 4, "Domain.cpp", object);

    ASSERT_EQ(env.logs().size(), 1u);
    EXPECT_EQ(env.logs()[0].level, 3);
    EXPECT_EQ(env.logs()[0].domain, "Domain.cpp");
    EXPECT_EQ(env.logs()[0].message, "text -7 <described> 800");
    EXPECT_EQ(object->descriptions, 1) << "a dropped line was formatted";
  }
  // The scripted environment puts back what it replaced; lines reach
  // standard error again.
  EXPECT_EQ(RequestTransport::shared(), transport);
  EXPECT_EQ(QELLogging::threshold(), threshold);
  ::testing::internal::CaptureStderr();
  QELLogging::write(2, "Dom.cpp", "hello world");
  // Whoever formatted it, a line carries no control character but its end;
  // printable text, backslashes among it, is written as it is.
  QELLogging::log("GET %s refused", 2, "Dom.cpp", "/a\n1 FAKE\x1b[2J\v\f\r\t\x7f\xc2\x9b\xc3\xa9\\x");
  // Each line starts with when it was written, in UTC to the millisecond
  // (here replaced by "@").
  const std::string written = ::testing::internal::GetCapturedStderr();
  const std::regex stamp(R"((^|\n)\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{3}Z )");
  EXPECT_EQ(std::regex_replace(written, stamp, "$1@ "),
            "@ 2 Dom.cpp hello world\n"
            "@ 2 Dom.cpp GET /a\\n1 FAKE\\x1b[2J\\x0b\\x0c\\r\\t\\x7f\\u009b\xc3\xa9\\x refused\n");
}

TEST(QELLoggingTest, ARepeatedWarningIsWrittenOncePerWindowWithTheCountLeftOut) {
  ScriptedEnvironment env;
  QELRepeatedLines lines(std::chrono::seconds(10));
  for (int i = 0; i < 10000; ++i) lines.log("Dropped frame %d", 2, "Dom.cpp", i);
  lines.log("Other %d", 2, "Dom.cpp", 1);
  RunLoop::current().advance(std::chrono::seconds(9));
  lines.log("Dropped frame %d", 2, "Dom.cpp", 10000);
  RunLoop::current().advance(std::chrono::seconds(1));
  lines.log("Dropped frame %d", 2, "Dom.cpp", 10001);
  lines.log("Dropped frame %d", 2, "Dom.cpp", 10002);
  RunLoop::current().advance(std::chrono::seconds(10));
  lines.log("Dropped frame %d", 2, "Dom.cpp", 10003);
  std::vector<std::string> written;
  for (const auto& record : env.logs()) written.push_back(record.message);
  EXPECT_EQ(written,
            (std::vector<std::string>{"Dropped frame 0", "Other 1", "Dropped frame 10001 (repeated 10,000 times)",
                                      "Dropped frame 10003 (repeated once)"}));
}

// Clears the configuration's environment variables and puts them back.
class QELConfigurationTest : public ::testing::Test {
 protected:
  static constexpr const char* kVariables[] = {"QEL_SKELION_HOSTNAME", "QEL_SKELION_PORT",
                                               "QEL_CA_FILE", "QEL_EVENT_PATH", "QEL_LOG_LEVEL"};
  QELConfigurationTest() {
    for (const char* name : kVariables) {
      if (const char* value = std::getenv(name)) saved_.emplace_back(name, value);
      ::unsetenv(name);
    }
    QELConfiguration::set({});
  }
  ~QELConfigurationTest() override {
    QELConfiguration::set({});
    for (const char* name : kVariables) ::unsetenv(name);
    for (const auto& [name, value] : saved_) ::setenv(name.c_str(), value.c_str(), 1);
  }

  ScriptedEnvironment env_;
  std::vector<std::pair<std::string, std::string>> saved_;
};

TEST_F(QELConfigurationTest, EnvironmentFillsWhatTheApplicationLeftOpen) {
  EXPECT_EQ(QELConfiguration::effective().host, std::nullopt);
  for (const auto& [name, value] : {std::pair{"QEL_SKELION_HOSTNAME", "cabin.env"}, {"QEL_SKELION_PORT", "8443"},
                                     {"QEL_CA_FILE", "/etc/cabin-ca.pem"}, {"QEL_EVENT_PATH", "/events"},
                                     {"QEL_LOG_LEVEL", "4"}})
    ::setenv(name, value, 1);
  QELConfiguration::reread();  // as a new service does
  auto c = QELConfiguration::effective();
  EXPECT_EQ(std::tie(c.host, c.port, c.caFile, c.eventPath, c.logThreshold),
            std::make_tuple("cabin.env", 8443, "/etc/cabin-ca.pem", "/events", 4));

  QELConfiguration app;
  app.host = "cabin.app";
  app.port = 9443;
  QELConfiguration::set(app);
  c = QELConfiguration::effective();
  EXPECT_EQ(std::tie(c.host, c.port, c.caFile), std::make_tuple("cabin.app", 9443, "/etc/cabin-ca.pem"));
  EXPECT_EQ(QELHostname::skelionHostname(), "cabin.app");
  EXPECT_EQ(QELLogging::threshold(), 5) << "set() applies only an explicit log threshold";

  app.host = "";  // an empty host counts as none
  QELConfiguration::set(app);
  EXPECT_EQ(QELHostname::skelionHostname(), "cabin.env");
  ::setenv("QEL_SKELION_HOSTNAME", "", 1);
  EXPECT_EQ(QELHostname::skelionHostname(), "cabin.env") << "the environment is read once";
  QELConfiguration::reread();
  EXPECT_EQ(QELHostname::skelionHostname(), std::nullopt);
}

TEST_F(QELConfigurationTest, InvalidEnvironmentValuesFallBackToTheDefaultsWithALogLine) {
  ::setenv("QEL_SKELION_PORT", "80x", 1);
  ::setenv("QEL_EVENT_PATH", "events", 1);
  ::setenv("QEL_LOG_LEVEL", "loud", 1);
  const auto c = QELConfiguration::effective();
  EXPECT_EQ(std::tie(c.port, c.eventPath, c.logThreshold), std::make_tuple(443, "/skelion/events", 3));
  EXPECT_EQ(QELConfiguration::current()->port, 443);
  EXPECT_EQ(env_.logsContaining("QEL_EVENT_PATH").size(), 1u) << "logged once however often read";
  ::setenv("QEL_SKELION_PORT", "70000", 1);
  QELConfiguration::reread();
  EXPECT_EQ(QELConfiguration::effective().port, 443);
  EXPECT_EQ(env_.logsContaining("QEL_SKELION_PORT").size(), 2u);
}

// Random policies against the arithmetic written out: each step's bound is
// the start times the multiplier to the step, capped; each draw lies within
// the jitter's share below the bound; a policy outside the rules is not valid.
TEST(BackoffTest, DrawsStayWithinTheGrowingCappedBoundAndItsJitter) {
  std::mt19937 random(7);
  for (int policy = 0; policy < 200; ++policy) {
    const Backoff backoff{std::chrono::milliseconds(std::uniform_int_distribution(1, 5000)(random)),
                          std::uniform_real_distribution(1.0, 6.0)(random),
                          std::chrono::milliseconds(std::uniform_int_distribution(5000, 120000)(random)),
                          std::uniform_real_distribution(0.0, 1.0)(random)};
    ASSERT_TRUE(backoff.valid());
    for (int step = 0; step < 30; ++step) {
      const double expected = std::min(backoff.initial.count() * std::pow(backoff.multiplier, step),
                                       static_cast<double>(backoff.maximum.count()));
      const auto bound = backoff.bound(step);
      ASSERT_NEAR(static_cast<double>(bound.count()), expected, 1.0 + expected * 1e-9) << "step " << step;
      for (int draw = 0; draw < 20; ++draw) {
        const auto wait = backoff.draw(step, random);
        ASSERT_LE(wait, bound);
        const std::chrono::duration<double, std::milli> lowest = bound * (1 - backoff.jitter) - 1ms;
        ASSERT_GE(wait, lowest);
      }
    }
  }
  EXPECT_EQ(Backoff({1s, 2.0, 30s, 0.0}).draw(40, random), 30s);
  EXPECT_EQ(Backoff({1s, 1e300, 30s, 0.0}).bound(1000), 30s);
  for (const Backoff& invalid : {Backoff{0s, 2.0, 30s, 1.0}, Backoff{1s, 0.9, 30s, 1.0}, Backoff{1s, 2.0, 500ms, 1.0},
                                 Backoff{1s, 2.0, 30s, -0.1}, Backoff{1s, 2.0, 30s, 1.5},
                                 Backoff{1s, std::nan(""), 30s, 1.0}}) {
    EXPECT_FALSE(invalid.valid()) << invalid.initial.count() << " " << invalid.multiplier;
  }
}

// A cabin's devices all lose the server in the same instant when it restarts;
// the default event backoff must spread the attempts that follow, or the
// server comes back to a wave of handshakes.
TEST(BackoffTest, TheDefaultEventBackoffSpreadsACabinLosingItsServer) {
  const Backoff backoff = ReconnectPolicy{}.events;
  constexpr int kDevices = 300;
  std::map<long, int> attemptsPerTenth;
  for (int device = 0; device < kDevices; ++device) {
    std::mt19937 random(static_cast<unsigned>(device));
    std::chrono::steady_clock::duration at{};
    for (int failures = 0; failures < 40; ++failures) {
      at += backoff.draw(failures, random);
      ++attemptsPerTenth[static_cast<long>(at / 100ms)];
    }
  }
  const auto peak = std::max_element(attemptsPerTenth.begin(), attemptsPerTenth.end(),
                                     [](const auto& a, const auto& b) { return a.second < b.second; });
  EXPECT_LT(peak->second, kDevices / 5) << "at " << peak->first * 100 << " ms";
}

}  // namespace
}  // namespace qel::core
