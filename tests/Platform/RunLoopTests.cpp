#include "qel/RunLoop.h"

#include "TestSupport.h"

#include <gtest/gtest.h>

#include <future>
#include <string>
#include <thread>
#include <vector>

using namespace std::chrono_literals;

namespace qel {
namespace {

using test::onFreshLoop;

TEST(PlatformRunLoop, IsOnePerThread) {
  RunLoop* here = &RunLoop::current();
  EXPECT_EQ(here, &RunLoop::current());
  RunLoop* there = nullptr;
  std::thread([&] { there = &RunLoop::current(); }).join();
  EXPECT_NE(here, there);
}

TEST(PlatformRunLoop, PostedWorkRunsLaterAndIsCounted) {
  onFreshLoop([](RunLoop& loop) {
    std::vector<std::string> order;
    loop.post([&] {
      order.push_back("first");
      loop.post([&] { order.push_back("posted by first"); });
      order.push_back("first ends");
    });
    loop.post([&] { order.push_back("second"); });
    EXPECT_TRUE(order.empty());
    const auto before = loop.calloutCount();
    EXPECT_EQ(loop.runPending(), 3u);
    EXPECT_EQ(order, (std::vector<std::string>{"first", "first ends", "second", "posted by first"}));
    EXPECT_EQ(loop.calloutCount() - before, 3u);
    EXPECT_EQ(loop.runPending(), 0u);
  });
}

TEST(PlatformRunLoop, ManualClockFiresDueCallsInDeadlineThenSchedulingOrder) {
  onFreshLoop([](RunLoop& loop) {
    loop.useManualClock();
    const auto start = loop.now();
    std::vector<std::string> order;
    auto c = loop.schedule(3s, [&] { order.push_back("c@3"); });
    auto a = loop.schedule(1s, [&] {
      order.push_back("a@1");
      EXPECT_EQ(loop.now() - start, 1s);
      // Work a call posts runs before the next call falls due.
      loop.post([&] { order.push_back("posted by a"); });
    });
    auto b1 = loop.schedule(2s, [&] { order.push_back("b1@2"); });
    auto b2 = loop.schedule(2s, [&] { order.push_back("b2@2"); });
    auto late = loop.schedule(10s, [&] { order.push_back("late"); });

    loop.advance(500ms);
    EXPECT_TRUE(order.empty());
    loop.advance(2500ms);
    EXPECT_EQ(order, (std::vector<std::string>{"a@1", "posted by a", "b1@2", "b2@2", "c@3"}));
    EXPECT_EQ(loop.now() - start, 3s);
    EXPECT_TRUE(late->isPending());
    EXPECT_FALSE(a->isPending());
  });
}

TEST(PlatformRunLoop, CallsScheduledWhileAdvancingFireInTheSameAdvance) {
  onFreshLoop([](RunLoop& loop) {
    loop.useManualClock();
    int retries = 0;
    std::function<void()> retry = [&] {
      ++retries;
      loop.schedule(5s, retry);
    };
    loop.schedule(5s, retry);
    loop.advance(21s);
    EXPECT_EQ(retries, 4);
  });
}

TEST(PlatformRunLoop, CancelledCallsNeverRunAndDroppedHandlesStillDo) {
  onFreshLoop([](RunLoop& loop) {
    loop.useManualClock();
    auto witness = std::make_shared<int>(0);
    std::weak_ptr<int> weakWitness = witness;
    int ran = 0;
    auto cancelled = loop.schedule(1s, [&ran, witness] { ++ran; });
    witness.reset();
    cancelled->cancel();
    // Cancelling lets go of what the call holds at once.
    EXPECT_TRUE(weakWitness.expired());
    EXPECT_FALSE(cancelled->isPending());

    loop.schedule(1s, [&ran] { ran += 10; });  // handle dropped
    std::shared_ptr<ScheduledCall> self;
    self = loop.schedule(1s, [&] {
      ran += 100;
      self->cancel();  // from within: harmless
      self.reset();    // and the last handle may go
    });
    loop.advance(1s);
    EXPECT_EQ(ran, 110);
  });
}

TEST(PlatformRunLoop, ZeroDelayOnManualClockRunsWithoutAdvancing) {
  onFreshLoop([](RunLoop& loop) {
    loop.useManualClock();
    bool ran = false;
    loop.schedule(0s, [&] { ran = true; });
    EXPECT_TRUE(loop.runUntil([&] { return ran; }, 1s));
  });
}

TEST(PlatformRunLoop, RunWaitsForWorkUntilStopped) {
  onFreshLoop([](RunLoop& loop) {
    // The first callout leaves the loop without work; run() must keep
    // waiting for the stop another thread posts afterwards.
    std::promise<void> firstDone;
    bool stopped = false;
    loop.post([&] { firstDone.set_value(); });
    std::thread other([&] {
      firstDone.get_future().wait();
      loop.post([&] {
        stopped = true;
        loop.stop();
      });
    });
    loop.run();
    other.join();
    EXPECT_TRUE(stopped);
  });
}

TEST(PlatformRunLoop, StopEndsOnlyTheInnermostRun) {
  onFreshLoop([](RunLoop& loop) {
    std::vector<std::string> order;
    loop.post([&] {
      loop.post([&] { loop.stop(); });
      loop.run();
      order.push_back("inner ended");
      loop.post([&] {
        order.push_back("outer still running");
        loop.stop();
      });
    });
    loop.run();
    EXPECT_EQ(order, (std::vector<std::string>{"inner ended", "outer still running"}));
  });
}

TEST(PlatformRunLoop, RunUntilReportsThePredicateAndHonoursTheTimeout) {
  onFreshLoop([](RunLoop& loop) {
    int count = 0;
    for (int i = 0; i < 3; ++i) loop.post([&] { ++count; });
    EXPECT_TRUE(loop.runUntil([&] { return count == 2; }, 10s));
    EXPECT_EQ(count, 2);  // checked after every callout: the third still waits

    const auto start = RunLoop::Clock::now();
    EXPECT_FALSE(loop.runUntil([] { return false; }, 20ms));
    EXPECT_GE(RunLoop::Clock::now() - start, 20ms);
    EXPECT_EQ(count, 3);

    loop.post([&] { loop.stop(); });
    EXPECT_FALSE(loop.runUntil([] { return false; }, 10s));
  });
}

TEST(PlatformRunLoop, RealClockRunsScheduledCallsAndRunForKeepsWaiting) {
  onFreshLoop([](RunLoop& loop) {
    bool fired = false;
    auto cancelled = loop.schedule(1ms, [&] { ADD_FAILURE() << "cancelled call ran"; });
    cancelled->cancel();
    loop.schedule(5ms, [&] { fired = true; });
    EXPECT_TRUE(loop.runUntil([&] { return fired; }, 5s));

    const auto start = RunLoop::Clock::now();
    loop.runFor(15ms);  // nothing to do: still returns only when the time is up
    EXPECT_GE(RunLoop::Clock::now() - start, 15ms);
  });
}

TEST(PlatformRunLoop, AHandleMayOutliveItsLoop) {
  std::shared_ptr<ScheduledCall> call;
  onFreshLoop([&](RunLoop& loop) { call = loop.schedule(1h, [] {}); });
  EXPECT_FALSE(call->isPending());
  call->cancel();
  call.reset();
}

#ifndef NDEBUG
TEST(PlatformRunLoopDeathTest, UseFromAnotherThreadAborts) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  auto& loop = RunLoop::current();
  EXPECT_DEATH(std::thread([&] { loop.runPending(); }).join(), "another thread");
}
#endif

}  // namespace
}  // namespace qel
