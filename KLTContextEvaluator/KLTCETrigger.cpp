#include "KLTContextEvaluator/KLTCETrigger.h"

#include "KLTContextEvaluator/KLTCEConstants.h"
#include "KLTContextEvaluator/KLTCEUtility.h"
#include "KLTContextEvaluator/KLTContextEvaluator.h"
#include "host/KLTController.h"

KLTCECountConfig::KLTCECountConfig(const KLTValue& data)
    : _count(klt::integerValue(klt::valueForKey(data, kKLTCount))), _operator(klt::valueForKey(data, kKLTOperator)) {}

KLTCETimeBounds::KLTCETimeBounds(const KLTValue& data)
    : _lower(klt::integerValue(klt::valueForKey(data, kKLTLower))),
      _upper(klt::integerValue(klt::valueForKey(data, kKLTUpper))) {}

KLTCEDetails::KLTCEDetails(const KLTValue& data)
    : _name(klt::valueForKey(data, kKLTName)), _additionalInfo(klt::valueForKey(data, kKLTAdditionalInfo)) {}

KLTCETrigger::KLTCETrigger(Token, const KLTValue& data, std::function<void()> handler, KLTCEDecisionSource source)
    : completionHandler(std::move(handler)),
      _activity(klt::valueForKey(data, kKLTActivity)),
      _eventType(klt::valueForKey(data, kKLTEventType)),
      _details(klt::valueForKey(data, kKLTDetails)),
      _timeBounds(klt::valueForKey(data, kKLTTimeBounds)),
      decisionSource(std::move(source)) {}

std::shared_ptr<KLTCETrigger> KLTCETrigger::create(const KLTValue& data, std::function<void()> handler,
                                                   KLTCEDecisionSource source) {
  auto trigger = std::make_shared<KLTCETrigger>(Token{}, data, std::move(handler), std::move(source));
  auto& controller = KLTController::sharedController();
  if (klt::isText(trigger->_eventType, kKLTAppEvent)) {
    controller.registerIdentifer(KLTController::listenerIdentifier(kKLTEventCodeApp, trigger->_details.name()), trigger);
  } else if (klt::isText(trigger->_eventType, kKLTActivityEvent)) {
    controller.registerIdentifer(KLTController::listenerIdentifier(kKLTEventCodeActivity, trigger->_activity), trigger);
  } else if (klt::isText(trigger->_eventType, kKLTAppStart)) {
    // Fires while its condition is being built; the condition builds its trigger last for this.
    KLTCEDecisions::triggerFired(trigger->decisionSource, *trigger, nullptr);
    if (trigger->completionHandler) trigger->completionHandler();
  }
  // Any other type (a client event included) never fires.
  return trigger;
}

void KLTCETrigger::onEvent(std::shared_ptr<const KLTEvent> event) {
  if (!event) return;
  KLTContextEvaluator::sharedInstance().ceOpsSerialQueue()->async(
      [self = shared_from_this(), event = std::move(event)] { self->handleQueuedEvent(*event); });
}

KLTSerialQueue* KLTCETrigger::eventQueue() const { return KLTContextEvaluator::sharedInstance().ceOpsSerialQueue().get(); }

void KLTCETrigger::handleQueuedEvent(const KLTEvent& event) {
  // The host routes only the events registered under this trigger's identifier; the name is trusted.
  const auto now = [] { return KLTController::sharedController().currentSDKTimeInMillis(); };
  switch (event.eventType) {
    case kKLTEventCodeActivity:
      if (KLTCEUtility::checkGivenTime(now(), _timeBounds.lower(), _timeBounds.upper()) && completionHandler) {
        KLTCEDecisions::triggerFired(decisionSource, *this, &event);
        completionHandler();
      }
      break;
    case kKLTEventCodeApp:
      if (KLTCEUtility::doesDictionary(event.additionalInfo, _details.additionalInfo()) &&
          KLTCEUtility::checkGivenTime(now(), _timeBounds.lower(), _timeBounds.upper()) && completionHandler) {
        KLTCEDecisions::triggerFired(decisionSource, *this, &event);
        completionHandler();
      }
      break;
    default:
      break;
  }
}
