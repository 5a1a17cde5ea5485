#include "qel/RunLoop.h"
#include "qel/Timer.h"

#include "TestSupport.h"

#include <gtest/gtest.h>

#include <sys/resource.h>

#include <functional>
#include <string>
#include <vector>

using namespace std::chrono_literals;

namespace qel {
namespace {

using test::onFreshLoop;
using Order = std::vector<std::string>;

TEST(PlatformRunLoop, PostedWorkRunsAfterTheCurrentCalloutDueCallsInDeadlineOrderCancelledOnesNever) {
  onFreshLoop([](RunLoop& loop) {
    Order order;
    loop.post([&] {
      order.push_back("first");
      loop.post([&] { order.push_back("posted by first"); });
      order.push_back("first ends");
    });
    loop.post([&] { order.push_back("second"); });
    EXPECT_TRUE(order.empty());
    EXPECT_EQ(loop.runPending(), 3u);
    EXPECT_EQ(order, (Order{"first", "first ends", "second", "posted by first"}));

    // Work for the end of a callout runs as soon as it returns, ahead of
    // what already waits, and is no callout of its own; what that work asks
    // for in turn, and what is asked for outside a callout, is posted.
    order.clear();
    loop.postAfterCallout([&] { order.push_back("asked outside"); });
    loop.post([&] {
      order.push_back("first");
      loop.postAfterCallout([&] {
        order.push_back("after first");
        loop.postAfterCallout([&] { order.push_back("asked after first"); });
      });
      loop.postAfterCallout([&] { order.push_back("after first, second"); });
    });
    loop.post([&] { order.push_back("waiting"); });
    EXPECT_EQ(loop.runPending(), 4u);
    EXPECT_EQ(order, (Order{"asked outside", "first", "after first", "after first, second", "waiting",
                            "asked after first"}));

    // A manual clock fires due calls in deadline order, with posted work between.
    loop.useManualClock();
    const auto start = loop.now();
    order.clear();
    // The handles are dropped at once: the calls still run.
    loop.schedule(3s, [&] { order.push_back("c@3"); });
    loop.schedule(1s, [&] {
      order.push_back("a@1");
      EXPECT_EQ(loop.now() - start, 1s);
      loop.post([&] { order.push_back("posted by a"); });
      // Falls due within the same advance, so fires in it: a retry chain.
      loop.schedule(1500ms, [&] { order.push_back("from a@2.5"); });
    });
    loop.schedule(2s, [&] { order.push_back("b1@2"); });
    loop.schedule(2s, [&] { order.push_back("b2@2"); });
    loop.schedule(10s, [&] { order.push_back("late"); });

    loop.advance(500ms);
    EXPECT_TRUE(order.empty());
    loop.advance(2500ms);
    EXPECT_EQ(order, (Order{"a@1", "posted by a", "b1@2", "b2@2", "from a@2.5", "c@3"}));
    EXPECT_EQ(loop.now() - start, 3s);

    // A cancelled call never runs and lets go of what it holds at once; a
    // call may cancel itself, and drop its last handle, while it runs.
    auto witness = std::make_shared<int>(0);
    std::weak_ptr<int> weakWitness = witness;
    int ran = 0;
    loop.schedule(1s, [&ran, witness = std::move(witness)] { ++ran; })->cancel();
    EXPECT_TRUE(weakWitness.expired());
    std::shared_ptr<ScheduledCall> self;
    self = loop.schedule(1s, [&] {
      ran += 10;
      self->cancel();
      self.reset();
    });
    loop.advance(1s);
    EXPECT_EQ(ran, 10);
  });
}

// Idle, a loop sleeps until its deadline in one wait: each extra wakeup shows
// as a voluntary context switch of the thread.
TEST(PlatformRunLoop, RealClockRunsDueCallsAndIdleWaitsBlockOnceUntilTheirDeadline) {
  onFreshLoop([](RunLoop& loop) {
    bool fired = false;
    loop.schedule(5ms, [&] { fired = true; });
    const auto start = RunLoop::Clock::now();
    loop.runFor(20ms);  // returns when the time is up, not when idle
    EXPECT_TRUE(fired);
    EXPECT_GE(RunLoop::Clock::now() - start, 20ms);

    auto switches = [] {
      rusage usage{};
      ::getrusage(RUSAGE_THREAD, &usage);
      return usage.ru_nvcsw;
    };
    const auto before = switches();
    const auto callouts = loop.calloutCount();
    loop.runFor(1500ms);
    EXPECT_FALSE(loop.runUntil([] { return false; }, 1500ms));
    EXPECT_LE(switches() - before, 2);
    EXPECT_EQ(loop.calloutCount(), callouts);
  });
}

struct Target : Object {
  void tick() { onTick(); }
  std::function<void()> onTick;
  std::shared_ptr<Timer> timer;
};

TEST(PlatformTimer, HoldsItsTargetUntilDoneAndRepeatsUntilInvalidatedEvenFromItsOwnAction) {
  onFreshLoop([](RunLoop& loop) {
    loop.useManualClock();
    int fired = 0;
    auto target = std::make_shared<Target>();
    target->onTick = [&] { ++fired; };
    std::weak_ptr<Target> weak = target;
    auto timer = Timer::scheduledTimer(5.0, target, &Target::tick, false);
    target.reset();
    loop.advance(4999ms);
    EXPECT_EQ(fired, 0);
    EXPECT_FALSE(weak.expired());
    loop.advance(1ms);
    EXPECT_EQ(fired, 1);
    EXPECT_TRUE(weak.expired());  // let go once fired, though the timer lives on

    fired = 0;
    target = std::make_shared<Target>();
    weak = target;
    Timer::scheduledTimer(0.5, target, &Target::tick, false)->invalidate();
    // The target holds its own timer and lets go of it from the action: the
    // shape of every retry in the framework.
    target->onTick = [&fired, raw = target.get()] {
      if (++fired < 3) return;
      raw->timer->invalidate();
      raw->timer.reset();
    };
    target->timer = Timer::scheduledTimer(1.0, target, &Target::tick, true);
    target.reset();
    loop.advance(2500ms);
    EXPECT_EQ(fired, 2);
    loop.advance(10s);
    EXPECT_EQ(fired, 3);
    EXPECT_TRUE(weak.expired());
  });

  // A loop that ends lets go of what its timers hold, though the target
  // holds its timer.
  std::weak_ptr<Target> left;
  onFreshLoop([&](RunLoop&) {
    auto target = std::make_shared<Target>();
    target->timer = Timer::scheduledTimer(60.0, target, &Target::tick, false);
    left = target;
  });
  EXPECT_TRUE(left.expired());
}

}  // namespace
}  // namespace qel
