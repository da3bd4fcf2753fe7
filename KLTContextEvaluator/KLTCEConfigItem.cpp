#include "KLTContextEvaluator/KLTCEConfigItem.h"

#include <algorithm>

#include "KLTContextEvaluator/KLTCEConstants.h"
#include "KLTContextEvaluator/KLTCEUtility.h"
#include "host/KLTController.h"
#include "platform/KLTLog.h"

KLTCEConfigItem::KLTCEConfigItem(Token, const KLTValue& config, std::string identifier) : _id(std::move(identifier)) {
  _frequency = std::make_unique<KLTCEFrequency>(klt::valueForKey(config, kKLTFrequency), _id);
  if (klt::boolValue(klt::valueForKey(config, kKLTTimeLimitsInDay))) {
    const KLTValue& limits = klt::valueForKey(config, kKLTTimeLimits);
    _timeLimits = std::make_unique<KLTCETimeLimits>(klt::valueForKey(limits, kKLTStartTime),
                                                    klt::valueForKey(limits, kKLTEndTime));
  }
  prepareMetaDictionaryWithConfig(config);
}

std::shared_ptr<KLTCEConfigItem> KLTCEConfigItem::create(const KLTValue& config) {
  const std::string* id = klt::stringPtr(klt::valueForKey(config, kKLTConfigId));
  if (!id) {
    KLT_LOG_ERROR("-[KLTCEConfigItem initWithData:]", "Config without a text _id: no item built");
    return nullptr;
  }
  auto item = std::make_shared<KLTCEConfigItem>(Token{}, config, *id);
  // Conditions need the item's shared ownership for their callbacks, so they come after construction.
  item->buildConditions(config);
  return item;
}

void KLTCEConfigItem::prepareMetaDictionaryWithConfig(const KLTValue& config) {
  KLTValue entry = KLTValue::object();
  const KLTValue& type = klt::valueForKey(klt::valueForKey(config, kKLTMeta), kKLTType);
  const KLTValue& subtype = klt::valueForKey(klt::valueForKey(config, kKLTUI), kKLTDisplayType);
  if (!type.is_null()) entry[kKLTType] = type;
  if (!subtype.is_null()) entry[kKLTSubType] = subtype;
  _meta = KLTValue::object();
  _meta[_id] = std::move(entry);
}

const KLTValue& KLTCEConfigItem::displayType() const {
  return klt::valueForKey(klt::valueForKey(_meta, _id), kKLTType);
}

void KLTCEConfigItem::buildConditions(const KLTValue& config) {
  const KLTValue& conditions = klt::valueForKey(config, kKLTConditions);
  if (klt::boolValue(klt::valueForKey(config, kKLTSequenceEnabled))) {
    auto sorted = std::make_shared<ConditionList>();
    if (conditions.is_array()) sorted->assign(conditions.begin(), conditions.end());
    // Stable: conditions with equal `sequence` keep their document order.
    std::stable_sort(sorted->begin(), sorted->end(), [](const KLTValue& a, const KLTValue& b) {
      return klt::integerValue(klt::valueForKey(a, kKLTSequence)) < klt::integerValue(klt::valueForKey(b, kKLTSequence));
    });
    KLTCEDecisions::itemBuilt(*this, *sorted, true);
    loadItemAtPosition(0, sorted);
    return;
  }
  KLTCEDecisions::itemBuilt(*this, conditions, false);
  if (!conditions.is_array()) return;
  auto self = shared_from_this();
  for (const KLTValue& data : conditions) {
    // An "app_start" timer can complete inside create(); the fold then sees only the conditions appended so far.
    const KLTCEDecisionSource source{_id, static_cast<int64_t>(_conditions.size())};
    _conditions.push_back(KLTCECondition::create(data, [self] { self->checkAllConditions(); }, source));
  }
}

void KLTCEConfigItem::loadItemAtPosition(std::size_t position, const std::shared_ptr<const ConditionList>& conditions) {
  if (position != conditions->size()) {
    const KLTCEDecisionSource source{_id, static_cast<int64_t>(position)};
    auto next = [self = shared_from_this(), conditions, position] { self->loadItemAtPosition(position + 1, conditions); };
    sequenceConditions.push_back(KLTCECondition::create((*conditions)[position], std::move(next), source));
    return;
  }
  if (_timeLimits && !_timeLimits->currentTimeBetweenLimits()) {
    KLT_LOG_DEBUG("-[KLTCEConfigItem loadItemAtPosition:inConditions:]", "Current time outside limits");
    return KLTCEDecisions::windowClosed(*this);
  }
  KLT_LOG_DEBUG("-[KLTCEConfigItem loadItemAtPosition:inConditions:]", "*** Sequence Message conditions Satisfied ***");
  // A sequence campaign is dispatched without the cap check.
  dispatchEventWithType(displayType());
}

void KLTCEConfigItem::checkAllConditions() {
  if (_conditions.empty()) return;
  bool result = _conditions.front()->satisfied();
  // Strict left-to-right fold: no precedence, no short-circuit, every condition visited.
  for (std::size_t i = 1; i < _conditions.size(); ++i) {
    result = KLTCEUtility::evaluateConditionStatus(result, _conditions[i]->satisfied(), _conditions[i]->combineOperator());
  }
  if (!KLTCEDecisions::foldEvaluated(*this, result)) return;
  if (_timeLimits && !_timeLimits->currentTimeBetweenLimits()) {
    KLT_LOG_DEBUG("-[KLTCEConfigItem checkAllConditions]", "Current time outside limits");
    return KLTCEDecisions::windowClosed(*this);
  }
  if (!checkCountAndValidity()) return;
  KLT_LOG_DEBUG("-[KLTCEConfigItem checkAllConditions]", "*** Message conditions Satisfied ***");
  dispatchEventWithType(displayType());
}

bool KLTCEConfigItem::checkCountAndValidity() {
  const bool allowed = _frequency->checkValidityAndCountForIdentifier(_id);
  if (!allowed) KLT_LOG_INFO("-[KLTCEConfigItem checkCountAndValidity]", "Action count limit exceeded");
  if (!allowed) KLTCEDecisions::capBlocked(*this);
  return allowed;
}

void KLTCEConfigItem::updateFrequencyForConfigItemWithIdentifier(const std::string& identifier) {
  _frequency->updateFrequencyForIdentifier(identifier);
  KLTCEDecisions::displayCounted(*this, identifier);
}

void KLTCEConfigItem::dispatchEventWithType(const KLTValue& type) {
  std::shared_ptr<KLTDisplayEvent> event;
  const KLTValue& entry = klt::valueForKey(_meta, _id);
  if (klt::isText(type, kKLTSurvey)) {
    event = std::make_shared<KLTSurveyEvent>();
    event->setInfo(_id, kKLTID);
  } else if (klt::isText(type, kKLTInApp)) {
    event = std::make_shared<KLTInAppEvent>();
    event->setInfo(_id, kKLTID);
    event->setInfo(kKLTInApp, kKLTType);
  } else if (klt::isText(type, kKLTInLine)) {
    event = std::make_shared<KLTInlineEvent>();
    event->setInfo(_id, kKLTID);
    event->setInfo(klt::valueForKey(entry, kKLTType), kKLTType);
    event->setInfo(klt::valueForKey(entry, kKLTSubType), kKLTSubType);
  } else {
    return;  // unknown display type: nothing is dispatched
  }
  KLTCEDecisions::dispatched(*this, *event);
  KLTController::sharedController().dispatchEvent(std::move(event));
}

// Placed last so that the source lines of the log sites above stay as they are.
void KLTCEConfigItem::release() {
  for (auto* list : {&_conditions, &sequenceConditions}) {
    for (const auto& condition : *list) condition->release();
    list->clear();
  }
}
