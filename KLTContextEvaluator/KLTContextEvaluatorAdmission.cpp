// The admission check of one configuration: enabled, audience (device, app version, first session,
// user and session attributes), validity dates and the structure of its conditions, in that order.
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "KLTContextEvaluator/KLTCEConstants.h"
#include "KLTContextEvaluator/KLTCEUtility.h"
#include "KLTContextEvaluator/KLTContextEvaluator.h"
#include "host/KLTController.h"
#include "host/KLTUtilities.h"
#include "platform/KLTClock.h"
#include "platform/KLTLog.h"

namespace {

constexpr char kMethod[] = "-[KLTContextEvaluator checkConfiguration:]";

// Literal keys of the audience's device and version restrictions.
constexpr std::string_view kHardware = "hw";
constexpr std::string_view kVersion = "ver";
constexpr std::string_view kRestrictionValue = "val";
constexpr std::string_view kRestrictionOperator = "op";

// Every rule of the list holds against the host's attributes; the first that fails ends the scan.
bool attributesMatch(const KLTValue& rules, const std::shared_ptr<const KLTValue>& existing) {
  static const KLTValue kNoAttributes;
  const KLTValue& attributes = existing ? *existing : kNoAttributes;
  for (const KLTValue& rule : rules) {
    if (!KLTCEUtility::compareGivenAttributes(rule, attributes)) return false;
  }
  return true;
}

// Whether the present moment lies within [start, end]. The clock is read once against the start
// and afresh against the end, so a check that straddles the end bound sees the later moment there.
// A date that is absent or unreadable names no moment to be within.
bool withinValidity(const KLTValue& validity) {
  const KLTTimePoint now = KLTClock::current()->now();
  const std::optional<KLTTimePoint> start =
      KLTUtilities::dateFromKLTDateString(klt::valueForKey(validity, kKLTStartDate));
  if (!start || now < *start) return false;
  const KLTTimePoint later = KLTClock::current()->now();
  const std::optional<KLTTimePoint> end = KLTUtilities::dateFromKLTDateString(klt::valueForKey(validity, kKLTEndDate));
  return end && !(later > *end);
}

// The message of the first structural fault of one condition, or nullptr when it has none.
const char* conditionFault(const KLTValue& condition) {
  const KLTValue& combine = klt::valueForKey(condition, kKLTCombineOperator);
  if (!klt::isText(combine, kKLTOr) && !klt::isText(combine, kKLTAnd)) return "Improper combine operator";
  const KLTValue& details = klt::valueForKey(condition, kKLTDetails);
  if (!klt::isDictionary(details)) return "Invalid details format";
  if (!klt::isDictionary(klt::valueForKey(details, kKLTAdditionalInfo))) return "Invalid additional info format";
  const KLTValue& trigger = klt::valueForKey(condition, kKLTTrigger);
  if (!klt::isDictionary(trigger)) return "Invalid trigger format";
  const KLTValue& triggerDetails = klt::valueForKey(trigger, kKLTDetails);
  if (!klt::isDictionary(triggerDetails)) return "Invalid trigger details format";
  if (!klt::isDictionary(klt::valueForKey(triggerDetails, kKLTAdditionalInfo))) {
    return "Invalid trigger details additional info format";
  }
  return nullptr;
}

}  // namespace

bool KLTContextEvaluator::checkConfiguration(const KLTValue& config, KLTCEAdmission* why) const {
  if (!klt::boolValue(klt::valueForKey(config, kKLTEnabled))) {
    KLT_LOG_DEBUG(kMethod, "Config disabled");
    return why && why->reject("enabled", "Config disabled", {{"enabled", klt::valueForKey(config, kKLTEnabled)}});
  }

  const KLTValue& audience = klt::valueForKey(config, kKLTAudience);
  const KLTValue& hardware = klt::valueForKey(audience, kHardware);
  if (!hardware.is_null() && !klt::isText(klt::valueForKey(hardware, kRestrictionValue), KLTUtilities::deviceName())) {
    KLT_LOG_ERROR(kMethod, "Hardware Model check failed");
    return why && why->reject("hardware", "Hardware Model check failed", KLTCEAdmissionFacts::hardware(klt::valueForKey(hardware, kRestrictionValue)));
  }

  const KLTValue& version = klt::valueForKey(audience, kVersion);
  if (!version.is_null() &&
      !KLTCEUtility::checkGivenVersion(klt::textForm(klt::valueForKey(version, kRestrictionValue)),
                                       klt::valueForKey(version, kRestrictionOperator))) {
    KLT_LOG_ERROR(kMethod, "Version check failed");
    return why && why->reject("version", "Version check failed", KLTCEAdmissionFacts::version(klt::valueForKey(version, kRestrictionValue), klt::valueForKey(version, kRestrictionOperator)));
  }

  if (klt::isText(klt::valueForKey(audience, kKLTAudienceType), kKLTFTU) && !KLTUtilities::isFirstSession()) {
    KLT_LOG_ERROR(kMethod, "FTU condition failed");
    return why && why->reject("first_session", "FTU condition failed", {{"audience_type", kKLTFTU}, {"first_session", false}});
  }

  const KLTValue& attributes = klt::valueForKey(audience, kKLTAttributes);
  const KLTValue& userRules = klt::valueForKey(attributes, kKLTUser);
  if (!klt::isList(userRules)) {
    KLT_LOG_ERROR(kMethod, "Invalid user attrs format");
    return why && why->reject("user_attributes_format", "Invalid user attrs format", {{"value", userRules}});
  }
  const std::shared_ptr<KLTUser> user = KLTController::current().user();
  if (const auto existing = user ? user->userAttributes() : nullptr; !attributesMatch(userRules, existing)) {
    KLT_LOG_ERROR(kMethod, "User attributes mismatch");
    return why && why->reject("user_attributes", "User attributes mismatch", KLTCEAdmissionFacts::mismatch(userRules, existing));
  }

  const KLTValue& sessionRules = klt::valueForKey(attributes, kKLTSession);
  if (!klt::isList(sessionRules)) {
    KLT_LOG_ERROR(kMethod, "Invalid session attrs format");
    return why && why->reject("session_attributes_format", "Invalid session attrs format", {{"value", sessionRules}});
  }
  const std::shared_ptr<KLTSession> session = KLTController::current().session();
  if (const auto existing = session ? session->sessionAttributes() : nullptr; !attributesMatch(sessionRules, existing)) {
    KLT_LOG_ERROR(kMethod, "Session attributes mismatch");
    return why && why->reject("session_attributes", "Session attributes mismatch", KLTCEAdmissionFacts::mismatch(sessionRules, existing));
  }

  // Deliberately the only kind test that rejects a kind rather than requiring one.
  const KLTValue& validity = klt::valueForKey(config, kKLTValidity);
  if (klt::isList(validity)) {
    KLT_LOG_ERROR(kMethod, "Invalid validity format");
    return why && why->reject("validity_format", "Invalid validity format", {{"validity", validity}});
  }
  if (!withinValidity(validity)) {
    KLT_LOG_ERROR(kMethod, "Config doesn't fall in between dates");
    return why && why->reject("validity_dates", "Config doesn't fall in between dates", KLTCEAdmissionFacts::dates(validity));
  }

  // Only a list holds conditions; anything else has none to check.
  const KLTValue& conditions = klt::valueForKey(config, kKLTConditions);
  if (klt::isList(conditions)) {
    for (std::size_t i = 0; i < conditions.size(); ++i) {
      if (const char* fault = conditionFault(conditions[i])) {
        KLT_LOG_ERROR(kMethod, fault);
        return why && why->reject("conditions", fault, {{"condition", i}});
      }
    }
  }
  return true;
}

bool KLTContextEvaluator::checkConfiguration(const KLTValue& config) const {
  CallScope scope(*this);  // on the caller's thread, against this engine's host and clock
  return checkConfiguration(config, nullptr);
}

KLTCEAdmission KLTContextEvaluator::admissionOfConfiguration(const KLTValue& config) const {
  CallScope scope(*this);
  KLTCEAdmission admission;
  checkConfiguration(config, &admission);
  return admission;
}
