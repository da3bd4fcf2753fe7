#include "platform/KLTVirtualClock.h"

KLTVirtualClock::KLTVirtualClock(KLTTimePoint start, std::shared_ptr<const KLTTimeZone> zone)
    : now_(start.time_since_epoch().count()), zone_(zone ? std::move(zone) : KLTTimeZone::fixedOffset(0)) {}

KLTTimePoint KLTVirtualClock::now() const { return load(); }

std::shared_ptr<const KLTTimeZone> KLTVirtualClock::timeZone() const {
  std::lock_guard lock(mutex_);
  return zone_;
}

bool KLTVirtualClock::sleepUntil(KLTTimePoint deadline, std::stop_token stop) {
  std::unique_lock lock(mutex_);
  if (stop.stop_requested()) return false;
  if (load() >= deadline) return true;
  const bool forever = deadline == KLTTimePoint::max();
  if (autoAdvance_ && !forever) {
    store(deadline);
    changed_.notify_all();
    return true;
  }
  if (forever && unwindEndless_) {
    ++unwound_;
    throw KLTEndlessWait{};
  }
  ++sleepers_;
  if (forever) ++forever_;
  changed_.notify_all();
  const bool reached = changed_.wait(lock, stop, [&] { return load() >= deadline || (autoAdvance_ && !forever); });
  --sleepers_;
  if (forever) --forever_;
  if (!reached) return false;
  if (load() < deadline) store(deadline);  // switched to auto-advance while waiting
  changed_.notify_all();
  return true;
}

void KLTVirtualClock::setNow(KLTTimePoint t) {
  std::lock_guard lock(mutex_);
  if (t > load()) store(t);
  changed_.notify_all();
}

void KLTVirtualClock::advance(std::chrono::nanoseconds d) {
  std::lock_guard lock(mutex_);
  if (d.count() > 0) store(load() + std::chrono::duration_cast<KLTTimePoint::duration>(d));
  changed_.notify_all();
}

void KLTVirtualClock::setTimeZone(std::shared_ptr<const KLTTimeZone> zone) {
  std::lock_guard lock(mutex_);
  if (zone) zone_ = std::move(zone);
}

void KLTVirtualClock::setAutoAdvance(bool on) {
  std::lock_guard lock(mutex_);
  autoAdvance_ = on;
  changed_.notify_all();
}

void KLTVirtualClock::setUnwindEndlessWaits(bool on) {
  std::lock_guard lock(mutex_);
  unwindEndless_ = on;
}

int KLTVirtualClock::endlessWaitCount() const {
  std::lock_guard lock(mutex_);
  return unwound_;
}

int KLTVirtualClock::sleeperCount() const {
  std::lock_guard lock(mutex_);
  return sleepers_;
}

int KLTVirtualClock::blockedForeverCount() const {
  std::lock_guard lock(mutex_);
  return forever_;
}

bool KLTVirtualClock::waitForSleepers(int n, std::chrono::milliseconds timeout) const {
  std::unique_lock lock(mutex_);
  return changed_.wait_for(lock, timeout, [&] { return sleepers_ >= n; });
}
