// The serial task queue: one task at a time, each producer's order kept, waiting for idleness,
// failures contained, and posted tasks run before destruction completes.
#include <gtest/gtest.h>

#include <atomic>
#include <future>
#include <memory>
#include <stdexcept>
#include <thread>
#include <vector>

#include "platform/KLTThreadSerialQueue.h"
#include "testsupport/KLTCapturedLog.h"

namespace {

TEST(KLTSerialQueue, TasksFromSeveralProducersRunOneAtATimeInEachProducersOrder) {
  constexpr int kProducers = 4, kTasksEach = 400;
  KLTThreadSerialQueue queue("test.producers");
  std::atomic<int> inFlight{0}, overlaps{0};
  // Written only by tasks: the queue's serial order is what makes these plain vectors safe.
  std::vector<std::vector<int>> seen(kProducers);
  std::vector<std::thread> producers;
  for (int p = 0; p < kProducers; ++p) {
    producers.emplace_back([&, p] {
      for (int i = 0; i < kTasksEach; ++i) {
        queue.async([&, p, i] {
          if (inFlight.fetch_add(1) != 0) ++overlaps;
          std::this_thread::yield();  // widen the window in which an overlap would show
          seen[p].push_back(i);
          inFlight.fetch_sub(1);
        });
      }
    });
  }
  for (auto& t : producers) t.join();
  ASSERT_TRUE(queue.waitUntilIdle());
  EXPECT_EQ(overlaps.load(), 0);
  std::vector<int> inOrder(kTasksEach);
  for (int i = 0; i < kTasksEach; ++i) inOrder[i] = i;
  for (int p = 0; p < kProducers; ++p) EXPECT_EQ(seen[p], inOrder) << "producer " << p;
}

TEST(KLTSerialQueue, WaitUntilIdleWaitsForEverythingPostedSoFarAndNeverDeadlocksOnTheWorker) {
  KLTThreadSerialQueue queue("test.idle");
  std::promise<void> gate;
  std::shared_future<void> opened = gate.get_future().share();
  int counter = 0;  // read after waitUntilIdle(), which must order the tasks' writes before the read
  bool onWorker = false, waitedOnWorker = true;
  queue.async([opened] { opened.wait(); });
  for (int i = 0; i < 100; ++i) queue.async([&counter] { ++counter; });
  queue.async([&] {
    onWorker = queue.isCurrent();
    waitedOnWorker = queue.waitUntilIdle() || queue.waitUntilIdleFor(std::chrono::hours(1));
  });
  EXPECT_FALSE(queue.waitUntilIdleFor(std::chrono::milliseconds(1))) << "the first task is held";
  int observed = -1;
  std::thread waiter([&] {
    if (queue.waitUntilIdle()) observed = counter;
  });
  gate.set_value();
  waiter.join();
  EXPECT_EQ(observed, 100);
  EXPECT_TRUE(onWorker);
  EXPECT_FALSE(waitedOnWorker);
  EXPECT_FALSE(queue.isCurrent());
}

TEST(KLTSerialQueue, AThrowingTaskIsLoggedAndTheQueueGoesOn) {
  // Posted one by one or as one batch: the same tasks, order and log lines.
  for (const bool batch : {false, true}) {
    KLTScopedLogCapture capture(2);
    KLTThreadSerialQueue queue("test.throwing");
    std::vector<int> ran;
    const auto task = [&](std::size_t i) {
      ran.push_back(static_cast<int>(i) + 1);
      if (i == 0) throw std::runtime_error("boom");
      if (i == 1) throw 42;
    };
    if (batch) {
      queue.asyncEach(3, task);
    } else {
      for (std::size_t i = 0; i < 3; ++i) queue.async([&, i] { task(i); });
    }
    queue.async([&] { ran.push_back(4); });
    ASSERT_TRUE(queue.waitUntilIdle());
    EXPECT_EQ(ran, (std::vector<int>{1, 2, 3, 4})) << "batch " << batch;
    const auto lines = capture.log().lines();
    ASSERT_EQ(lines.size(), 2u);
    EXPECT_EQ(lines[0].rfind("<KLT ERROR> Task failed: boom -[KLTSerialQueue workerLoop]:", 0), 0u) << lines[0];
    EXPECT_EQ(lines[1].rfind("<KLT ERROR> Task failed -[KLTSerialQueue workerLoop]:", 0), 0u) << lines[1];
  }
}

}  // namespace
