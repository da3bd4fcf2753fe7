// The C host's callbacks as the engine's platform and host objects: a clock read through a
// callback, a log sink and a decision observer that hand their lines and records to C functions.
//
// Every adapter holds the engine handle's Gate: once the handle is closed the gate is shut and no
// callback is called any more, even by a task of an engine that could not be torn down (a timer
// that never ends keeps its queue, and so the adapters, alive).
// Thread-safety: as the objects they stand for (any thread).
#pragma once

#include <atomic>
#include <memory>

#include <kltce/kltce.h>

#include "KLTContextEvaluator/KLTCEDecision.h"
#include "platform/KLTClock.h"
#include "platform/KLTLog.h"

namespace kltce::capi {

// Whether the handle still lets callbacks through.
struct Gate {
  std::atomic<bool> open{true};
};

// Time read through the host's callback. With virtual timers, a wait moves the time to its end at
// once and the time never goes back (the later of the callback's reading and the last wait's
// end); otherwise a wait lasts until the callback reads the deadline, in real time.
class CallbackClock final : public KLTClock {
 public:
  CallbackClock(kltce_clock_fn fn, void* context, std::shared_ptr<const KLTTimeZone> zone, bool virtualTimers,
                std::shared_ptr<Gate> gate);
  KLTTimePoint now() const override;
  std::shared_ptr<const KLTTimeZone> timeZone() const override { return zone_; }
  bool sleepUntil(KLTTimePoint deadline, std::stop_token stop) override;
  // On a queue the host drains: a wait that never ends unwinds rather than block the host's thread.
  void setUnwindEndlessWaits(bool on);

 private:
  KLTTimePoint read() const;
  // Virtual timers: the later of t and the engine's time so far, which becomes the engine's time.
  KLTTimePoint raise(KLTTimePoint t) const;
  const kltce_clock_fn fn_;
  void* const context_;
  const std::shared_ptr<const KLTTimeZone> zone_;
  const std::shared_ptr<Gate> gate_;
  const bool virtual_;
  // Virtual timers: the engine's time, moved forward by the callback's readings and by waits. An
  // atomic rather than a lock: the engine reads the clock at every counted event.
  mutable std::atomic<KLTTimePoint::rep> floor_{KLTTimePoint::min().time_since_epoch().count()};
  std::atomic<bool> unwindEndless_{false};
};

class CallbackLogSink final : public KLTLogSink {
 public:
  CallbackLogSink(kltce_log_fn fn, void* context, std::shared_ptr<Gate> gate)
      : fn_(fn), context_(context), gate_(std::move(gate)) {}
  void write(std::string_view line) override;
  // Formats the line once, into the NUL-terminated text the callback gets (no second copy).
  void writeLine(KLTLogLevel level, std::string_view message, std::string_view method, int line) override;

 private:
  const kltce_log_fn fn_;
  void* const context_;
  const std::shared_ptr<Gate> gate_;
};

class CallbackDecisionObserver final : public KLTCEDecisionObserver {
 public:
  CallbackDecisionObserver(kltce_decision_fn fn, void* context, std::shared_ptr<Gate> gate)
      : fn_(fn), context_(context), gate_(std::move(gate)) {}
  void onDecision(const KLTCEDecision& decision) override;

 private:
  const kltce_decision_fn fn_;
  void* const context_;
  const std::shared_ptr<Gate> gate_;
};

// An instant from epoch milliseconds, saturated to the instants a KLTTimePoint holds.
KLTTimePoint instantOfMillis(int64_t millis);

}  // namespace kltce::capi
