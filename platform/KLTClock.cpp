#include "platform/KLTClock.h"

#include "platform/KLTSeam.h"

#include <unicode/timezone.h>
#include <unicode/unistr.h>

#include <atomic>
#include <cmath>
#include <condition_variable>
#include <limits>
#include <mutex>

namespace {

class IcuTimeZone final : public KLTTimeZone {
 public:
  explicit IcuTimeZone(std::unique_ptr<icu::TimeZone> zone) : zone_(std::move(zone)) {}
  int offsetMinutesAt(KLTTimePoint t) const override {
    const double udate = static_cast<double>(KLTClock::epochMillis(t));
    int32_t raw = 0, dst = 0;
    UErrorCode status = U_ZERO_ERROR;
    std::lock_guard lock(mutex_);  // icu::TimeZone::getOffset is const but not documented thread-safe
    zone_->getOffset(udate, false, raw, dst, status);
    if (U_FAILURE(status)) return 0;
    return (raw + dst) / 60000;
  }
  std::string identifier() const override {
    icu::UnicodeString id;
    zone_->getID(id);
    std::string out;
    id.toUTF8String(out);
    return out;
  }

 private:
  mutable std::mutex mutex_;
  std::unique_ptr<icu::TimeZone> zone_;
};

class FixedTimeZone final : public KLTTimeZone {
 public:
  explicit FixedTimeZone(int minutes) : minutes_(minutes) {}
  int offsetMinutesAt(KLTTimePoint) const override { return minutes_; }
  std::string identifier() const override {
    char buf[32];
    const int a = std::abs(minutes_);
    std::snprintf(buf, sizeof buf, "UTC%c%02d:%02d", minutes_ < 0 ? '-' : '+', a / 60, a % 60);
    return buf;
  }

 private:
  int minutes_;
};

}  // namespace

std::shared_ptr<const KLTTimeZone> KLTTimeZone::named(const std::string& id) {
  std::unique_ptr<icu::TimeZone> zone(icu::TimeZone::createTimeZone(icu::UnicodeString::fromUTF8(id)));
  // ICU answers an unknown identifier with the "Etc/Unknown" zone rather than failing.
  if (!zone || *zone == icu::TimeZone::getUnknown()) return nullptr;
  return std::make_shared<IcuTimeZone>(std::move(zone));
}

std::shared_ptr<const KLTTimeZone> KLTTimeZone::fixedOffset(int minutesEast) {
  return std::make_shared<FixedTimeZone>(minutesEast);
}

std::shared_ptr<const KLTTimeZone> KLTTimeZone::system() {
  // ICU reads TZ (or the system setting) once; detect it afresh for each request. The detection
  // reads the C library's zone state, which two threads must not do at once (two engine
  // instances made together each ask for it).
  static std::mutex detecting;
  std::unique_lock lock(detecting);
  std::unique_ptr<icu::TimeZone> zone(icu::TimeZone::detectHostTimeZone());
  lock.unlock();
  if (!zone) return fixedOffset(0);
  return std::make_shared<IcuTimeZone>(std::move(zone));
}

KLTLocalTime KLTTimeZone::localTimeAt(KLTTimePoint t) const {
  using namespace std::chrono;
  const auto local = floor<minutes>(t) + minutes(offsetMinutesAt(t));
  const auto sinceMidnight = local - floor<days>(local);
  const auto total = duration_cast<minutes>(sinceMidnight).count();
  return KLTLocalTime{static_cast<int>(total / 60), static_cast<int>(total % 60)};
}

KLTSeam<KLTClock>& KLTClock::seam() {
  static KLTSeam<KLTClock> seam([]() -> std::shared_ptr<KLTClock> { return std::make_shared<KLTRealClock>(); },
                                KLTSeamCache::PerThread);
  return seam;
}

std::shared_ptr<KLTClock> KLTClock::current() { return seam().current(); }

KLTTimePoint KLTClock::currentNow() { return seam().currentCached()->now(); }

std::shared_ptr<KLTClock> KLTClock::setCurrent(std::shared_ptr<KLTClock> clock) {
  return seam().replaceDefault(std::move(clock));
}

int64_t KLTClock::epochMillis(KLTTimePoint t) {
  return std::chrono::duration_cast<std::chrono::milliseconds>(t.time_since_epoch()).count();
}

KLTTimePoint KLTClock::addSaturating(KLTTimePoint base, double seconds) {
  if (std::isnan(seconds) || seconds <= 0) return base;
  const double ticks = seconds * static_cast<double>(KLTTimePoint::period::den) / KLTTimePoint::period::num;
  // In floating ticks: max() - base itself overflows for a base before 1970. The margin of a
  // second keeps the sum clear of max() despite the rounding of doubles this far out (the year
  // 294,000), and the second test keeps the conversion below within the 64-bit range.
  using Rep = KLTTimePoint::rep;
  const double room = static_cast<double>(std::numeric_limits<Rep>::max()) -
                      static_cast<double>(base.time_since_epoch().count()) - 1e6;
  if (ticks >= room || ticks >= static_cast<double>(std::numeric_limits<Rep>::max())) return KLTTimePoint::max();
  return base + KLTTimePoint::duration(static_cast<KLTTimePoint::rep>(ticks));
}

KLTRealClock::KLTRealClock(std::shared_ptr<const KLTTimeZone> zone)
    : zone_(zone ? std::move(zone) : KLTTimeZone::system()) {}

KLTTimePoint KLTRealClock::now() const { return std::chrono::floor<KLTTimePoint::duration>(std::chrono::system_clock::now()); }

bool KLTRealClock::sleepUntil(KLTTimePoint deadline, std::stop_token stop) {
  std::mutex m;
  std::condition_variable_any cv;
  std::unique_lock lock(m);
  while (!stop.stop_requested()) {
    if (deadline == KLTTimePoint::max()) {
      cv.wait(lock, stop, [] { return false; });
      continue;
    }
    const auto remaining = deadline - now();  // in the instants' own unit: no far deadline overflows
    if (remaining <= KLTTimePoint::duration::zero()) return true;
    // Wait in steady time so that a wall-clock jump does not stretch the sleep.
    const auto steadyDeadline = std::chrono::steady_clock::now() +
        std::chrono::duration_cast<std::chrono::steady_clock::duration>(remaining);
    cv.wait_until(lock, stop, steadyDeadline, [] { return false; });
  }
  return false;
}
