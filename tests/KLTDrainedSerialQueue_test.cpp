// The queue its owner drains: everything posted, including by its own tasks, runs in order on the
// draining thread; a task's endless wait holds the queue for good instead of blocking the thread.
#include "platform/KLTDrainedSerialQueue.h"

#include <gtest/gtest.h>

#include <memory>
#include <stdexcept>
#include <string>

#include "platform/KLTClock.h"
#include "platform/KLTVirtualClock.h"
#include "testsupport/KLTCapturedLog.h"

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
  // A batch runs as that many posts in a row: what its first task posts comes after the last.
  queue.asyncEach(2, [&](std::size_t i) {
    trace += static_cast<char>('d' + i);
    if (i == 0) queue.async([&] { trace += 'f'; });
  });
  EXPECT_TRUE(queue.drain());
  EXPECT_EQ(trace, "abcdef");
}

TEST(KLTDrainedSerialQueue, AnEndlessWaitHoldsTheQueueForGood) {
  // Posted one by one or as one batch, a throw is logged and the next task runs; an endless wait
  // stops everything after it, the rest of its own batch included.
  for (const bool batch : {false, true}) {
    KLTScopedLogCapture capture(2);
    KLTDrainedSerialQueue queue("test.held");
    KLTVirtualClock clock;
    clock.setUnwindEndlessWaits(true);
    std::string trace;
    const auto task = [&](std::size_t i) {
      trace += static_cast<char>('a' + i);
      if (i == 0) throw std::runtime_error("boom");
      if (i == 1) clock.sleepUntil(KLTTimePoint::max(), {});
      if (i == 1) trace += 'x';  // never reached: the wait does not end
    };
    if (batch) {
      queue.asyncEach(3, task);
    } else {
      for (std::size_t i = 0; i < 3; ++i) queue.async([&, i] { task(i); });
    }
    EXPECT_FALSE(queue.drain());
    EXPECT_TRUE(queue.heldForGood());
    EXPECT_EQ(clock.endlessWaitCount(), 1);
    queue.async([&] { trace += 'z'; });
    EXPECT_FALSE(queue.waitUntilIdle());
    EXPECT_EQ(trace, "ab") << "nothing runs after the held task; batch " << batch;
    const auto lines = capture.log().lines();
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_EQ(lines[0].rfind("<KLT ERROR> Task failed: boom -[KLTSerialQueue drain]:", 0), 0u) << lines[0];
  }
}

}  // namespace
