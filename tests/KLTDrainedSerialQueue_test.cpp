// The queue its owner drains: everything posted, including by its own tasks, runs in order on the
// draining thread; a task's endless wait holds the queue for good instead of blocking the thread.
#include "platform/KLTDrainedSerialQueue.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>

#include "platform/KLTClock.h"
#include "platform/KLTVirtualClock.h"

namespace {

TEST(KLTDrainedSerialQueue, RunsNothingUntilDrainedThenEverythingInOrder) {
  KLTDrainedSerialQueue queue("test.drained");
  std::string trace;
  bool current = false;
  queue.async([&] {
    trace += 'a';
    current = queue.isCurrent();
    queue.async([&] { trace += 'c'; });  // posted by a task: runs in the same drain, after b
    EXPECT_FALSE(queue.waitUntilIdle()) << "a task cannot wait for its own queue";
  });
  queue.async([&] { trace += 'b'; });
  EXPECT_EQ(trace, "");
  EXPECT_TRUE(queue.drain());
  EXPECT_EQ(trace, "abc");
  EXPECT_TRUE(current);
  EXPECT_FALSE(queue.isCurrent());
}

TEST(KLTDrainedSerialQueue, AnEndlessWaitHoldsTheQueueForGood) {
  KLTDrainedSerialQueue queue("test.held");
  KLTVirtualClock clock;
  clock.setUnwindEndlessWaits(true);
  std::string trace;
  queue.async([&] {
    trace += 'a';
    clock.sleepUntil(KLTTimePoint::max(), {});
    trace += 'x';  // never reached: the wait does not end
  });
  queue.async([&] { trace += 'b'; });
  EXPECT_FALSE(queue.drain());
  EXPECT_TRUE(queue.heldForGood());
  EXPECT_EQ(clock.endlessWaitCount(), 1);
  queue.async([&] { trace += 'c'; });
  EXPECT_FALSE(queue.waitUntilIdle());
  EXPECT_EQ(trace, "a") << "nothing runs after the held task";
}

}  // namespace
