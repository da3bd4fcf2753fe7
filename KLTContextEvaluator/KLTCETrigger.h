// The rule records of a condition or trigger object, and KLTCETrigger, which arms a condition.
//
// Records (KLTCECountConfig, KLTCETimeBounds, KLTCEDetails) are immutable once built and read
// leniently: integer fields through the 64-bit reading, other fields kept as stored; absent or
// non-dictionary data gives the zero record.
//
// A KLTCETrigger listens to the host for one kind of event ("app_event": code 4 under the event's
// name; "activity_event": code 1 under the activity's name) or fires at once ("app_start"), and
// calls its arming callback each time a qualifying event arrives within its time bounds. Its event
// work runs on the evaluator's serial queue; the trigger is touched only there once built.
// Ownership: built by its condition with create(); held by the condition and, once registered, by
// the host's registry, for the rest of the process.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>

#include "KLTContextEvaluator/KLTCEDecisionHooks.h"
#include "host/KLTEvent.h"
#include "platform/KLTValue.h"

// How many matching events a condition wants: `count` compared by `operator`.
class KLTCECountConfig {
 public:
  explicit KLTCECountConfig(const KLTValue& data);
  int64_t count() const { return _count; }
  // The operator word as stored (null when absent).
  const KLTValue& operatorWord() const { return _operator; }

 private:
  int64_t _count = 0;
  KLTValue _operator;
};

// The inclusive range [lower, upper] of host time, in epoch milliseconds.
class KLTCETimeBounds {
 public:
  explicit KLTCETimeBounds(const KLTValue& data);
  int64_t lower() const { return _lower; }
  int64_t upper() const { return _upper; }

 private:
  int64_t _lower = 0;
  int64_t _upper = 0;
};

// The event a rule watches: its name and the attribute data its attributes must satisfy.
class KLTCEDetails {
 public:
  explicit KLTCEDetails(const KLTValue& data);
  const KLTValue& name() const { return _name; }
  const KLTValue& additionalInfo() const { return _additionalInfo; }

 private:
  KLTValue _name;
  KLTValue _additionalInfo;
};

class KLTCETrigger final : public KLTEventListener, public std::enable_shared_from_this<KLTCETrigger> {
 public:
  // Builds the trigger from a condition's `trigger` object (any value) and registers it with the
  // host; an "app_start" trigger calls completionHandler once before create() returns. Call on the
  // evaluator's serial queue (or before any event can reach the trigger). source names the
  // campaign and condition in decision records.
  static std::shared_ptr<KLTCETrigger> create(const KLTValue& data, std::function<void()> completionHandler,
                                              KLTCEDecisionSource source = {});

  // Posts the event's handling to the evaluator's serial queue; any thread.
  void onEvent(std::shared_ptr<const KLTEvent> event) override;
  // The evaluator's serial queue, and the handling onEvent() posts to it (on that queue).
  KLTSerialQueue* eventQueue() const override;
  void handleQueuedEvent(const KLTEvent& event) override;

  const KLTValue& activity() const { return _activity; }
  const KLTValue& eventType() const { return _eventType; }
  const KLTCEDetails& details() const { return _details; }
  const KLTCETimeBounds& timeBounds() const { return _timeBounds; }
  // Drops the completion callback, which holds the condition (and so the cycle condition ->
  // trigger -> condition). Only once nothing can deliver to the trigger any more (the engine's
  // reset); on the serial queue.
  void release() { completionHandler = nullptr; }

 private:
  struct Token {};

 public:
  KLTCETrigger(Token, const KLTValue& data, std::function<void()> completionHandler, KLTCEDecisionSource source);

 private:

  std::function<void()> completionHandler;
  KLTValue _activity;
  KLTValue _eventType;
  KLTCEDetails _details;
  KLTCETimeBounds _timeBounds;
  KLTCEDecisionSource decisionSource;
};
