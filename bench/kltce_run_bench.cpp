// `kltce run` on a generated 1,000-campaign document and a 1,000,000-event stream (bench/
// gen_events.h), beside a baseline in the same process: a bare JSON-Lines parse of the same
// stream (one JSON parse per line, nothing else). The replay runs as the tool runs it
// (kltce::runReplay, the engine on the queue the replay drains, its log through the tool's
// buffered sink, here writing to /dev/null), with --fresh and --auto-shown.
#include <benchmark/benchmark.h>
#include <simdjson.h>

#include <fcntl.h>
#include <unistd.h>

#include <sstream>
#include <streambuf>
#include <string>

#include "bench/gen_events.h"
#include "tools/kltce/buffered_log.h"
#include "tools/kltce/replay.h"

namespace {

constexpr int kCampaigns = 1000;
constexpr int kEvents = 1'000'000;

class NullBuffer final : public std::streambuf {
 protected:
  int overflow(int c) override { return c; }
  std::streamsize xsputn(const char*, std::streamsize n) override { return n; }
};

const std::string& stream() {
  static const std::string text = genevents::eventStream(kCampaigns, kEvents);
  return text;
}

void BM_KltceRun_1000Campaigns_1MEvents(benchmark::State& state) {
  kltce::ReplayOptions options;
  options.document = std::make_shared<const KLTValue>(genevents::campaignDocument(kCampaigns));
  options.profile.deviceModel = "iPhone14,2";
  options.profile.appVersion = "1.0";
  options.fresh = true;
  options.autoShown = true;
  const std::string& text = stream();
  const int devNull = ::open("/dev/null", O_WRONLY);
  auto previous = KLTLog::setSink(std::make_shared<kltce::BufferedLogSink>(devNull));
  kltce::ReplayResult result;
  for (auto _ : state) {
    std::istringstream in(text);
    NullBuffer nothing;
    std::ostream out(&nothing), err(&nothing);
    result = kltce::runReplay(options, in, out, err);
    if (result.exitCode != 0 || result.events != static_cast<std::size_t>(kEvents)) state.SkipWithError("replay failed");
  }
  KLTLog::setSink(previous);
  ::close(devNull);
  state.SetItemsProcessed(state.iterations() * kEvents);
  state.counters["displays"] = static_cast<double>(result.displays);
}
BENCHMARK(BM_KltceRun_1000Campaigns_1MEvents)->Unit(benchmark::kMillisecond)->Iterations(1)->UseRealTime();

void BM_Baseline_JsonLinesParse_1MEvents(benchmark::State& state) {
  const std::string& text = stream();
  for (auto _ : state) {
    std::istringstream in(text);
    std::string line;
    std::size_t objects = 0;
    while (std::getline(in, line)) objects += KLTValue::parse(line, nullptr, false).is_object();
    benchmark::DoNotOptimize(objects);
  }
  state.SetItemsProcessed(state.iterations() * kEvents);
}
BENCHMARK(BM_Baseline_JsonLinesParse_1MEvents)->Unit(benchmark::kMillisecond)->Iterations(1)->UseRealTime();

// A second baseline, for scale: simdjson's own parse of each line, building no value at all.
void BM_Baseline_SimdjsonLinesParse_1MEvents(benchmark::State& state) {
  simdjson::dom::parser parser;
  for (auto _ : state) {
    std::istringstream in(stream());
    std::string line;
    std::size_t objects = 0;
    while (std::getline(in, line)) objects += parser.parse(line).is_object();
    benchmark::DoNotOptimize(objects);
  }
  state.SetItemsProcessed(static_cast<int64_t>(state.iterations()) * kEvents);
}
BENCHMARK(BM_Baseline_SimdjsonLinesParse_1MEvents)->Unit(benchmark::kMillisecond)->Iterations(1)->UseRealTime();

}  // namespace
