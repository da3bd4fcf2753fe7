#include "tools/kltce/analysis/admission_report.h"

#include <optional>
#include <string>

#include "KLTContextEvaluator/KLTCEConstants.h"
#include "KLTContextEvaluator/KLTCEUtility.h"
#include "host/KLTController.h"
#include "host/KLTUtilities.h"
#include "platform/KLTBundle.h"
#include "platform/KLTClock.h"

namespace kltce {

namespace {

using klt::valueForKey;

constexpr std::string_view kOperators[] = {"EQ", "NEQ", "GT", "GTE", "LT", "LTE"};

bool isOperator(const KLTValue& v) {
  const std::string* s = klt::stringPtr(v);
  if (!s) return false;
  for (auto w : kOperators) {
    if (*s == w) return true;
  }
  return false;
}

class Report {
 public:
  // readsHost false: only the steps that fail whatever the host's state and the moment.
  Report(const KLTValue& config, bool readsHost) : config_(config), readsHost_(readsHost) {}

  std::vector<Finding> run() {
    checkEnabled();
    const KLTValue& audience = valueForKey(config_, kKLTAudience);
    checkHardware(valueForKey(audience, "hw"));
    checkVersion(valueForKey(audience, "ver"));
    if (!readsHost_) {
      checkRulesShape(valueForKey(valueForKey(audience, kKLTAttributes), kKLTUser), "user");
      checkRulesShape(valueForKey(valueForKey(audience, kKLTAttributes), kKLTSession), "session");
      checkValidity();
      checkConditions();
      return std::move(findings_);
    }
    if (klt::isText(valueForKey(audience, kKLTAudienceType), kKLTFTU) && !KLTUtilities::isFirstSession()) {
      add(Severity::Info, "/audience/audience_type", valueForKey(audience, kKLTAudienceType),
          "FTU condition failed: this is not the app's first session");
    }
    const KLTValue& attributes = valueForKey(audience, kKLTAttributes);
    const auto user = KLTController::sharedController().user();
    const auto session = KLTController::sharedController().session();
    checkRules(valueForKey(attributes, kKLTUser), "user", user ? user->userAttributes() : nullptr);
    checkRules(valueForKey(attributes, kKLTSession), "session", session ? session->sessionAttributes() : nullptr);
    checkValidity();
    checkConditions();
    return std::move(findings_);
  }

 private:
  void add(Severity s, std::string path, const KLTValue& value, std::string message) {
    findings_.push_back(Finding{s, std::move(path), value, std::move(message), true});
  }

  void checkEnabled() {
    const KLTValue& enabled = valueForKey(config_, kKLTEnabled);
    if (klt::boolValue(enabled)) return;
    if (enabled.is_boolean()) {
      add(Severity::Info, "/enabled", enabled, "Config disabled: the campaign is switched off");
    } else {
      add(Severity::Error, "/enabled", enabled, "Config disabled: enabled " + shownValue(enabled) + " reads as false");
    }
  }

  void checkHardware(const KLTValue& hw) {
    if (hw.is_null()) return;
    const KLTValue& wanted = valueForKey(hw, "val");
    if (!hasText(wanted)) {
      add(Severity::Error, "/audience/hw/val", wanted, "Hardware Model check failed: no model name, so no device matches");
      return;
    }
    if (!readsHost_) return;
    const std::string device = KLTUtilities::deviceName();
    if (*klt::stringPtr(wanted) != device) {
      add(Severity::Info, "/audience/hw/val", wanted, "Hardware Model check failed: device \"" + device + "\" is not " + shownValue(wanted));
    }
  }

  void checkVersion(const KLTValue& ver) {
    if (ver.is_null()) return;
    const KLTValue& wanted = valueForKey(ver, "val");
    const KLTValue& op = valueForKey(ver, "op");
    if (readsHost_ && KLTCEUtility::checkGivenVersion(klt::textForm(wanted), op)) return;
    if (!isOperator(op)) {
      add(Severity::Error, "/audience/ver/op", op,
          "Version check failed: op " + shownValue(op) + " is not EQ, NEQ, GT, GTE, LT or LTE, so no app version passes");
    } else if (!readsHost_) {
      return;  // under a word it knows, the outcome depends on the app's version (a missing val too)
    } else if (wanted.is_null()) {
      add(Severity::Error, "/audience/ver/val", wanted, "Version check failed: no version to compare with");
    } else {
      const std::optional<std::string> app = KLTBundle::shortVersionString();
      add(Severity::Info, "/audience/ver", ver,
          "Version check failed: app " + (app ? *app : std::string("(no version)")) + " is not " + *klt::stringPtr(op) + " " +
              klt::textForm(wanted));
    }
  }

  void checkRules(const KLTValue& rules, const std::string& whose, const std::shared_ptr<const KLTValue>& existing) {
    const std::string path = "/audience/attributes/" + whose;
    const std::string title = whose == "user" ? "User" : "Session";
    if (!checkRulesShape(rules, whose)) return;
    static const KLTValue kNone;
    const KLTValue& attributes = existing ? *existing : kNone;
    for (std::size_t i = 0; i < rules.size(); ++i) {
      const KLTValue& rule = rules[i];
      if (KLTCEUtility::compareGivenAttributes(rule, attributes)) continue;
      const KLTValue& op = valueForKey(rule, kKLTOperator);
      const KLTValue& name = valueForKey(rule, kKLTName);
      const std::string at = path + "/" + std::to_string(i);
      if (!klt::isText(op, "EQ") && !klt::isText(op, "NEQ")) {
        add(Severity::Error, at + "/operator", op,
            title + " attributes mismatch: operator " + shownValue(op) + " is not EQ or NEQ, so the rule never holds");
      } else if (!klt::isList(valueForKey(rule, "value"))) {
        add(Severity::Error, at + "/value", valueForKey(rule, "value"),
            title + " attributes mismatch: value is not a list, so the rule never holds");
      } else {
        const KLTValue& actual = hasText(name) ? valueForKey(attributes, *klt::stringPtr(name)) : kNone;
        add(Severity::Info, at, rule,
            title + " attributes mismatch: " + whose + " attribute " + shownValue(name) + " is " + shownValue(actual) + ", not " +
                *klt::stringPtr(op) + " " + shownValue(valueForKey(rule, "value")));
      }
    }
  }

  void checkValidity() {
    const KLTValue& validity = valueForKey(config_, kKLTValidity);
    if (klt::isList(validity)) {
      add(Severity::Error, "/validity", validity, "Invalid validity format: validity is a list, not an object");
      return;
    }
    const std::string why = "Config doesn't fall in between dates: ";
    const KLTValue& startText = valueForKey(validity, kKLTStartDate);
    const KLTValue& endText = valueForKey(validity, kKLTEndDate);
    const auto start = KLTUtilities::dateFromKLTDateString(startText);
    const auto end = KLTUtilities::dateFromKLTDateString(endText);
    for (const auto& [key, text, date] : {std::tuple{"start_date", &startText, &start}, std::tuple{"end_date", &endText, &end}}) {
      if (!*date) {
        add(Severity::Error, std::string("/validity/") + key, *text,
            why + key + " " + shownValue(*text) + " is not an ISO 8601 date with an offset, so the campaign is never admitted");
      }
    }
    if (!start || !end) return;
    if (*end < *start) {
      add(Severity::Error, "/validity/end_date", endText,
          why + "end_date " + shownValue(endText) + " is before start_date " + shownValue(startText) +
              ", so no moment is within them");
      return;
    }
    if (!readsHost_) return;
    const KLTTimePoint now = KLTClock::current()->now();
    if (now < *start) {
      add(Severity::Info, "/validity/start_date", startText, why + "not started: now " + klt::formatDate(now) + " is before " + shownValue(startText));
    } else if (now > *end) {
      add(Severity::Info, "/validity/end_date", endText, why + "over: now " + klt::formatDate(now) + " is after " + shownValue(endText));
    }
  }

  void checkConditions() {
    const KLTValue& conditions = valueForKey(config_, kKLTConditions);
    if (!klt::isList(conditions)) return;
    for (std::size_t i = 0; i < conditions.size(); ++i) {
      const KLTValue& c = conditions[i];
      const std::string path = "/conditions/" + std::to_string(i);
      const KLTValue& combine = valueForKey(c, kKLTCombineOperator);
      if (!klt::isText(combine, kKLTOr) && !klt::isText(combine, kKLTAnd)) {
        add(Severity::Error, path + "/combine_operator", combine,
            "Improper combine operator: " + shownValue(combine) + " is not AND or OR (exact words)");
      }
      checkDetails(valueForKey(c, kKLTDetails), path + "/details", "");
      const KLTValue& trigger = valueForKey(c, kKLTTrigger);
      if (!klt::isDictionary(trigger)) {
        add(Severity::Error, path + "/trigger", trigger, "Invalid trigger format: the trigger must be an object");
      } else {
        checkDetails(valueForKey(trigger, kKLTDetails), path + "/trigger/details", "trigger ");
      }
    }
  }

  void checkDetails(const KLTValue& details, const std::string& path, const std::string& whose) {
    if (!klt::isDictionary(details)) {
      add(Severity::Error, path, details, "Invalid " + whose + "details format: details must be an object");
    } else if (!klt::isDictionary(valueForKey(details, kKLTAdditionalInfo))) {
      add(Severity::Error, path + "/additional_info", valueForKey(details, kKLTAdditionalInfo),
          "Invalid " + whose + (whose.empty() ? "additional info" : "details additional info") +
              " format: additional_info must be an object (it may be empty)");
    }
  }

  // A rule's outcome depends on the host's attributes (one the host does not know holds), so
  // without the host only rules that are not a list fail for sure. False for those.
  bool checkRulesShape(const KLTValue& rules, const std::string& whose) {
    if (klt::isList(rules)) return true;
    add(Severity::Error, "/audience/attributes/" + whose, rules,
        "Invalid " + whose + " attrs format: " + whose + " must be a list (it may be empty)");
    return false;
  }

  static bool hasText(const KLTValue& v) { return klt::stringPtr(v) != nullptr; }

  const KLTValue& config_;
  const bool readsHost_;
  std::vector<Finding> findings_;
};

}  // namespace

std::vector<Finding> admissionFindings(const KLTValue& config) { return Report(config, true).run(); }

std::vector<Finding> unconditionalAdmissionFindings(const KLTValue& config) { return Report(config, false).run(); }

}  // namespace kltce
