#include "platform/KLTThreadSerialQueue.h"

#include <exception>

#include "platform/KLTLog.h"

KLTThreadSerialQueue::KLTThreadSerialQueue(std::string label) : label_(std::move(label)) {
  worker_ = std::thread([this] { workerLoop(); });
}

KLTThreadSerialQueue::~KLTThreadSerialQueue() {
  {
    std::lock_guard lock(mutex_);
    stopping_ = true;
  }
  workAvailable_.notify_one();
  if (worker_.joinable()) worker_.join();
}

void KLTThreadSerialQueue::async(std::function<void()> task) {
  bool wake = false;
  {
    std::lock_guard lock(mutex_);
    tasks_.push_back(std::move(task));
    ++posted_;
    // Only a sleeping worker needs the wake-up; a busy one takes this task with its next swap.
    wake = workerSleeping_;
    workerSleeping_ = false;
  }
  if (wake) workAvailable_.notify_one();
}

bool KLTThreadSerialQueue::idleReached(std::unique_lock<std::mutex>& lock, const std::chrono::milliseconds* timeout) {
  const uint64_t target = posted_;
  if (completed_ >= target) return true;
  ++idleWaiters_;
  const auto done = [&] { return completed_ >= target; };
  bool reached = true;
  if (timeout) {
    reached = progress_.wait_for(lock, *timeout, done);
  } else {
    progress_.wait(lock, done);
  }
  --idleWaiters_;
  return reached;
}

bool KLTThreadSerialQueue::waitUntilIdle() {
  if (isCurrent()) return false;
  std::unique_lock lock(mutex_);
  return idleReached(lock, nullptr);
}

bool KLTThreadSerialQueue::waitUntilIdleFor(std::chrono::milliseconds timeout) {
  if (isCurrent()) return false;
  std::unique_lock lock(mutex_);
  return idleReached(lock, &timeout);
}

bool KLTThreadSerialQueue::isCurrent() const { return std::this_thread::get_id() == worker_.get_id(); }

void KLTThreadSerialQueue::asyncEach(std::size_t count, std::function<void(std::size_t)> task) {
  if (count == 0) return;
  // One task for the lot, each of them contained on its own, as if posted alone.
  async([this, count, task = std::move(task)] {
    for (std::size_t i = 0; i < count; ++i) runContained([&task, i] { task(i); });
  });
}

// Contains a throw at the task it came from: recorded and logged, and the queue goes on with the
// next task. Every task runs through here, those of a batch posted by asyncEach() one by one, so
// each fails on its own.
template <class Task>
void KLTThreadSerialQueue::runContained(Task&& task) {
  try {
    task();
  } catch (const std::exception& e) {
    recordTaskFailure(e.what());
    KLT_LOG_ERROR("-[KLTSerialQueue workerLoop]", std::string("Task failed: ") + e.what());
  } catch (...) {
    recordTaskFailure("an exception of unknown type");
    KLT_LOG_ERROR("-[KLTSerialQueue workerLoop]", "Task failed");
  }
}

void KLTThreadSerialQueue::workerLoop() {
  std::vector<std::function<void()>> batch;
  std::unique_lock lock(mutex_);
  for (;;) {
    while (tasks_.empty() && !stopping_) {
      workerSleeping_ = true;
      workAvailable_.wait(lock);
    }
    workerSleeping_ = false;
    if (tasks_.empty()) return;  // stopping, and everything posted has run
    batch.swap(tasks_);
    lock.unlock();
    withinScope([this, &batch] {
      for (auto& task : batch) {
        runContained(task);
        task = nullptr;  // release what the task captured before reporting progress
      }
    });
    const auto ran = batch.size();
    batch.clear();  // keeps its capacity: the next swap hands it to the posters
    lock.lock();
    completed_ += ran;
    if (idleWaiters_ > 0) progress_.notify_all();
  }
}
