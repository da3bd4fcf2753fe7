// KLTDrainedSerialQueue: a serial task queue (platform/KLTSerialQueue.h) without a thread of its
// own. Posted tasks wait until the owner calls drain(), which runs them on the owner's thread, in
// order, including the tasks they post, until none is left. The replay tool drives the engine on it
// so that a line costs no thread hand-off and no wait.
//
// A task whose wait can never end unwinds with KLTEndlessWait (platform/KLTClock.h: a clock that
// cannot block for ever throws it). The queue is then held for good, as a worker thread would be
// by that task: the tasks still queued never run, and drain() and waitUntilIdle() answer false.
// Any other exception from a task is logged at ERROR level and the queue goes on.
//
// Thread-safety: async() may be called from any thread. drain() runs on the calling thread; two
// threads draining at once take turns. waitUntilIdle() and waitUntilIdleFor() drain on the calling
// thread (the timeout is not needed: draining never waits for another thread); called from a task
// of this queue they return false. Destruction drops tasks that were never drained.
#pragma once

#include <atomic>
#include <mutex>
#include <thread>
#include <vector>

#include "platform/KLTSerialQueue.h"

class KLTDrainedSerialQueue final : public KLTSerialQueue {
 public:
  explicit KLTDrainedSerialQueue(std::string label);

  void async(std::function<void()> task) override;
  void asyncEach(std::size_t count, std::function<void(std::size_t)> task) override;
  bool waitUntilIdle() override;
  bool waitUntilIdleFor(std::chrono::milliseconds timeout) override;
  bool isCurrent() const override;
  const std::string& label() const override { return label_; }

  // Runs every queued task, and those they post, on the calling thread. True when the queue is
  // empty afterwards; false when it is held for good (see above), or when called from a task.
  bool drain();
  // Whether a task's endless wait holds the queue for good.
  bool heldForGood() const { return held_.load(std::memory_order_acquire); }

 private:
  // Runs one task, recording and logging what it throws but an endless wait (defined in the .cpp).
  template <class Task>
  void runContained(Task&& task);
  // drain()'s work, within the queue's seam scope, its turn taken.
  bool drainBatches();
  const std::string label_;
  std::mutex drainMutex_;  // one drainer at a time
  std::mutex mutex_;       // guards pending_
  std::vector<std::function<void()>> pending_;
  std::vector<std::function<void()>> batch_;  // the tasks drain() runs; its drainer's alone
  std::atomic<std::thread::id> drainer_{};
  std::atomic<bool> held_{false};
};
