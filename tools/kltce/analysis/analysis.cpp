#include "tools/kltce/analysis/analysis.h"

#include <chrono>
#include <limits>
#include <optional>
#include <string_view>

#include "KLTContextEvaluator/KLTCEConstants.h"
#include "KLTContextEvaluator/KLTCEFrequency.h"
#include "host/KLTUtilities.h"
#include "tools/kltce/analysis/schema_check.h"

namespace kltce {

namespace {

using klt::valueForKey;

constexpr std::string_view kConditionTypes[] = {kKLTAppEvent, kKLTClientEvent, kKLTActivityEvent, kKLTIdleTime,
                                                kKLTActivityTime};
constexpr std::string_view kOperators[] = {"EQ", "NEQ", "GT", "GTE", "LT", "LTE"};
constexpr std::string_view kMatchKinds[] = {"s", "b", "l", "n"};

template <typename Words>
bool oneOf(const KLTValue& v, const Words& words) {
  const std::string* s = klt::stringPtr(v);
  if (!s) return false;
  for (std::string_view w : words) {
    if (*s == w) return true;
  }
  return false;
}

bool oneOf(const KLTValue& v, std::initializer_list<std::string_view> words) {
  return oneOf<std::initializer_list<std::string_view>>(v, words);
}

bool hasText(const KLTValue& v) { return klt::stringPtr(v) != nullptr; }

std::optional<int64_t> epochMillis(const KLTValue& date) {
  const auto t = KLTUtilities::dateFromKLTDateString(date);
  if (!t) return std::nullopt;
  return std::chrono::duration_cast<std::chrono::milliseconds>(t->time_since_epoch()).count();
}

// "HH:MM" on the 24-hour clock, or "24:00".
bool isClockText(const KLTValue& v) {
  const std::string* s = klt::stringPtr(v);
  if (!s || s->size() != 5 || (*s)[2] != ':') return false;
  for (int i : {0, 1, 3, 4}) {
    if ((*s)[i] < '0' || (*s)[i] > '9') return false;
  }
  const auto [h, m] = KLTCETimeLimits::readTimeOfDay(v);
  return (h < 24 && m < 60) || (h == 24 && m == 0);
}

std::string twoDigits(int64_t n) { return (n >= 0 && n < 10 ? "0" : "") + std::to_string(n); }

class Analyzer {
 public:
  explicit Analyzer(const KLTValue& config) : config_(config) {
    const KLTValue& validity = valueForKey(config, kKLTValidity);
    start_ = epochMillis(valueForKey(validity, kKLTStartDate));
    end_ = epochMillis(valueForKey(validity, kKLTEndDate));
  }

  std::vector<Finding> run() {
    if (!config_.is_object()) return {};
    checkId();
    checkInteger("/prio", valueForKey(config_, kKLTPriority), "prio", " (a campaign without prio ranks 1)");
    checkMeta();
    checkAudienceType();
    checkFrequency();
    checkWindow();
    const KLTValue& conditions = valueForKey(config_, kKLTConditions);
    const bool sequence = klt::boolValue(valueForKey(config_, kKLTSequenceEnabled));
    if (!sequence && (!conditions.is_array() || conditions.empty())) {
      add(Severity::Error, "/conditions", conditions, "no conditions: a campaign without sequence_enabled is never dispatched");
    }
    if (conditions.is_array()) {
      for (std::size_t i = 0; i < conditions.size(); ++i) checkCondition(conditions[i], "/conditions/" + std::to_string(i));
    }
    return std::move(findings_);
  }

 private:
  void add(Severity s, std::string path, const KLTValue& value, std::string message) {
    findings_.push_back(Finding{s, std::move(path), value, std::move(message), false});
  }

  void checkId() {
    const KLTValue& id = valueForKey(config_, kKLTConfigId);
    if (id.is_null()) {
      add(Severity::Error, "/_id", id, "no _id: the engine builds no item for the campaign, so it never runs");
    } else if (!hasText(id)) {
      add(Severity::Error, "/_id", id, "_id " + shownValue(id) + " is not text: the campaign cannot be stored or counted");
    }
  }

  // A number written as text (or as a fraction, or true/false) reads as an integer: as meant when
  // it reads the same, otherwise a surprise.
  void checkInteger(const std::string& path, const KLTValue& v, const std::string& key, const std::string& note = "") {
    if (v.is_null() || v.is_number_integer()) return;
    const int64_t n = klt::integerValue(v);
    const std::string* text = klt::stringPtr(v);
    if (text && *text == std::to_string(n)) {
      add(Severity::Info, path, v, key + " is written as text; it reads as " + std::to_string(n));
    } else {
      add(Severity::Warning, path, v,
          key + " " + shownValue(v) + " is not a whole number: it reads as " + std::to_string(n) + note);
    }
  }

  void checkMeta() {
    const KLTValue& type = valueForKey(valueForKey(config_, kKLTMeta), kKLTType);
    if (!oneOf(type, {kKLTInApp, kKLTSurvey, kKLTInLine})) {
      add(Severity::Error, "/meta/type", type,
          "meta.type " + shownValue(type) + " is not IN_APP, SURVEY or IN_LINE: the campaign is never dispatched");
    }
  }

  void checkAudienceType() {
    const KLTValue& type = valueForKey(valueForKey(config_, kKLTAudience), kKLTAudienceType);
    if (!type.is_null() && !oneOf(type, {kKLTFTU})) {
      add(Severity::Warning, "/audience/audience_type", type,
          "audience_type " + shownValue(type) + " is not FTU (exact word): it restricts nothing");
    }
  }

  void checkFrequency() {
    const KLTValue& frequency = valueForKey(config_, kKLTFrequency);
    if (!frequency.is_object()) return;
    const KLTValue& scope = valueForKey(frequency, kKLTValidity);
    if (!scope.is_null() && !oneOf(scope, {"SESSION", kKLTOverall})) {
      add(Severity::Warning, "/frequency/validity", scope,
          "frequency.validity " + shownValue(scope) + " is not SESSION or OVERALL (exact words): it counts as OVERALL");
    }
    for (const char* key : {kKLTCount, kKLTDayLimit, kKLTSessionLimit}) {
      const KLTValue& cap = valueForKey(frequency, key);
      if (cap.is_null() || cap.is_number_integer()) continue;
      const int64_t n = klt::integerValue(cap);
      if (n < 1) {
        add(Severity::Warning, std::string("/frequency/") + key, cap,
            std::string("cap ") + key + " " + shownValue(cap) + " is not a whole number: it reads as " + std::to_string(n) +
                ", which means no cap at all");
      } else {
        checkInteger(std::string("/frequency/") + key, cap, std::string("cap ") + key);
      }
    }
  }

  void checkWindow() {
    const KLTValue& limits = valueForKey(config_, kKLTTimeLimits);
    if (!klt::boolValue(valueForKey(config_, kKLTTimeLimitsInDay))) {
      if (!limits.is_null()) {
        add(Severity::Info, "/time_limits", limits, "time_limits is ignored: time_limits_in_day is not true");
      }
      return;
    }
    const KLTValue& startText = valueForKey(limits, kKLTStartTime);
    const KLTValue& endText = valueForKey(limits, kKLTEndTime);
    const auto [sh, sm] = KLTCETimeLimits::readTimeOfDay(startText);
    const auto [eh, em] = KLTCETimeLimits::readTimeOfDay(endText);
    for (const auto& [key, text, h, m] : {std::tuple{"start_time", &startText, sh, sm}, std::tuple{"end_time", &endText, eh, em}}) {
      if (!text->is_null() && !isClockText(*text)) {
        add(Severity::Warning, std::string("/time_limits/") + key, *text,
            shownValue(*text) + " is not a time of day HH:MM: it reads as " + twoDigits(h) + ":" + twoDigits(m) +
                (h > 23 ? ", after every time of day" : ""));
      }
    }
    // The engine's test, tried on every minute of the day: start <= now < end on (hour, minute).
    int open = 0;
    for (int64_t h = 0; h < 24; ++h) {
      for (int64_t m = 0; m < 60; ++m) {
        const bool afterStart = !(sh > h) && !(sh == h && sm > m);
        const bool beforeEnd = !(eh < h) && (eh > h || em > m);
        open += afterStart && beforeEnd;
      }
    }
    const std::string window = "the daily window " + shownValue(startText) + " to " + shownValue(endText);
    if (open == 0) {
      add(Severity::Error, "/time_limits", limits,
          window + " never opens: no time of day is at or after its start and before its end (a window does not run over "
                   "midnight)");
    } else if (open == 24 * 60 && !(isClockText(startText) && isClockText(endText))) {
      add(Severity::Warning, "/time_limits", limits, window + " reads as always open: it restricts nothing");
    }
  }

  // Whether `bounds` can hold while the campaign runs; `what` ends the message ("the condition
  // never completes").
  void checkBounds(const KLTValue& holder, const std::string& path, const std::string& what) {
    const KLTValue& bounds = valueForKey(holder, kKLTTimeBounds);
    if (!bounds.is_object()) {
      add(Severity::Error, path + "/time_bounds", bounds,
          "no time_bounds: the bounds read 0..0 ms, which only host time 0 meets, so " + what);
      return;
    }
    const int64_t lower = klt::integerValue(valueForKey(bounds, kKLTLower));
    const int64_t upper = klt::integerValue(valueForKey(bounds, kKLTUpper));
    if (lower > upper) {
      add(Severity::Error, path + "/time_bounds", bounds,
          "lower " + std::to_string(lower) + " is above upper " + std::to_string(upper) + ": the bounds never hold, so " +
              what);
    } else if (start_ && upper < *start_) {
      add(Severity::Error, path + "/time_bounds/upper", valueForKey(bounds, kKLTUpper),
          "upper " + std::to_string(upper) + " ms is before the campaign's start_date " +
              shownValue(valueForKey(valueForKey(config_, kKLTValidity), kKLTStartDate)) +
              " (time_bounds are epoch milliseconds): the bounds never hold while the campaign runs, so " + what);
    }
  }

  void checkMatchEntries(const KLTValue& details, const std::string& path, const std::string& what) {
    const KLTValue& info = valueForKey(details, kKLTAdditionalInfo);
    if (!info.is_object()) return;
    for (const auto& [name, entry] : info.items()) {
      if (!entry.is_object()) continue;
      const std::string at = path + "/details/additional_info/" + pointerSegment(name);
      if (!oneOf(valueForKey(entry, "op"), kOperators)) {
        add(Severity::Error, at + "/op", valueForKey(entry, "op"),
            "op " + shownValue(valueForKey(entry, "op")) + " is not EQ, NEQ, GT, GTE, LT or LTE: the attribute never matches, so " + what);
      }
      if (!oneOf(valueForKey(entry, "t"), kMatchKinds)) {
        add(Severity::Error, at + "/t", valueForKey(entry, "t"),
            "t " + shownValue(valueForKey(entry, "t")) + " is not s, b, l or n: the attribute never matches, so " + what);
      }
    }
  }

  void checkTimer(const KLTValue& details, const std::string& path) {
    const KLTValue& time = valueForKey(valueForKey(details, kKLTAdditionalInfo), kKLTTime);
    const std::string at = path + "/details/additional_info/time";
    const int64_t ms = klt::integerValue(time);
    constexpr int64_t kMax = std::numeric_limits<int64_t>::max(), kMin = std::numeric_limits<int64_t>::min();
    const std::string blocks = "once armed, the timer never ends and blocks the engine's queue for good (no later event is handled, "
                               "nothing else is dispatched)";
    if (ms == kMax || ms == kMin) {
      add(Severity::Error, at, time, "time " + shownValue(time) + " ms is too large to read and is clamped: " + blocks);
    } else if (ms / 1000 < 0) {
      add(Severity::Error, at, time, "time " + std::to_string(ms) + " ms is negative: " + blocks);
    } else if (start_ && end_ && *end_ >= *start_ && (ms / 1000) > (*end_ - *start_) / 1000) {
      add(Severity::Error, at, time,
          "time " + std::to_string(ms) + " ms is longer than the campaign's validity (" + std::to_string(*end_ - *start_) +
              " ms from start_date to end_date): the timer cannot end while the campaign runs");
    } else if (!time.is_number_integer()) {
      add(Severity::Warning, at, time, "time " + shownValue(time) + " is not a whole number of milliseconds: it reads as " +
                                           std::to_string(ms) + " ms");
    }
  }

  void checkCondition(const KLTValue& c, const std::string& path) {
    const KLTValue& type = valueForKey(c, kKLTEventType);
    const KLTValue& details = valueForKey(c, kKLTDetails);
    const std::string never = "the condition never completes";
    if (!oneOf(type, kConditionTypes)) {
      add(Severity::Error, path + "/event_type", type,
          "event_type " + shownValue(type) +
              " is not app_event, client_event, activity_event, idle_time or activity_time: the condition is never armed "
              "and never completes");
    } else if (oneOf(type, {kKLTIdleTime, kKLTActivityTime})) {
      checkTimer(details, path);
    } else {
      if (oneOf(type, {kKLTActivityEvent})) {
        if (!hasText(valueForKey(c, kKLTActivity))) {
          add(Severity::Error, path + "/activity", valueForKey(c, kKLTActivity),
              "an activity_event condition without \"activity\" text matches no screen, so " + never);
        }
      } else if (!hasText(valueForKey(details, kKLTName))) {
        add(Severity::Error, path + "/details/name", valueForKey(details, kKLTName),
            "no details.name: this " + *klt::stringPtr(type) + " condition matches no event, so " + never);
      }
      checkMatchEntries(details, path, never);
      checkBounds(c, path, never);
      checkCount(valueForKey(c, kKLTCountConfig), path + "/count_config");
    }
    checkTrigger(valueForKey(c, kKLTTrigger), path + "/trigger");
  }

  void checkCount(const KLTValue& count, const std::string& path) {
    const KLTValue& op = valueForKey(count, kKLTOperator);
    if (op.is_null()) {
      add(Severity::Error, path + "/operator", op, "no count_config operator: the count check is always false, so the condition never completes");
      return;
    }
    if (!oneOf(op, kOperators)) {
      add(Severity::Error, path + "/operator", op,
          "operator " + shownValue(op) + " is not EQ, NEQ, GT, GTE, LT or LTE (exact words): the count check is always false, so the "
                                          "condition never completes");
      return;
    }
    const KLTValue& wanted = valueForKey(count, kKLTCount);
    checkInteger(path + "/count", wanted, "count");
    // The count is at least 1 when it is checked (it is raised first).
    const int64_t n = klt::integerValue(wanted);
    const std::string& o = *klt::stringPtr(op);
    if ((o == "EQ" && n < 1) || (o == "LT" && n <= 1) || (o == "LTE" && n < 1)) {
      add(Severity::Error, path, count,
          "count " + o + " " + std::to_string(n) + " never holds: the count is 1 or more when it is checked");
    }
  }

  void checkTrigger(const KLTValue& t, const std::string& path) {
    const KLTValue& type = valueForKey(t, kKLTEventType);
    if (oneOf(type, {kKLTAppStart})) return;
    if (oneOf(type, {kKLTClientEvent})) {
      add(Severity::Error, path + "/event_type", type,
          "a trigger never fires on client_event (triggers know app_event, activity_event and app_start): the condition is never armed");
      return;
    }
    if (!oneOf(type, {kKLTAppEvent, kKLTActivityEvent})) {
      add(Severity::Error, path + "/event_type", type,
          "event_type " + shownValue(type) + " is not app_event, activity_event or app_start: the trigger never fires, the condition is never armed");
      return;
    }
    const std::string never = "the trigger never fires";
    if (oneOf(type, {kKLTActivityEvent})) {
      if (!hasText(valueForKey(t, kKLTActivity))) {
        add(Severity::Error, path + "/activity", valueForKey(t, kKLTActivity), "an activity_event trigger without \"activity\" text never fires");
      }
    } else if (!hasText(valueForKey(valueForKey(t, kKLTDetails), kKLTName))) {
      add(Severity::Error, path + "/details/name", KLTValue(), "an app_event trigger without details.name never fires");
    }
    checkMatchEntries(valueForKey(t, kKLTDetails), path, never);
    checkBounds(t, path, never);
  }

  const KLTValue& config_;
  std::optional<int64_t> start_, end_;
  std::vector<Finding> findings_;
};

}  // namespace

std::vector<Finding> analyzeCampaign(const KLTValue& config) { return Analyzer(config).run(); }

const char* severityName(Severity severity) {
  switch (severity) {
    case Severity::Error: return "error";
    case Severity::Warning: return "warning";
    case Severity::Info: break;
  }
  return "info";
}

std::string shownValue(const KLTValue& v) {
  // A message quotes at most this much of a value; the report's value field carries it whole.
  constexpr std::size_t kShownBytes = 120;
  if (v.is_null()) return "absent";
  const std::string* s = klt::stringPtr(v);
  std::string text = s ? "\"" + *s + "\"" : v.dump(-1, ' ', false, KLTValue::error_handler_t::replace);
  if (text.size() > kShownBytes) text = text.substr(0, kShownBytes) + "... (" + std::to_string(text.size()) + " bytes)";
  return text;
}

}  // namespace kltce
