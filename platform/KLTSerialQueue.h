// KLTSerialQueue: a serial task queue with one worker thread. Tasks run one at a time, in the order
// they were posted, across all posting threads.
//
// Thread-safety: async() and waitUntilIdle() may be called from any thread. A task that throws is
// caught and logged at ERROR level; the queue goes on with the next task.
// Destruction runs the tasks already posted, then joins the worker; a task that never returns
// therefore blocks the destructor.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <functional>
#include <mutex>
#include <optional>
#include <string>
#include <thread>

class KLTSerialQueue {
 public:
  explicit KLTSerialQueue(std::string label);
  KLTSerialQueue(const KLTSerialQueue&) = delete;
  KLTSerialQueue& operator=(const KLTSerialQueue&) = delete;
  ~KLTSerialQueue();

  // Posts a task and returns at once.
  void async(std::function<void()> task);

  // Blocks until every task posted before the call has run. Returns false at once when called from
  // the worker itself (it would wait for its own task), true otherwise.
  bool waitUntilIdle();
  // The same, giving up after a real-time timeout (returns false then).
  bool waitUntilIdleFor(std::chrono::milliseconds timeout);

  // Whether the calling thread is this queue's worker.
  bool isCurrent() const;
  const std::string& label() const { return label_; }

  // What the first task to throw in this process threw (across every queue), so that a program
  // such as the command-line tool can fail rather than carry on as if nothing happened; nothing
  // while no task has thrown.
  static std::optional<std::string> firstTaskFailure();

 private:
  void workerLoop();

  const std::string label_;
  mutable std::mutex mutex_;
  std::condition_variable workAvailable_;
  std::condition_variable progress_;
  std::deque<std::function<void()>> tasks_;
  uint64_t posted_ = 0;
  uint64_t completed_ = 0;
  bool stopping_ = false;
  std::thread worker_;
};
