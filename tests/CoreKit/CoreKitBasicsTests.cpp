#include <qel/core/CoreKit.h>
#include <qel/core/testing/ScriptedTransports.h>

#include <boost/json/serialize.hpp>
#include <gtest/gtest.h>

#include <cstdlib>
#include <map>
#include <string>

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

TEST(QELLoggingTest, ThresholdDefaultsToThree) {
  if (std::getenv("QEL_LOG_LEVEL")) GTEST_SKIP() << "QEL_LOG_LEVEL is set";
  EXPECT_EQ(QELLogging::threshold(), 3);
}

TEST(QELLoggingTest, FormatsAndFiltersBeforeFormatting) {
  ScriptedEnvironment env;
  QELLogging::setThreshold(3);
  auto object = std::make_shared<Described>();

  QELLogging::log("%s %d %i %@ %@", 3, "Domain.cpp", "text", 42, -7, object, boost::json::value(800.0));
  QELLogging::log("hidden %@", 4, "Domain.cpp", object);

  ASSERT_EQ(env.logs().size(), 1u);
  EXPECT_EQ(env.logs()[0].level, 3);
  EXPECT_EQ(env.logs()[0].domain, "Domain.cpp");
  EXPECT_EQ(env.logs()[0].message, "text 42 -7 <described> 800");
  EXPECT_EQ(object->descriptions, 1) << "a dropped line was formatted";
  EXPECT_EQ(env.logsContaining("-7").size(), 1u);
}

TEST(QELLoggingTest, DefaultSinkWritesLevelDomainMessageToStandardError) {
  const int threshold = QELLogging::threshold();
  QELLogging::setThreshold(3);
  ::testing::internal::CaptureStderr();
  QELLogging::log("hello %s", 2, "Dom.cpp", "world");
  QELLogging::log("quiet", 4, "Dom.cpp");
  const std::string written = ::testing::internal::GetCapturedStderr();
  QELLogging::setThreshold(threshold);
  EXPECT_EQ(written, "2 Dom.cpp hello world\n");
}

TEST(QELLoggingTest, SetSinkReplacesAndEmptyRestoresTheDefault) {
  std::string first, second;
  QELLogging::setSink([&](int, std::string_view, std::string_view m) { first += m; });
  QELLogging::write(1, "d", "one");
  QELLogging::setSink([&](int, std::string_view, std::string_view m) { second += m; });
  QELLogging::write(1, "d", "two");
  QELLogging::setSink({});
  EXPECT_FALSE(QELLogging::sink());
  ::testing::internal::CaptureStderr();
  QELLogging::write(1, "d", "three");
  EXPECT_EQ(::testing::internal::GetCapturedStderr(), "1 d three\n");
  EXPECT_EQ(first, "one");
  EXPECT_EQ(second, "two");
}

TEST(ScriptedEnvironmentTest, PutsBackWhatItReplaced) {
  const auto transport = RequestTransport::shared();
  const auto* events = QELEventManager::defaultManager().transport();
  const int threshold = QELLogging::threshold();
  {
    ScriptedEnvironment env;
    EXPECT_EQ(RequestTransport::shared().get(), &env.requests());
    EXPECT_EQ(QELEventManager::defaultManager().transport(), &env.events());
    EXPECT_EQ(QELLogging::threshold(), 5);
    EXPECT_TRUE(RunLoop::current().usesManualClock());
    QELLogging::log("captured", 5, "d");
    EXPECT_EQ(env.logs().size(), 1u);
    ScriptedEnvironment nested;  // idempotent clock switch, nested capture
    QELLogging::log("inner", 5, "d");
    EXPECT_EQ(env.logs().size(), 1u);
    EXPECT_EQ(nested.logs().size(), 1u);
  }
  EXPECT_EQ(RequestTransport::shared(), transport);
  EXPECT_EQ(QELEventManager::defaultManager().transport(), events);
  EXPECT_EQ(QELLogging::threshold(), threshold);
  EXPECT_FALSE(QELLogging::sink());
}

TEST(ScriptedRequestTransportTest, RefusesToFinishAnAttemptThatIsNotOpen) {
  ScriptedEnvironment env;
  EXPECT_THROW(env.requests().finishNext("x"), std::logic_error);
  EXPECT_THROW(env.requests().fail(3), std::logic_error);
}

// Sets and restores the configuration's environment variables.
class QELConfigurationTest : public ::testing::Test {
 protected:
  static constexpr const char* kVariables[] = {"QEL_SKELION_HOSTNAME", "QEL_SKELION_PORT",
                                               "QEL_CA_FILE", "QEL_EVENT_PATH", "QEL_LOG_LEVEL"};
  QELConfigurationTest() {
    for (const char* name : kVariables) {
      if (const char* value = std::getenv(name)) saved_[name] = value;
      ::unsetenv(name);
    }
    QELConfiguration::set({});
  }
  ~QELConfigurationTest() override {
    QELConfiguration::set({});
    for (const char* name : kVariables) {
      auto it = saved_.find(name);
      if (it == saved_.end()) {
        ::unsetenv(name);
      } else {
        ::setenv(name, it->second.c_str(), 1);
      }
    }
  }

  ScriptedEnvironment env_;
  std::map<std::string, std::string> saved_;
};

TEST_F(QELConfigurationTest, DefaultsWhenNothingIsSet) {
  const auto c = QELConfiguration::effective();
  EXPECT_EQ(c.host, std::nullopt);
  EXPECT_EQ(c.port, 443);
  EXPECT_EQ(c.caFile, std::nullopt);
  EXPECT_EQ(c.eventPath, "/skelion/events");
  EXPECT_EQ(c.logThreshold, 3);
  EXPECT_EQ(QELHostname::skelionHostname(), std::nullopt);
}

TEST_F(QELConfigurationTest, EnvironmentFillsWhatTheApplicationLeftOpen) {
  ::setenv("QEL_SKELION_HOSTNAME", "cabin.env", 1);
  ::setenv("QEL_SKELION_PORT", "8443", 1);
  ::setenv("QEL_CA_FILE", "/etc/cabin-ca.pem", 1);
  ::setenv("QEL_EVENT_PATH", "/events", 1);
  ::setenv("QEL_LOG_LEVEL", "5", 1);
  auto c = QELConfiguration::effective();
  EXPECT_EQ(c.host, "cabin.env");
  EXPECT_EQ(c.port, 8443);
  EXPECT_EQ(c.caFile, "/etc/cabin-ca.pem");
  EXPECT_EQ(c.eventPath, "/events");
  EXPECT_EQ(c.logThreshold, 5);
  EXPECT_EQ(QELHostname::skelionHostname(), "cabin.env");

  QELConfiguration app;
  app.host = "cabin.app";
  app.port = 9443;
  QELConfiguration::set(app);
  c = QELConfiguration::effective();
  EXPECT_EQ(c.host, "cabin.app");
  EXPECT_EQ(c.port, 9443);
  EXPECT_EQ(c.caFile, "/etc/cabin-ca.pem");
  EXPECT_EQ(QELHostname::skelionHostname(), "cabin.app");

  app.host = "";  // an empty host counts as none
  QELConfiguration::set(app);
  EXPECT_EQ(QELHostname::skelionHostname(), "cabin.env");
  ::setenv("QEL_SKELION_HOSTNAME", "", 1);
  EXPECT_EQ(QELHostname::skelionHostname(), std::nullopt);
}

TEST_F(QELConfigurationTest, InvalidEnvironmentValuesAreIgnoredWithALogLine) {
  ::setenv("QEL_SKELION_PORT", "70000", 1);
  ::setenv("QEL_EVENT_PATH", "events", 1);
  ::setenv("QEL_LOG_LEVEL", "loud", 1);
  const auto c = QELConfiguration::effective();
  EXPECT_EQ(c.port, 443);
  EXPECT_EQ(c.eventPath, "/skelion/events");
  EXPECT_EQ(c.logThreshold, 3);
  EXPECT_EQ(env_.logsContaining("QEL_SKELION_PORT").size(), 1u);
  EXPECT_EQ(env_.logsContaining("QEL_EVENT_PATH").size(), 1u);
  EXPECT_EQ(env_.logsContaining("QEL_LOG_LEVEL").size(), 1u);
  ::setenv("QEL_SKELION_PORT", "80x", 1);
  EXPECT_EQ(QELConfiguration::effective().port, 443);
}

TEST_F(QELConfigurationTest, SetAppliesOnlyAnExplicitLogThreshold) {
  QELConfiguration app;
  app.host = "cabin.app";
  QELConfiguration::set(app);
  EXPECT_EQ(QELLogging::threshold(), 5);  // the environment's capture level survives
  app.logThreshold = 2;
  QELConfiguration::set(app);
  EXPECT_EQ(QELLogging::threshold(), 2);
}

class Sender : public Object {};

TEST(QELNotificationsTest, InternalCenterIsItsOwnCentre) {
  auto& internal = qelInternalCenter();
  EXPECT_EQ(&internal, &qelInternalCenter());
  EXPECT_NE(&internal, &NotificationCenter::defaultCenter());

  auto observer = std::make_shared<Sender>();
  int internalCalls = 0, defaultCalls = 0;
  internal.addObserver(observer, [&](const Notification&) { ++internalCalls; }, "N");
  NotificationCenter::defaultCenter().addObserver(observer, [&](const Notification&) { ++defaultCalls; }, "N");
  NotificationCenter::defaultCenter().postNotificationName("N", nullptr);
  EXPECT_EQ(internalCalls, 0);
  internal.postNotificationName("N", nullptr);
  EXPECT_EQ(internalCalls, 1);
  EXPECT_EQ(defaultCalls, 1);
  internal.removeObserver(observer.get());
  NotificationCenter::defaultCenter().removeObserver(observer.get());
}

TEST(QELNotificationsTest, EnqueueCoalescesSameNameAndSenderOnTheGivenQueue) {
  auto& loop = RunLoop::current();
  NotificationQueue queue(qelInternalCenter(), loop);
  auto observer = std::make_shared<Sender>();
  auto sender = std::make_shared<Sender>();
  std::vector<std::string> seen;
  qelInternalCenter().addObserver(observer, [&](const Notification& n) {
    seen.push_back(n.name() + (n.userInfo() ? boost::json::serialize(*n.userInfo()) : ""));
  });
  auto info = std::make_shared<const boost::json::object>(boost::json::object{{"n", 1}});
  qel_enqueueNotificationName(queue, "A", sender, info, PostingStyle::PostASAP);
  qel_enqueueNotificationName(queue, "A", sender, nullptr, PostingStyle::PostASAP);
  qel_enqueueNotificationName(queue, "A", nullptr, nullptr, PostingStyle::PostASAP);
  EXPECT_TRUE(seen.empty());
  loop.runPending();
  EXPECT_EQ(seen, (std::vector<std::string>{"A{\"n\":1}", "A"}));
  qelInternalCenter().removeObserver(observer.get());
}

}  // namespace
}  // namespace qel::core
