#include "qel/NotificationCenter.h"

#include "TestSupport.h"

#include <gtest/gtest.h>

#include <boost/json/object.hpp>

#include <new>
#include <string>
#include <vector>

namespace qel {
namespace {

using test::Thing;

TEST(PlatformNotificationCenter, DeliversSynchronouslyInRegistrationOrderByNameAndSender) {
  NotificationCenter center;
  auto observer = Thing::create();
  auto sender = Thing::create();
  auto other = Thing::create();
  std::vector<std::string> seen;
  center.addObserver(observer, [&](const Notification& n) { seen.push_back("any:" + n.name()); });
  center.addObserver(observer, [&](const Notification&) { seen.push_back("A"); }, "A");
  center.addObserver(observer, [&](const Notification&) { seen.push_back("A from sender"); }, "A",
                     sender);
  center.addObserver(observer, [&](const Notification&) { seen.push_back("anything from sender"); },
                     "", sender);

  center.postNotificationName("A", sender);
  EXPECT_EQ(seen, (std::vector<std::string>{"any:A", "A", "A from sender", "anything from sender"}));
  seen.clear();
  center.postNotificationName("A", other);
  EXPECT_EQ(seen, (std::vector<std::string>{"any:A", "A"}));
  seen.clear();
  center.postNotificationName("B", nullptr);
  EXPECT_EQ(seen, (std::vector<std::string>{"any:B"}));

  // Another centre is a separate world.
  seen.clear();
  NotificationCenter elsewhere;
  elsewhere.postNotificationName("A", sender);
  EXPECT_TRUE(seen.empty());
}

TEST(PlatformNotificationCenter, CarriesSenderAndUserInfo) {
  NotificationCenter center;
  auto observer = Thing::create();
  auto sender = Thing::create();
  auto info = std::make_shared<const boost::json::object>(boost::json::object{{"k", 1}});
  UserInfo received;
  std::shared_ptr<Object> from;
  center.addObserver(observer, [&](const Notification& n) {
    received = n.userInfo();
    from = n.sender();
  });
  center.postNotificationName("N", sender, info);
  EXPECT_EQ(received, info);
  EXPECT_EQ(from, sender);
}

TEST(PlatformNotificationCenter, ADeadObserverIsNeverCalledAndIsDropped) {
  NotificationCenter center;
  auto observer = Thing::create();
  int calls = 0;
  center.addObserver(observer, [&](const Notification&) { ++calls; }, "N");
  EXPECT_EQ(center.observerCount(), 1u);
  observer.reset();  // without removing itself
  EXPECT_EQ(center.observerCount(), 0u);
  center.postNotificationName("N", nullptr);
  EXPECT_EQ(calls, 0);
}

TEST(PlatformNotificationCenter, SenderFilterMatchesIdentityNotAddress) {
  // Two senders built at the same address, one after the other: a filter on
  // the first must not match the second.
  alignas(Thing) unsigned char storage[sizeof(Thing)];
  struct Placed : Thing {};
  auto place = [&] {
    return std::shared_ptr<Thing>(new (storage) Placed, [](Thing* thing) { thing->~Thing(); });
  };
  NotificationCenter center;
  auto observer = Thing::create();
  int calls = 0;
  auto first = place();
  center.addObserver(observer, [&](const Notification&) { ++calls; }, "N", first);
  center.postNotificationName("N", first);
  EXPECT_EQ(calls, 1);
  first.reset();
  auto second = place();
  ASSERT_EQ(static_cast<void*>(second.get()), static_cast<void*>(storage));
  center.postNotificationName("N", second);
  EXPECT_EQ(calls, 1);
  second.reset();
}

TEST(PlatformNotificationCenter, RemovingTakesEveryRegistrationOrExactlyTheFilteredOnes) {
  NotificationCenter center;
  auto observer = Thing::create();
  auto keeper = Thing::create();
  auto sender = Thing::create();
  std::vector<std::string> seen;
  center.addObserver(observer, [&](const Notification&) { seen.push_back("A"); }, "A");
  center.addObserver(observer, [&](const Notification&) { seen.push_back("A/s"); }, "A", sender);
  center.addObserver(observer, [&](const Notification&) { seen.push_back("B"); }, "B");
  center.addObserver(keeper, [&](const Notification&) { seen.push_back("keeper"); }, "A");

  center.removeObserver(observer.get(), "A", sender.get());
  center.postNotificationName("A", sender);
  EXPECT_EQ(seen, (std::vector<std::string>{"A", "keeper"}));

  center.removeObserver(observer.get());
  seen.clear();
  center.postNotificationName("A", sender);
  center.postNotificationName("B", sender);
  EXPECT_EQ(seen, (std::vector<std::string>{"keeper"}));
  EXPECT_EQ(center.observerCount(), 1u);
}

TEST(PlatformNotificationCenter, RegistrationChangesDuringDeliveryAreSafe) {
  NotificationCenter center;
  auto first = Thing::create();
  auto second = Thing::create();
  auto late = Thing::create();
  std::vector<std::string> seen;
  center.addObserver(first, [&](const Notification&) {
    seen.push_back("first");
    center.removeObserver(first.get());   // itself
    center.removeObserver(second.get());  // one still to be called
    center.addObserver(late, [&](const Notification&) { seen.push_back("late"); });
  });
  center.addObserver(second, [&](const Notification&) { seen.push_back("second"); });

  center.postNotificationName("N", nullptr);
  EXPECT_EQ(seen, (std::vector<std::string>{"first"}));
  seen.clear();
  center.postNotificationName("N", nullptr);
  EXPECT_EQ(seen, (std::vector<std::string>{"late"}));
}

TEST(PlatformNotificationCenter, ObserverStaysAliveThroughItsHandler) {
  NotificationCenter center;
  auto observer = Thing::create();
  std::weak_ptr<Thing> weak = observer;
  bool aliveInside = false;
  center.addObserver(observer, [&](const Notification&) {
    observer.reset();  // the last outside reference
    aliveInside = !weak.expired();
  });
  center.postNotificationName("N", nullptr);
  EXPECT_TRUE(aliveInside);
  EXPECT_TRUE(weak.expired());
}

TEST(PlatformNotificationCenter, DefaultCenterIsOneForTheProcess) {
  EXPECT_EQ(&NotificationCenter::defaultCenter(), &NotificationCenter::defaultCenter());
}

}  // namespace
}  // namespace qel
