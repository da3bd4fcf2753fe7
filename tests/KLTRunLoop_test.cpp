// One-shot timers on the calling thread's run loop, waiting through the process-wide clock.
#include "platform/KLTRunLoop.h"

#include <gtest/gtest.h>

#include <atomic>
#include <future>
#include <limits>
#include <string>
#include <thread>
#include <vector>

#include "platform/KLTVirtualClock.h"

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

TEST_F(KLTRunLoopTest, TimersFireInFireDateOrderWithoutRealWaiting) {
  std::vector<std::pair<std::string, KLTTimePoint::duration>> fired;
  auto record = [&](std::string name) { return [&fired, this, name] { fired.emplace_back(name, clock_->now() - start_); }; };
  const auto a30 = KLTTimer::scheduledTimer(30, record("a30"));
  KLTTimer::scheduledTimer(10, [&, record] {
    record("b10")();
    KLTTimer::scheduledTimer(5, record("f15"));  // counts from now (10 s)
  });
  KLTTimer::scheduledTimer(0, record("d0"));
  KLTTimer::scheduledTimer(10, record("e10"));  // same date as b10: scheduled later, fires later
  KLTTimer::scheduledTimer(0.25, record("g0.25"));
  KLTTimer::scheduledTimer(5, record("never"))->invalidate();
  const auto realStart = std::chrono::steady_clock::now();
  KLTRunLoop::current().run();
  EXPECT_LT(std::chrono::steady_clock::now() - realStart, 5s);
  const std::vector<std::pair<std::string, KLTTimePoint::duration>> expected = {
      {"d0", 0s}, {"g0.25", 250ms}, {"b10", 10s}, {"e10", 10s}, {"f15", 15s}, {"a30", 30s}};
  EXPECT_EQ(fired, expected);
  EXPECT_FALSE(a30->isValid()) << "a one-shot timer is spent once it fired";
}

TEST_F(KLTRunLoopTest, ManualModeFiresWhenAdvanceReachesTheFireDateAndInvalidateWakesTheLoop) {
  clock_->setAutoAdvance(false);
  std::promise<void> firstFired;
  std::promise<bool> secondFired;  // true when it fired at 30 s exactly
  std::promise<std::shared_ptr<KLTTimer>> scheduled;
  std::atomic<bool> neverFired{false};
  std::thread runner([&] {
    KLTTimer::scheduledTimer(10, [&] { firstFired.set_value(); });
    KLTTimer::scheduledTimer(30, [&] { secondFired.set_value(clock_->now() == start_ + 30s); });
    scheduled.set_value(KLTTimer::scheduledTimer(std::numeric_limits<double>::infinity(), [&] { neverFired = true; }));
    KLTRunLoop::current().run();
  });
  const auto endless = scheduled.get_future().get();
  EXPECT_EQ(endless->fireDate(), KLTTimePoint::max());
  ASSERT_TRUE(clock_->waitForSleepers(1, kGenerous));
  clock_->advance(29s);
  firstFired.get_future().wait();
  // The loop goes back to sleep for the 30 s timer, seeing 29 s: it must keep sleeping.
  ASSERT_TRUE(clock_->waitForSleepers(1, kGenerous));
  auto second = secondFired.get_future();
  EXPECT_EQ(second.wait_for(0s), std::future_status::timeout);
  clock_->advance(1s);
  EXPECT_TRUE(second.get());
  endless->invalidate();
  runner.join();  // would hang if invalidate() did not wake the sleeping run()
  EXPECT_FALSE(neverFired);
}

// From the year 0001 the room up to max() exceeds the 64-bit range itself: no overflow either way.
TEST(KLTClockTest, AddSaturatingOverTheWholeRange) {
  const KLTTimePoint year1(std::chrono::sys_days(std::chrono::year(1) / 1 / 1));
  EXPECT_EQ(KLTClock::addSaturating(year1, 30), year1 + 30s);
  EXPECT_EQ(KLTClock::addSaturating(year1, 9.3e12), KLTTimePoint::max());
  EXPECT_EQ(KLTClock::addSaturating(year1, std::numeric_limits<double>::infinity()), KLTTimePoint::max());
}

}  // namespace
