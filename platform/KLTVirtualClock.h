// KLTVirtualClock: a clock whose time moves only when told: the replay tool runs the engine on it,
// and tests and benchmarks use it so that nothing waits for real.
//
// Two ways for waits (timers) to end:
// - auto-advance (the default): sleepUntil() moves the time forward to the deadline at once, so a
//   30-second timer fires without real waiting; a deadline of KLTTimePoint::max() never comes, and
//   such a sleeper blocks until stopped (see blockedForeverCount()).
// - manual: sleepUntil() blocks until advance()/setNow() reaches the deadline.
// Time never moves backwards: setNow() to an earlier instant is ignored.
// A thread that must not block (one that drains its own queue, platform/KLTDrainedSerialQueue.h)
// asks for setUnwindEndlessWaits(true): a wait for a deadline that never comes then throws
// KLTEndlessWait instead of blocking, and is counted by endlessWaitCount().
//
// Thread-safety: every operation may be called from any thread; now() takes no lock.
#pragma once

#include <atomic>
#include <condition_variable>
#include <mutex>

#include "platform/KLTClock.h"

class KLTVirtualClock final : public KLTClock {
 public:
  explicit KLTVirtualClock(KLTTimePoint start = KLTTimePoint(std::chrono::seconds(1'767'225'600)),  // 2026-01-01T00:00Z
                           std::shared_ptr<const KLTTimeZone> zone = KLTTimeZone::fixedOffset(0));

  KLTTimePoint now() const override;
  std::shared_ptr<const KLTTimeZone> timeZone() const override;
  bool sleepUntil(KLTTimePoint deadline, std::stop_token stop) override;

  void setNow(KLTTimePoint t);
  void advance(std::chrono::nanoseconds d);
  void setTimeZone(std::shared_ptr<const KLTTimeZone> zone);
  void setAutoAdvance(bool on);
  void setUnwindEndlessWaits(bool on);

  // Threads now waiting in sleepUntil() (manual mode, or a deadline that never comes).
  int sleeperCount() const;
  // Threads waiting for a deadline that never comes (a timer of endless interval).
  int blockedForeverCount() const;
  // Waits for a deadline that never comes that were unwound (see setUnwindEndlessWaits()).
  int endlessWaitCount() const;
  // Blocks (in real time, up to the timeout) until at least n threads sleep; true when they do.
  bool waitForSleepers(int n, std::chrono::milliseconds timeout) const;

 private:
  void store(KLTTimePoint t) { now_.store(t.time_since_epoch().count(), std::memory_order_release); }
  KLTTimePoint load() const { return KLTTimePoint(KLTTimePoint::duration(now_.load(std::memory_order_acquire))); }

  mutable std::mutex mutex_;
  mutable std::condition_variable_any changed_;
  // Written under mutex_ (so that sleepers see every move), read without it.
  std::atomic<KLTTimePoint::rep> now_;
  std::shared_ptr<const KLTTimeZone> zone_;
  bool autoAdvance_ = true;
  bool unwindEndless_ = false;
  int unwound_ = 0;
  int sleepers_ = 0;
  int forever_ = 0;
};
