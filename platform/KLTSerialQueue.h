// KLTSerialQueue: the seam of a serial task queue. Tasks run one at a time, in the order they were
// posted, across all posting threads. Two implementations:
// - KLTThreadSerialQueue (platform/KLTThreadSerialQueue.h): one worker thread runs the tasks;
// - KLTDrainedSerialQueue (platform/KLTDrainedSerialQueue.h): the owner's thread runs them when it
//   drains the queue (the replay tool, which needs no thread hand-off).
//
// Thread-safety and failure rules are those of each implementation; both let async() be called
// from any thread and contain a task that throws.
#pragma once

#include <chrono>
#include <cstddef>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

#include "platform/KLTSeam.h"

class KLTSerialQueue {
 public:
  KLTSerialQueue() = default;
  KLTSerialQueue(const KLTSerialQueue&) = delete;
  KLTSerialQueue& operator=(const KLTSerialQueue&) = delete;
  virtual ~KLTSerialQueue() = default;

  // Posts a task and returns at once.
  virtual void async(std::function<void()> task) = 0;

  // Posts count tasks at once, task(0) to task(count - 1): they run back to back in that order,
  // exactly as count async() calls made one right after another would run, each contained on its
  // own (a task that throws is recorded and logged like any other, and the next one still runs).
  // The implementations hand the lot over in one go; this default posts them one by one.
  virtual void asyncEach(std::size_t count, std::function<void(std::size_t)> task);

  // Blocks until every task posted before the call has run. Returns false at once when called from
  // a task of this queue (it would wait for its own task), true otherwise.
  virtual bool waitUntilIdle() = 0;
  // The same, giving up after a real-time timeout (returns false then).
  virtual bool waitUntilIdleFor(std::chrono::milliseconds timeout) = 0;

  // Whether the calling thread is running one of this queue's tasks.
  virtual bool isCurrent() const = 0;
  virtual const std::string& label() const = 0;

  // What the first task to throw in this process threw (across every queue), so that a program
  // such as the command-line tool can fail rather than carry on as if nothing happened; nothing
  // while no task has thrown. Safe from any thread.
  static std::optional<std::string> firstTaskFailure();
  // What the first task of this queue to throw threw; nothing while none has. Safe from any thread.
  std::optional<std::string> taskFailure() const;

  // Puts the scope in effect on the thread that runs this queue's tasks, around every run of them
  // (nullptr: none): an engine instance's environment. Any thread; takes effect from the next batch
  // of tasks.
  void setSeamScope(std::shared_ptr<const KLTSeamScope> scope);

 protected:
  // Runs work within the present seam scope, if any.
  void withinScope(const std::function<void()>& work) const;

  // Called by the implementations when a task throws; keeps only the first failure, of the
  // process and of this queue.
  void recordTaskFailure(const char* what);

 private:
  mutable std::mutex scopeMutex_;
  std::shared_ptr<const KLTSeamScope> scope_;
  std::optional<std::string> failure_;  // guarded by scopeMutex_
};
