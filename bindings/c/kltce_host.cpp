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
    : fn_(fn), context_(context), zone_(std::move(zone)), gate_(std::move(gate)), virtual_(virtualTimers) {}

KLTTimePoint CallbackClock::read() const {
  // A closed handle's context may be gone: its engine's leftover tasks read the last time seen.
  if (!gate_->open.load(std::memory_order_acquire)) {
    return virtual_ ? KLTTimePoint(KLTTimePoint::duration(floor_.load(std::memory_order_acquire))) : KLTTimePoint::min();
  }
  return instantOfMillis(fn_(context_));
}

KLTTimePoint CallbackClock::raise(KLTTimePoint t) const {
  KLTTimePoint::rep seen = floor_.load(std::memory_order_acquire);
  const KLTTimePoint::rep wanted = t.time_since_epoch().count();
  while (wanted > seen) {
    if (floor_.compare_exchange_weak(seen, wanted, std::memory_order_acq_rel)) return t;
  }
  return KLTTimePoint(KLTTimePoint::duration(seen));
}

KLTTimePoint CallbackClock::now() const {
  const KLTTimePoint t = read();
  return virtual_ ? raise(t) : t;
}

bool CallbackClock::sleepUntil(KLTTimePoint deadline, std::stop_token stop) {
  if (stop.stop_requested()) return false;
  const bool forever = deadline == KLTTimePoint::max();
  if (virtual_ && !forever) {
    raise(deadline);  // the timer ends at once: the engine's time moves to its end
    return true;
  }
  if (virtual_ && unwindEndless_.load(std::memory_order_acquire)) throw KLTEndlessWait{};
  std::mutex m;
  std::condition_variable_any cv;
  std::unique_lock lock(m);
  while (!stop.stop_requested()) {
    if (forever) {
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

void CallbackClock::setUnwindEndlessWaits(bool on) { unwindEndless_.store(on, std::memory_order_release); }

void CallbackLogSink::write(std::string_view line) {
  if (!gate_->open.load(std::memory_order_acquire)) return;
  // The line's level is its prefix, "<KLT DEBUG>", "<KLT INFO>" or "<KLT ERROR>".
  kltce_log_level level = KLTCE_LOG_INFO;
  if (line.starts_with("<KLT DEBUG>")) level = KLTCE_LOG_DEBUG;
  if (line.starts_with("<KLT ERROR>")) level = KLTCE_LOG_ERROR;
  const std::string text(line);  // NUL-terminated for the host
  fn_(context_, level, text.c_str(), text.size());
}

void CallbackLogSink::writeLine(KLTLogLevel level, std::string_view message, std::string_view method, int line) {
  if (!gate_->open.load(std::memory_order_acquire)) return;
  const std::string text = KLTLog::format(level, message, method, line);
  const kltce_log_level cLevel = level == KLTLogLevel::Debug ? KLTCE_LOG_DEBUG
                                 : level == KLTLogLevel::Error ? KLTCE_LOG_ERROR
                                                               : KLTCE_LOG_INFO;
  fn_(context_, cLevel, text.c_str(), text.size());
}

void CallbackDecisionObserver::onDecision(const KLTCEDecision& decision) {
  if (!gate_->open.load(std::memory_order_acquire)) return;
  KLTValue record = KLTCEDecisionToJson(decision);
  record["time"] = KLTClock::epochMillis(KLTClock::current()->now());
  const std::string text = record.dump(-1, ' ', false, KLTValue::error_handler_t::replace);
  fn_(context_, text.c_str());
}

}  // namespace kltce::capi
