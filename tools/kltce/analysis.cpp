#include "tools/kltce/analysis.h"

#include <optional>
#include <string_view>

#include "KLTContextEvaluator/KLTCEConstants.h"
#include "host/KLTUtilities.h"

namespace kltce {

namespace {

using klt::valueForKey;

constexpr std::string_view kConditionTypes[] = {kKLTAppEvent, kKLTClientEvent, kKLTActivityEvent, kKLTIdleTime,
                                                kKLTActivityTime};
constexpr std::string_view kOperators[] = {"EQ", "NEQ", "GT", "GTE", "LT", "LTE"};

bool oneOf(const KLTValue& v, std::initializer_list<std::string_view> words) {
  const std::string* s = klt::stringPtr(v);
  if (!s) return false;
  for (auto w : words) {
    if (*s == w) return true;
  }
  return false;
}

template <std::size_t N>
bool oneOf(const KLTValue& v, const std::string_view (&words)[N]) {
  const std::string* s = klt::stringPtr(v);
  if (!s) return false;
  for (auto w : words) {
    if (*s == w) return true;
  }
  return false;
}

// How a value shows in a message: text in quotes, anything else as JSON, absent as "absent".
std::string shown(const KLTValue& v) {
  if (v.is_null()) return "absent";
  if (const std::string* s = klt::stringPtr(v)) return "\"" + *s + "\"";
  return v.dump(-1, ' ', false, KLTValue::error_handler_t::replace);
}

bool hasText(const KLTValue& v) { return klt::stringPtr(v) != nullptr; }

class Analyzer {
 public:
  explicit Analyzer(const KLTValue& config) : config_(config) {
    if (auto start = KLTUtilities::dateFromKLTDateString(valueForKey(valueForKey(config, kKLTValidity), kKLTStartDate))) {
      startMillis_ = std::chrono::duration_cast<std::chrono::milliseconds>(start->time_since_epoch()).count();
      startText_ = *klt::stringPtr(valueForKey(valueForKey(config, kKLTValidity), kKLTStartDate));
    }
  }

  std::vector<Finding> run() {
    if (!config_.is_object()) return {};
    checkId();
    checkMeta();
    checkWindow();
    const KLTValue& conditions = valueForKey(config_, kKLTConditions);
    const bool sequence = klt::boolValue(valueForKey(config_, kKLTSequenceEnabled));
    if (!sequence && (!conditions.is_array() || conditions.empty())) {
      add(Severity::Warning, kKLTConditions, "no conditions: a campaign without sequence_enabled is never dispatched");
    }
    if (conditions.is_array()) {
      for (std::size_t i = 0; i < conditions.size(); ++i) checkCondition(conditions[i], "conditions[" + std::to_string(i) + "]");
    }
    return std::move(findings_);
  }

 private:
  void add(Severity s, std::string where, std::string message) {
    findings_.push_back(Finding{s, std::move(where), std::move(message)});
  }

  void checkId() {
    const KLTValue& id = valueForKey(config_, kKLTConfigId);
    if (id.is_null()) {
      add(Severity::Error, kKLTConfigId, "no _id: the engine builds no item for the campaign, so it never runs");
    } else if (!hasText(id)) {
      add(Severity::Error, kKLTConfigId, "_id " + shown(id) + " is not text: the campaign cannot be stored or counted");
    }
  }

  void checkMeta() {
    const KLTValue& type = valueForKey(valueForKey(config_, kKLTMeta), kKLTType);
    if (!oneOf(type, {kKLTInApp, kKLTSurvey, kKLTInLine})) {
      add(Severity::Warning, "meta.type",
          "meta.type " + shown(type) + " is not IN_APP, SURVEY or IN_LINE: the campaign is never dispatched");
    }
  }

  // The engine's reading of "HH:MM": two pieces around the first ':', each a C integer parse;
  // anything else reads 00:00.
  static std::pair<int64_t, int64_t> readClock(const KLTValue& v) {
    const std::string* s = klt::stringPtr(v);
    if (!s) return {0, 0};
    const auto colon = s->find(':');
    if (colon == std::string::npos) return {0, 0};
    const auto rest = std::string_view(*s).substr(colon + 1);
    return {klt::parseInteger(std::string_view(*s).substr(0, colon)), klt::parseInteger(rest.substr(0, rest.find(':')))};
  }

  void checkWindow() {
    if (!klt::boolValue(valueForKey(config_, kKLTTimeLimitsInDay))) return;
    const KLTValue& limits = valueForKey(config_, kKLTTimeLimits);
    const auto [sh, sm] = readClock(valueForKey(limits, kKLTStartTime));
    const auto [eh, em] = readClock(valueForKey(limits, kKLTEndTime));
    // The engine's test, tried on every minute of the day: start <= now < end on (hour, minute).
    for (int64_t h = 0; h < 24; ++h) {
      for (int64_t m = 0; m < 60; ++m) {
        const bool afterStart = !(sh > h) && !(sh == h && sm > m);
        const bool beforeEnd = !(eh < h) && (eh > h || em > m);
        if (afterStart && beforeEnd) return;
      }
    }
    add(Severity::Warning, kKLTTimeLimits,
        "the daily window " + shown(valueForKey(limits, kKLTStartTime)) + " to " + shown(valueForKey(limits, kKLTEndTime)) +
            " never opens: no time of day is at or after its start and before its end (a window does not run over midnight)");
  }

  void checkBounds(const KLTValue& holder, const std::string& where, const std::string& what) {
    const KLTValue& bounds = valueForKey(holder, kKLTTimeBounds);
    if (!bounds.is_object()) {
      add(Severity::Warning, where,
          "no time_bounds: the bounds read 0..0 ms, which only host time 0 meets, so " + what);
      return;
    }
    const int64_t lower = klt::integerValue(valueForKey(bounds, kKLTLower));
    const int64_t upper = klt::integerValue(valueForKey(bounds, kKLTUpper));
    if (lower > upper) {
      add(Severity::Warning, where + ".time_bounds",
          "lower " + std::to_string(lower) + " is above upper " + std::to_string(upper) + ": the bounds never hold, so " +
              what);
    } else if (startMillis_ && upper < *startMillis_) {
      add(Severity::Warning, where + ".time_bounds",
          "upper " + std::to_string(upper) + " ms is before the campaign's start_date " + startText_ +
              " (time_bounds are epoch milliseconds): the bounds never hold while the campaign runs, so " + what);
    }
  }

  void checkCondition(const KLTValue& c, const std::string& where) {
    const KLTValue& type = valueForKey(c, kKLTEventType);
    const KLTValue& details = valueForKey(c, kKLTDetails);
    if (!oneOf(type, kConditionTypes)) {
      add(Severity::Warning, where,
          "event_type " + shown(type) +
              " is not app_event, client_event, activity_event, idle_time or activity_time: the condition is never armed "
              "and never completes");
    } else if (oneOf(type, {kKLTIdleTime, kKLTActivityTime})) {
      const int64_t ms = klt::integerValue(valueForKey(valueForKey(details, kKLTAdditionalInfo), kKLTTime));
      if (ms / 1000 < 0) {
        add(Severity::Error, where + ".details.additional_info.time",
            "time " + std::to_string(ms) +
                " ms is negative: once armed, the timer never ends and blocks the engine's queue for good (no later event is "
                "handled, nothing else is dispatched)");
      }
    } else {
      if (oneOf(type, {kKLTActivityEvent})) {
        if (!hasText(valueForKey(c, kKLTActivity))) {
          add(Severity::Warning, where, "an activity_event condition without \"activity\" text matches no screen");
        }
      } else if (!hasText(valueForKey(details, kKLTName))) {
        add(Severity::Warning, where, "no details.name: this " + *klt::stringPtr(type) + " condition matches no event");
      }
      checkBounds(c, where, "the condition never completes");
      checkCount(valueForKey(c, kKLTCountConfig), where);
    }
    checkTrigger(valueForKey(c, kKLTTrigger), where + ".trigger");
  }

  void checkCount(const KLTValue& count, const std::string& where) {
    const KLTValue& op = valueForKey(count, kKLTOperator);
    if (!count.is_object() || op.is_null()) {
      add(Severity::Warning, where, "no count_config operator: the count check is always false, so the condition never completes");
      return;
    }
    if (!oneOf(op, kOperators)) {
      add(Severity::Warning, where + ".count_config",
          "operator " + shown(op) + " is not EQ, NEQ, GT, GTE, LT or LTE: the condition never completes");
      return;
    }
    // The count is at least 1 when it is checked (it is raised first).
    const int64_t n = klt::integerValue(valueForKey(count, kKLTCount));
    const std::string& o = *klt::stringPtr(op);
    const bool never = (o == "EQ" && n < 1) || (o == "LT" && n <= 1) || (o == "LTE" && n < 1);
    if (never) {
      add(Severity::Warning, where + ".count_config",
          "count " + o + " " + std::to_string(n) + " never holds: the count is 1 or more when it is checked");
    }
  }

  void checkTrigger(const KLTValue& t, const std::string& where) {
    const KLTValue& type = valueForKey(t, kKLTEventType);
    if (oneOf(type, {kKLTAppStart})) return;
    if (oneOf(type, {kKLTClientEvent})) {
      add(Severity::Warning, where, "a trigger never fires on client_event (triggers know app_event, activity_event and app_start): the condition is never armed");
      return;
    }
    if (!oneOf(type, {kKLTAppEvent, kKLTActivityEvent})) {
      add(Severity::Warning, where,
          "event_type " + shown(type) + " is not app_event, activity_event or app_start: the trigger never fires, the condition is never armed");
      return;
    }
    if (oneOf(type, {kKLTActivityEvent})) {
      if (!hasText(valueForKey(t, kKLTActivity))) add(Severity::Warning, where, "an activity_event trigger without \"activity\" text never fires");
    } else if (!hasText(valueForKey(valueForKey(t, kKLTDetails), kKLTName))) {
      add(Severity::Warning, where, "an app_event trigger without details.name never fires");
    }
    checkBounds(t, where, "the trigger never fires");
  }

  const KLTValue& config_;
  std::optional<int64_t> startMillis_;
  std::string startText_;
  std::vector<Finding> findings_;
};

}  // namespace

std::vector<Finding> analyzeCampaign(const KLTValue& config) { return Analyzer(config).run(); }

const char* severityName(Severity severity) { return severity == Severity::Error ? "error" : "warning"; }

}  // namespace kltce
