// KLTVirtualClock: a clock whose time moves only when told, for tests, benchmarks and replays.
//
// Two ways for waits (timers) to end:
// - auto-advance (the default): sleepUntil() moves the time forward to the deadline at once, so a
//   30-second timer fires without real waiting; a deadline of KLTTimePoint::max() never comes, and
//   such a sleeper blocks until stopped (see blockedForeverCount()).
// - manual: sleepUntil() blocks until advance()/setNow() reaches the deadline.
// Time never moves backwards: setNow() to an earlier instant is ignored.
//
// Thread-safety: every operation may be called from any thread.
#pragma once

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

  // Threads now waiting in sleepUntil() (manual mode, or a deadline that never comes).
  int sleeperCount() const;
  // Threads waiting for a deadline that never comes (a timer of endless interval).
  int blockedForeverCount() const;
  // Blocks (in real time, up to the timeout) until at least n threads sleep; true when they do.
  bool waitForSleepers(int n, std::chrono::milliseconds timeout) const;

 private:
  mutable std::mutex mutex_;
  mutable std::condition_variable_any changed_;
  KLTTimePoint now_;
  std::shared_ptr<const KLTTimeZone> zone_;
  bool autoAdvance_ = true;
  int sleepers_ = 0;
  int forever_ = 0;
};
