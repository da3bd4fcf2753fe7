// KLTCECondition: one rule of a campaign at run time, built from its compiled rule (KLTCECampaign.h:
// KLTCEConditionRule). It is armed by its trigger; once armed it listens to the host for its
// events (or runs a timer), counts matching events, and when the count and the time bounds hold it
// sets `satisfied` (for good) and calls its completion callback, again at every later event where
// both hold.
//
// Arming by event type: "app_event" registers under 4___name, "client_event" under 5___name,
// "activity_event" under 1___activity; "idle_time" starts its timer, runs the thread's run loop
// until the timer is done (blocking the serial queue for the whole interval), then registers for
// codes 1, 3 and 4; "activity_time" only starts the timer. Anything else arms nothing.
//
// Thread-safety: onEvent() may be called from any thread and posts its work to the evaluator's
// serial queue; everything else runs on that queue. Ownership: created with create(); held by its
// config item's callbacks, its trigger's callback and the host's registry, for the rest of the
// process. It keeps its rule (and so the compiled campaign) alive.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>

#include "KLTContextEvaluator/KLTCECampaign.h"
#include "KLTContextEvaluator/KLTCEDecisionHooks.h"
#include "KLTContextEvaluator/KLTCETrigger.h"
#include "host/KLTEvent.h"
#include "platform/KLTRunLoop.h"

class KLTCECondition final : public KLTEventListener, public std::enable_shared_from_this<KLTCECondition> {
 public:
  // Builds the condition of a rule, its trigger last: an "app_start" trigger arms the condition
  // before create() returns. Call on the evaluator's serial queue. source names the campaign and
  // position in decision records.
  static std::shared_ptr<KLTCECondition> create(std::shared_ptr<const KLTCEConditionRule> rule,
                                                std::function<void()> completionHandler, KLTCEDecisionSource source = {});

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
  const KLTCEConditionRule& rule() const { return *rule_; }
  const KLTValue& eventType() const { return rule_->eventType; }
  KLTCECombine combine() const { return rule_->combine; }
  const KLTValue& combineOperator() const { return rule_->combineWord; }

  // Matching events counted so far, and whether an idle wait is pending (for inspection).
  int64_t occurrenceCount() const { return count; }
  bool isCheckingIdleTime() const { return checkingIdleTime; }

 private:
  struct Token {};

 public:
  KLTCECondition(Token, std::shared_ptr<const KLTCEConditionRule> rule, std::function<void()> completionHandler,
                 KLTCEDecisionSource source);

 private:
  void arm();
  void startTimer();
  void countAndCheck(const KLTEvent& event);

  int64_t count = 0;
  bool checkingIdleTime = false;
  bool _satisfied = false;
  // The host registry's listener generation this condition registered in, plus one (0: none): an
  // arming in the same generation finds it registered already and changes nothing.
  uint64_t registeredIn = 0;
  std::shared_ptr<KLTTimer> timer;
  std::function<void()> completionHandler;
  std::shared_ptr<const KLTCEConditionRule> rule_;
  // The queue of the engine instance that built it; nullptr for the shared instance's.
  std::shared_ptr<KLTSerialQueue> queue_;
  KLTSerialQueue& queue() const;
  std::shared_ptr<KLTCETrigger> _trigger;
  KLTCEDecisionSource decisionSource;
};
