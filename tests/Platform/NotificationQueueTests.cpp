#include "qel/NotificationQueue.h"

#include "qel/NotificationCenter.h"
#include "qel/RunLoop.h"

#include "TestSupport.h"

#include <gtest/gtest.h>

#include <boost/json/object.hpp>

#include <string>
#include <vector>

namespace qel {
namespace {

using test::onFreshLoop;
using test::Thing;

// Records every notification a centre delivers, as "name" or "name#tag"
// where the tag is the user information's "tag".
struct Recorder {
  std::shared_ptr<Thing> self = Thing::create();
  std::vector<std::string> seen;

  explicit Recorder(NotificationCenter& center) {
    center.addObserver(self, [this](const Notification& n) {
      std::string entry = n.name();
      if (n.userInfo()) entry += "#" + std::string(n.userInfo()->at("tag").as_string());
      seen.push_back(entry);
    });
  }
};

Notification tagged(std::string name, std::shared_ptr<Object> sender, const char* tag) {
  return Notification(std::move(name), std::move(sender),
                      std::make_shared<const boost::json::object>(boost::json::object{{"tag", tag}}));
}

TEST(PlatformNotificationQueue, ASAPWaitsForTheCurrentCalloutToEnd) {
  onFreshLoop([](RunLoop& loop) {
    NotificationCenter center;
    NotificationQueue queue(center, loop);
    Recorder recorder(center);
    bool seenInsideCallout = true;
    loop.post([&] {
      queue.enqueueNotification(Notification("N", nullptr), PostingStyle::PostASAP);
      seenInsideCallout = !recorder.seen.empty();
    });
    loop.runPending();
    EXPECT_FALSE(seenInsideCallout);
    EXPECT_EQ(recorder.seen, std::vector<std::string>{"N"});
    EXPECT_EQ(queue.pendingCount(), 0u);
  });
}

TEST(PlatformNotificationQueue, CoalescesOnNameAndSenderKeepingTheWaitingOne) {
  onFreshLoop([](RunLoop& loop) {
    NotificationCenter center;
    NotificationQueue queue(center, loop);
    Recorder recorder(center);
    auto a = Thing::create();
    auto b = Thing::create();
    queue.enqueueNotification(tagged("N", a, "first"), PostingStyle::PostASAP);
    queue.enqueueNotification(tagged("M", a, "other name"), PostingStyle::PostASAP);
    queue.enqueueNotification(tagged("N", a, "second"), PostingStyle::PostASAP);
    queue.enqueueNotification(tagged("N", b, "other sender"), PostingStyle::PostASAP);
    queue.enqueueNotification(tagged("N", a, "uncoalesced"), PostingStyle::PostASAP,
                              NotificationCoalescing::None);
    EXPECT_EQ(queue.pendingCount(), 4u);
    loop.runPending();
    EXPECT_EQ(recorder.seen, (std::vector<std::string>{"N#first", "M#other name",
                                                       "N#other sender", "N#uncoalesced"}));

    // Once delivered, an equal notification is news again.
    recorder.seen.clear();
    queue.enqueueNotification(tagged("N", a, "again"), PostingStyle::PostASAP);
    loop.runPending();
    EXPECT_EQ(recorder.seen, std::vector<std::string>{"N#again"});
  });
}

TEST(PlatformNotificationQueue, WhenIdleComesAfterASAPAndNowIsSynchronous) {
  onFreshLoop([](RunLoop& loop) {
    NotificationCenter center;
    NotificationQueue queue(center, loop);
    Recorder recorder(center);
    queue.enqueueNotification(Notification("idle", nullptr), PostingStyle::PostWhenIdle);
    queue.enqueueNotification(Notification("asap", nullptr), PostingStyle::PostASAP);
    queue.enqueueNotification(Notification("now", nullptr), PostingStyle::PostNow);
    EXPECT_EQ(recorder.seen, std::vector<std::string>{"now"});
    loop.runPending();
    EXPECT_EQ(recorder.seen, (std::vector<std::string>{"now", "asap", "idle"}));
  });
}

TEST(PlatformNotificationQueue, NotificationsEnqueuedWhileDeliveringWaitForALaterCallout) {
  onFreshLoop([](RunLoop& loop) {
    NotificationCenter center;
    NotificationQueue queue(center, loop);
    auto observer = Thing::create();
    int delivered = 0;
    center.addObserver(observer, [&](const Notification&) {
      if (++delivered < 3)
        queue.enqueueNotification(Notification("N", nullptr), PostingStyle::PostASAP);
    });
    queue.enqueueNotification(Notification("N", nullptr), PostingStyle::PostASAP);
    EXPECT_EQ(loop.runPending(), 3u);
    EXPECT_EQ(delivered, 3);
  });
}

TEST(PlatformNotificationQueue, ADestroyedQueueNeverPosts) {
  onFreshLoop([](RunLoop& loop) {
    NotificationCenter center;
    Recorder recorder(center);
    {
      NotificationQueue queue(center, loop);
      queue.enqueueNotification(Notification("asap", nullptr), PostingStyle::PostASAP);
      queue.enqueueNotification(Notification("idle", nullptr), PostingStyle::PostWhenIdle);
    }
    loop.runPending();
    EXPECT_TRUE(recorder.seen.empty());
  });
}

TEST(PlatformNotificationQueue, DefaultQueueIsPerThreadAndPostsToTheDefaultCenter) {
  onFreshLoop([](RunLoop& loop) {
    Recorder recorder(NotificationCenter::defaultCenter());
    auto& queue = NotificationQueue::defaultQueue();
    EXPECT_EQ(&queue, &NotificationQueue::defaultQueue());
    NotificationQueue* elsewhere = nullptr;
    std::thread([&] { elsewhere = &NotificationQueue::defaultQueue(); }).join();
    EXPECT_NE(&queue, elsewhere);

    queue.enqueueNotification(Notification("DEFAULT_QUEUE_TEST", nullptr), PostingStyle::PostASAP);
    EXPECT_TRUE(recorder.seen.empty());
    loop.runPending();
    EXPECT_EQ(recorder.seen, std::vector<std::string>{"DEFAULT_QUEUE_TEST"});
  });
}

}  // namespace
}  // namespace qel
