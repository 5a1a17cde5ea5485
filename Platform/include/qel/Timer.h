#pragma once

#include "qel/Object.h"
#include "qel/RunLoop.h"

#include <functional>
#include <memory>

namespace qel {

// A timer on the current thread's run loop that calls a method of its target.
//
// A scheduled timer holds a strong reference to its target until it fires
// (once, unless it repeats), is invalidated or its loop ends, so the target
// lives at least that long. The loop keeps the timer alive while it is
// scheduled; both are held by the loop's scheduled call, so a target that
// keeps its timer (every retry does) is let go of when the loop ends.
//
// Threading: the run loop thread that scheduled it.
//
//   retryTimer_ = qel::Timer::scheduledTimer(5.0, sharedFrom(this), &Engine::retry, false);
//   ...
//   retryTimer_->invalidate();
class Timer {
 public:
  Timer(const Timer&) = delete;
  Timer& operator=(const Timer&) = delete;
  ~Timer();

  // `interval` in seconds.
  template <class T>
  static std::shared_ptr<Timer> scheduledTimer(double interval, std::shared_ptr<T> target,
                                               void (T::*action)(), bool repeats) {
    T* raw = target.get();
    return scheduledTimer(interval, std::static_pointer_cast<Object>(std::move(target)),
                          [raw, action] { (raw->*action)(); }, repeats);
  }
  static std::shared_ptr<Timer> scheduledTimer(double interval, std::shared_ptr<Object> target,
                                               std::function<void()> action, bool repeats);

  void invalidate();
  bool isValid() const { return valid_; }
  double timeInterval() const { return interval_; }

 private:
  Timer() = default;
  static void arm(const std::shared_ptr<Timer>& timer, std::shared_ptr<Object> target);
  static void fire(const std::shared_ptr<Timer>& timer, const std::shared_ptr<Object>& target);

  double interval_ = 0;
  bool repeats_ = false;
  bool valid_ = false;
  std::function<void()> action_;
  std::shared_ptr<ScheduledCall> call_;
};

}  // namespace qel
