// Throughput of the rules runtime through its public path, each beside a baseline in the same run:
// - event delivery (host registry -> onEvent -> serial queue -> match -> count) with 1, 100 and
//   1,000 listening campaigns, against posting and running the same number of empty tasks on the
//   same queue;
// - parseConfiguration of 1,000 campaigns of three conditions (persistence included), against
//   parsing the same JSON text alone.
#include <benchmark/benchmark.h>

#include "KLTContextEvaluator/KLTContextEvaluator.h"
#include "testsupport/KLTCampaignBuilder.h"
#include "testsupport/KLTTestHost.h"

using namespace kltfixture;

namespace {

constexpr int kEventsPerBatch = 64;

KLTValue listeningCampaigns(int n) {
  KLTValue configs = KLTValue::array();
  for (int i = 0; i < n; ++i) {
    // EQ 1: the first event completes each condition; later ones are matched and counted only.
    configs.push_back(campaign("bench-" + std::to_string(i),
                               KLTValue::array({eventCondition("app_event", "tap", "EQ", 1, "AND", appStartTrigger(),
                                                               {{"plan", "gold"}, {"level", 3}})})));
  }
  return KLTValue{{"configs", configs}};
}

void BM_EventPath(benchmark::State& state) {
  KLTTestHost host{2};
  host.controller().setDispatchHandler(nullptr);
  auto& evaluator = KLTContextEvaluator::sharedInstance();
  const int campaigns = static_cast<int>(state.range(0));
  evaluator.parseConfiguration(listeningCampaigns(campaigns));
  host.drainEvaluatorQueue();
  const auto event = KLTEvent::make(kKLTEventCodeApp, "tap", {{"plan", "gold"}, {"level", 3}, {"source", "bench"}});
  auto queue = evaluator.ceOpsSerialQueue();
  for (auto _ : state) {
    for (int i = 0; i < kEventsPerBatch; ++i) host.controller().deliverEvent(event);
    queue->waitUntilIdle();
  }
  state.SetItemsProcessed(state.iterations() * kEventsPerBatch * campaigns);
  state.counters["pairs_per_s"] =
      benchmark::Counter(static_cast<double>(state.iterations()) * kEventsPerBatch * campaigns, benchmark::Counter::kIsRate);
}
BENCHMARK(BM_EventPath)->Arg(1)->Arg(100)->Arg(1000)->UseRealTime();

// The same path with a decision observer installed that only counts records: the cost of building
// one record per decision.
class CountingObserver final : public KLTCEDecisionObserver {
 public:
  void onDecision(const KLTCEDecision&) override { ++records; }
  std::size_t records = 0;
};

void BM_EventPathObserved(benchmark::State& state) {
  auto& evaluator = KLTContextEvaluator::sharedInstance();
  evaluator.setDecisionObserver(std::make_shared<CountingObserver>());
  BM_EventPath(state);
  evaluator.setDecisionObserver(nullptr);
  evaluator.ceOpsSerialQueue()->waitUntilIdle();
}
BENCHMARK(BM_EventPathObserved)->Arg(100)->UseRealTime();

// Baseline: the same number of (empty) tasks through the same queue.
void BM_PostEmptyTasks(benchmark::State& state) {
  auto queue = KLTContextEvaluator::sharedInstance().ceOpsSerialQueue();
  const int64_t perBatch = kEventsPerBatch * state.range(0);
  for (auto _ : state) {
    for (int64_t i = 0; i < perBatch; ++i) queue->async([] {});
    queue->waitUntilIdle();
  }
  state.SetItemsProcessed(state.iterations() * perBatch);
}
BENCHMARK(BM_PostEmptyTasks)->Arg(1)->Arg(100)->Arg(1000)->UseRealTime();

std::string thousandCampaignsText() {
  KLTValue configs = KLTValue::array();
  for (int i = 0; i < 1000; ++i) {
    const std::string n = std::to_string(i);
    KLTValue trigger{{"event_type", "app_event"},
                     {"details", {{"name", "open-" + n}, {"additional_info", {{"source", "push"}}}}},
                     {"time_bounds", {{"lower", kAlways}, {"upper", kForever}}}};
    KLTValue c = campaign("parse-" + n, KLTValue::array({eventCondition("app_event", "view-" + n, "GTE", 2, "AND", trigger),
                                                          eventCondition("activity_event", "cart-" + n, "EQ", 1, "OR", trigger),
                                                          eventCondition("client_event", "buy-" + n, "GTE", 1, "AND", trigger,
                                                                         {{"amount", {{"t", "n"}, {"op", "GTE"}, {"val", 10}}}})}));
    c["prio"] = i % 7;
    c["frequency"] = {{"count", 3}, {"validity", "OVERALL"}, {"day_lmt", 1}};
    configs.push_back(std::move(c));
  }
  return KLTValue{{"configs", configs}}.dump();
}

void BM_ParseConfiguration1000(benchmark::State& state) {
  KLTTestHost host{2};
  const std::string text = thousandCampaignsText();
  auto& evaluator = KLTContextEvaluator::sharedInstance();
  for (auto _ : state) {
    evaluator.parseConfiguration(KLTValue::parse(text));
    host.drainEvaluatorQueue();
    state.PauseTiming();
    host.controller().removeAllListeners();  // keep the registry the size of one parse
    state.ResumeTiming();
  }
  state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(text.size()));
}
BENCHMARK(BM_ParseConfiguration1000)->Unit(benchmark::kMillisecond)->UseRealTime();

// Baseline: the JSON parse of the same text alone.
void BM_JsonParseOnly1000(benchmark::State& state) {
  const std::string text = thousandCampaignsText();
  for (auto _ : state) benchmark::DoNotOptimize(KLTValue::parse(text));
  state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(text.size()));
}
BENCHMARK(BM_JsonParseOnly1000)->Unit(benchmark::kMillisecond)->UseRealTime();

}  // namespace
