// KLTCEDecision: the structured record of one decision of the engine, and KLTCEDecisionObserver,
// the interface through which the embedding code receives them.
//
// The engine's log lines stay as they are; records are a second channel beside them, carrying the
// campaign, what was decided and the values compared. With no observer installed the engine builds
// no record at all (the event path pays one pointer test). Installing one changes no decision, no
// dispatch and no log line.
//
// Install with KLTContextEvaluator::setDecisionObserver(). Records are delivered on the evaluator's
// serial queue, in the order the decisions are made, while the decision's task runs: an observer
// must return quickly and must not wait for the queue (it may post to it).
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "platform/KLTValue.h"

enum class KLTCEDecisionKind : uint8_t {
  Admitted,        // values: priority
  Rejected,        // values: step, message, and the values the step compared (see below)
  ItemBuilt,       // values: mode ("combined"|"sequence"), type, window {start,end} (absent: none),
                   //   conditions [{event_type, name, count, operator, combine_operator, lower, upper,
                   //   time, trigger {event_type, name, lower, upper}}] in the order the item uses them
  TriggerFired,    // values: trigger (its event_type), code, name (of the event; absent for app_start), time
  ConditionArmed,  // values: event_type, and listener (an identifier such as "4___purchase"),
                   //   event_codes (idle_time: [1,3,4], registered after the timer), or timer_seconds
  TimerEnded,      // values: event_type, time
  EventCounted,    // values: code, name, count, wanted, operator, count_held, time, lower, upper,
                   //   in_bounds, completed
  FoldEvaluated,   // values: flags [bool...], operators [the combine operator of each, first one
                   //   unused], result
  WindowClosed,    // values: local_time "HH:MM", start "HH:MM", end "HH:MM"
  CapBlocked,      // values: counter, value, limit_key, limit, validity, next_period_from (epoch ms,
                   //   for day_count only: the first moment a parse or a counted display opens a
                   //   new day period)
  Dispatched,      // values: class, info
  DisplayCounted,  // values: record (the counter record after the update; dates as epoch ms)
};

// Rejected: the step that failed ("enabled", "hardware", "version", "first_session",
// "user_attributes_format", "user_attributes", "session_attributes_format", "session_attributes",
// "validity_format", "validity_dates", "conditions") and, by step: enabled (the value read);
// hw_val, device_model; app_version, operator, wanted; audience_type, first_session; value (the
// value that is not a list); rule, host_value; validity; now (epoch ms), start_date, end_date;
// condition (its index), fault.

struct KLTCEDecision {
  uint64_t sequence = 0;  // 1, 2, ... in the order records were made in this process
  KLTCEDecisionKind kind = KLTCEDecisionKind::Admitted;
  std::string campaign;    // the configuration's _id in its text form ("(null)" when absent)
  int64_t condition = -1;  // the condition's position in ItemBuilt's list; -1: the campaign as a whole
  KLTValue values;         // a dictionary, keys by kind as listed above
};

// The snake_case name of a kind ("admitted", "event_counted", ...), as written in traces.
std::string_view KLTCEDecisionKindName(KLTCEDecisionKind kind);

// The record as one JSON object: {"seq", "kind", "campaign", "condition" (when >= 0), "values"}.
KLTValue KLTCEDecisionToJson(const KLTCEDecision& decision);

// Receives every decision record. Called on the evaluator's serial queue only, one record at a
// time; the record lives for the duration of the call.
class KLTCEDecisionObserver {
 public:
  KLTCEDecisionObserver() = default;
  KLTCEDecisionObserver(const KLTCEDecisionObserver&) = delete;
  KLTCEDecisionObserver& operator=(const KLTCEDecisionObserver&) = delete;
  virtual ~KLTCEDecisionObserver() = default;
  virtual void onDecision(const KLTCEDecision& decision) = 0;
  // Whether this observer reads the values of records of this kind. For a kind it does not read,
  // the engine gathers nothing: such records arrive in their place and order, numbered as ever,
  // with null values. Asked for each record, on the queue; the default reads every kind.
  virtual bool readsValues(KLTCEDecisionKind kind) const {
    (void)kind;
    return true;
  }
};

// The admission of one configuration: admitted, or the reason of its rejection as data (the
// Rejected record's values: step, message and the values compared).
struct KLTCEAdmission {
  bool admitted = true;
  KLTValue reason;  // null when admitted

  // Marks the rejection at a step; always returns false, so that a check can end with
  // `return why && why->reject(...)` and gather its values only when a reason is asked for.
  bool reject(std::string_view step, std::string_view message, KLTValue values = KLTValue::object());
};
