#include "qel/RunLoop.h"

#include <boost/asio/executor_work_guard.hpp>
#include <boost/asio/post.hpp>

#include <algorithm>
#include <cassert>
#include <iterator>
#include <utility>

namespace qel {
namespace {

// Its address identifies the thread a loop belongs to.
thread_local const char kThreadTag = 0;

}  // namespace

RunLoop::RunLoop() : threadTag_(&kThreadTag) {}

RunLoop::~RunLoop() {
  // Whoever kept this loop's address for later learns that it ended.
  lifetime_.reset();
  ending_ = true;
  // What pending calls hold goes now, while the context still exists: a
  // timer's target may hold the timer, and only the loop can break that
  // cycle. Releasing it may run destructors that cancel calls or schedule
  // new ones (refused now), so everything is taken out first. A handle kept
  // past the loop must not reach into the io_context either: the asio
  // timers go too; their aborted waits stay queued and go with the context.
  std::vector<std::shared_ptr<ScheduledCall>> alive;
  for (const auto& weak : realCalls_) {
    if (auto call = weak.lock()) alive.push_back(std::move(call));
  }
  realCalls_.clear();
  alive.insert(alive.end(), manualCalls_.begin(), manualCalls_.end());
  manualCalls_.clear();
  std::vector<std::function<void()>> callouts;
  std::vector<std::unique_ptr<boost::asio::steady_timer>> timers;
  for (const auto& call : alive) {
    call->pending_ = false;
    callouts.push_back(std::exchange(call->callout_, nullptr));
    if (call->timer_) timers.push_back(std::move(call->timer_));
  }
  callouts.clear();
  timers.clear();
  alive.clear();
}

RunLoop& RunLoop::current() {
  thread_local std::unique_ptr<RunLoop> loop;
  if (!loop) loop.reset(new RunLoop);
  return *loop;
}

void RunLoop::assertOnLoopThread() const {
  assert(threadTag_ == &kThreadTag && "RunLoop used from another thread than its own");
}

template <class Dispatch>
std::size_t RunLoop::asCallout(Dispatch&& dispatch) {
  std::size_t ran = 0;
  {
    ++dispatching_;
    struct Leave {
      int& depth;
      ~Leave() { --depth; }
    } leave{dispatching_};
    ran = dispatch();
  }
  runAfterCallout();
  return ran;
}

void RunLoop::runAfterCallout() {
  if (endingCallout_ || afterCallout_.empty()) return;
  endingCallout_ = true;
  auto calls = std::exchange(afterCallout_, {});
  std::size_t next = 0;
  try {
    while (next < calls.size()) {
      auto call = std::move(calls[next++]);
      call();
    }
  } catch (...) {
    // What has not run yet still runs, after the next callout: a queue
    // waiting for its flush would otherwise wait for ever.
    afterCallout_.insert(afterCallout_.begin(), std::make_move_iterator(calls.begin() + static_cast<std::ptrdiff_t>(next)),
                         std::make_move_iterator(calls.end()));
    endingCallout_ = false;
    throw;
  }
  endingCallout_ = false;
}

void RunLoop::fireCallout(ScheduledCall& call) {
  asCallout([&] {
    call.fire();
    return std::size_t{1};
  });
  ++calloutCount_;
}

void RunLoop::postAfterCallout(std::function<void()> callout) {
  assertOnLoopThread();
  if (dispatching_ == 0 || endingCallout_) return post(std::move(callout));
  afterCallout_.push_back(std::move(callout));
}

bool RunLoop::runOne() {
  if (context_.stopped()) context_.restart();
  std::size_t ran = asCallout([this] { return context_.run_one(); });
  ran -= std::exchange(ownHandlersRun_, 0);
  calloutCount_ += ran;
  return ran != 0;
}

void RunLoop::consumeStop(int depth) {
  if (stopRequested_ >= depth) stopRequested_ = 0;
}

void RunLoop::run() {
  assertOnLoopThread();
  // io_context returns as soon as it runs out of work; a loop waits instead.
  auto guard = boost::asio::make_work_guard(context_);
  const int depth = ++runDepth_;
  while (stopRequested_ < depth) runOne();
  consumeStop(depth);
  --runDepth_;
}

void RunLoop::runFor(Duration duration) {
  assertOnLoopThread();
  runToDeadline(Clock::now() + duration, nullptr);
}

bool RunLoop::runUntil(const std::function<bool()>& predicate, Duration timeout) {
  assertOnLoopThread();
  if (predicate()) return true;
  return runToDeadline(Clock::now() + timeout, &predicate) || predicate();
}

bool RunLoop::runToDeadline(TimePoint deadline, const std::function<bool()>* predicate) {
  // One timer at the deadline and untimed waits, rather than asio's timed
  // run_one_until: that one waits in slices of at most a second, so an idle
  // thread would wake every second for nothing.
  auto guard = boost::asio::make_work_guard(context_);
  auto expired = std::make_shared<bool>(Clock::now() >= deadline);
  boost::asio::steady_timer timer(context_);
  if (!*expired) {
    timer.expires_at(deadline);
    timer.async_wait([this, expired](const boost::system::error_code& error) {
      // The loop's own wakeup, fired or cancelled: not a callout.
      ++ownHandlersRun_;
      if (!error) *expired = true;
    });
  }
  const int depth = ++runDepth_;
  bool satisfied = false;
  while (stopRequested_ < depth && !*expired) {
    if (!runOne() || *expired) continue;
    if (predicate && (satisfied = (*predicate)())) break;
  }
  consumeStop(depth);
  --runDepth_;
  return satisfied;
}

std::size_t RunLoop::runPending() {
  assertOnLoopThread();
  std::size_t count = 0;
  for (;;) {
    std::size_t ran = 0;
    while (true) {
      if (context_.stopped()) context_.restart();
      const std::size_t one = asCallout([this] { return context_.poll_one(); });
      if (one == 0) break;
      ran += one;
    }
    ran -= std::exchange(ownHandlersRun_, 0);
    calloutCount_ += ran;
    count += ran;
    if (manualClock_) {
      if (auto call = nextManualDue(manualNow_)) {
        fireCallout(*call);
        ++count;
        continue;
      }
    }
    if (ran == 0) break;
  }
  return count;
}

void RunLoop::stop() {
  assertOnLoopThread();
  if (runDepth_ > 0) stopRequested_ = std::max(stopRequested_, runDepth_);
}

void RunLoop::post(std::function<void()> callout) {
  boost::asio::post(context_, std::move(callout));
}

std::shared_ptr<ScheduledCall> RunLoop::schedule(Duration delay, std::function<void()> callout) {
  assertOnLoopThread();
  auto call = std::shared_ptr<ScheduledCall>(new ScheduledCall);
  // An ending loop runs nothing more: the call is born cancelled.
  if (ending_) return call;
  call->callout_ = std::move(callout);
  call->deadline_ = now() + std::max(delay, Duration::zero());
  call->sequence_ = nextSequence_++;
  call->pending_ = true;

  if (manualClock_) {
    manualCalls_.push_back(call);
    if (call->deadline_ <= manualNow_) {
      // Due already: a running loop must not wait for advance() to see it.
      post([this] { runManualDue(manualNow_); });
    }
    return call;
  }

  if (realCalls_.size() >= pruneRealCallsAt_) {
    std::erase_if(realCalls_, [](const auto& weak) { return weak.expired(); });
    pruneRealCallsAt_ = std::max<std::size_t>(64, realCalls_.size() * 2);
  }
  realCalls_.push_back(call);
  call->timer_ = std::make_unique<boost::asio::steady_timer>(context_);
  call->timer_->expires_at(call->deadline_);
  // The wait holds the call, so dropping the handle does not cancel it.
  call->timer_->async_wait([call](const boost::system::error_code& error) {
    if (!error) call->fire();
  });
  return call;
}

RunLoop::TimePoint RunLoop::now() const { return manualClock_ ? manualNow_ : Clock::now(); }

void RunLoop::useManualClock() {
  assertOnLoopThread();
  if (manualClock_) return;
  manualClock_ = true;
  manualNow_ = Clock::now();
}

void RunLoop::advance(Duration duration) {
  assertOnLoopThread();
  assert(manualClock_ && "advance() needs the manual clock");
  if (!manualClock_) return;
  const TimePoint target = manualNow_ + std::max(duration, Duration::zero());
  while (auto call = nextManualDue(target)) {
    manualNow_ = std::max(manualNow_, call->deadline_);
    fireCallout(*call);
    runPending();
  }
  manualNow_ = target;
}

void RunLoop::runManualDue(TimePoint until) {
  while (auto call = nextManualDue(until)) {
    fireCallout(*call);
  }
}

std::shared_ptr<ScheduledCall> RunLoop::nextManualDue(TimePoint until) {
  std::erase_if(manualCalls_, [](const auto& call) { return !call->pending_; });
  auto best = manualCalls_.end();
  for (auto it = manualCalls_.begin(); it != manualCalls_.end(); ++it) {
    if ((*it)->deadline_ > until) continue;
    if (best == manualCalls_.end() || (*it)->deadline_ < (*best)->deadline_ ||
        ((*it)->deadline_ == (*best)->deadline_ && (*it)->sequence_ < (*best)->sequence_)) {
      best = it;
    }
  }
  if (best == manualCalls_.end()) return nullptr;
  auto call = std::move(*best);
  manualCalls_.erase(best);
  return call;
}

ScheduledCall::~ScheduledCall() = default;

void ScheduledCall::cancel() {
  pending_ = false;
  if (timer_) timer_->cancel();
  // Let go of whatever the callout holds now, not when the wait ends; last,
  // as that may end whoever cancelled.
  auto callout = std::exchange(callout_, nullptr);
}

void ScheduledCall::fire() {
  if (!pending_) return;
  pending_ = false;
  // The callout may drop the last handle of this call: nothing of it is
  // touched once the callout has started.
  auto callout = std::move(callout_);
  callout_ = nullptr;
  if (callout) callout();
}

}  // namespace qel
