// KLTCETrigger: arms a condition. Built from its compiled rule (KLTCECampaign.h: KLTCETriggerRule),
// it listens to the host for one kind of event ("app_event": code 4 under the event's name;
// "activity_event": code 1 under the activity's name) or fires at once ("app_start"), and calls
// its arming callback each time a qualifying event arrives within its time bounds (for app events,
// when the event's attributes also match the trigger's attribute data).
//
// Its event work runs on the evaluator's serial queue; the trigger is touched only there once
// built. Ownership: built by its condition with create(); held by the condition and, once
// registered, by the host's registry, for the rest of the process. It keeps its rule (and so the
// compiled campaign) alive.
#pragma once

#include <functional>
#include <memory>

#include "KLTContextEvaluator/KLTCECampaign.h"
#include "KLTContextEvaluator/KLTCEDecisionHooks.h"
#include "host/KLTEvent.h"

class KLTCETrigger final : public KLTEventListener, public std::enable_shared_from_this<KLTCETrigger> {
 public:
  // Builds the trigger of a rule and registers it with the host; an "app_start" trigger calls
  // completionHandler once before create() returns. Call on the evaluator's serial queue (or before
  // any event can reach the trigger). source names the campaign and condition in decision records.
  static std::shared_ptr<KLTCETrigger> create(std::shared_ptr<const KLTCETriggerRule> rule,
                                              std::function<void()> completionHandler, KLTCEDecisionSource source = {});

  // Posts the event's handling to the evaluator's serial queue; any thread.
  void onEvent(std::shared_ptr<const KLTEvent> event) override;
  // The evaluator's serial queue, and the handling onEvent() posts to it (on that queue).
  KLTSerialQueue* eventQueue() const override;
  void handleQueuedEvent(const KLTEvent& event) override;

  const KLTCETriggerRule& rule() const { return *rule_; }
  const KLTValue& eventType() const { return rule_->eventType; }
  // Drops the completion callback, which holds the condition (and so the cycle condition ->
  // trigger -> condition). Only once nothing can deliver to the trigger any more (the engine's
  // reset); on the serial queue.
  void release() { completionHandler = nullptr; }

 private:
  struct Token {};

 public:
  KLTCETrigger(Token, std::shared_ptr<const KLTCETriggerRule> rule, std::function<void()> completionHandler,
               KLTCEDecisionSource source);

 private:
  void fire(const KLTEvent& event);

  std::function<void()> completionHandler;
  std::shared_ptr<const KLTCETriggerRule> rule_;
  // The queue of the engine instance that built it; nullptr for the shared instance's.
  std::shared_ptr<KLTSerialQueue> queue_;
  KLTSerialQueue& queue() const;
  KLTCEDecisionSource decisionSource;
};
