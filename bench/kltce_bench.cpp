// kltce replay throughput: a generated stream of 1,000,000 events (a week of one busy device)
// replayed against the shipped example document, beside a baseline that only reads the same lines.
#include <benchmark/benchmark.h>

#include <sstream>
#include <streambuf>
#include <string>

#include "platform/KLTLog.h"
#include "tools/kltce/input/json_text.h"
#include "tools/kltce/input/stream_line.h"
#include "tools/kltce/replay/explain.h"
#include "tools/kltce/replay/replay.h"

namespace {

constexpr int kEvents = 1'000'000;

// Discards what the replay writes.
class NullBuffer final : public std::streambuf {
 protected:
  int overflow(int c) override { return c; }
  std::streamsize xsputn(const char*, std::streamsize n) override { return n; }
};

class NullSink final : public KLTLogSink {
 public:
  void write(std::string_view) override {}
};

// A repeating session: screens, purchases, orders, reading, presence and events no campaign
// listens to, one every 500 ms from 2026-11-22T07:00Z; "shown" after each display-prone step.
const std::string& stream() {
  static const std::string text = [] {
    const char* pattern[] = {
        R"("type":"activity","name":"Home")",
        R"("type":"app","name":"scroll","attributes":{"depth":3})",
        R"("type":"app","name":"purchase","attributes":{"plan":"gold","amount":49})",
        R"("type":"presence")",
        R"("type":"activity","name":"Home")",
        R"("type":"activity","name":"Product")",
        R"("type":"activity","name":"Checkout")",
        R"("type":"app","name":"order_completed")",
        R"("type":"activity","name":"Articles")",
        R"("type":"client","name":"article_read","attributes":{"slug":"a"})",
        R"("type":"client","name":"article_read","attributes":{"slug":"b"})",
        R"("type":"client","name":"article_read","attributes":{"slug":"c"})",
        R"("type":"app","name":"video_play","attributes":{"id":17})",
        R"("type":"presence")",
        R"("type":"activity","name":"Settings")",
        R"("type":"client","name":"sync")",
    };
    constexpr int64_t start = 1795330800000;  // 2026-11-22T07:00:00Z
    std::string out;
    out.reserve(static_cast<std::size_t>(kEvents) * 80);
    for (int i = 0; i < kEvents; ++i) {
      out += "{\"t\":" + std::to_string(start + int64_t{i} * 500) + "," + pattern[i % std::size(pattern)] + "}\n";
    }
    return out;
  }();
  return text;
}

kltce::ReplayOptions exampleOptions() {
  const std::string dir = std::string(KLTCE_SOURCE_DIR) + "/examples/";
  kltce::ReplayOptions o;
  o.document = std::make_shared<const KLTValue>(kltce::loadJsonFile(dir + "campaigns.json").value);
  o.profile = kltce::parseProfile(kltce::loadJsonFile(dir + "profile.json").value).profile;
  o.fresh = true;       // counters in memory
  o.autoShown = true;   // the cap moves as on a device that shows what it is asked to
  return o;
}

void BM_KltceReplay_1MEvents(benchmark::State& state) {
  const std::string& text = stream();
  const auto options = exampleOptions();
  auto previous = KLTLog::setSink(std::make_shared<NullSink>());
  std::size_t displays = 0;
  for (auto _ : state) {
    std::istringstream in(text);
    NullBuffer nothing;
    std::ostream out(&nothing), err(&nothing);
    const auto result = kltce::runReplay(options, in, out, err);
    displays = result.displays;
    if (result.exitCode != 0 || result.events != static_cast<std::size_t>(kEvents)) state.SkipWithError("replay failed");
  }
  KLTLog::setSink(previous);
  state.SetItemsProcessed(state.iterations() * kEvents);
  state.counters["displays"] = static_cast<double>(displays);
}
BENCHMARK(BM_KltceReplay_1MEvents)->Unit(benchmark::kMillisecond)->Iterations(1)->UseRealTime();

// The same replay with --explain: every decision recorded, the account and summary written.
void BM_KltceReplayExplain_1MEvents(benchmark::State& state) {
  const std::string& text = stream();
  const auto options = exampleOptions();
  auto previous = KLTLog::setSink(std::make_shared<NullSink>());
  for (auto _ : state) {
    std::istringstream in(text);
    NullBuffer nothing;
    std::ostream out(&nothing), err(&nothing);
    const auto result = kltce::runReplayWithDecisions(options, {true, nullptr}, in, out, err, err);
    if (result.exitCode != 0 || result.events != static_cast<std::size_t>(kEvents)) state.SkipWithError("replay failed");
  }
  KLTLog::setSink(previous);
  state.SetItemsProcessed(state.iterations() * kEvents);
}
BENCHMARK(BM_KltceReplayExplain_1MEvents)->Unit(benchmark::kMillisecond)->Iterations(1)->UseRealTime();

// Baseline: reading and checking the same lines, without the engine.
void BM_Baseline_ReadLines_1MEvents(benchmark::State& state) {
  const std::string& text = stream();
  for (auto _ : state) {
    std::istringstream in(text);
    std::string line;
    std::size_t ok = 0;
    while (std::getline(in, line)) ok += kltce::parseStreamLine(line).line.has_value();
    benchmark::DoNotOptimize(ok);
  }
  state.SetItemsProcessed(state.iterations() * kEvents);
}
BENCHMARK(BM_Baseline_ReadLines_1MEvents)->Unit(benchmark::kMillisecond)->Iterations(1)->UseRealTime();

}  // namespace
