#include "KLTContextEvaluator/KLTCECondition.h"

#include "KLTContextEvaluator/KLTContextEvaluator.h"
#include "host/KLTController.h"

KLTCECondition::KLTCECondition(Token, std::shared_ptr<const KLTCEConditionRule> rule, std::function<void()> handler,
                               KLTCEDecisionSource source)
    : completionHandler(std::move(handler)), rule_(std::move(rule)), decisionSource(std::move(source)) {
  if (KLTContextEvaluator* engine = KLTContextEvaluator::bound()) queue_ = engine->ceOpsSerialQueue();
}

std::shared_ptr<KLTCECondition> KLTCECondition::create(std::shared_ptr<const KLTCEConditionRule> rule,
                                                       std::function<void()> handler, KLTCEDecisionSource source) {
  auto condition = std::make_shared<KLTCECondition>(Token{}, std::move(rule), std::move(handler), std::move(source));
  // The trigger comes last: an "app_start" trigger arms the condition inside its own construction,
  // and arming must find every other field set. Its callback holds the condition for good.
  condition->_trigger = KLTCETrigger::create(std::shared_ptr<const KLTCETriggerRule>(condition->rule_, &condition->rule_->trigger),
                                             [condition] { condition->arm(); }, condition->decisionSource);
  return condition;
}

void KLTCECondition::arm() {
  auto& controller = KLTController::current();
  KLTCEDecisions::conditionArmed(decisionSource, *this);
  switch (rule_->kind) {
    case KLTCEEventKind::AppEvent:
    case KLTCEEventKind::ClientEvent:
    case KLTCEEventKind::ActivityEvent: {
      // A trigger arms its condition at each of its events; the registry keeps a listener once per
      // key, so only the first arming in a generation of the registry changes anything.
      const uint64_t generation = controller.listenerGeneration() + 1;
      if (registeredIn == generation) break;
      controller.registerListener(rule_->listener.code, rule_->listener.name, shared_from_this());
      registeredIn = generation;
      break;
    }
    case KLTCEEventKind::IdleTime: {
      checkingIdleTime = true;
      startTimer();
      // Registered only once the timer is done, so no event can interrupt the idle wait itself.
      auto self = shared_from_this();
      controller.registerForEventWithType(kKLTEventCodeActivity, self);
      controller.registerForEventWithType(kKLTEventCodePresence, self);
      controller.registerForEventWithType(kKLTEventCodeApp, self);
      break;
    }
    case KLTCEEventKind::ActivityTime:
      startTimer();
      break;
    default:
      break;
  }
}

void KLTCECondition::startTimer() {
  // A replaced timer is dropped from the field without being stopped.
  timer = KLTTimer::scheduledTimer(static_cast<double>(rule_->timerSeconds), [self = shared_from_this()] { self->timeElapsed(); });
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
  queue().async(
      [self = shared_from_this(), event = std::move(event)] { self->handleQueuedEvent(*event); });
}

void KLTCECondition::countAndCheck(const KLTEvent& event) {
  // Counted before the checks, so events outside the time bounds still count.
  ++count;
  // The host time is read only when the count holds.
  const KLTCEConditionRule& r = *rule_;
  const bool countHeld = KLTCECompare(count, r.countConfig.count(), r.countConfig.op());
  const bool completed = countHeld && r.timeBounds.contains(KLTController::current().currentSDKTimeInMillis());
  KLTCEDecisions::eventCounted(decisionSource, *this, event, countHeld, completed);
  if (completed) {
    _satisfied = true;
    if (completionHandler) completionHandler();
  }
}

KLTSerialQueue* KLTCECondition::eventQueue() const { return &queue(); }

KLTSerialQueue& KLTCECondition::queue() const { return queue_ ? *queue_ : *KLTContextEvaluator::sharedInstance().ceOpsSerialQueue(); }

void KLTCECondition::handleQueuedEvent(const KLTEvent& event) {
  // Handled by the event's code, whatever this condition's own type: an idle condition also
  // receives activity and app events and matches them like any other. A condition registered
  // under its name receives only events of that name, which bear it whenever the name is text.
  const KLTCEConditionRule& r = *rule_;
  const bool routed = r.listener.code != 0;
  switch (event.eventType) {
    case kKLTEventCodeActivity:
      if (checkingIdleTime) cancelIdleTimeTimer();
      // Activity events count on their name alone.
      if (routed ? r.routedNameMatches : klt::isText(r.activity, event.identifier)) countAndCheck(event);
      break;
    case kKLTEventCodePresence:
      if (checkingIdleTime) cancelIdleTimeTimer();
      break;
    case kKLTEventCodeApp:
    case kKLTEventCodeClient:
      if (checkingIdleTime) cancelIdleTimeTimer();
      if ((routed ? r.routedNameMatches : klt::isText(r.details.name(), event.identifier)) && r.matcher.matches(event)) {
        countAndCheck(event);
      }
      break;
    default:
      break;
  }
}

void KLTCECondition::release() {
  completionHandler = nullptr;
  if (_trigger) _trigger->release();
  timer.reset();
}
