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
