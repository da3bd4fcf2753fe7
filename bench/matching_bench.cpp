// Attribute matching of one event and admission of one campaign, the per-event and per-campaign
// costs of the rules engine. The baseline is the bare cost of finding the rule's five keys in the
// event's twenty, which every matcher pays at least.
#include <string>
#include <string_view>

#include <benchmark/benchmark.h>

#include "KLTContextEvaluator/KLTCEAttributeMatcher.h"
#include "KLTContextEvaluator/KLTCEUtility.h"
#include "KLTContextEvaluator/KLTContextEvaluator.h"
#include "testsupport/KLTTestHost.h"

namespace {

// Twenty attributes of mixed kinds; the matched ones sit late in the key order, as a worst case
// for the linear key search of an ordered dictionary.
KLTValue twentyKeyEvent() {
  KLTValue event = KLTValue::object();
  for (int i = 0; i < 15; ++i) event["attribute_" + std::to_string(i)] = "value_" + std::to_string(i);
  event["screen"] = "checkout";
  event["amount"] = 250;
  event["currency"] = "EUR";
  event["paid"] = true;
  event["tags"] = KLTValue::array({"new", "promo", "mobile"});
  return event;
}

const char* const kRuleKeys[] = {"screen", "amount", "currency", "paid", "tags"};

void BM_Baseline_FiveKeyLookups(benchmark::State& state) {
  const KLTValue event = twentyKeyEvent();
  for (auto _ : state) {
    for (const char* key : kRuleKeys) benchmark::DoNotOptimize(&klt::valueForKey(event, key));
  }
}
BENCHMARK(BM_Baseline_FiveKeyLookups);

// A condition's attribute rules, read once as the engine reads them, matched against an event.
void BM_AttributeRules_5Of20(benchmark::State& state) {
  const KLTValue event = twentyKeyEvent();
  const KLTValue data = KLTValue::parse(R"({
    "screen": "checkout",
    "amount": {"t": "n", "op": "GTE", "val": 100},
    "currency": {"t": "s", "op": "EQ", "val": "EUR"},
    "paid": {"t": "b", "op": "EQ", "val": true},
    "tags": "promo"
  })");
  const KLTCEAttributeMatcher rules = KLTCEAttributeMatcher::forCondition(data);
  bool result = false;
  for (auto _ : state) {
    result = rules.matches(event);
    benchmark::DoNotOptimize(result);
  }
  if (!result) state.SkipWithError("the rule should match");
}
BENCHMARK(BM_AttributeRules_5Of20);

void BM_DoesDictionary_5Of20(benchmark::State& state) {
  const KLTValue event = twentyKeyEvent();
  const KLTValue data = KLTValue::parse(R"({
    "screen": "checkout", "amount": 250, "currency": "EUR", "paid": true, "tags": ["promo", "new"]
  })");
  bool result = false;
  for (auto _ : state) {
    result = KLTCEUtility::doesDictionary(event, data);
    benchmark::DoNotOptimize(result);
  }
  if (!result) state.SkipWithError("the data should match");
}
BENCHMARK(BM_DoesDictionary_5Of20);

// A campaign with every audience restriction, two attribute rules, validity dates and two
// conditions, admitted on the test host; nothing is logged (LOG_LEVEL 4).
void BM_CheckConfiguration_TypicalCampaign(benchmark::State& state) {
  (void)KLTContextEvaluator::sharedInstance();
  KLTTestHost host(4);
  host.controller().user()->setUserAttributes(KLTValue::parse(R"({"tier": "gold", "langs": ["en", "fr"]})"));
  host.controller().session()->setSessionAttributes(KLTValue::parse(R"({"city": "Paris"})"));
  const KLTValue config = KLTValue::parse(R"({
    "_id": "summer-sale", "prio": 3, "enabled": true,
    "audience": {
      "hw": {"val": "iPhone14,2"},
      "ver": {"val": "1.0", "op": "GTE"},
      "audience_type": "ALL",
      "attributes": {
        "user": [{"name": "tier", "value": ["gold", "platinum"], "operator": "EQ"},
                 {"name": "langs", "value": ["fr"], "operator": "EQ"}],
        "session": [{"name": "city", "value": ["Lyon"], "operator": "NEQ"}]
      }
    },
    "validity": {"start_date": "2025-06-01T00:00:00Z", "end_date": "2026-12-31T23:59:59Z"},
    "frequency": {"count": 3, "ses_lmt": 1, "day_lmt": 2},
    "conditions": [
      {"sequence": 1, "combine_operator": "AND", "activity": "checkout", "event_type": "app_event",
       "details": {"additional_info": {"amount": {"t": "n", "op": "GTE", "val": 100}}},
       "trigger": {"activity": "app_start", "details": {"additional_info": {}}}},
      {"sequence": 2, "combine_operator": "OR", "activity": "home", "event_type": "activity_event",
       "details": {"additional_info": {}},
       "trigger": {"activity": "cart", "event_type": "app_event", "details": {"additional_info": {"items": 2}}}}
    ],
    "meta": {"type": "IN_APP", "subtype": "banner"}
  })");
  const KLTContextEvaluator& evaluator = KLTContextEvaluator::sharedInstance();
  bool result = false;
  for (auto _ : state) {
    result = evaluator.checkConfiguration(config);
    benchmark::DoNotOptimize(result);
  }
  if (!result) state.SkipWithError("the campaign should be admitted");
}
BENCHMARK(BM_CheckConfiguration_TypicalCampaign);

}  // namespace
