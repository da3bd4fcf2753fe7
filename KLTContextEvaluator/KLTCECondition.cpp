#include "KLTContextEvaluator/KLTCECondition.h"

#include "KLTContextEvaluator/KLTCEConstants.h"
#include "KLTContextEvaluator/KLTCEUtility.h"
#include "KLTContextEvaluator/KLTContextEvaluator.h"
#include "host/KLTController.h"

KLTCECondition::KLTCECondition(Token, const KLTValue& data, std::function<void()> handler, KLTCEDecisionSource source)
    : completionHandler(std::move(handler)),
      _activity(klt::valueForKey(data, kKLTActivity)),
      _eventType(klt::valueForKey(data, kKLTEventType)),
      _sequence(klt::integerValue(klt::valueForKey(data, kKLTSequence))),
      _details(klt::valueForKey(data, kKLTDetails)),
      _attributeRules(_details.additionalInfo()),
      _timeBounds(klt::valueForKey(data, kKLTTimeBounds)),
      _countConfig(klt::valueForKey(data, kKLTCountConfig)),
      _ruleType(klt::valueForKey(data, kKLTRuleType)),
      _combineOperator(klt::valueForKey(data, kKLTCombineOperator)),
      decisionSource(std::move(source)) {}

std::shared_ptr<KLTCECondition> KLTCECondition::create(const KLTValue& data, std::function<void()> handler,
                                                       KLTCEDecisionSource source) {
  auto condition = std::make_shared<KLTCECondition>(Token{}, data, std::move(handler), std::move(source));
  // The trigger comes last: an "app_start" trigger arms the condition inside its own construction,
  // and arming must find every other field set. Its callback holds the condition for good.
  condition->_trigger =
      KLTCETrigger::create(klt::valueForKey(data, kKLTTrigger), [condition] { condition->arm(); }, condition->decisionSource);
  return condition;
}

void KLTCECondition::arm() {
  auto& controller = KLTController::sharedController();
  auto self = shared_from_this();
  KLTCEDecisions::conditionArmed(decisionSource, *this);
  if (klt::isText(_eventType, kKLTAppEvent)) {
    controller.registerIdentifer(KLTController::listenerIdentifier(kKLTEventCodeApp, _details.name()), self);
  } else if (klt::isText(_eventType, kKLTClientEvent)) {
    controller.registerIdentifer(KLTController::listenerIdentifier(kKLTEventCodeClient, _details.name()), self);
  } else if (klt::isText(_eventType, kKLTActivityEvent)) {
    controller.registerIdentifer(KLTController::listenerIdentifier(kKLTEventCodeActivity, _activity), self);
  } else if (klt::isText(_eventType, kKLTIdleTime)) {
    checkingIdleTime = true;
    startTimer();
    // Registered only once the timer is done, so no event can interrupt the idle wait itself.
    controller.registerForEventWithType(kKLTEventCodeActivity, self);
    controller.registerForEventWithType(kKLTEventCodePresence, self);
    controller.registerForEventWithType(kKLTEventCodeApp, self);
  } else if (klt::isText(_eventType, kKLTActivityTime)) {
    startTimer();
  }
}

void KLTCECondition::startTimer() {
  // Whole seconds of the `time` in milliseconds, taken as unsigned: a negative time becomes an
  // interval so long that the timer never fires (and the queue stays blocked).
  const int64_t millis = klt::integerValue(klt::valueForKey(_details.additionalInfo(), kKLTTime));
  const auto seconds = static_cast<uint64_t>(millis / 1000);
  // A replaced timer is dropped from the field without being stopped.
  timer = KLTTimer::scheduledTimer(static_cast<double>(seconds), [self = shared_from_this()] { self->timeElapsed(); });
  KLTRunLoop::current().run();
}

void KLTCECondition::timeElapsed() {
  _satisfied = true;
  KLTCEDecisions::timerEnded(decisionSource, *this);
  if (completionHandler) completionHandler();
}

void KLTCECondition::cancelIdleTimeTimer() {
  checkingIdleTime = false;
  if (timer) timer->invalidate();
  timer = nullptr;
}

void KLTCECondition::onEvent(std::shared_ptr<const KLTEvent> event) {
  if (!event) return;
  KLTContextEvaluator::sharedInstance().ceOpsSerialQueue()->async(
      [self = shared_from_this(), event = std::move(event)] { self->handleQueuedEvent(*event); });
}

void KLTCECondition::countAndCheck(const KLTEvent& event) {
  // Counted before the checks, so events outside the time bounds still count.
  ++count;
  // The host time is read only when the count holds, as before records existed.
  const bool countHeld = KLTCEUtility::checkValue(count, _countConfig.count(), _countConfig.operatorWord());
  const bool completed = countHeld && KLTCEUtility::checkGivenTime(KLTController::sharedController().currentSDKTimeInMillis(),
                                                                   _timeBounds.lower(), _timeBounds.upper());
  KLTCEDecisions::eventCounted(decisionSource, *this, event, countHeld, completed);
  if (completed) {
    _satisfied = true;
    if (completionHandler) completionHandler();
  }
}

KLTSerialQueue* KLTCECondition::eventQueue() const { return KLTContextEvaluator::sharedInstance().ceOpsSerialQueue().get(); }

void KLTCECondition::handleQueuedEvent(const KLTEvent& event) {
  // Handled by the event's code, whatever this condition's own type: an idle condition also
  // receives activity and app events and matches them like any other.
  switch (event.eventType) {
    case kKLTEventCodeActivity:
      if (checkingIdleTime) cancelIdleTimeTimer();
      // Activity events count on their name alone.
      if (klt::isText(_activity, event.identifier)) countAndCheck(event);
      break;
    case kKLTEventCodePresence:
      if (checkingIdleTime) cancelIdleTimeTimer();
      break;
    case kKLTEventCodeApp:
    case kKLTEventCodeClient:
      if (checkingIdleTime) cancelIdleTimeTimer();
      if (klt::isText(_details.name(), event.identifier) &&
          _attributeRules.matches(event.additionalInfo)) {
        countAndCheck(event);
      }
      break;
    default:
      break;
  }
}

// Placed last so that the source lines of the log sites above stay as they are.
void KLTCECondition::release() {
  completionHandler = nullptr;
  if (_trigger) _trigger->release();
  timer.reset();
}
