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
  timer->target_ = std::move(target);
  timer->action_ = std::move(action);
  // The loop keeps a scheduled timer alive, whoever else holds it.
  timer->selfWhileScheduled_ = timer;
  timer->arm();
  return timer;
}

void Timer::arm() {
  const auto delay = std::chrono::duration_cast<RunLoop::Duration>(
      std::chrono::duration<double>(interval_));
  std::weak_ptr<Timer> weak = selfWhileScheduled_;
  call_ = RunLoop::current().schedule(delay, [weak] {
    if (auto timer = weak.lock()) timer->fire();
  });
}

void Timer::fire() {
  if (!valid_) return;
  // Locals keep the target and the action alive through the call even if it
  // invalidates this timer or drops the last reference to it; no member is
  // touched once the action has started.
  auto target = target_;
  if (repeats_) {
    auto action = action_;
    arm();
    action();
    return;
  }
  valid_ = false;
  call_.reset();
  auto action = std::move(action_);
  action_ = nullptr;
  target_.reset();
  auto self = std::move(selfWhileScheduled_);
  action();
}

void Timer::invalidate() {
  if (!valid_) return;
  valid_ = false;
  if (call_) call_->cancel();
  call_.reset();
  // Released in this order at the end of the function: this timer may be
  // held only by itself.
  auto self = std::move(selfWhileScheduled_);
  auto action = std::move(action_);
  action_ = nullptr;
  auto target = std::move(target_);
  target_.reset();
}

}  // namespace qel
