#include "qel/NotificationQueue.h"

#include "qel/NotificationCenter.h"
#include "qel/RunLoop.h"

#include <algorithm>

namespace qel {
namespace {

bool has(NotificationCoalescing set, NotificationCoalescing flag) {
  return (static_cast<unsigned>(set) & static_cast<unsigned>(flag)) != 0;
}

bool sameSender(const std::shared_ptr<Object>& a, const std::shared_ptr<Object>& b) {
  if (!a || !b) return !a && !b;
  return !a.owner_before(b) && !b.owner_before(a);
}

}  // namespace

struct NotificationQueue::State : std::enable_shared_from_this<State> {
  NotificationCenter* center;
  RunLoop* loop;
  std::deque<Notification> asap;
  std::deque<Notification> idle;
  bool asapPosted = false;
  bool idlePosted = false;

  State(NotificationCenter& c, RunLoop& l) : center(&c), loop(&l) {}

  static bool coalesces(const Notification& waiting, const Notification& candidate,
                        NotificationCoalescing coalesce) {
    if (coalesce == NotificationCoalescing::None) return false;
    if (has(coalesce, NotificationCoalescing::OnName) && waiting.name() != candidate.name())
      return false;
    if (has(coalesce, NotificationCoalescing::OnSender) &&
        !sameSender(waiting.sender(), candidate.sender()))
      return false;
    return true;
  }

  bool isWaiting(const Notification& candidate, NotificationCoalescing coalesce) const {
    auto match = [&](const Notification& waiting) {
      return coalesces(waiting, candidate, coalesce);
    };
    return std::any_of(asap.begin(), asap.end(), match) ||
           std::any_of(idle.begin(), idle.end(), match);
  }

  void dropWaiting(const Notification& candidate, NotificationCoalescing coalesce) {
    auto match = [&](const Notification& waiting) {
      return coalesces(waiting, candidate, coalesce);
    };
    std::erase_if(asap, match);
    std::erase_if(idle, match);
  }

  // The posted handlers hold the state weakly: a queue destroyed with a
  // flush on its way simply never flushes.
  void postASAPFlush() {
    if (asapPosted) return;
    asapPosted = true;
    loop->postAfterCallout([weak = weak_from_this()] {
      if (auto state = weak.lock()) state->flushASAP();
    });
  }

  void postIdleFlush() {
    if (idlePosted) return;
    idlePosted = true;
    loop->post([weak = weak_from_this()] {
      if (auto state = weak.lock()) state->flushIdle();
    });
  }

  void flushASAP() {
    asapPosted = false;
    // What handlers enqueue now waits for a later callout.
    std::deque<Notification> batch;
    batch.swap(asap);
    auto keepAlive = shared_from_this();
    for (const auto& notification : batch) center->postNotification(notification);
  }

  void flushIdle() {
    idlePosted = false;
    // Idle notifications wait until no ASAP one does.
    if (!asap.empty() || asapPosted) {
      postIdleFlush();
      return;
    }
    std::deque<Notification> batch;
    batch.swap(idle);
    auto keepAlive = shared_from_this();
    for (const auto& notification : batch) center->postNotification(notification);
  }
};

NotificationQueue::NotificationQueue(NotificationCenter& center, RunLoop& loop)
    : state_(std::make_shared<State>(center, loop)) {}

NotificationQueue::~NotificationQueue() = default;

NotificationQueue& NotificationQueue::defaultQueue() {
  thread_local NotificationQueue queue(NotificationCenter::defaultCenter(), RunLoop::current());
  return queue;
}

void NotificationQueue::enqueueNotification(const Notification& notification, PostingStyle style,
                                            NotificationCoalescing coalesce) {
  switch (style) {
    case PostingStyle::PostNow: {
      // The notification goes out now and stands for the equal ones waiting.
      state_->dropWaiting(notification, coalesce);
      auto keepAlive = state_;
      keepAlive->center->postNotification(notification);
      return;
    }
    case PostingStyle::PostASAP:
      if (state_->isWaiting(notification, coalesce)) return;
      state_->asap.push_back(notification);
      state_->postASAPFlush();
      return;
    case PostingStyle::PostWhenIdle:
      if (state_->isWaiting(notification, coalesce)) return;
      state_->idle.push_back(notification);
      state_->postIdleFlush();
      return;
  }
}

std::size_t NotificationQueue::pendingCount() const {
  return state_->asap.size() + state_->idle.size();
}

}  // namespace qel
