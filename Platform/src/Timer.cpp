#include "qel/Timer.h"

#include <algorithm>

namespace qel {
namespace {

// As on the platform, a timer never fires more often than every 0.1 ms; a
// repeating zero interval would otherwise never let time move on.
constexpr double kMinimumInterval = 0.0001;

}  // namespace

Timer::~Timer() {
  if (call_) call_->cancel();
}

std::shared_ptr<Timer> Timer::scheduledTimer(double interval, std::shared_ptr<Object> target,
                                             std::function<void()> action, bool repeats) {
  auto timer = std::shared_ptr<Timer>(new Timer);
  timer->interval_ = std::max(interval, kMinimumInterval);
  timer->repeats_ = repeats;
  timer->valid_ = true;
  timer->action_ = std::move(action);
  arm(timer, std::move(target));
  return timer;
}

void Timer::arm(const std::shared_ptr<Timer>& timer, std::shared_ptr<Object> target) {
  const auto delay = std::chrono::duration_cast<RunLoop::Duration>(
      std::chrono::duration<double>(timer->interval_));
  // The call, not the timer, holds the timer and its target: cancelling it
  // or ending its loop lets go of both, even when the target holds the timer.
  timer->call_ = RunLoop::current().schedule(
      delay, [timer, target = std::move(target)] { fire(timer, target); });
}

void Timer::fire(const std::shared_ptr<Timer>& timer, const std::shared_ptr<Object>& target) {
  // The running call keeps the timer and the target alive through the action,
  // even if it invalidates the timer or drops the last reference to it.
  if (!timer->valid_) return;
  if (timer->repeats_) {
    auto action = timer->action_;
    arm(timer, target);
    action();
    return;
  }
  timer->valid_ = false;
  timer->call_.reset();
  auto action = std::move(timer->action_);
  timer->action_ = nullptr;
  action();
}

void Timer::invalidate() {
  if (!valid_) return;
  valid_ = false;
  auto action = std::move(action_);
  action_ = nullptr;
  // Cancelling lets go of the target and perhaps of the last reference to
  // this timer: nothing of it is touched afterwards.
  auto call = std::move(call_);
  if (call) call->cancel();
}

}  // namespace qel
