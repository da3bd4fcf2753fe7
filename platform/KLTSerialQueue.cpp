#include "platform/KLTSerialQueue.h"

#include <exception>

#include "platform/KLTLog.h"

KLTSerialQueue::KLTSerialQueue(std::string label) : label_(std::move(label)) {
  worker_ = std::thread([this] { workerLoop(); });
}

KLTSerialQueue::~KLTSerialQueue() {
  {
    std::lock_guard lock(mutex_);
    stopping_ = true;
  }
  workAvailable_.notify_one();
  if (worker_.joinable()) worker_.join();
}

void KLTSerialQueue::async(std::function<void()> task) {
  {
    std::lock_guard lock(mutex_);
    tasks_.push_back(std::move(task));
    ++posted_;
  }
  workAvailable_.notify_one();
}

bool KLTSerialQueue::waitUntilIdle() {
  if (isCurrent()) return false;
  std::unique_lock lock(mutex_);
  const uint64_t target = posted_;
  progress_.wait(lock, [&] { return completed_ >= target; });
  return true;
}

bool KLTSerialQueue::waitUntilIdleFor(std::chrono::milliseconds timeout) {
  if (isCurrent()) return false;
  std::unique_lock lock(mutex_);
  const uint64_t target = posted_;
  return progress_.wait_for(lock, timeout, [&] { return completed_ >= target; });
}

bool KLTSerialQueue::isCurrent() const { return std::this_thread::get_id() == worker_.get_id(); }

namespace {

std::mutex& failureMutex() {
  static std::mutex m;
  return m;
}
std::optional<std::string>& firstFailure() {
  static std::optional<std::string> what;
  return what;
}
void recordFailure(const char* what) {
  std::lock_guard lock(failureMutex());
  if (!firstFailure()) firstFailure() = what;
}

}  // namespace

std::optional<std::string> KLTSerialQueue::firstTaskFailure() {
  std::lock_guard lock(failureMutex());
  return firstFailure();
}

void KLTSerialQueue::workerLoop() {
  std::unique_lock lock(mutex_);
  for (;;) {
    workAvailable_.wait(lock, [&] { return stopping_ || !tasks_.empty(); });
    if (tasks_.empty()) return;  // stopping, and everything posted has run
    std::function<void()> task = std::move(tasks_.front());
    tasks_.pop_front();
    lock.unlock();
    try {
      task();
    } catch (const std::exception& e) {
      recordFailure(e.what());
      KLT_LOG_ERROR("-[KLTSerialQueue workerLoop]", std::string("Task failed: ") + e.what());
    } catch (...) {
      recordFailure("an exception of unknown type");
      KLT_LOG_ERROR("-[KLTSerialQueue workerLoop]", "Task failed");
    }
    task = nullptr;  // release what the task captured before reporting progress
    lock.lock();
    ++completed_;
    progress_.notify_all();
  }
}
