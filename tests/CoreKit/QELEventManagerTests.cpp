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

class Target : public Object {
 public:
  Target(std::string name, Calls& calls) : name_(std::move(name)), calls_(calls) {}

  void received(const std::shared_ptr<QELEvent>& event) {
    std::string call = name_ + ":" + event->name();
    if (event->userInfo()) call += ":" + boost::json::serialize(*event->userInfo());
    calls_.push_back(call);
    if (hook) hook();
  }
  void receivedNothing() {
    calls_.push_back(name_ + ":-");
    if (hook) hook();
  }

  std::function<void()> hook;

 private:
  std::string name_;
  Calls& calls_;
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

TEST_F(QELEventManagerTest, DeliversInRegistrationOrderToTheTargetsOfThatName) {
  EXPECT_EQ(&manager_, &QELEventManager::defaultManager());
  auto a = target("a"), b = target("b"), c = target("c");
  manager_.addTarget(b, &Target::received, "maps.update");
  manager_.addTarget(a, &Target::receivedNothing, "maps.update");
  manager_.addTarget(c, &Target::received, "other");
  manager_.addTarget(a, &Target::received, "maps.update");

  env_.events().deliver("maps.update", boost::json::object{{"k", 1}});
  EXPECT_EQ(calls_, (Calls{"b:maps.update:{\"k\":1}", "a:-", "a:maps.update:{\"k\":1}"}));
  EXPECT_EQ(manager_.targetCount(), 3u);
}

TEST_F(QELEventManagerTest, TargetsAreHeldWeaklyAndRemovedAltogether) {
  auto a = target("a"), b = target("b");
  manager_.addTarget(a, &Target::receivedNothing, "x");
  manager_.addTarget(a, &Target::receivedNothing, "y");
  manager_.addTarget(b, &Target::receivedNothing, "x");
  std::weak_ptr<Target> watch = b;

  b.reset();
  EXPECT_TRUE(watch.expired()) << "the manager kept its target alive";
  env_.events().deliver("x", nullptr);
  EXPECT_EQ(calls_, (Calls{"a:-"}));

  manager_.removeTarget(a.get());
  EXPECT_EQ(manager_.targetCount(), 0u);
  env_.events().deliver("x", nullptr);
  env_.events().deliver("y", nullptr);
  EXPECT_EQ(calls_, (Calls{"a:-"}));
}

TEST_F(QELEventManagerTest, ChangesDuringADispatchAreSafe) {
  auto a = target("a"), b = target("b"), c = target("c"), late = target("late");
  manager_.addTarget(a, &Target::receivedNothing, "x");
  manager_.addTarget(b, &Target::receivedNothing, "x");
  manager_.addTarget(c, &Target::receivedNothing, "x");
  bool changed = false;
  a->hook = [&] {
    if (changed) return;
    changed = true;
    manager_.removeTarget(a.get());  // itself
    manager_.removeTarget(b.get());  // one still to come
    c.reset();                       // one destroyed without removing itself
    manager_.addTarget(late, &Target::receivedNothing, "x");
  };
  env_.events().deliver("x", nullptr);
  EXPECT_EQ(calls_, (Calls{"a:-"}));

  env_.events().deliver("x", nullptr);
  EXPECT_EQ(calls_, (Calls{"a:-", "late:-"}));
}

TEST_F(QELEventManagerTest, ConnectionStateAndItsEventsChangeOncePerConnection) {
  auto watcher = target("w");
  manager_.addTarget(watcher, &Target::receivedNothing, QELServiceEventClientConnected);
  manager_.addTarget(watcher, &Target::received, QELServiceEventClientDisconnected);
  EXPECT_FALSE(manager_.isConnected());

  bool connectedSeenInside = false;
  watcher->hook = [&] { connectedSeenInside = manager_.isConnected(); };
  env_.events().connect();
  EXPECT_TRUE(manager_.isConnected());
  EXPECT_TRUE(connectedSeenInside);
  env_.events().connect();

  env_.events().disconnect();
  EXPECT_FALSE(manager_.isConnected());
  EXPECT_FALSE(connectedSeenInside);
  env_.events().disconnect();

  EXPECT_EQ(calls_, (Calls{"w:-", std::string("w:") + QELServiceEventClientDisconnected}));
  EXPECT_STRNE(QELServiceEventClientConnected, QELServiceEventClientDisconnected);
}

TEST_F(QELEventManagerTest, ServerCannotImpersonateTheConnectionEvents) {
  auto watcher = target("w");
  manager_.addTarget(watcher, &Target::receivedNothing, QELServiceEventClientConnected);
  env_.events().deliver(QELServiceEventClientConnected, nullptr);
  EXPECT_TRUE(calls_.empty());
  EXPECT_FALSE(manager_.isConnected());
}

TEST_F(QELEventManagerTest, TransportRunsWhileThereAreTargets) {
  auto& transport = env_.events();
  EXPECT_FALSE(transport.isRunning());
  transport.connect();  // not started: nothing happens
  EXPECT_FALSE(manager_.isConnected());

  auto a = target("a"), b = target("b");
  manager_.addTarget(a, &Target::receivedNothing, QELServiceEventClientDisconnected);
  manager_.addTarget(b, &Target::receivedNothing, "x");
  EXPECT_TRUE(transport.isRunning());
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

TEST_F(QELEventManagerTest, InstalledTransportStartsWhenTargetsAlreadyWait) {
  auto a = target("a");
  manager_.addTarget(a, &Target::receivedNothing, "x");
  auto* replacement = new testing::ScriptedEventTransport;
  auto previous = manager_.replaceTransport(std::unique_ptr<EventTransport>(replacement));
  EXPECT_EQ(previous.get(), &env_.events());
  EXPECT_FALSE(env_.events().isRunning());
  EXPECT_TRUE(replacement->isRunning());
  replacement->deliver("x", nullptr);
  EXPECT_EQ(calls_, (Calls{"a:-"}));
  manager_.replaceTransport(std::move(previous));  // destroys the replacement
  EXPECT_TRUE(env_.events().isRunning());
}

}  // namespace
}  // namespace qel::core
