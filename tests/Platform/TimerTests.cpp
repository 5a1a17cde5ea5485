#include "qel/Timer.h"

#include "TestSupport.h"

#include <gtest/gtest.h>

using namespace std::chrono_literals;

namespace qel {
namespace {

using test::onFreshLoop;

class Target : public Object {
 public:
  static std::shared_ptr<Target> create() { return std::shared_ptr<Target>(new Target); }
  void tick() {
    ++ticks;
    if (onTick) onTick();
  }
  int ticks = 0;
  std::function<void()> onTick;
  std::shared_ptr<Timer> timer;

 private:
  Target() = default;
};

TEST(PlatformTimer, OneShotKeepsItsTargetAliveUntilItFires) {
  onFreshLoop([](RunLoop& loop) {
    loop.useManualClock();
    auto target = Target::create();
    std::weak_ptr<Target> weak = target;
    bool aliveDuringTick = false;
    target->onTick = [&] { aliveDuringTick = !weak.expired(); };
    auto timer = Timer::scheduledTimer(5.0, target, &Target::tick, false);
    target.reset();

    EXPECT_TRUE(timer->isValid());
    EXPECT_DOUBLE_EQ(timer->timeInterval(), 5.0);
    loop.advance(4999ms);
    ASSERT_FALSE(weak.expired());
    EXPECT_EQ(weak.lock()->ticks, 0);
    loop.advance(1ms);
    EXPECT_TRUE(aliveDuringTick);
    EXPECT_FALSE(timer->isValid());
    EXPECT_TRUE(weak.expired());  // released once fired
    loop.advance(1h);
  });
}

TEST(PlatformTimer, RepeatsUntilInvalidatedAndThenLetsGo) {
  onFreshLoop([](RunLoop& loop) {
    loop.useManualClock();
    auto target = Target::create();
    std::weak_ptr<Target> weak = target;
    auto timer = Timer::scheduledTimer(1.0, target, &Target::tick, true);
    loop.advance(3500ms);
    EXPECT_EQ(target->ticks, 3);
    target.reset();
    EXPECT_FALSE(weak.expired());

    timer->invalidate();
    timer->invalidate();  // idempotent
    EXPECT_FALSE(timer->isValid());
    EXPECT_TRUE(weak.expired());
    loop.advance(10s);
  });
}

TEST(PlatformTimer, TheLoopKeepsAScheduledTimerAlive) {
  onFreshLoop([](RunLoop& loop) {
    loop.useManualClock();
    auto target = Target::create();
    std::weak_ptr<Timer> weakTimer = Timer::scheduledTimer(2.0, target, &Target::tick, false);
    EXPECT_FALSE(weakTimer.expired());
    loop.advance(2s);
    EXPECT_EQ(target->ticks, 1);
    EXPECT_TRUE(weakTimer.expired());
  });
}

TEST(PlatformTimer, TheActionMayDropTheLastReferenceToItsTimer) {
  onFreshLoop([](RunLoop& loop) {
    loop.useManualClock();
    auto target = Target::create();
    // A target holding its own timer and letting go of it when it fires:
    // the shape of every retry in the framework.
    target->onTick = [&] { target->timer.reset(); };
    target->timer = Timer::scheduledTimer(1.0, target, &Target::tick, false);
    loop.advance(1s);
    EXPECT_EQ(target->ticks, 1);
    EXPECT_EQ(target->timer, nullptr);

    target->onTick = [&] {
      target->timer->invalidate();
      target->timer.reset();
    };
    target->timer = Timer::scheduledTimer(1.0, target, &Target::tick, true);
    loop.advance(5s);
    EXPECT_EQ(target->ticks, 2);
  });
}

TEST(PlatformTimer, InvalidatingBeforeItFiresCancelsIt) {
  onFreshLoop([](RunLoop& loop) {
    loop.useManualClock();
    auto target = Target::create();
    auto timer = Timer::scheduledTimer(1.0, target, &Target::tick, false);
    timer->invalidate();
    loop.advance(2s);
    EXPECT_EQ(target->ticks, 0);
  });
}

}  // namespace
}  // namespace qel
