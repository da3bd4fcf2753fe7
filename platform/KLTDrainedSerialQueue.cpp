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

bool KLTDrainedSerialQueue::drain() {
  if (isCurrent()) return false;
  std::lock_guard turn(drainMutex_);
  if (heldForGood()) return false;
  drainer_.store(std::this_thread::get_id(), std::memory_order_relaxed);
  std::vector<std::function<void()>> batch;
  for (;;) {
    {
      std::lock_guard lock(mutex_);
      if (pending_.empty()) break;
      batch.swap(pending_);  // one lock per batch; tasks posted while it runs form the next one
    }
    for (auto& task : batch) {
      try {
        task();
      } catch (const KLTEndlessWait&) {
        // The task would have blocked its thread for ever; so does the queue, from now on.
        held_.store(true, std::memory_order_release);
        drainer_.store(std::thread::id(), std::memory_order_relaxed);
        return false;
      } catch (const std::exception& e) {
        recordTaskFailure(e.what());
        KLT_LOG_ERROR("-[KLTSerialQueue drain]", std::string("Task failed: ") + e.what());
      } catch (...) {
        recordTaskFailure("an exception of unknown type");
        KLT_LOG_ERROR("-[KLTSerialQueue drain]", "Task failed");
      }
      task = nullptr;  // release what the task captured before the next one runs
    }
    batch.clear();
  }
  drainer_.store(std::thread::id(), std::memory_order_relaxed);
  return true;
}
