// Fuzz target: one configuration compiled into the engine's campaign model, and events matched
// against each of its rules' attribute data through the event's index.
//
// Input: the configuration's JSON on the first line, then one JSON value per line, each an event's
// attributes. Every rule's matcher must answer as the value readings the rules are defined by
// (KLTCEUtility::doesEventAttributes for conditions, doesDictionary for triggers), and nothing may
// crash or leak whatever the configuration holds.
#include <cstdint>
#include <cstdlib>
#include <string>

#include "KLTContextEvaluator/KLTCECampaign.h"
#include "KLTContextEvaluator/KLTCEConstants.h"
#include "KLTContextEvaluator/KLTCEUtility.h"
#include "fuzz/fuzz_input.h"
#include "platform/KLTValueReader.h"

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  kltce_fuzz::silenceLog();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
  auto [first, rest] = kltce_fuzz::firstLineAndRest(kltce_fuzz::asText(data, size));
  const klt::KLTValueRead config = klt::readJsonText(first);
  if (!config.ok()) return 0;
  const auto campaign = KLTCECampaign::compile(config.value);
  if (!campaign) return 0;
  const KLTValue& conditions = klt::valueForKey(config.value, kKLTConditions);
  while (!rest.empty()) {
    auto [line, after] = kltce_fuzz::firstLineAndRest(rest);
    rest = after;
    const klt::KLTValueRead attributes = klt::readJsonText(line);
    if (!attributes.ok()) continue;
    const auto event = KLTEvent::make(kKLTEventCodeApp, "e", attributes.value);
    for (const KLTCEConditionRule& rule : campaign->conditions()) {
      // The rule's data, found again in the document: conditions compile in document order unless
      // sequence mode sorts them, so every condition's data is tried against every rule's reading.
      for (const KLTValue& raw : conditions) {
        const KLTValue& info = klt::valueForKey(klt::valueForKey(raw, kKLTDetails), kKLTAdditionalInfo);
        const KLTValue& triggerInfo =
            klt::valueForKey(klt::valueForKey(klt::valueForKey(raw, kKLTTrigger), kKLTDetails), kKLTAdditionalInfo);
        if (KLTCEAttributeMatcher::forTrigger(triggerInfo).matches(*event) !=
            KLTCEUtility::doesDictionary(event->additionalInfo, triggerInfo)) {
          std::abort();
        }
        (void)KLTCEAttributeMatcher::forCondition(info).failingKey(event->attributes());
      }
      (void)rule.matcher.matches(*event);
      (void)rule.trigger.matcher.matches(*event);
    }
  }
  return 0;
}
