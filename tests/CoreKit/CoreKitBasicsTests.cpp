#include <qel/core/CoreKit.h>
#include <qel/core/testing/ScriptedTransports.h>

#include <gtest/gtest.h>

#include <cstdlib>
#include <regex>
#include <string>
#include <utility>
#include <vector>

namespace qel::core {
namespace {

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
  // Each line starts with when it was written, in UTC to the millisecond.
  const std::string written = ::testing::internal::GetCapturedStderr();
  const std::regex stamped(R"(\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{3}Z (.*\n))");
  std::string unstamped;
  for (auto line = std::sregex_iterator(written.begin(), written.end(), stamped); line != std::sregex_iterator(); ++line) {
    unstamped += (*line)[1];
  }
  EXPECT_EQ(unstamped,
            "2 Dom.cpp hello world\n2 Dom.cpp GET /a\\n1 FAKE\\x1b[2J\\x0b\\x0c\\r\\t\\x7f\\u009b\xc3\xa9\\x refused\n")
      << written;
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
  ::setenv("QEL_SKELION_HOSTNAME", "cabin.env", 1);
  ::setenv("QEL_SKELION_PORT", "8443", 1);
  ::setenv("QEL_CA_FILE", "/etc/cabin-ca.pem", 1);
  ::setenv("QEL_EVENT_PATH", "/events", 1);
  ::setenv("QEL_LOG_LEVEL", "4", 1);
  QELConfiguration::reread();  // as a new service does
  auto c = QELConfiguration::effective();
  EXPECT_EQ(c.host, "cabin.env");
  EXPECT_EQ(c.port, 8443);
  EXPECT_EQ(c.caFile, "/etc/cabin-ca.pem");
  EXPECT_EQ(c.eventPath, "/events");
  EXPECT_EQ(c.logThreshold, 4);

  QELConfiguration app;
  app.host = "cabin.app";
  app.port = 9443;
  QELConfiguration::set(app);
  c = QELConfiguration::effective();
  EXPECT_EQ(c.host, "cabin.app");
  EXPECT_EQ(c.port, 9443);
  EXPECT_EQ(c.caFile, "/etc/cabin-ca.pem");
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
  EXPECT_EQ(c.port, 443);
  EXPECT_EQ(c.eventPath, "/skelion/events");
  EXPECT_EQ(c.logThreshold, 3);
  EXPECT_EQ(QELConfiguration::current()->port, 443);
  EXPECT_EQ(env_.logsContaining("QEL_EVENT_PATH").size(), 1u) << "logged once however often read";
  ::setenv("QEL_SKELION_PORT", "70000", 1);
  QELConfiguration::reread();
  EXPECT_EQ(QELConfiguration::effective().port, 443);
  EXPECT_EQ(env_.logsContaining("QEL_SKELION_PORT").size(), 2u);
}

}  // namespace
}  // namespace qel::core
