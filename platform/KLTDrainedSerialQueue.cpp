#include "platform/KLTDrainedSerialQueue.h"

#include <exception>

#include "platform/KLTClock.h"
#include "platform/KLTLog.h"

KLTDrainedSerialQueue::KLTDrainedSerialQueue(std::string label) : label_(std::move(label)) {}

void KLTDrainedSerialQueue::async(std::function<void()> task) {
  std::lock_guard lock(mutex_);
  pending_.push_back(std::move(task));
}

bool KLTDrainedSerialQueue::isCurrent() const {
  return drainer_.load(std::memory_order_relaxed) == std::this_thread::get_id();
}

bool KLTDrainedSerialQueue::waitUntilIdle() { return drain(); }

bool KLTDrainedSerialQueue::waitUntilIdleFor(std::chrono::milliseconds) { return drain(); }

void KLTDrainedSerialQueue::asyncEach(std::size_t count, std::function<void(std::size_t)> task) {
  if (count == 0) return;
  // One task for the lot: its tasks run one after another through runContained(), so each fails
  // on its own, and an endless wait in any of them holds the queue before the next one runs.
  async([this, count, task = std::move(task)] {
    for (std::size_t i = 0; i < count; ++i) runContained([&task, i] { task(i); });
  });
}

// Contains a throw at the task it came from: recorded and logged, and the queue goes on with the
// next task. An endless wait is not contained: it goes on up to drain(), which holds the queue.
//
// Every task runs through here, those of a batch posted by asyncEach() one by one, so the log and
// the first recorded failure read as if each had been posted alone.
template <class Task>
void KLTDrainedSerialQueue::runContained(Task&& task) {
  try {
    task();
  } catch (const KLTEndlessWait&) {
    throw;
  } catch (const std::exception& e) {
    recordTaskFailure(e.what());
    KLT_LOG_ERROR("-[KLTSerialQueue drain]", std::string("Task failed: ") + e.what());
  } catch (...) {
    recordTaskFailure("an exception of unknown type");
    KLT_LOG_ERROR("-[KLTSerialQueue drain]", "Task failed");
  }
}

bool KLTDrainedSerialQueue::drain() {
  if (isCurrent()) return false;
  std::lock_guard turn(drainMutex_);
  if (heldForGood()) return false;
  bool idle = false;
  withinScope([&] { idle = drainBatches(); });
  return idle;
}

bool KLTDrainedSerialQueue::drainBatches() {
  drainer_.store(std::this_thread::get_id(), std::memory_order_relaxed);
  // Kept from drain to drain with its storage, as pending_ keeps the batch's before it: a replay
  // drains after every line, and the two vectors are then never grown again.
  std::vector<std::function<void()>>& batch = batch_;
  for (;;) {
    {
      std::lock_guard lock(mutex_);
      if (pending_.empty()) break;
      batch.swap(pending_);  // one lock per batch; tasks posted while it runs form the next one
    }
    for (auto& task : batch) {
      try {
        runContained(task);
      } catch (const KLTEndlessWait&) {
        // The task would have blocked its thread for ever; so does the queue, from now on.
        held_.store(true, std::memory_order_release);
        batch.clear();  // the rest of the batch never runs: what it captured goes now
        drainer_.store(std::thread::id(), std::memory_order_relaxed);
        return false;
      }
      task = nullptr;  // release what the task captured before the next one runs
    }
    batch.clear();
  }
  drainer_.store(std::thread::id(), std::memory_order_relaxed);
  return true;
}
