#include "qel/KeyValueObserving.h"
#include "qel/NotificationCenter.h"
#include "qel/NotificationQueue.h"

#include "TestSupport.h"

#include <gtest/gtest.h>

#include <boost/json/object.hpp>

#include <functional>
#include <new>
#include <string>
#include <vector>

namespace qel {
namespace {

using test::onFreshLoop;
using test::thing;
using test::Thing;
using Seen = std::vector<std::string>;

UserInfo info(const char* tag) {
  return std::make_shared<const boost::json::object>(boost::json::object{{"tag", tag}});
}

TEST(PlatformNotificationCenter, DeliversSynchronouslyInRegistrationOrderByNameAndSenderIdentity) {
  NotificationCenter center;
  auto observer = thing(), sender = thing(), other = thing();
  const UserInfo carried = info("x");
  Seen seen;
  center.addObserver(observer, [&](const Notification& n) { seen.push_back("any:" + n.name()); });
  center.addObserver(observer, [&](const Notification&) { seen.push_back("A"); }, "A");
  center.addObserver(observer, [&](const Notification& n) {
    seen.push_back("A from sender");
    EXPECT_EQ(n.sender(), sender);
    EXPECT_EQ(n.userInfo(), carried);
  }, "A", sender);
  center.addObserver(observer, [&](const Notification&) { seen.push_back("anything from sender"); },
                     "", sender);

  center.postNotificationName("A", sender, carried);
  EXPECT_EQ(seen, (Seen{"any:A", "A", "A from sender", "anything from sender"}));
  seen.clear();
  center.postNotificationName("A", other);
  center.postNotificationName("B", nullptr);
  EXPECT_EQ(seen, (Seen{"any:A", "A", "any:B"}));
  seen.clear();
  center.removeObserver(observer.get(), "A", sender.get());  // exactly that registration
  center.postNotificationName("A", sender);
  EXPECT_EQ(seen, (Seen{"any:A", "A", "anything from sender"}));

  // A sender built at the address of one gone is another sender: a filter
  // on the first must not match it.
  alignas(Thing) unsigned char storage[sizeof(Thing)];
  auto place = [&] { return std::shared_ptr<Thing>(new (storage) Thing, [](Thing* t) { t->~Thing(); }); };
  int calls = 0;
  auto first = place();
  center.addObserver(observer, [&](const Notification&) { ++calls; }, "N", first);
  center.postNotificationName("N", first);
  first.reset();
  auto second = place();
  ASSERT_EQ(static_cast<void*>(second.get()), static_cast<void*>(storage));
  center.postNotificationName("N", second);
  EXPECT_EQ(calls, 1);
}

TEST(PlatformNotificationCenter, ObserversAreWeakAndMayComeAndGoDuringDelivery) {
  NotificationCenter center;
  auto first = thing(), second = thing(), dead = thing(), late = thing();
  std::weak_ptr<Thing> weakFirst = first;
  bool firstAliveInside = false;
  Seen seen;
  center.addObserver(first, [&](const Notification&) {
    seen.push_back("first");
    first.reset();  // the last outside reference
    firstAliveInside = !weakFirst.expired();
    center.removeObserver(second.get());  // one still to be called
    center.addObserver(late, [&](const Notification&) { seen.push_back("late"); });
  });
  center.addObserver(second, [&](const Notification&) { seen.push_back("second"); });
  center.addObserver(dead, [&](const Notification&) { seen.push_back("dead"); });
  dead.reset();  // without removing itself
  EXPECT_EQ(center.observerCount(), 2u);

  center.postNotificationName("N", nullptr);
  EXPECT_EQ(seen, (Seen{"first"}));
  EXPECT_TRUE(firstAliveInside);
  EXPECT_TRUE(weakFirst.expired());
  center.postNotificationName("N", nullptr);
  EXPECT_EQ(seen, (Seen{"first", "late"}));
}

// Records what a centre delivers, as "name" or "name#tag".
struct Recorder {
  std::shared_ptr<Thing> self = thing();
  Seen seen;

  explicit Recorder(NotificationCenter& center) {
    center.addObserver(self, [this](const Notification& n) {
      std::string entry = n.name();
      if (n.userInfo()) entry.append("#").append(n.userInfo()->at("tag").as_string());
      seen.push_back(entry);
    });
  }
};

TEST(PlatformNotificationQueue, PostsWaitForTheCurrentCalloutCoalesceDieWithTheirQueueAndNeverNest) {
  onFreshLoop([](RunLoop& loop) {
    NotificationCenter center;
    NotificationQueue queue(center, loop);
    Recorder recorder(center);
    Seen seenInside;
    loop.post([&] {
      queue.enqueueNotification(Notification("idle", nullptr), PostingStyle::PostWhenIdle);
      queue.enqueueNotification(Notification("asap", nullptr), PostingStyle::PostASAP);
      queue.enqueueNotification(Notification("now", nullptr), PostingStyle::PostNow);
      seenInside = recorder.seen;
      NotificationQueue doomed(center, loop);
      doomed.enqueueNotification(Notification("doomed asap", nullptr), PostingStyle::PostASAP);
      doomed.enqueueNotification(Notification("doomed idle", nullptr), PostingStyle::PostWhenIdle);
    });
    loop.runPending();
    EXPECT_EQ(seenInside, (Seen{"now"}));
    EXPECT_EQ(recorder.seen, (Seen{"now", "asap", "idle"}));
    // Enqueued outside a callout, an idle one still waits for an ASAP one
    // enqueued after it.
    recorder.seen.clear();
    queue.enqueueNotification(Notification("idle", nullptr), PostingStyle::PostWhenIdle);
    queue.enqueueNotification(Notification("asap", nullptr), PostingStyle::PostASAP);
    loop.runPending();
    EXPECT_EQ(recorder.seen, (Seen{"asap", "idle"}));

    // Coalesced on name and sender, keeping the one that waits.
    recorder.seen.clear();
    auto a = thing(), b = thing();
    auto enqueue = [&](const char* name, std::shared_ptr<Thing> sender, const char* tag) {
      queue.enqueueNotification(Notification(name, sender, info(tag)), PostingStyle::PostASAP);
    };
    enqueue("N", a, "first");
    enqueue("M", a, "other name");
    enqueue("N", a, "second");
    enqueue("N", b, "other sender");
    loop.runPending();
    EXPECT_EQ(recorder.seen, (Seen{"N#first", "M#other name", "N#other sender"}));

    // Through the default queue and centre, each delivery enqueues an equal
    // notification: news again, delivered once this delivery has returned,
    // never inside it.
    auto& defaultCenter = NotificationCenter::defaultCenter();
    Recorder defaultRecorder(defaultCenter);
    auto enqueueDefault = [] {
      NotificationQueue::defaultQueue().enqueueNotification(Notification("DEFAULT_QUEUE_TEST", nullptr),
                                                            PostingStyle::PostASAP);
    };
    int depth = 0, deepest = 0;
    defaultCenter.addObserver(defaultRecorder.self, [&](const Notification&) {
      deepest = std::max(deepest, ++depth);
      if (defaultRecorder.seen.size() < 3) enqueueDefault();
      --depth;
    }, "DEFAULT_QUEUE_TEST");
    enqueueDefault();
    loop.runPending();
    EXPECT_EQ(defaultRecorder.seen.size(), 3u);
    EXPECT_EQ(deepest, 1);
  });
}

class Controller : public Object, public KeyValueObservable {
 public:
  Controller() : record_(*this, "record"), title_(*this, "title") {}
  void setRecord(std::shared_ptr<const int> record) { record_.set(std::move(record)); }
  void setTitle(std::string title) { title_.set(std::move(title)); }

 private:
  ObservableProperty<std::shared_ptr<const int>> record_;
  ObservableProperty<std::string> title_;
};

// Records calls as "keyPath", or "keyPath=<new value>" for records.
struct Observer : KeyValueObserver {
  Seen calls;
  std::function<void()> onCall;

  void observeValueForKeyPath(const std::string& keyPath, const Object*,
                              const KeyValueChange& change, void*) override {
    std::string call = keyPath;
    if (const auto* record = std::any_cast<std::shared_ptr<const int>>(&change.newValue))
      call.append("=").append(*record ? std::to_string(**record) : "null");
    calls.push_back(call);
    if (onCall) onCall();
  }
};

TEST(PlatformKeyValueObserving, EveryAssignmentIsToldBeforeTheSetterReturnsToLiveObserversOnly) {
  auto controller = std::make_shared<Controller>();
  auto observer = std::make_shared<Observer>();
  controller->addObserver(observer, "record", KeyValueObservingOptions::New, nullptr);

  auto record = std::make_shared<const int>(7);
  controller->setRecord(record);
  controller->setRecord(record);   // the same value again
  controller->setRecord(nullptr);  // nothing at all
  controller->setTitle("other key path");
  EXPECT_EQ(observer->calls, (Seen{"record=7", "record=7", "record=null"}));

  // Observers are weak and may be removed even during a notification.
  auto gone = std::make_shared<Observer>(), remover = std::make_shared<Observer>(),
       removed = std::make_shared<Observer>();
  controller->addObserver(gone, "title", KeyValueObservingOptions::None, nullptr);
  controller->addObserver(remover, "title", KeyValueObservingOptions::None, nullptr);
  controller->addObserver(removed, "title", KeyValueObservingOptions::None, nullptr);
  controller->addObserver(removed, "record", KeyValueObservingOptions::None, nullptr);
  gone.reset();
  remover->onCall = [&] {
    controller->removeObserver(remover.get(), "title");
    controller->removeObserver(removed.get(), "title");  // one still to be told
  };
  controller->setTitle("a");  // must reach neither the dead nor the removed observer
  controller->setTitle("b");
  controller->setRecord(nullptr);
  EXPECT_EQ(remover->calls, (Seen{"title"}));
  EXPECT_EQ(removed->calls, (Seen{"record"}));
}

}  // namespace
}  // namespace qel
