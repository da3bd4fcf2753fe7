// One-shot timers on the calling thread's run loop, waiting through the process-wide clock.
#include "platform/KLTRunLoop.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cmath>
#include <future>
#include <limits>
#include <string>
#include <thread>
#include <vector>

#include "testsupport/KLTVirtualClock.h"

namespace {

using namespace std::chrono_literals;
constexpr auto kGenerous = std::chrono::seconds(20);  // upper bound for real waits that end at once

class KLTRunLoopTest : public ::testing::Test {
 protected:
  void SetUp() override { previous_ = KLTClock::setCurrent(clock_); }
  void TearDown() override { KLTClock::setCurrent(previous_); }

  std::shared_ptr<KLTVirtualClock> clock_ = std::make_shared<KLTVirtualClock>();
  const KLTTimePoint start_ = clock_->now();
  std::shared_ptr<KLTClock> previous_;
};

TEST_F(KLTRunLoopTest, ThirtySecondTimerFiresWithoutRealWaiting) {
  bool fired = false;
  KLTTimePoint firedAt{};
  const auto timer = KLTTimer::scheduledTimer(30, [&] {
    fired = true;
    firedAt = clock_->now();
  });
  EXPECT_EQ(timer->fireDate(), start_ + 30s);
  EXPECT_TRUE(timer->isValid());
  const auto realStart = std::chrono::steady_clock::now();
  KLTRunLoop::current().run();
  const auto realElapsed = std::chrono::steady_clock::now() - realStart;
  EXPECT_TRUE(fired);
  EXPECT_EQ(firedAt, start_ + 30s);
  EXPECT_EQ(clock_->now() - start_, std::chrono::duration_cast<KLTTimePoint::duration>(30s));
  EXPECT_LT(realElapsed, 5s);
  EXPECT_FALSE(timer->isValid()) << "a one-shot timer is spent once it fired";
}

TEST_F(KLTRunLoopTest, TimersFireInFireDateOrder) {
  std::vector<std::pair<std::string, KLTTimePoint::duration>> fired;
  auto record = [&](std::string name) {
    return [&fired, this, name] { fired.emplace_back(name, clock_->now() - start_); };
  };
  KLTTimer::scheduledTimer(30, record("a30"));
  KLTTimer::scheduledTimer(10, [&, record] {
    record("b10")();
    // A timer action may schedule another timer on the same loop; it counts from now (10 s).
    KLTTimer::scheduledTimer(5, record("f15"));
  });
  KLTTimer::scheduledTimer(20, record("c20"));
  KLTTimer::scheduledTimer(0, record("d0"));
  KLTTimer::scheduledTimer(10, record("e10"));  // same date as b10: scheduled later, fires later
  KLTTimer::scheduledTimer(0.25, record("g0.25"));
  KLTRunLoop::current().run();

  const std::vector<std::pair<std::string, KLTTimePoint::duration>> expected = {
      {"d0", 0s}, {"g0.25", 250ms}, {"b10", 10s}, {"e10", 10s}, {"f15", 15s}, {"c20", 20s}, {"a30", 30s},
  };
  ASSERT_EQ(fired.size(), expected.size());
  for (std::size_t i = 0; i < expected.size(); ++i) {
    SCOPED_TRACE("position " + std::to_string(i));
    EXPECT_EQ(fired[i].first, expected[i].first);
    EXPECT_EQ(fired[i].second, expected[i].second);
  }
}

TEST_F(KLTRunLoopTest, InvalidatedTimerDoesNotFireAndRunReturns) {
  bool fired = false;
  auto timer = KLTTimer::scheduledTimer(5, [&] { fired = true; });
  timer->invalidate();
  KLTRunLoop::current().run();
  EXPECT_FALSE(fired);
  EXPECT_EQ(clock_->now(), start_) << "an invalidated timer is not waited for";
}

TEST_F(KLTRunLoopTest, InvalidateFromAnotherThreadWakesARunBlockedInManualMode) {
  clock_->setAutoAdvance(false);
  std::promise<std::shared_ptr<KLTTimer>> scheduled;
  std::atomic<bool> fired{false};
  std::thread runner([&] {
    scheduled.set_value(KLTTimer::scheduledTimer(60, [&] { fired = true; }));
    KLTRunLoop::current().run();
  });
  const auto timer = scheduled.get_future().get();
  ASSERT_TRUE(clock_->waitForSleepers(1, kGenerous));
  timer->invalidate();
  runner.join();  // would hang if invalidate() did not wake the sleeping run()
  EXPECT_FALSE(fired);
  EXPECT_EQ(clock_->now(), start_);
  EXPECT_EQ(clock_->sleeperCount(), 0);
}

TEST_F(KLTRunLoopTest, IntervalBeyondTheClocksRangeNeverFires) {
  for (const double interval : {1e300, std::numeric_limits<double>::infinity()}) {
    SCOPED_TRACE(interval);
    std::promise<std::shared_ptr<KLTTimer>> scheduled;
    std::atomic<bool> fired{false};
    std::thread runner([&] {
      scheduled.set_value(KLTTimer::scheduledTimer(interval, [&] { fired = true; }));
      KLTRunLoop::current().run();
    });
    const auto timer = scheduled.get_future().get();
    EXPECT_EQ(timer->fireDate(), KLTTimePoint::max());
    ASSERT_TRUE(clock_->waitForSleepers(1, kGenerous));
    EXPECT_EQ(clock_->blockedForeverCount(), 1);
    EXPECT_EQ(clock_->now(), start_) << "auto-advance must not jump to the end of time";
    timer->invalidate();
    runner.join();
    EXPECT_FALSE(fired);
    EXPECT_EQ(clock_->blockedForeverCount(), 0);
  }
}

TEST_F(KLTRunLoopTest, ManualModeFiresExactlyWhenAdvanceReachesTheFireDate) {
  clock_->setAutoAdvance(false);
  std::promise<void> firstFired;
  std::atomic<bool> secondFired{false};
  KLTTimePoint secondAt{};
  std::thread runner([&] {
    KLTTimer::scheduledTimer(10, [&] { firstFired.set_value(); });
    KLTTimer::scheduledTimer(30, [&] {
      secondAt = clock_->now();
      secondFired = true;
    });
    KLTRunLoop::current().run();
  });
  ASSERT_TRUE(clock_->waitForSleepers(1, kGenerous));
  clock_->advance(29s);
  firstFired.get_future().wait();  // the 10 s timer fired on the way
  // The loop goes back to sleep for the 30 s timer, seeing 29 s: it must keep sleeping.
  ASSERT_TRUE(clock_->waitForSleepers(1, kGenerous));
  EXPECT_FALSE(secondFired);
  clock_->advance(1s);
  runner.join();
  EXPECT_TRUE(secondFired);
  EXPECT_EQ(secondAt, start_ + 30s);
}

TEST(KLTRunLoopRealClock, NonPositiveIntervalsFireAtOnce) {
  const auto previous = KLTClock::setCurrent(nullptr);  // a real clock
  for (const double interval : {0.0, -5.0, std::nan("")}) {
    SCOPED_TRACE(interval);
    bool fired = false;
    KLTTimer::scheduledTimer(interval, [&] { fired = true; });
    const auto realStart = std::chrono::steady_clock::now();
    KLTRunLoop::current().run();
    EXPECT_TRUE(fired);
    EXPECT_LT(std::chrono::steady_clock::now() - realStart, 5s);
  }
  KLTClock::setCurrent(previous);
}

TEST(KLTClockTest, AddSaturating) {
  const KLTTimePoint base(std::chrono::seconds(1'795'860'000));
  struct Row {
    double seconds;
    KLTTimePoint expected;
    const char* note;
  };
  const std::vector<Row> rows = {
      {1.5, base + 1500ms, "fractional seconds"},
      {0, base, "zero"},
      {-3, base, "negative: no wait"},
      {std::nan(""), base, "NaN: no wait"},
      {1e300, KLTTimePoint::max(), "beyond range saturates"},
      {std::numeric_limits<double>::infinity(), KLTTimePoint::max(), "infinity saturates"},
  };
  for (const auto& r : rows) {
    SCOPED_TRACE(r.note);
    EXPECT_EQ(KLTClock::addSaturating(base, r.seconds), r.expected);
  }
  EXPECT_EQ(KLTClock::epochMillis(base + 1500ms), 1'795'860'001'500);
  // From the year 0001 the room up to max() exceeds the 64-bit range itself.
  const KLTTimePoint year1(std::chrono::sys_days(std::chrono::year(1) / 1 / 1));
  EXPECT_EQ(KLTClock::addSaturating(year1, 30), year1 + 30s);
  EXPECT_EQ(KLTClock::addSaturating(year1, 9.3e12), KLTTimePoint::max());
}

}  // namespace
