#include "bindings/c/kltce_host.h"

#include <condition_variable>
#include <limits>
#include <mutex>
#include <string>

namespace kltce::capi {

KLTTimePoint instantOfMillis(int64_t millis) {
  constexpr int64_t kLimit = std::numeric_limits<KLTTimePoint::rep>::max() / 1000;
  if (millis >= kLimit) return KLTTimePoint::max();
  if (millis <= -kLimit) return KLTTimePoint::min();
  return KLTTimePoint(std::chrono::milliseconds(millis));
}

CallbackClock::CallbackClock(kltce_clock_fn fn, void* context, std::shared_ptr<const KLTTimeZone> zone,
                             bool virtualTimers, std::shared_ptr<Gate> gate)
    : fn_(fn),
      context_(context),
      zone_(std::move(zone)),
      gate_(std::move(gate)),
      virtual_(virtualTimers ? std::make_unique<KLTVirtualClock>(KLTTimePoint::min(), zone_) : nullptr) {}

KLTTimePoint CallbackClock::read() const {
  // A closed handle's context may be gone: its engine's leftover tasks read the last time seen.
  if (!gate_->open.load(std::memory_order_acquire)) return virtual_ ? virtual_->now() : KLTTimePoint::min();
  return instantOfMillis(fn_(context_));
}

KLTTimePoint CallbackClock::now() const {
  const KLTTimePoint t = read();
  if (!virtual_) return t;
  virtual_->setNow(t);  // ignored when earlier: the engine's time never goes back
  return virtual_->now();
}

bool CallbackClock::sleepUntil(KLTTimePoint deadline, std::stop_token stop) {
  if (virtual_) {
    now();  // the wait starts from the host's present
    return virtual_->sleepUntil(deadline, stop);
  }
  std::mutex m;
  std::condition_variable_any cv;
  std::unique_lock lock(m);
  while (!stop.stop_requested()) {
    if (deadline == KLTTimePoint::max()) {
      cv.wait(lock, stop, [] { return false; });
      continue;
    }
    const auto remaining = deadline - now();
    if (remaining <= KLTTimePoint::duration::zero()) return true;
    const auto steadyDeadline =
        std::chrono::steady_clock::now() + std::chrono::duration_cast<std::chrono::steady_clock::duration>(remaining);
    cv.wait_until(lock, stop, steadyDeadline, [] { return false; });
  }
  return false;
}

void CallbackClock::setUnwindEndlessWaits(bool on) {
  if (virtual_) virtual_->setUnwindEndlessWaits(on);
}

void CallbackLogSink::write(std::string_view line) {
  if (!gate_->open.load(std::memory_order_acquire)) return;
  // The line's level is its prefix, "<KLT DEBUG>", "<KLT INFO>" or "<KLT ERROR>".
  kltce_log_level level = KLTCE_LOG_INFO;
  if (line.starts_with("<KLT DEBUG>")) level = KLTCE_LOG_DEBUG;
  if (line.starts_with("<KLT ERROR>")) level = KLTCE_LOG_ERROR;
  const std::string text(line);  // NUL-terminated for the host
  fn_(context_, level, text.c_str(), text.size());
}

void CallbackDecisionObserver::onDecision(const KLTCEDecision& decision) {
  if (!gate_->open.load(std::memory_order_acquire)) return;
  KLTValue record = KLTCEDecisionToJson(decision);
  record["time"] = KLTClock::epochMillis(KLTClock::current()->now());
  const std::string text = record.dump(-1, ' ', false, KLTValue::error_handler_t::replace);
  fn_(context_, text.c_str());
}

}  // namespace kltce::capi
