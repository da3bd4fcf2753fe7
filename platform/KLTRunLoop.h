// KLTRunLoop and KLTTimer: one-shot timers that fire on the thread that scheduled them, while that
// thread runs its run loop.
//
// A timer waits through the process-wide clock (KLTClock::current() at scheduling time), so under a
// virtual clock a 30-second timer fires without real waiting. KLTRunLoop::run() blocks the calling
// thread until no valid timer is left on its loop: until every timer has fired or been invalidated.
//
// Thread-safety: each thread has its own run loop; scheduling and run() act on the calling
// thread's loop. KLTTimer::invalidate() may be called from any thread and wakes a waiting run().
#pragma once

#include <functional>
#include <memory>
#include <mutex>
#include <stop_token>
#include <vector>

#include "platform/KLTClock.h"

class KLTTimer {
 public:
  // Schedules a one-shot timer on the calling thread's run loop. The interval is in seconds; 0 or
  // less fires at the next run; an interval beyond the clock's range never fires.
  static std::shared_ptr<KLTTimer> scheduledTimer(double intervalSeconds, std::function<void()> action);

  KLTTimer(const KLTTimer&) = delete;
  KLTTimer& operator=(const KLTTimer&) = delete;

  // Stops the timer: it will not fire, and a run() waiting for it returns.
  void invalidate();
  bool isValid() const;
  KLTTimePoint fireDate() const { return fireDate_; }

 private:
  friend class KLTRunLoop;
  KLTTimer(std::shared_ptr<KLTClock> clock, KLTTimePoint fireDate, std::function<void()> action);

  std::shared_ptr<KLTClock> clock_;
  KLTTimePoint fireDate_;
  std::function<void()> action_;
  std::stop_source stop_;
};

class KLTRunLoop {
 public:
  // The calling thread's run loop.
  static KLTRunLoop& current();

  KLTRunLoop() = default;
  KLTRunLoop(const KLTRunLoop&) = delete;
  KLTRunLoop& operator=(const KLTRunLoop&) = delete;

  // Fires the loop's timers in the order of their fire dates as the clock reaches them; returns when
  // none is left. A timer action may schedule further timers on this loop.
  void run();
  void addTimer(std::shared_ptr<KLTTimer> timer);

 private:
  std::mutex mutex_;
  std::vector<std::shared_ptr<KLTTimer>> timers_;
};
