#include "KLTContextEvaluator/KLTCECampaign.h"

#include <algorithm>
#include <numeric>

#include "KLTContextEvaluator/KLTCEConstants.h"
#include "host/KLTEvent.h"
#include "platform/KLTClock.h"

namespace {

// The key of a rule that registers under a name: app and client events under their details'
// name, activity events under their activity.
KLTCEListenerKey listenerFor(KLTCEEventKind kind, const KLTValue& activity, const KLTCEDetails& details) {
  switch (kind) {
    case KLTCEEventKind::AppEvent: return {kKLTEventCodeApp, klt::textForm(details.name())};
    case KLTCEEventKind::ClientEvent: return {kKLTEventCodeClient, klt::textForm(details.name())};
    case KLTCEEventKind::ActivityEvent: return {kKLTEventCodeActivity, klt::textForm(activity)};
    default: return {};
  }
}

}  // namespace

KLTCECountConfig::KLTCECountConfig(const KLTValue& data)
    : _count(klt::integerValue(klt::valueForKey(data, kKLTCount))),
      _operator(klt::valueForKey(data, kKLTOperator)),
      _op(KLTCEOperatorOf(_operator)) {}

KLTCETimeBounds::KLTCETimeBounds(const KLTValue& data)
    : _lower(klt::integerValue(klt::valueForKey(data, kKLTLower))),
      _upper(klt::integerValue(klt::valueForKey(data, kKLTUpper))) {}

KLTCEDetails::KLTCEDetails(const KLTValue& data) : _name(klt::valueForKey(data, kKLTName)) {}

std::string KLTCEListenerKey::identifier() const { return std::to_string(code) + "___" + name; }

KLTCETriggerRule::KLTCETriggerRule(const KLTValue& data)
    : kind(KLTCEEventKindOf(klt::valueForKey(data, kKLTEventType))),
      eventType(klt::valueForKey(data, kKLTEventType)),
      activity(klt::valueForKey(data, kKLTActivity)),
      details(klt::valueForKey(data, kKLTDetails)),
      matcher(KLTCEAttributeMatcher::forTrigger(klt::valueForKey(klt::valueForKey(data, kKLTDetails), kKLTAdditionalInfo))),
      timeBounds(klt::valueForKey(data, kKLTTimeBounds)) {
  // A trigger never fires on client events: it registers only for app and activity events.
  if (kind == KLTCEEventKind::AppEvent || kind == KLTCEEventKind::ActivityEvent) listener = listenerFor(kind, activity, details);
}

KLTCEConditionRule::KLTCEConditionRule(const KLTValue& data, std::size_t index)
    : position(index),
      kind(KLTCEEventKindOf(klt::valueForKey(data, kKLTEventType))),
      eventType(klt::valueForKey(data, kKLTEventType)),
      activity(klt::valueForKey(data, kKLTActivity)),
      details(klt::valueForKey(data, kKLTDetails)),
      matcher(KLTCEAttributeMatcher::forCondition(klt::valueForKey(klt::valueForKey(data, kKLTDetails), kKLTAdditionalInfo))),
      sequence(klt::integerValue(klt::valueForKey(data, kKLTSequence))),
      timeBounds(klt::valueForKey(data, kKLTTimeBounds)),
      countConfig(klt::valueForKey(data, kKLTCountConfig)),
      combineWord(klt::valueForKey(data, kKLTCombineOperator)),
      combine(KLTCECombineOf(combineWord)),
      time(klt::valueForKey(klt::valueForKey(klt::valueForKey(data, kKLTDetails), kKLTAdditionalInfo), kKLTTime)),
      // Whole seconds of the time in milliseconds, taken as unsigned.
      timerSeconds(static_cast<uint64_t>(klt::integerValue(time) / 1000)),
      listener(listenerFor(kind, activity, details)),
      trigger(klt::valueForKey(data, kKLTTrigger)) {
  const KLTValue& name = kind == KLTCEEventKind::ActivityEvent ? activity : details.name();
  routedNameMatches = listener.code != 0 && name.is_string();
}

bool KLTCEConditionRule::timerNeverEnds(KLTTimePoint now) const {
  return timerNegative() || KLTClock::addSaturating(now, static_cast<double>(timerSeconds)) == KLTTimePoint::max();
}

std::shared_ptr<const KLTCECampaign> KLTCECampaign::compile(const KLTValue& config) {
  const std::string* id = klt::stringPtr(klt::valueForKey(config, kKLTConfigId));
  if (!id) return nullptr;
  std::shared_ptr<KLTCECampaign> c(new KLTCECampaign());
  c->_id = *id;
  c->_sequence = klt::boolValue(klt::valueForKey(config, kKLTSequenceEnabled));
  c->_frequency = klt::valueForKey(config, kKLTFrequency);
  if (klt::boolValue(klt::valueForKey(config, kKLTTimeLimitsInDay))) {
    const KLTValue& limits = klt::valueForKey(config, kKLTTimeLimits);
    c->_window = true;
    c->_windowStart = klt::valueForKey(limits, kKLTStartTime);
    c->_windowEnd = klt::valueForKey(limits, kKLTEndTime);
  }
  c->_displayType = klt::valueForKey(klt::valueForKey(config, kKLTMeta), kKLTType);
  c->_displayKind = KLTCEDisplayKindOf(c->_displayType);
  c->_subtype = klt::valueForKey(klt::valueForKey(config, kKLTUI), kKLTDisplayType);
  const KLTValue& conditions = klt::valueForKey(config, kKLTConditions);
  if (conditions.is_array()) {
    std::vector<std::size_t> order(conditions.size());
    std::iota(order.begin(), order.end(), 0);
    if (c->_sequence) {
      // Stable: conditions with equal `sequence` keep their document order.
      std::vector<int64_t> keys(conditions.size());
      for (std::size_t i = 0; i < conditions.size(); ++i) keys[i] = klt::integerValue(klt::valueForKey(conditions[i], kKLTSequence));
      std::stable_sort(order.begin(), order.end(), [&](std::size_t a, std::size_t b) { return keys[a] < keys[b]; });
    }
    c->_conditions.reserve(conditions.size());
    for (const std::size_t i : order) c->_conditions.emplace_back(conditions[i], i);
  }
  return c;
}
