// KLTCECampaign: one campaign configuration compiled once into the typed form every rule reads:
// words as enums (KLTCEWords.h), counts, bounds, windows and timer lengths as numbers, attribute
// data as matchers (KLTCEAttributeMatcher.h), each rule's listener key as a (code, name) pair. The
// document's own values are kept beside where a record or a stored counter shows them as written.
//
// A compiled campaign depends on nothing but its configuration (no device, user, clock or store),
// so it is immutable and may be shared, read-only, by any number of items and threads. Compiling
// accepts any value: what the engine cannot use reads as the rule's text says (an unknown word is
// Other, an absent number 0), never as an error.
//
// Also here: the three rule records of a condition or trigger (KLTCECountConfig, KLTCETimeBounds,
// KLTCEDetails), read leniently: integer fields through the 64-bit reading, other fields kept as
// stored; absent or non-dictionary data gives the zero record.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "KLTContextEvaluator/KLTCEAttributeMatcher.h"
#include "KLTContextEvaluator/KLTCEWords.h"
#include "platform/KLTValue.h"

// How many matching events a condition wants: `count` compared by `operator`.
class KLTCECountConfig {
 public:
  KLTCECountConfig() = default;
  explicit KLTCECountConfig(const KLTValue& data);
  int64_t count() const { return _count; }
  // The operator word as stored (null when absent), and as read.
  const KLTValue& operatorWord() const { return _operator; }
  KLTCEOperator op() const { return _op; }

 private:
  int64_t _count = 0;
  KLTValue _operator;
  KLTCEOperator _op = KLTCEOperator::Other;
};

// The inclusive range [lower, upper] of host time, in epoch milliseconds.
class KLTCETimeBounds {
 public:
  KLTCETimeBounds() = default;
  explicit KLTCETimeBounds(const KLTValue& data);
  int64_t lower() const { return _lower; }
  int64_t upper() const { return _upper; }
  bool contains(int64_t t) const { return _lower <= t && t <= _upper; }

 private:
  int64_t _lower = 0;
  int64_t _upper = 0;
};

// The event a rule watches: its name as stored (null when absent).
class KLTCEDetails {
 public:
  KLTCEDetails() = default;
  explicit KLTCEDetails(const KLTValue& data);
  const KLTValue& name() const { return _name; }

 private:
  KLTValue _name;
};

// Where a rule registers with the host: a host event code and a name, the listener identifier
// "%lu___%@" in its two parts. code 0: the rule registers under no name.
struct KLTCEListenerKey {
  unsigned long code = 0;
  std::string name;
  std::string identifier() const;
};

// A trigger as compiled: it listens under `listener` ("app_event": code 4 and the event's name;
// "activity_event": code 1 and the activity) or fires at once ("app_start"); any other type never fires.
struct KLTCETriggerRule {
  explicit KLTCETriggerRule(const KLTValue& data);
  KLTCEEventKind kind;
  KLTValue eventType;  // as written
  KLTValue activity;   // as written
  KLTCEDetails details;
  KLTCEAttributeMatcher matcher;  // details.additional_info, trigger reading
  KLTCETimeBounds timeBounds;
  KLTCEListenerKey listener;
};

// A condition as compiled.
struct KLTCEConditionRule {
  explicit KLTCEConditionRule(const KLTValue& data, std::size_t position = 0);
  std::size_t position;  // in the configuration's `conditions`
  KLTCEEventKind kind;
  KLTValue eventType;  // as written
  KLTValue activity;   // as written
  KLTCEDetails details;
  KLTCEAttributeMatcher matcher;  // details.additional_info, condition reading
  int64_t sequence = 0;
  KLTCETimeBounds timeBounds;
  KLTCECountConfig countConfig;
  KLTValue combineWord;  // as written
  KLTCECombine combine;
  // idle_time and activity_time: details.additional_info.time as written, and its interval in
  // whole seconds taken as unsigned (a negative time becomes an interval that never ends).
  KLTValue time;
  uint64_t timerSeconds = 0;
  // Whether the timer, started at `now`, never ends: a negative time, or one whose end lies beyond
  // the last instant the clock can hold. Such a timer holds the engine's queue for good.
  bool timerNegative() const { return klt::integerValue(time) / 1000 < 0; }
  bool timerNeverEnds(KLTTimePoint now) const;
  // app_event, client_event, activity_event: the registration; routedNameMatches is whether every
  // event the host routes to that key bears the rule's name (false when the name is not text: the
  // key then holds its text form, which no name of the rule equals as text).
  KLTCEListenerKey listener;
  bool routedNameMatches = false;
  KLTCETriggerRule trigger;
};

class KLTCECampaign {
 public:
  // Compiles one configuration (any value). nullptr when it has no text `_id`: nothing can be
  // built or stored for it.
  static std::shared_ptr<const KLTCECampaign> compile(const KLTValue& config);

  const std::string& identifier() const { return _id; }
  bool sequenceEnabled() const { return _sequence; }
  // The conditions in the order the item uses them: document order in combined mode; sorted by
  // `sequence` in sequence mode (stable: equal ones keep their document order). Empty when
  // `conditions` is not a list.
  const std::vector<KLTCEConditionRule>& conditions() const { return _conditions; }
  // The `frequency` object as written (any value), which the counters store as they stand.
  const KLTValue& frequency() const { return _frequency; }
  // The daily window when `time_limits_in_day` is true: the texts as written.
  bool hasWindow() const { return _window; }
  const KLTValue& windowStart() const { return _windowStart; }
  const KLTValue& windowEnd() const { return _windowEnd; }
  // `meta.type` as written and as read; `ui.display_type` as written.
  const KLTValue& displayType() const { return _displayType; }
  KLTCEDisplayKind displayKind() const { return _displayKind; }
  const KLTValue& subtype() const { return _subtype; }

 private:
  KLTCECampaign() = default;
  std::string _id;
  bool _sequence = false;
  std::vector<KLTCEConditionRule> _conditions;
  KLTValue _frequency;
  bool _window = false;
  KLTValue _windowStart, _windowEnd;
  KLTValue _displayType, _subtype;
  KLTCEDisplayKind _displayKind = KLTCEDisplayKind::None;
};
