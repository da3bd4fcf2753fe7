#include "KLTContextEvaluator/KLTCETrigger.h"

#include "KLTContextEvaluator/KLTContextEvaluator.h"
#include "host/KLTController.h"

KLTCETrigger::KLTCETrigger(Token, std::shared_ptr<const KLTCETriggerRule> rule, std::function<void()> handler,
                           KLTCEDecisionSource source)
    : completionHandler(std::move(handler)), rule_(std::move(rule)), decisionSource(std::move(source)) {
  if (KLTContextEvaluator* engine = KLTContextEvaluator::bound()) queue_ = engine->ceOpsSerialQueue();
}

std::shared_ptr<KLTCETrigger> KLTCETrigger::create(std::shared_ptr<const KLTCETriggerRule> rule,
                                                   std::function<void()> handler, KLTCEDecisionSource source) {
  auto trigger = std::make_shared<KLTCETrigger>(Token{}, std::move(rule), std::move(handler), std::move(source));
  const KLTCETriggerRule& r = *trigger->rule_;
  if (r.listener.code != 0) {
    KLTController::current().registerListener(r.listener.code, r.listener.name, trigger);
  } else if (r.kind == KLTCEEventKind::AppStart) {
    // Fires while its condition is being built; the condition builds its trigger last for this.
    KLTCEDecisions::triggerFired(trigger->decisionSource, *trigger, nullptr);
    if (trigger->completionHandler) trigger->completionHandler();
  }
  // Any other type (a client event included) never fires.
  return trigger;
}

void KLTCETrigger::onEvent(std::shared_ptr<const KLTEvent> event) {
  if (!event) return;
  queue().async(
      [self = shared_from_this(), event = std::move(event)] { self->handleQueuedEvent(*event); });
}

KLTSerialQueue* KLTCETrigger::eventQueue() const { return &queue(); }

KLTSerialQueue& KLTCETrigger::queue() const { return queue_ ? *queue_ : *KLTContextEvaluator::sharedInstance().ceOpsSerialQueue(); }

void KLTCETrigger::handleQueuedEvent(const KLTEvent& event) {
  // The host routes only the events registered under this trigger's key; the name is trusted.
  switch (event.eventType) {
    case kKLTEventCodeActivity:
      fire(event);
      break;
    case kKLTEventCodeApp:
      if (rule_->matcher.matches(event)) fire(event);
      break;
    default:
      break;
  }
}

void KLTCETrigger::fire(const KLTEvent& event) {
  if (!rule_->timeBounds.contains(KLTController::current().currentSDKTimeInMillis()) || !completionHandler) return;
  KLTCEDecisions::triggerFired(decisionSource, *this, &event);
  completionHandler();
}
