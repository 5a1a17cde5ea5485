#pragma once

#include "qel/Export.h"

#include <boost/asio/io_context.hpp>
#include <boost/asio/steady_timer.hpp>

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <vector>

namespace qel {

class ScheduledCall;

// The event loop of one thread: every callback of the framework (requests,
// events, timers, queued notifications) runs from here, one at a time, so no
// state needs a lock.
//
// Each thread that runs a loop has exactly one, created on first use of
// RunLoop::current(). It wraps a boost::asio::io_context that network code
// uses directly.
//
// Time: scheduled calls use the loop's clock. Tests switch a loop to a manual
// clock and move time forward by hand; the calls that fall due then run in
// deadline order (equal deadlines in scheduling order), so a five-second
// retry is tested in microseconds without touching shipped constants.
//
// Threading: a loop may only be used from its own thread (checked in debug
// builds).
//
//   auto& loop = qel::RunLoop::current();
//   loop.post([] { std::puts("next callout"); });
//   auto call = loop.schedule(std::chrono::seconds(5), [] { retry(); });
//   loop.runUntil([&] { return done; }, std::chrono::seconds(10));
class QEL_EXPORT RunLoop {
 public:
  using Clock = std::chrono::steady_clock;
  using TimePoint = Clock::time_point;
  using Duration = Clock::duration;

  RunLoop(const RunLoop&) = delete;
  RunLoop& operator=(const RunLoop&) = delete;
  ~RunLoop();

  // The calling thread's loop, created on first use.
  static RunLoop& current();

  boost::asio::io_context& context() { return context_; }

  // Runs callouts until stop() is called.
  void run();
  // Runs callouts for at most `duration` of real time; false if stop() ended it early.
  void runFor(Duration duration);
  // Runs callouts until `predicate` holds (checked after every callout) or
  // `timeout` of real time passed. Returns the predicate's last value.
  bool runUntil(const std::function<bool()>& predicate, Duration timeout);
  // Runs every callout that is ready now, including those they post, without
  // waiting for time to pass. Returns the number run.
  std::size_t runPending();
  // Ends the innermost run(), runFor() or runUntil().
  void stop();

  // Runs `callout` later on this loop, after the current callout has ended.
  // The one member that other threads may call.
  void post(std::function<void()> callout);
  // Runs `callout` as soon as the callout now running has returned, before
  // the loop takes up anything already waiting (a network completion, a
  // timer). Outside a callout, and from a callout run this way, it is post().
  // Notifications posted "as soon as possible" go out this way, so that what
  // they announce still holds when they arrive.
  void postAfterCallout(std::function<void()> callout);

  // Runs `callout` once `delay` has passed on the loop's clock. The returned
  // handle cancels it; dropping the handle does not. A loop that ends lets go
  // of the callouts it has not run.
  std::shared_ptr<ScheduledCall> schedule(Duration delay, std::function<void()> callout);

  // Expires when the loop starts to end. Whoever keeps the loop's address
  // for later checks it first: a loop ends with its thread, and code that
  // outlives it (a service kept in a static, say) must not post to it.
  std::weak_ptr<const void> lifetime() const { return lifetime_; }

  // The loop's clock.
  TimePoint now() const;

  // Switches to a manual clock that only advance() moves. Meant for tests;
  // call before anything is scheduled.
  void useManualClock();
  bool usesManualClock() const { return manualClock_; }
  // Manual clock only: moves time forward by `duration`, running each
  // scheduled call that falls due, in deadline order, with runPending() after
  // each so that the work it posts happens "in between" as it would live.
  void advance(Duration duration);

  // Count of callouts this loop has run: a cheap measure of wakeups.
  std::uint64_t calloutCount() const { return calloutCount_; }

  // Debug builds: aborts when called from another thread than the loop's.
  void assertOnLoopThread() const;

 private:
  friend class ScheduledCall;
  RunLoop();
  // Waits for and runs one callout and counts it; false when only the
  // loop's own handlers ran.
  bool runOne();
  // Runs callouts until `deadline` of real time, stop(), or `predicate`
  // (when given) holds after a callout. Returns whether the predicate held.
  bool runToDeadline(TimePoint deadline, const std::function<bool()>* predicate);
  // Manual clock: fires every pending call due at or before `until`, in
  // deadline order, moving the clock to each deadline.
  void runManualDue(TimePoint until);
  std::shared_ptr<ScheduledCall> nextManualDue(TimePoint until);
  void consumeStop(int depth);
  // Runs `dispatch` (which may run a callout and returns how many it ran)
  // as a callout, then whatever postAfterCallout() queued meanwhile.
  template <class Dispatch>
  std::size_t asCallout(Dispatch&& dispatch);
  void runAfterCallout();
  // Fires a due call of the manual clock as a callout and counts it.
  void fireCallout(ScheduledCall& call);

  boost::asio::io_context context_;
  bool manualClock_ = false;
  TimePoint manualNow_{};
  std::uint64_t nextSequence_ = 0;
  std::uint64_t calloutCount_ = 0;
  // Handlers of the loop's own deadline timers run since the last count.
  std::size_t ownHandlersRun_ = 0;
  int runDepth_ = 0;
  int dispatching_ = 0;
  bool endingCallout_ = false;
  std::vector<std::function<void()>> afterCallout_;
  // The depth of the run that stop() ended, 0 when none is pending.
  int stopRequested_ = 0;
  std::vector<std::shared_ptr<ScheduledCall>> manualCalls_;
  // Real-clock calls whose asio timers must go before the io_context does.
  std::vector<std::weak_ptr<ScheduledCall>> realCalls_;
  std::size_t pruneRealCallsAt_ = 64;
  std::shared_ptr<const void> lifetime_ = std::make_shared<char>(0);
  bool ending_ = false;
  [[maybe_unused]] const void* threadTag_ = nullptr;  // read only by assertions
};

// A call scheduled on a run loop. cancel() is safe at any time, also from
// within the call itself.
class QEL_EXPORT ScheduledCall {
 public:
  ScheduledCall(const ScheduledCall&) = delete;
  ScheduledCall& operator=(const ScheduledCall&) = delete;
  ~ScheduledCall();

  void cancel();
  bool isPending() const { return pending_; }
  RunLoop::TimePoint deadline() const { return deadline_; }

 private:
  friend class RunLoop;
  ScheduledCall() = default;
  void fire();

  std::function<void()> callout_;
  RunLoop::TimePoint deadline_{};
  std::uint64_t sequence_ = 0;
  bool pending_ = false;
  std::unique_ptr<boost::asio::steady_timer> timer_;
};

}  // namespace qel
