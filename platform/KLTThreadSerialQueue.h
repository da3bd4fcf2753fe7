// KLTThreadSerialQueue: a serial task queue (platform/KLTSerialQueue.h) with one worker thread.
//
// The worker takes every pending task in one swap and runs the batch: one lock and at most one
// wake-up per batch, however many tasks were posted. A poster wakes the worker only when it sleeps;
// the worker wakes waiters of waitUntilIdle() only when there are some.
//
// Thread-safety: async() and waitUntilIdle() may be called from any thread. A task that throws is
// caught and logged at ERROR level; the queue goes on with the next task.
// Destruction runs the tasks already posted, then joins the worker; a task that never returns
// therefore blocks the destructor.
#pragma once

#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <thread>
#include <vector>

#include "platform/KLTSerialQueue.h"

class KLTThreadSerialQueue final : public KLTSerialQueue {
 public:
  explicit KLTThreadSerialQueue(std::string label);
  ~KLTThreadSerialQueue() override;

  void async(std::function<void()> task) override;
  void asyncEach(std::size_t count, std::function<void(std::size_t)> task) override;
  bool waitUntilIdle() override;
  bool waitUntilIdleFor(std::chrono::milliseconds timeout) override;
  bool isCurrent() const override;
  const std::string& label() const override { return label_; }

 private:
  void workerLoop();
  // Runs one task, recording and logging what it throws (defined and used in the .cpp only).
  template <class Task>
  void runContained(Task&& task);
  bool idleReached(std::unique_lock<std::mutex>& lock, const std::chrono::milliseconds* timeout);

  const std::string label_;
  mutable std::mutex mutex_;
  std::condition_variable workAvailable_;
  std::condition_variable progress_;
  std::vector<std::function<void()>> tasks_;
  uint64_t posted_ = 0;
  uint64_t completed_ = 0;
  int idleWaiters_ = 0;
  bool workerSleeping_ = false;
  bool stopping_ = false;
  std::thread worker_;
};
