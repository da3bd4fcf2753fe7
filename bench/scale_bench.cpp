// Cost of a large configuration, each beside a baseline taken in the same run:
// - BM_StartUpParse/N: parseConfiguration of N generated campaigns with their counters persisted on
//   a temporary SQLite store, against BM_BareJsonParse/N, the JSON parse of the same text alone.
//   The counter peak_bytes is the largest heap in use during the iteration above what was in use
//   before it (measured by counting every operator new/delete of the process); bare_doc_bytes is
//   the heap the bare parsed document holds. BM_StartUpParseInMemory/N: the same parse with the
//   counters in a memory-only store, the engine's share of the cost without the store's.
// - BM_StartUpParseRealistic/N and BM_BareJsonParseRealistic/N: the same two on the realistic
//   document of bench/gen_realistic.h (many campaigns listening to the same few popular events).
// - BM_DisplayCounted/N: one display counted (updateCountForConfigWithIdentifier) after a parse of
//   N campaigns, on the campaign parsed last, whose copy of the counter map is the stored one,
//   after one untimed display, over at least half a second of displays.
#include <benchmark/benchmark.h>

#include <atomic>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <new>

#include "KLTContextEvaluator/KLTContextEvaluator.h"
#include "bench/gen_realistic.h"
#include "testsupport/KLTCampaignBuilder.h"
#include "testsupport/KLTTestHost.h"

using namespace kltfixture;

namespace {

std::atomic<int64_t> gInUse{0};
std::atomic<int64_t> gPeak{0};

void noteAlloc(std::size_t n) {
  const int64_t now = gInUse += static_cast<int64_t>(n);
  int64_t peak = gPeak.load();
  while (now > peak && !gPeak.compare_exchange_weak(peak, now)) {
  }
}
void resetPeak() { gPeak = gInUse.load(); }

}  // namespace

// Every allocation carries its size in a header, so that frees can be counted too.
void* operator new(std::size_t n) {
  auto* p = static_cast<std::size_t*>(std::malloc(n + 16));
  if (!p) throw std::bad_alloc();
  *p = n;
  noteAlloc(n);
  return reinterpret_cast<char*>(p) + 16;
}
void operator delete(void* p) noexcept {
  if (!p) return;
  auto* h = reinterpret_cast<std::size_t*>(static_cast<char*>(p) - 16);
  gInUse -= static_cast<int64_t>(*h);
  std::free(h);
}
void operator delete(void* p, std::size_t) noexcept { operator delete(p); }

namespace {

// Campaigns of every kind: in-app, survey and inline; combined and sequence; caps of each validity
// (session, overall, none, lower-case, no cap); daily windows; event and timer conditions.
std::string generatedDocument(int n) {
  static const char* kTypes[] = {"IN_APP", "SURVEY", "IN_LINE"};
  static const KLTValue kCaps[] = {{{"count", 3}, {"validity", "SESSION"}},
                                   {{"count", 5}, {"validity", "OVERALL"}, {"day_lmt", 1}, {"time_interval", 3600}},
                                   {{"count", 2}, {"ses_lmt", 4}},
                                   {{"count", 0}, {"validity", "session"}},
                                   KLTValue()};
  KLTValue configs = KLTValue::array();
  for (int i = 0; i < n; ++i) {
    const std::string id = "c" + std::to_string(i);
    KLTValue conditions = KLTValue::array({eventCondition("app_event", "view-" + id, "GTE", 2, "AND", appStartTrigger(),
                                                          {{"plan", "gold"}}),
                                           eventCondition("client_event", "buy-" + id, "EQ", 1, i % 3 ? "AND" : "OR")});
    if (i % 4 == 0) conditions.push_back(timerCondition("timer_event", 30000));
    KLTValue c = campaign(id, std::move(conditions), kTypes[i % 3]);
    c["prio"] = i % 7;
    c["sequence_enabled"] = i % 2 == 0;
    if (!kCaps[i % 5].is_null()) c["frequency"] = kCaps[i % 5];
    if (i % 3 == 0) {
      c["time_limits_in_day"] = true;
      c["time_limits"] = {{"start_time", "08:00"}, {"end_time", "22:30"}};
    }
    configs.push_back(std::move(c));
  }
  return KLTValue{{"configs", std::move(configs)}}.dump();
}

std::string realisticDocument(int n) {
  genrealistic::Options options;
  options.campaigns = n;
  return genrealistic::campaignDocument(options).value.dump();
}

void runBareJsonParse(benchmark::State& state, const std::string& text) {
  int64_t held = 0;
  for (auto _ : state) {
    const int64_t before = gInUse;
    KLTValue doc = KLTValue::parse(text);
    held = gInUse - before;
    benchmark::DoNotOptimize(doc);
  }
  state.counters["bare_doc_bytes"] = static_cast<double>(held);
}

void BM_BareJsonParse(benchmark::State& state) { runBareJsonParse(state, generatedDocument(static_cast<int>(state.range(0)))); }
BENCHMARK(BM_BareJsonParse)->Arg(1000)->Arg(10000)->Unit(benchmark::kMillisecond)->UseRealTime();

// The start-up parse until the evaluator's queue is idle; with persisted false the counters live in
// a memory-only store, which leaves the engine's own share of the cost.
void runStartUpParse(benchmark::State& state, bool persisted, const std::string& text) {
  KLTTestHost host{2};
  if (!persisted) KLTUserDefaults::setStandardUserDefaults(std::make_shared<KLTUserDefaults>(std::filesystem::path{}));
  auto& evaluator = KLTContextEvaluator::sharedInstance();
  int64_t peak = 0;
  for (auto _ : state) {
    const int64_t before = gInUse;
    resetPeak();
    evaluator.parseConfiguration(KLTValue::parse(text));
    host.drainEvaluatorQueue();
    peak = gPeak - before;
    state.PauseTiming();
    host.controller().removeAllListeners();  // keep the registry the size of one parse
    state.ResumeTiming();
  }
  state.counters["peak_bytes"] = static_cast<double>(peak);
}

void BM_StartUpParse(benchmark::State& state) {
  runStartUpParse(state, true, generatedDocument(static_cast<int>(state.range(0))));
}
BENCHMARK(BM_StartUpParse)->Arg(1000)->Arg(10000)->Unit(benchmark::kMillisecond)->UseRealTime();
void BM_StartUpParseInMemory(benchmark::State& state) {
  runStartUpParse(state, false, generatedDocument(static_cast<int>(state.range(0))));
}
BENCHMARK(BM_StartUpParseInMemory)->Arg(1000)->Arg(10000)->Unit(benchmark::kMillisecond)->UseRealTime();

void BM_BareJsonParseRealistic(benchmark::State& state) { runBareJsonParse(state, realisticDocument(static_cast<int>(state.range(0)))); }
BENCHMARK(BM_BareJsonParseRealistic)->Arg(10000)->Unit(benchmark::kMillisecond)->UseRealTime();
void BM_StartUpParseRealistic(benchmark::State& state) {
  runStartUpParse(state, true, realisticDocument(static_cast<int>(state.range(0))));
}
BENCHMARK(BM_StartUpParseRealistic)->Arg(10000)->Unit(benchmark::kMillisecond)->UseRealTime();

void BM_DisplayCounted(benchmark::State& state) {
  KLTTestHost host{2};
  const int n = static_cast<int>(state.range(0));
  auto& evaluator = KLTContextEvaluator::sharedInstance();
  evaluator.parseConfiguration(KLTValue::parse(generatedDocument(n)));
  host.drainEvaluatorQueue();
  const std::string last = "c" + std::to_string(n - 1);
  // One display first: its commit checkpoints the log the parse left (N rows), a one-off cost of
  // the parse, not of a display.
  evaluator.updateCountForConfigWithIdentifier(last);
  host.drainEvaluatorQueue();
  for (auto _ : state) {
    evaluator.updateCountForConfigWithIdentifier(last);
    host.drainEvaluatorQueue();
  }
  host.controller().removeAllListeners();
}
// At least half a second of displays per run: the log the parse wrote is folded into the file by
// one checkpoint during the first few hundred commits after it, a one-off cost of the parse that
// would otherwise weigh on a handful of timed displays (about 50 ms at 10,000 campaigns).
BENCHMARK(BM_DisplayCounted)->Arg(10)->Arg(10000)->MinTime(0.5)->Unit(benchmark::kMicrosecond)->UseRealTime();

}  // namespace
