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
  constexpr int kProducers = 4;
  constexpr int kTasksEach = 400;
  KLTThreadSerialQueue queue("test.producers");
  std::atomic<int> inFlight{0};
  std::atomic<int> maxInFlight{0};
  // Written only by tasks: the queue's serial order is what makes these plain vectors safe.
  std::vector<std::vector<int>> seen(kProducers);

  std::vector<std::thread> producers;
  for (int p = 0; p < kProducers; ++p) {
    producers.emplace_back([&, p] {
      for (int i = 0; i < kTasksEach; ++i) {
        queue.async([&, p, i] {
          const int now = inFlight.fetch_add(1) + 1;
          int seenMax = maxInFlight.load();
          while (now > seenMax && !maxInFlight.compare_exchange_weak(seenMax, now)) {
          }
          std::this_thread::yield();  // widen the window in which an overlap would show
          seen[p].push_back(i);
          inFlight.fetch_sub(1);
        });
      }
    });
  }
  for (auto& t : producers) t.join();
  ASSERT_TRUE(queue.waitUntilIdle());

  EXPECT_EQ(maxInFlight.load(), 1);
  for (int p = 0; p < kProducers; ++p) {
    SCOPED_TRACE("producer " + std::to_string(p));
    ASSERT_EQ(seen[p].size(), static_cast<std::size_t>(kTasksEach));
    for (int i = 0; i < kTasksEach; ++i) ASSERT_EQ(seen[p][i], i) << "out of order at " << i;
  }
}

TEST(KLTSerialQueue, WaitUntilIdleWaitsForEverythingPostedSoFar) {
  KLTThreadSerialQueue queue("test.idle");
  std::promise<void> gate;
  std::shared_future<void> opened = gate.get_future().share();
  int counter = 0;  // read after waitUntilIdle(), which must order the tasks' writes before the read
  queue.async([opened] { opened.wait(); });
  for (int i = 0; i < 100; ++i) queue.async([&counter] { ++counter; });

  // While the first task is held, the queue cannot become idle.
  EXPECT_FALSE(queue.waitUntilIdleFor(std::chrono::milliseconds(1)));

  int observed = -1;
  std::thread waiter([&] {
    if (queue.waitUntilIdle()) observed = counter;
  });
  gate.set_value();
  waiter.join();
  EXPECT_EQ(observed, 100);
  EXPECT_TRUE(queue.waitUntilIdleFor(std::chrono::milliseconds(0))) << "already idle";
}

TEST(KLTSerialQueue, WaitUntilIdleFromTheWorkerReturnsFalseInsteadOfDeadlocking) {
  KLTThreadSerialQueue queue("test.reentrant");
  bool waited = true, waitedFor = true, onWorker = false;
  queue.async([&] {
    onWorker = queue.isCurrent();
    waited = queue.waitUntilIdle();
    waitedFor = queue.waitUntilIdleFor(std::chrono::hours(1));
  });
  ASSERT_TRUE(queue.waitUntilIdle());
  EXPECT_TRUE(onWorker);
  EXPECT_FALSE(waited);
  EXPECT_FALSE(waitedFor);
  EXPECT_FALSE(queue.isCurrent());
  EXPECT_EQ(queue.label(), "test.reentrant");
}

TEST(KLTSerialQueue, AThrowingTaskIsLoggedAndTheQueueGoesOn) {
  KLTScopedLogCapture capture(2);
  KLTThreadSerialQueue queue("test.throwing");
  std::vector<int> ran;
  queue.async([&] {
    ran.push_back(1);
    throw std::runtime_error("boom");
  });
  queue.async([&] {
    ran.push_back(2);
    throw 42;
  });
  queue.async([&] { ran.push_back(3); });
  ASSERT_TRUE(queue.waitUntilIdle());
  EXPECT_EQ(ran, (std::vector<int>{1, 2, 3}));
  const auto lines = capture.log().lines();
  ASSERT_EQ(lines.size(), 2u);
  EXPECT_EQ(lines[0].rfind("<KLT ERROR> Task failed: boom -[KLTSerialQueue workerLoop]:", 0), 0u) << lines[0];
  EXPECT_EQ(lines[1].rfind("<KLT ERROR> Task failed -[KLTSerialQueue workerLoop]:", 0), 0u) << lines[1];
}

TEST(KLTSerialQueue, DestructorRunsTheTasksAlreadyPosted) {
  auto counter = std::make_shared<int>(0);
  std::promise<void> gate;
  std::shared_future<void> opened = gate.get_future().share();
  auto queue = std::make_unique<KLTThreadSerialQueue>("test.destructor");
  queue->async([opened] { opened.wait(); });
  for (int i = 0; i < 200; ++i) queue->async([counter] { ++*counter; });
  // A task posted by a task while the queue is being destroyed still runs.
  KLTSerialQueue* raw = queue.get();
  queue->async([raw, counter] { raw->async([counter] { *counter += 1000; }); });
  std::thread opener([&] { gate.set_value(); });
  queue.reset();  // joins the worker: every task above has run afterwards
  opener.join();
  EXPECT_EQ(*counter, 1200);
}

}  // namespace
