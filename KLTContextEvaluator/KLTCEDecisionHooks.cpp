// Builders of decision records. Each one runs only when an observer is installed, reads the
// deciding object (never changes it) and hands one record to the observer.
#include "KLTContextEvaluator/KLTCEDecisionHooks.h"

#include <cstdio>
#include <optional>
#include <type_traits>
#include <vector>

#include "KLTContextEvaluator/KLTCEConfigItem.h"
#include "KLTContextEvaluator/KLTCEConstants.h"
#include "KLTContextEvaluator/KLTCEUtility.h"
#include "host/KLTController.h"
#include "host/KLTUtilities.h"
#include "platform/KLTBundle.h"
#include "platform/KLTClock.h"

KLTCEDecisions::Channel KLTCEDecisions::shared;

namespace {

void deliver(KLTCEDecisionKind kind, std::string campaign, int64_t condition, KLTValue values) {
  KLTCEDecisionObserver* observer = KLTCEDecisions::observer();
  if (!observer) return;
  KLTCEDecision decision{++KLTCEDecisions::channel().sequence, kind, std::move(campaign), condition, std::move(values)};
  observer->onDecision(decision);
  klt::release(decision.values);
}

// Delivers the record without values when the observer does not read them (true then), so that
// a builder gathers nothing for it.
bool deliveredBare(KLTCEDecisionKind kind, const std::string& campaign, int64_t condition) {
  KLTCEDecisionObserver* observer = KLTCEDecisions::observer();
  if (!observer || observer->readsValues(kind)) return false;
  deliver(kind, campaign, condition, KLTValue());
  return true;
}

// A record's values: a dictionary filled entry by entry, in the order given. The entries go straight
// into the dictionary's storage (the keys are distinct by construction), where a braced list would
// first build a two-element array for each entry and then look every key up again.
class Entries {
 public:
  explicit Entries(std::size_t expected) { storage().reserve(expected); }
  Entries& add(const char* key, KLTValue value) {
    storage().emplace_back(key, std::move(value));
    return *this;
  }
  KLTValue done() { return std::move(values_); }

 private:
  KLTValue::object_t::Container& storage() { return values_.get_ref<KLTValue::object_t&>(); }
  KLTValue values_ = KLTValue::object();
};

// The values of a record kind whose keys never change, kept from one record of the kind to the
// next on this thread: each record assigns into the same dictionary, so that the keys, the
// dictionary and its texts are not made and freed again for every counted event. A record lives
// only for the observer's call, which sees the same values as from a dictionary of its own.
class ReusedValues {
 public:
  explicit ReusedValues(std::initializer_list<const char*> keys) : keys_(keys) {}
  // Called before a record's values are assigned. The dictionary is made on first use, and again
  // should a record of the kind be made while one is delivered (an observer that ran the engine's
  // work from inside its call): the values are away then.
  ReusedValues& prepare() {
    if (!values_.is_object()) {
      values_ = KLTValue::object();
      for (const char* key : keys_) storage().emplace_back(key, nullptr);
    }
    return *this;
  }
  KLTValue& operator[](std::size_t slot) { return storage()[slot].second; }

  // Hands the values to the observer as the record's, then takes them back.
  void deliver(KLTCEDecisionKind kind, const std::string& campaign, int64_t condition);

  // A text or another value into a slot; a text slot keeps its storage.
  static void assignText(KLTValue& slot, std::string_view text) {
    if (slot.is_string()) {
      slot.get_ref<std::string&>().assign(text);
    } else {
      slot = std::string(text);
    }
  }
  // A boolean or a number into a slot: one already of the kind takes it in place, where assigning
  // would make a value and free the one before.
  template <class T>
  static void put(KLTValue& slot, T value) {
    using Kind = KLTValue::value_t;
    if constexpr (std::is_same_v<T, bool>) {
      if (slot.type() == Kind::boolean) return void(*slot.get_ptr<KLTValue::boolean_t*>() = value);
    } else if constexpr (std::is_integral_v<T> && std::is_signed_v<T>) {
      if (slot.type() == Kind::number_integer) return void(*slot.get_ptr<KLTValue::number_integer_t*>() = value);
    } else if constexpr (std::is_integral_v<T>) {
      if (slot.type() == Kind::number_unsigned) return void(*slot.get_ptr<KLTValue::number_unsigned_t*>() = value);
    }
    slot = value;
  }
  static void assign(KLTValue& slot, const KLTValue& value) {
    if (const std::string* text = klt::stringPtr(value)) {
      assignText(slot, *text);
    } else {
      slot = value;
    }
  }

 private:
  KLTValue::object_t::Container& storage() { return values_.get_ref<KLTValue::object_t&>(); }
  std::vector<const char*> keys_;
  KLTValue values_;
};

void ReusedValues::deliver(KLTCEDecisionKind kind, const std::string& campaign, int64_t condition) {
  KLTCEDecisionObserver* observer = KLTCEDecisions::observer();
  if (!observer) return;
  KLTCEDecision decision{++KLTCEDecisions::channel().sequence, kind, campaign, condition, std::move(values_)};
  observer->onDecision(decision);
  values_ = std::move(decision.values);
}

int64_t hostMillis() { return KLTController::current().currentSDKTimeInMillis(); }

std::string hourMinute(int64_t hour, int64_t minute) {
  if (hour >= 0 && hour <= 99 && minute >= 0 && minute <= 99) {  // the common case, as printf writes it
    const char text[] = {static_cast<char>('0' + hour / 10), static_cast<char>('0' + hour % 10), ':',
                         static_cast<char>('0' + minute / 10), static_cast<char>('0' + minute % 10)};
    return std::string(text, sizeof text);
  }
  char text[48];
  std::snprintf(text, sizeof text, "%02lld:%02lld", static_cast<long long>(hour), static_cast<long long>(minute));
  return text;
}

// The name a rule listens for: the activity for activity events, else the details' name.
const KLTValue& ruleName(const KLTValue& eventType, const KLTValue& activity, const KLTCEDetails& details) {
  return klt::isText(eventType, kKLTActivityEvent) ? activity : details.name();
}

KLTValue describeCondition(const KLTCEConditionRule& rule) {
  const KLTCETriggerRule& trigger = rule.trigger;
  return Entries(9)
      .add("event_type", rule.eventType)
      .add("name", ruleName(rule.eventType, rule.activity, rule.details))
      .add("count", rule.countConfig.count())
      .add("operator", rule.countConfig.operatorWord())
      .add("combine_operator", rule.combineWord)
      .add("lower", rule.timeBounds.lower())
      .add("upper", rule.timeBounds.upper())
      .add("time", rule.time)
      .add("trigger", Entries(4)
                          .add("event_type", trigger.eventType)
                          .add("name", ruleName(trigger.eventType, trigger.activity, trigger.details))
                          .add("lower", trigger.timeBounds.lower())
                          .add("upper", trigger.timeBounds.upper())
                          .done())
      .done();
}

// A counter record with its dates as epoch milliseconds, so that it reads as plain JSON.
KLTValue plainRecord(const KLTValue& record) {
  KLTValue out = KLTValue::object();
  if (!record.is_object()) return out;
  for (const auto& [key, value] : record.items()) {
    const auto date = klt::dateValue(value);
    out[key] = date ? KLTValue(KLTClock::epochMillis(*date)) : value;
  }
  return out;
}

}  // namespace

std::string_view KLTCEDecisionKindName(KLTCEDecisionKind kind) {
  switch (kind) {
    case KLTCEDecisionKind::Admitted: return "admitted";
    case KLTCEDecisionKind::Rejected: return "rejected";
    case KLTCEDecisionKind::ItemBuilt: return "item_built";
    case KLTCEDecisionKind::TriggerFired: return "trigger_fired";
    case KLTCEDecisionKind::ConditionArmed: return "condition_armed";
    case KLTCEDecisionKind::TimerEnded: return "timer_ended";
    case KLTCEDecisionKind::EventCounted: return "event_counted";
    case KLTCEDecisionKind::FoldEvaluated: return "fold_evaluated";
    case KLTCEDecisionKind::WindowClosed: return "window_closed";
    case KLTCEDecisionKind::CapBlocked: return "cap_blocked";
    case KLTCEDecisionKind::Dispatched: return "dispatched";
    case KLTCEDecisionKind::DisplayCounted: return "display_counted";
  }
  return "unknown";
}

KLTValue KLTCEDecisionToJson(const KLTCEDecision& decision) {
  KLTValue out{{"seq", decision.sequence}, {"kind", std::string(KLTCEDecisionKindName(decision.kind))}, {"campaign", decision.campaign}};
  if (decision.condition >= 0) out["condition"] = decision.condition;
  out["values"] = decision.values;
  return out;
}

bool KLTCEAdmission::reject(std::string_view step, std::string_view message, KLTValue values) {
  admitted = false;
  reason = KLTValue{{"step", std::string(step)}, {"message", std::string(message)}};
  if (values.is_object()) reason.update(values);
  return false;
}

namespace KLTCEDecisions::detail {

void admission(const KLTValue& id, int64_t priority, const KLTCEAdmission& a) {
  const KLTCEDecisionKind kind = a.admitted ? KLTCEDecisionKind::Admitted : KLTCEDecisionKind::Rejected;
  const std::string campaign = klt::textForm(id);
  if (deliveredBare(kind, campaign, -1)) return;
  deliver(kind, campaign, -1, a.admitted ? KLTValue{{"priority", priority}} : a.reason);
}

void itemBuilt(const KLTCEConfigItem& item) {
  if (deliveredBare(KLTCEDecisionKind::ItemBuilt, item.identifier(), -1)) return;
  const auto& conditions = item.campaign().conditions();
  KLTValue list = KLTValue::array();
  list.get_ref<KLTValue::array_t&>().reserve(conditions.size());
  for (const KLTCEConditionRule& rule : conditions) list.push_back(describeCondition(rule));
  Entries values(4);
  values.add("mode", item.campaign().sequenceEnabled() ? "sequence" : "combined").add("type", item.displayType());
  if (const KLTCETimeLimits* window = item.timeLimits()) {
    values.add("window", Entries(2)
                             .add("start", hourMinute(window->startTimeHour(), window->startTimeMin()))
                             .add("end", hourMinute(window->endTimeHour(), window->endTimeMin()))
                             .done());
  }
  values.add("conditions", std::move(list));
  deliver(KLTCEDecisionKind::ItemBuilt, item.identifier(), -1, values.done());
}

void triggerFired(const KLTCEDecisionSource& source, const KLTCETrigger& trigger, const KLTEvent* event) {
  if (deliveredBare(KLTCEDecisionKind::TriggerFired, source.campaign, source.condition)) return;
  Entries values(4);
  values.add("trigger", trigger.eventType());
  if (event) values.add("code", event->eventType).add("name", event->identifier).add("time", hostMillis());
  deliver(KLTCEDecisionKind::TriggerFired, source.campaign, source.condition, values.done());
}

void conditionArmed(const KLTCEDecisionSource& source, const KLTCECondition& condition) {
  if (deliveredBare(KLTCEDecisionKind::ConditionArmed, source.campaign, source.condition)) return;
  const KLTCEConditionRule& rule = condition.rule();
  Entries values(3);
  values.add("event_type", rule.eventType);
  if (rule.listener.code != 0) {
    values.add("listener", rule.listener.identifier());
  } else if (rule.kind == KLTCEEventKind::IdleTime || rule.kind == KLTCEEventKind::ActivityTime) {
    // The interval as the condition computes it: whole seconds, taken as unsigned.
    values.add("timer_seconds", rule.timerSeconds);
    if (rule.kind == KLTCEEventKind::IdleTime) values.add("event_codes", {1, 3, 4});
  }
  deliver(KLTCEDecisionKind::ConditionArmed, source.campaign, source.condition, values.done());
}

void timerEnded(const KLTCEDecisionSource& source, const KLTCECondition& condition) {
  if (deliveredBare(KLTCEDecisionKind::TimerEnded, source.campaign, source.condition)) return;
  deliver(KLTCEDecisionKind::TimerEnded, source.campaign, source.condition,
          Entries(2).add("event_type", condition.eventType()).add("time", hostMillis()).done());
}

void eventCounted(const KLTCEDecisionSource& source, const KLTCECondition& condition, const KLTEvent& event,
                  bool countHeld, bool completed) {
  if (deliveredBare(KLTCEDecisionKind::EventCounted, source.campaign, source.condition)) return;
  const int64_t now = hostMillis();
  const KLTCETimeBounds& bounds = condition.rule().timeBounds;
  thread_local ReusedValues reused{"code", "name",  "count", "wanted",    "operator", "count_held",
                                   "time", "lower", "upper", "in_bounds", "completed"};
  ReusedValues& values = reused.prepare();
  ReusedValues::put(values[0], event.eventType);
  ReusedValues::assignText(values[1], event.identifier);
  ReusedValues::put(values[2], condition.occurrenceCount());
  ReusedValues::put(values[3], condition.rule().countConfig.count());
  ReusedValues::assign(values[4], condition.rule().countConfig.operatorWord());
  ReusedValues::put(values[5], countHeld);
  ReusedValues::put(values[6], now);
  ReusedValues::put(values[7], bounds.lower());
  ReusedValues::put(values[8], bounds.upper());
  ReusedValues::put(values[9], bounds.lower() <= now && now <= bounds.upper());
  ReusedValues::put(values[10], completed);
  values.deliver(KLTCEDecisionKind::EventCounted, source.campaign, source.condition);
}

void foldEvaluated(const KLTCEConfigItem& item, bool result) {
  if (deliveredBare(KLTCEDecisionKind::FoldEvaluated, item.identifier(), -1)) return;
  thread_local ReusedValues reused{"flags", "operators", "result"};
  ReusedValues& values = reused.prepare();
  if (!values[0].is_array()) values[0] = KLTValue::array();
  if (!values[1].is_array()) values[1] = KLTValue::array();
  auto& flags = values[0].get_ref<KLTValue::array_t&>();
  auto& operators = values[1].get_ref<KLTValue::array_t&>();
  const auto& conditions = item.conditions();
  flags.resize(conditions.size());
  operators.resize(conditions.size());
  for (std::size_t i = 0; i < conditions.size(); ++i) {
    ReusedValues::put(flags[i], conditions[i]->satisfied());
    ReusedValues::assign(operators[i], conditions[i]->combineOperator());
  }
  ReusedValues::put(values[2], result);
  values.deliver(KLTCEDecisionKind::FoldEvaluated, item.identifier(), -1);
}

void windowClosed(const KLTCEConfigItem& item) {
  const KLTCETimeLimits* window = item.timeLimits();
  if (!window) return;
  if (deliveredBare(KLTCEDecisionKind::WindowClosed, item.identifier(), -1)) return;
  const KLTLocalTime local = KLTClock::current()->localTime();
  thread_local ReusedValues reused{"local_time", "start", "end"};
  ReusedValues& values = reused.prepare();
  ReusedValues::assignText(values[0], hourMinute(local.hour, local.minute));
  ReusedValues::assignText(values[1], hourMinute(window->startTimeHour(), window->startTimeMin()));
  ReusedValues::assignText(values[2], hourMinute(window->endTimeHour(), window->endTimeMin()));
  values.deliver(KLTCEDecisionKind::WindowClosed, item.identifier(), -1);
}

void capBlocked(const KLTCEConfigItem& item) {
  if (deliveredBare(KLTCEDecisionKind::CapBlocked, item.identifier(), -1)) return;
  // Which limit of the cap check refused, and the numbers it compared from the same record.
  const KLTValue& record = item.frequency().storedRecord(item.identifier());
  const auto read = [&](const char* key) { return klt::int32Value(klt::valueForKey(record, key)); };
  const KLTValue& validity = klt::valueForKey(record, kKLTValidity);
  // Two shapes: without and with the next day period.
  thread_local ReusedValues plain{"validity", "counter", "value", "limit_key", "limit"};
  thread_local ReusedValues withNext{"validity", "counter", "value", "limit_key", "limit", "next_period_from"};
  const auto blame = [&](ReusedValues& reused, const char* counter, const char* limitKey) -> ReusedValues& {
    ReusedValues& values = reused.prepare();
    ReusedValues::assign(values[0], validity);
    ReusedValues::assignText(values[1], counter);
    ReusedValues::put(values[2], read(counter));
    ReusedValues::assignText(values[3], limitKey);
    ReusedValues::put(values[4], read(limitKey));
    return values;
  };
  ReusedValues* values = nullptr;
  switch (item.frequency().blockingLimitForIdentifier(item.frequency().identifier())) {
    case KLTCEFrequency::Limit::DayCount:
      // A new day period opens at the first parse or counted display more than 24 whole hours after `day`.
      if (const auto day = klt::dateValue(klt::valueForKey(record, kKLTDay))) {
        values = &blame(withNext, kKLTDayCount, kKLTDayLimit);
        (*values)[5] = KLTClock::epochMillis(*day + std::chrono::hours(25));
      } else {
        values = &blame(plain, kKLTDayCount, kKLTDayLimit);
      }
      break;
    case KLTCEFrequency::Limit::SessionCount:
      values = &blame(plain, kKLTSessionCount, kKLTSessionLimit);
      break;
    default:  // the count, or (never, for a refused showing) none
      values = &blame(plain, kKLTCount, kKLTLimit);
      break;
  }
  values->deliver(KLTCEDecisionKind::CapBlocked, item.identifier(), -1);
}

void dispatched(const KLTCEConfigItem& item, const KLTDisplayEvent& event) {
  if (deliveredBare(KLTCEDecisionKind::Dispatched, item.identifier(), -1)) return;
  deliver(KLTCEDecisionKind::Dispatched, item.identifier(), -1,
          Entries(2).add("class", event.className()).add("info", event.info()).done());
}

void displayCounted(const KLTCEConfigItem& item, const std::string& identifier) {
  if (deliveredBare(KLTCEDecisionKind::DisplayCounted, identifier, -1)) return;
  const KLTValue& record = item.frequency().storedRecord(identifier);
  deliver(KLTCEDecisionKind::DisplayCounted, identifier, -1, KLTValue{{"record", plainRecord(record)}});
}

}  // namespace KLTCEDecisions::detail

namespace KLTCEAdmissionFacts {

KLTValue hardware(const KLTValue& wanted) { return KLTValue{{"hw_val", wanted}, {"device_model", KLTUtilities::deviceName()}}; }

KLTValue version(const KLTValue& wanted, const KLTValue& op) {
  const std::optional<std::string> app = KLTBundle::shortVersionString();
  return KLTValue{{"app_version", app ? KLTValue(*app) : KLTValue()}, {"operator", op}, {"wanted", klt::textForm(wanted)}};
}

KLTValue mismatch(const KLTValue& rules, const std::shared_ptr<const KLTValue>& attributes) {
  static const KLTValue kNoAttributes;
  const KLTValue& existing = attributes ? *attributes : kNoAttributes;
  for (const KLTValue& rule : rules) {
    if (KLTCEUtility::compareGivenAttributes(rule, existing)) continue;
    const std::string* name = klt::stringPtr(klt::valueForKey(rule, kKLTName));
    return KLTValue{{"rule", rule}, {"host_value", name ? klt::valueForKey(existing, *name) : KLTValue()}};
  }
  return KLTValue::object();
}

KLTValue dates(const KLTValue& validity) {
  return KLTValue{{"now", KLTClock::epochMillis(KLTClock::current()->now())},
                  {"start_date", klt::valueForKey(validity, kKLTStartDate)},
                  {"end_date", klt::valueForKey(validity, kKLTEndDate)}};
}

}  // namespace KLTCEAdmissionFacts
