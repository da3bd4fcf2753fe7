// KLTCECondition: one rule of a campaign. It is armed by its trigger; once armed it listens to the
// host for its events (or runs a timer), counts matching events, and when the count and the time
// bounds hold it sets `satisfied` (for good) and calls its completion callback, again at every
// later event where both hold.
//
// Arming by event type: "app_event" registers under 4___name, "client_event" under 5___name,
// "activity_event" under 1___activity; "idle_time" starts its timer, runs the thread's run loop
// until the timer is done (blocking the serial queue for the whole interval), then registers for
// codes 1, 3 and 4; "activity_time" only starts the timer. Anything else arms nothing.
//
// Thread-safety: onEvent() may be called from any thread and posts its work to the evaluator's
// serial queue; everything else runs on that queue. Ownership: created with create(); held by its
// config item's callbacks, its trigger's callback and the host's registry, for the rest of the
// process.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>

#include "KLTContextEvaluator/KLTCEDecisionHooks.h"
#include "KLTContextEvaluator/KLTCETrigger.h"
#include "KLTContextEvaluator/KLTCEUtility.h"
#include "host/KLTEvent.h"
#include "platform/KLTRunLoop.h"
#include "platform/KLTValue.h"

class KLTCECondition final : public KLTEventListener, public std::enable_shared_from_this<KLTCECondition> {
 public:
  // Builds the condition from one element of a configuration's `conditions` list (any value), its
  // trigger last: an "app_start" trigger arms the condition before create() returns. Call on the
  // evaluator's serial queue. source names the campaign and position in decision records.
  static std::shared_ptr<KLTCECondition> create(const KLTValue& data, std::function<void()> completionHandler,
                                                KLTCEDecisionSource source = {});

  // Posts the event's handling to the evaluator's serial queue; any thread.
  void onEvent(std::shared_ptr<const KLTEvent> event) override;
  // The evaluator's serial queue, and the handling onEvent() posts to it (on that queue).
  KLTSerialQueue* eventQueue() const override;
  void handleQueuedEvent(const KLTEvent& event) override;
  // Breaks the cycles through this condition (its callback holds its item, its trigger's callback
  // holds it), so that dropping the last outside reference frees them. Only once nothing can
  // deliver to it or fire its timer any more (the engine's reset); on the serial queue.
  void release();
  // Clears the idle flag and stops the stored timer.
  void cancelIdleTimeTimer();
  // The timer's action: satisfied, and the completion callback.
  void timeElapsed();

  bool satisfied() const { return _satisfied; }
  void setSatisfied(bool satisfied) { _satisfied = satisfied; }
  const KLTValue& activity() const { return _activity; }
  const KLTValue& eventType() const { return _eventType; }
  int64_t sequence() const { return _sequence; }
  const KLTCEDetails& details() const { return _details; }
  const KLTCETimeBounds& timeBounds() const { return _timeBounds; }
  const KLTCECountConfig& countConfig() const { return _countConfig; }
  const std::shared_ptr<KLTCETrigger>& trigger() const { return _trigger; }
  const KLTValue& ruleType() const { return _ruleType; }
  const KLTValue& combineOperator() const { return _combineOperator; }

  // Matching events counted so far, and whether an idle wait is pending (for inspection).
  int64_t occurrenceCount() const { return count; }
  bool isCheckingIdleTime() const { return checkingIdleTime; }

 private:
  struct Token {};

 public:
  KLTCECondition(Token, const KLTValue& data, std::function<void()> completionHandler, KLTCEDecisionSource source);

 private:
  void arm();
  void startTimer();
  void countAndCheck(const KLTEvent& event);

  int64_t count = 0;
  bool checkingIdleTime = false;
  std::shared_ptr<KLTTimer> timer;
  std::function<void()> completionHandler;
  bool _satisfied = false;
  KLTValue _activity;
  KLTValue _eventType;
  int64_t _sequence = 0;
  KLTCEDetails _details;
  KLTCEAttributeRules _attributeRules;  // _details' attribute data, read once for matching
  KLTCETimeBounds _timeBounds;
  KLTCECountConfig _countConfig;
  std::shared_ptr<KLTCETrigger> _trigger;
  KLTValue _ruleType;
  KLTValue _combineOperator;
  KLTCEDecisionSource decisionSource;
};
