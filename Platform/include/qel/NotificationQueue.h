#pragma once

#include "qel/Notification.h"

#include <deque>
#include <memory>

namespace qel {

class NotificationCenter;
class RunLoop;

enum class PostingStyle : int {
  PostWhenIdle = 1,  // when the loop has nothing else ready
  PostASAP = 2,      // once the current callout has ended
  PostNow = 3,       // synchronously, after coalescing
};

enum class NotificationCoalescing : unsigned {
  None = 0,
  OnName = 1,
  OnSender = 2,
};
constexpr NotificationCoalescing operator|(NotificationCoalescing a, NotificationCoalescing b) {
  return static_cast<NotificationCoalescing>(static_cast<unsigned>(a) | static_cast<unsigned>(b));
}

// Holds notifications and posts them to its centre later, through the run
// loop, merging equal ones that are still waiting.
//
// By default a notification is coalesced with a waiting one of the same name
// and the same sender: the waiting one stays (keeping its place), the new one
// is dropped.
//
// Threading: one per run loop thread; defaultQueue() is bound to
// NotificationCenter::defaultCenter() and to the calling thread's loop.
//
//   qel::NotificationQueue::defaultQueue().enqueueNotification(
//       qel::Notification("MAP_DID_CHANGE", service), qel::PostingStyle::PostASAP);
class NotificationQueue {
 public:
  NotificationQueue(NotificationCenter& center, RunLoop& loop);
  NotificationQueue(const NotificationQueue&) = delete;
  NotificationQueue& operator=(const NotificationQueue&) = delete;
  ~NotificationQueue();

  // The calling thread's default queue.
  static NotificationQueue& defaultQueue();

  void enqueueNotification(const Notification& notification, PostingStyle style,
                           NotificationCoalescing coalesce = NotificationCoalescing::OnName |
                                                             NotificationCoalescing::OnSender);

  // Notifications still waiting (both styles).
  std::size_t pendingCount() const;

 private:
  struct State;
  std::shared_ptr<State> state_;
};

}  // namespace qel
