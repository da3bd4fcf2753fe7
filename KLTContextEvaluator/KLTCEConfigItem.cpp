#include "KLTContextEvaluator/KLTCEConfigItem.h"

#include "KLTContextEvaluator/KLTCEConstants.h"
#include "KLTContextEvaluator/KLTCELogSites.h"
#include "host/KLTController.h"

KLTCEConfigItem::KLTCEConfigItem(Token, std::shared_ptr<const KLTCECampaign> campaign) : campaign_(std::move(campaign)) {
  _frequency = std::make_unique<KLTCEFrequency>(campaign_->frequency(), campaign_->identifier());
  if (campaign_->hasWindow()) _timeLimits = std::make_unique<KLTCETimeLimits>(campaign_->windowStart(), campaign_->windowEnd());
}

std::shared_ptr<KLTCEConfigItem> KLTCEConfigItem::create(std::shared_ptr<const KLTCECampaign> campaign) {
  auto item = std::make_shared<KLTCEConfigItem>(Token{}, std::move(campaign));
  // Conditions need the item's shared ownership for their callbacks, so they come after construction.
  item->buildConditions();
  return item;
}

std::shared_ptr<KLTCEConfigItem> KLTCEConfigItem::create(const KLTValue& config) {
  auto campaign = KLTCECampaign::compile(config);
  if (!campaign) {
    KLT_LOG_SITE_FIXED(KLTCELogSites::kConfigWithoutId, "Config without a text _id: no item built");
    return nullptr;
  }
  return create(std::move(campaign));
}

std::shared_ptr<KLTCECondition> KLTCEConfigItem::makeCondition(std::size_t position, std::function<void()> completion) {
  const KLTCEDecisionSource source{identifier(), static_cast<int64_t>(position)};
  return KLTCECondition::create(std::shared_ptr<const KLTCEConditionRule>(campaign_, &campaign_->conditions()[position]),
                                std::move(completion), source);
}

void KLTCEConfigItem::buildConditions() {
  KLTCEDecisions::itemBuilt(*this);
  if (campaign_->sequenceEnabled()) return loadItemAtPosition(0);
  auto self = shared_from_this();
  const auto& rules = campaign_->conditions();
  satisfied_.assign(rules.size(), 0);
  combine_.reserve(rules.size());
  for (const KLTCEConditionRule& rule : rules) combine_.push_back(rule.combine);
  // An "app_start" timer can complete inside create(); the fold then sees only the conditions appended so far.
  for (std::size_t i = 0; i < rules.size(); ++i) {
    _conditions.push_back(makeCondition(i, [self, i] { self->conditionCompleted(i); }));
  }
}

void KLTCEConfigItem::conditionCompleted(std::size_t position) {
  satisfied_[position] = 1;
  checkAllConditions();
}

void KLTCEConfigItem::loadItemAtPosition(std::size_t position) {
  if (position != campaign_->conditions().size()) {
    auto next = [self = shared_from_this(), position] { self->loadItemAtPosition(position + 1); };
    sequenceConditions.push_back(makeCondition(position, std::move(next)));
    return;
  }
  if (_timeLimits && !_timeLimits->currentTimeBetweenLimits()) {
    KLT_LOG_SITE_FIXED(KLTCELogSites::kSequenceOutsideLimits, "Current time outside limits");
    return KLTCEDecisions::windowClosed(*this);
  }
  KLT_LOG_SITE_FIXED(KLTCELogSites::kSequenceSatisfied, "*** Sequence Message conditions Satisfied ***");
  // A sequence campaign is dispatched without the cap check.
  dispatchEventWithType(campaign_->displayKind());
}

void KLTCEConfigItem::checkAllConditions() {
  if (_conditions.empty()) return;
  bool result = satisfied_[0] != 0;
  // Strict left-to-right fold: no precedence, no short-circuit, every condition visited.
  for (std::size_t i = 1; i < _conditions.size(); ++i) result = KLTCECombineFlags(result, satisfied_[i] != 0, combine_[i]);
  if (!KLTCEDecisions::foldEvaluated(*this, result)) return;
  if (_timeLimits && !_timeLimits->currentTimeBetweenLimits()) {
    KLT_LOG_SITE_FIXED(KLTCELogSites::kOutsideLimits, "Current time outside limits");
    return KLTCEDecisions::windowClosed(*this);
  }
  if (!checkCountAndValidity()) return;
  KLT_LOG_SITE_FIXED(KLTCELogSites::kSatisfied, "*** Message conditions Satisfied ***");
  dispatchEventWithType(campaign_->displayKind());
}

bool KLTCEConfigItem::checkCountAndValidity() {
  const bool allowed = _frequency->checkValidityAndCountForIdentifier(_frequency->identifier());
  if (allowed) return true;
  KLT_LOG_SITE_FIXED(KLTCELogSites::kCountLimitExceeded, "Action count limit exceeded");
  KLTCEDecisions::capBlocked(*this);
  return false;
}

void KLTCEConfigItem::updateFrequencyForConfigItemWithIdentifier(const std::string& identifier) {
  _frequency->updateFrequencyForIdentifier(identifier);
  KLTCEDecisions::displayCounted(*this, identifier);
}

void KLTCEConfigItem::dispatchEventWithType(KLTCEDisplayKind type) {
  std::shared_ptr<KLTDisplayEvent> event;
  switch (type) {
    case KLTCEDisplayKind::Survey:
      event = std::make_shared<KLTSurveyEvent>();
      event->setInfo(identifier(), kKLTID);
      break;
    case KLTCEDisplayKind::InApp:
      event = std::make_shared<KLTInAppEvent>();
      event->setInfo(identifier(), kKLTID);
      event->setInfo(kKLTInApp, kKLTType);
      break;
    case KLTCEDisplayKind::InLine:
      event = std::make_shared<KLTInlineEvent>();
      event->setInfo(identifier(), kKLTID);
      event->setInfo(campaign_->displayType(), kKLTType);
      event->setInfo(campaign_->subtype(), kKLTSubType);
      break;
    case KLTCEDisplayKind::None:
      return;  // unknown display type: nothing is dispatched
  }
  KLTCEDecisions::dispatched(*this, *event);
  KLTController::current().dispatchEvent(std::move(event));
}

void KLTCEConfigItem::release() {
  for (auto* list : {&_conditions, &sequenceConditions}) {
    for (const auto& condition : *list) condition->release();
    list->clear();
  }
}
