// The event path per (event, listener), beside its baseline in the same process: the bare batched
// hand-off of the same number of trivial tasks.
//
// The engine runs on a queue this thread drains (platform/KLTDrainedSerialQueue.h), as in `kltce
// run` and `kltce fleet`, so that a figure is the work of the path and not the scheduling of a
// worker thread. Each iteration delivers 64 events through the host's registry
// (KLTController::deliverEvent) and drains the queue:
// - BM_EventPath_Counted/N: N campaigns each with one condition on the event (a third with no
//   attribute rule, a third with a plain rule, a third with a typed "n" rule), all passing; the
//   conditions are EQ 1, so after the first event they are matched and counted only.
// - BM_EventPath_Completing/N: the same listeners, half of them GTE 1 conditions of campaigns
//   already shown up to their cap, so that half the pairs complete, fold, read the cap and are
//   refused (and logged "Action count limit exceeded" to a sink that drops the line), as capped
//   campaigns on a popular event are on a device.
// - the *Observed variants: the same with a decision observer installed that counts records and
//   reads every kind's values.
// - BM_Baseline_BatchedHandOff/N: per event, one KLTSerialQueue::asyncEach of N trivial tasks on
//   the same queue, drained every 64 events.
// Items are (event, listener) pairs; compare the time per item.
#include <benchmark/benchmark.h>

#include <memory>
#include <string>

#include "KLTContextEvaluator/KLTContextEvaluator.h"
#include "platform/KLTDrainedSerialQueue.h"
#include "platform/KLTLog.h"
#include "testsupport/KLTCampaignBuilder.h"
#include "testsupport/KLTTestHost.h"

using namespace kltfixture;

namespace {

constexpr int kEventsPerBatch = 64;

// Chosen before the engine's first use, which is what useSerialQueue() requires.
const bool kDrained =
    KLTContextEvaluator::useSerialQueue(std::make_shared<KLTDrainedSerialQueue>("com.kelto.serial.ce_operations"));

class DroppingSink final : public KLTLogSink {
 public:
  void write(std::string_view) override {}
  void writeLine(KLTLogLevel, std::string_view, std::string_view, int) override {}
};

class CountingObserver final : public KLTCEDecisionObserver {
 public:
  void onDecision(const KLTCEDecision&) override { ++records; }
  std::size_t records = 0;
};

KLTValue purchaseCampaigns(int n, bool completing) {
  KLTValue configs = KLTValue::array();
  for (int i = 0; i < n; ++i) {
    KLTValue rule = KLTValue::object();
    if (i % 3 == 1) rule = {{"plan", "gold"}};
    if (i % 3 == 2) rule = {{"amount", {{"t", "n"}, {"op", "GTE"}, {"val", 50}}}};
    const bool capped = completing && i % 2 == 0;
    KLTValue c = campaign("ep-" + std::to_string(i),
                          KLTValue::array({eventCondition("app_event", "purchase", capped ? "GTE" : "EQ", 1, "AND",
                                                          appStartTrigger(), std::move(rule))}));
    c["frequency"] = {{"validity", "OVERALL"}, {"count", 1}};
    configs.push_back(std::move(c));
  }
  return KLTValue{{"configs", configs}};
}

void runEventPath(benchmark::State& state, bool completing, bool observed) {
  if (!kDrained) return state.SkipWithError("the engine's queue was chosen before this benchmark");
  KLTTestHost host{2};
  host.controller().setDispatchHandler(nullptr);
  auto previousSink = KLTLog::setSink(std::make_shared<DroppingSink>());
  auto& evaluator = KLTContextEvaluator::sharedInstance();
  const int listeners = static_cast<int>(state.range(0));
  evaluator.parseConfiguration(purchaseCampaigns(listeners, completing));
  // The capped half is shown once, up to its cap of one.
  if (completing) {
    for (int i = 0; i < listeners; i += 2) evaluator.updateCountForConfigWithIdentifier("ep-" + std::to_string(i));
  }
  auto observer = std::make_shared<CountingObserver>();
  if (observed) evaluator.setDecisionObserver(observer);
  const auto event =
      KLTEvent::make(kKLTEventCodeApp, "purchase", {{"plan", "gold"}, {"amount", 120}, {"currency", "EUR"}});
  auto queue = evaluator.ceOpsSerialQueue();
  // One untimed event: EQ 1 conditions complete at their first event, a one-off.
  host.controller().deliverEvent(event);
  queue->waitUntilIdle();
  for (auto _ : state) {
    for (int i = 0; i < kEventsPerBatch; ++i) host.controller().deliverEvent(event);
    queue->waitUntilIdle();
  }
  evaluator.setDecisionObserver(nullptr);
  queue->waitUntilIdle();
  host.controller().removeAllListeners();
  KLTLog::setSink(previousSink);
  state.SetItemsProcessed(state.iterations() * kEventsPerBatch * listeners);
  if (observed) state.counters["records_per_pair"] = static_cast<double>(observer->records) /
                                                     static_cast<double>((state.iterations() + 1) * kEventsPerBatch * listeners);
}

void BM_EventPath_Counted(benchmark::State& state) { runEventPath(state, false, false); }
void BM_EventPath_CountedObserved(benchmark::State& state) { runEventPath(state, false, true); }
void BM_EventPath_Completing(benchmark::State& state) { runEventPath(state, true, false); }
void BM_EventPath_CompletingObserved(benchmark::State& state) { runEventPath(state, true, true); }

void BM_Baseline_BatchedHandOff(benchmark::State& state) {
  if (!kDrained) return state.SkipWithError("the engine's queue was chosen before this benchmark");
  auto queue = KLTContextEvaluator::sharedInstance().ceOpsSerialQueue();
  const auto listeners = static_cast<std::size_t>(state.range(0));
  std::size_t ran = 0;
  for (auto _ : state) {
    for (int i = 0; i < kEventsPerBatch; ++i) queue->asyncEach(listeners, [&ran](std::size_t) { ++ran; });
    queue->waitUntilIdle();
  }
  benchmark::DoNotOptimize(ran);
  state.SetItemsProcessed(state.iterations() * kEventsPerBatch * static_cast<int64_t>(listeners));
}

// 48: the listeners an event reaches on average in the realistic stream (bench/gen_realistic.h);
// 1,000: every campaign of a 1,000-campaign document on one event.
#define KLTCE_EVENT_PATH_ARGS Arg(48)->Arg(1000)->UseRealTime()
BENCHMARK(BM_Baseline_BatchedHandOff)->KLTCE_EVENT_PATH_ARGS;
BENCHMARK(BM_EventPath_Counted)->KLTCE_EVENT_PATH_ARGS;
BENCHMARK(BM_EventPath_CountedObserved)->KLTCE_EVENT_PATH_ARGS;
BENCHMARK(BM_EventPath_Completing)->KLTCE_EVENT_PATH_ARGS;
BENCHMARK(BM_EventPath_CompletingObserved)->KLTCE_EVENT_PATH_ARGS;

}  // namespace
