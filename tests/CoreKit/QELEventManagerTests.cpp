#include <qel/GccWarnings.h>
#include <qel/core/QELEventManager.h>
#include <qel/core/testing/ScriptedTransports.h>

#include <boost/json/serialize.hpp>
#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <vector>

namespace qel::core {
namespace {

using testing::ScriptedEnvironment;
using Calls = std::vector<std::string>;

// Records calls as "<name>:<event>[:<user info>]", or "<name>:-" when told
// nothing, then runs its hook.
struct Target : Object {
  Target(std::string name, Calls& calls) : name(std::move(name)), calls(calls) {}
  // GCC 12 bug 105329: a bogus -Wrestrict inside libstdc++ when optimising
  // "literal" + std::string.
  QEL_GCC_IGNORE_BEGIN("-Wrestrict")
  void received(const std::shared_ptr<QELEvent>& event) {
    const auto& info = event->userInfo();
    record(":" + event->name() + (info ? ":" + boost::json::serialize(*info) : ""));
  }
  QEL_GCC_IGNORE_END
  void receivedNothing() { record(":-"); }
  void record(const std::string& call) {
    calls.push_back(name + call);
    if (hook) hook();
  }

  std::string name;
  Calls& calls;
  std::function<void()> hook;
};

class QELEventManagerTest : public ::testing::Test {
 protected:
  std::shared_ptr<Target> target(std::string name) {
    return std::make_shared<Target>(std::move(name), calls_);
  }

  ScriptedEnvironment env_;
  QELEventManager& manager_ = QELEventManager::defaultManager();
  Calls calls_;
};

TEST_F(QELEventManagerTest, DeliversInRegistrationOrderToWeakTargetsOfThatNameThatMayComeAndGoDuringADispatch) {
  auto a = target("a"), b = target("b"), c = target("c"), late = target("late");
  manager_.addTarget(b, &Target::received, "maps.update");
  manager_.addTarget(a, &Target::receivedNothing, "maps.update");
  manager_.addTarget(c, &Target::received, "other");
  manager_.addTarget(a, &Target::received, "maps.update");
  env_.events().deliver("maps.update", boost::json::object{{"k", 1}});
  EXPECT_EQ(calls_, (Calls{"b:maps.update:{\"k\":1}", "a:-", "a:maps.update:{\"k\":1}"}));

  calls_.clear();
  std::weak_ptr<Target> watch = c;
  manager_.addTarget(a, &Target::receivedNothing, "x");
  manager_.addTarget(a, &Target::receivedNothing, "y");
  manager_.addTarget(b, &Target::receivedNothing, "x");
  manager_.addTarget(c, &Target::receivedNothing, "x");
  a->hook = [&] {
    manager_.removeTarget(a.get());  // itself, under every name
    manager_.removeTarget(b.get());  // one still to come
    c.reset();                       // one destroyed without removing itself
    manager_.addTarget(late, &Target::receivedNothing, "x");
  };
  env_.events().deliver("x", nullptr);
  EXPECT_TRUE(watch.expired()) << "the manager kept its target alive";
  env_.events().deliver("x", nullptr);
  env_.events().deliver("y", nullptr);
  EXPECT_EQ(calls_, (Calls{"a:-", "late:-"}));
}

TEST_F(QELEventManagerTest, ConnectionStateAndItsEventsChangeOncePerConnection) {
  auto watcher = target("w");
  manager_.addTarget(watcher, &Target::receivedNothing, QELServiceEventClientConnected);
  manager_.addTarget(watcher, &Target::received, QELServiceEventClientDisconnected);
  EXPECT_FALSE(manager_.isConnected());
  // The server cannot impersonate the connection events.
  env_.events().deliver(QELServiceEventClientConnected, nullptr);
  EXPECT_FALSE(manager_.isConnected());

  bool connectedSeenInside = false;
  watcher->hook = [&] { connectedSeenInside = manager_.isConnected(); };
  env_.events().connect();
  env_.events().connect();
  EXPECT_TRUE(manager_.isConnected());
  EXPECT_TRUE(connectedSeenInside);
  env_.events().disconnect();
  env_.events().disconnect();
  EXPECT_FALSE(manager_.isConnected());
  EXPECT_FALSE(connectedSeenInside);
  EXPECT_EQ(calls_, (Calls{"w:-", std::string("w:") + QELServiceEventClientDisconnected}));
}

TEST_F(QELEventManagerTest, TransportRunsWhileThereAreTargets) {
  auto& transport = env_.events();
  EXPECT_FALSE(transport.isRunning());
  auto a = target("a"), b = target("b");
  manager_.addTarget(a, &Target::receivedNothing, QELServiceEventClientDisconnected);
  manager_.addTarget(b, &Target::receivedNothing, "x");
  EXPECT_EQ(transport.startCount(), 1);
  transport.connect();
  ASSERT_TRUE(manager_.isConnected());
  manager_.removeTarget(a.get());
  EXPECT_TRUE(transport.isRunning());
  manager_.removeTarget(b.get());
  EXPECT_FALSE(transport.isRunning());
  EXPECT_FALSE(manager_.isConnected());
  EXPECT_TRUE(calls_.empty()) << "stopping must not dispatch a disconnect";

  manager_.addTarget(a, &Target::receivedNothing, "x");
  EXPECT_EQ(transport.startCount(), 2);
  a.reset();
  transport.deliver("x", nullptr);  // finds its last target gone
  EXPECT_FALSE(transport.isRunning());
}

}  // namespace
}  // namespace qel::core
