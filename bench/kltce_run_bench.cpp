// `kltce run` on two generated 1,000-campaign documents and their streams, each beside baselines in
// the same process that only parse the same JSON Lines (one parse per line, nothing else):
// - the one-listener shape (bench/gen_events.h): 1,000,000 events, each reaching one listener;
// - the realistic shape (bench/gen_realistic.h): 200,000 host events (and their sessions' lines)
//   with a skewed popularity, about 48 listeners per event and capped campaigns that keep
//   completing, each refusal logged as on a device.
// The replay runs as the tool runs it (kltce::runReplay, the engine on the queue the replay
// drains, its log through the tool's buffered sink, here writing to /dev/null), with --fresh and
// --auto-shown. Baselines: the JSON library's parse of each line into a value; simdjson's DOM parse
// of each line; simdjson's on-demand parse of each line reading every key and value ("t", "type",
// "name", "action" and each attribute), so that nothing is elided.
#include <benchmark/benchmark.h>
#include <simdjson.h>

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <sstream>
#include <streambuf>
#include <string>

#include "bench/gen_events.h"
#include "bench/gen_realistic.h"
#include "tools/kltce/input/profile.h"
#include "tools/kltce/replay/buffered_log.h"
#include "tools/kltce/replay/replay.h"

namespace {

constexpr int kCampaigns = 1000;
constexpr int kEvents = 1'000'000;
constexpr int kRealisticEvents = 200'000;

class NullBuffer final : public std::streambuf {
 protected:
  int overflow(int c) override { return c; }
  std::streamsize xsputn(const char*, std::streamsize n) override { return n; }
};

const std::string& stream() {
  static const std::string text = genevents::eventStream(kCampaigns, kEvents);
  return text;
}

genrealistic::Options realisticOptions() {
  genrealistic::Options o;
  o.campaigns = kCampaigns;
  o.events = kRealisticEvents;
  return o;
}

const std::string& realisticStream() {
  static const std::string text = genrealistic::eventStream(realisticOptions());
  return text;
}

std::size_t lineCount(const std::string& text) { return static_cast<std::size_t>(std::count(text.begin(), text.end(), '\n')); }

// Replays text against the options' document as `kltce run --fresh --auto-shown` does.
void runReplayBenchmark(benchmark::State& state, kltce::ReplayOptions options, const std::string& text, std::size_t events) {
  options.fresh = true;
  options.autoShown = true;
  const int devNull = ::open("/dev/null", O_WRONLY);
  auto previous = KLTLog::setSink(std::make_shared<kltce::BufferedLogSink>(devNull));
  kltce::ReplayResult result;
  for (auto _ : state) {
    std::istringstream in(text);
    NullBuffer nothing;
    std::ostream out(&nothing), err(&nothing);
    result = kltce::runReplay(options, in, out, err);
    if (result.exitCode != 0 || result.events != events) state.SkipWithError("replay failed");
  }
  KLTLog::setSink(previous);
  ::close(devNull);
  state.SetItemsProcessed(state.iterations() * static_cast<int64_t>(events));
  state.counters["displays"] = static_cast<double>(result.displays);
}

void BM_KltceRun_1000Campaigns_1MEvents(benchmark::State& state) {
  kltce::ReplayOptions options;
  options.document = std::make_shared<const KLTValue>(genevents::campaignDocument(kCampaigns));
  options.profile.deviceModel = "iPhone14,2";
  options.profile.appVersion = "1.0";
  runReplayBenchmark(state, std::move(options), stream(), kEvents);
}
BENCHMARK(BM_KltceRun_1000Campaigns_1MEvents)->Unit(benchmark::kMillisecond)->Iterations(1)->UseRealTime();

// Items: host events (200,000); the stream's new_session lines are read and handled on top.
void BM_KltceRun_Realistic_1000Campaigns_200kEvents(benchmark::State& state) {
  kltce::ReplayOptions options;
  options.document = std::make_shared<const KLTValue>(genrealistic::campaignDocument(realisticOptions()).value);
  options.profile = kltce::parseProfile(genrealistic::profile()).profile;
  runReplayBenchmark(state, std::move(options), realisticStream(), kRealisticEvents);
}
BENCHMARK(BM_KltceRun_Realistic_1000Campaigns_200kEvents)->Unit(benchmark::kMillisecond)->Iterations(1)->UseRealTime();

// Baseline: the JSON library's parse of each line into a value.
void jsonLinesParse(benchmark::State& state, const std::string& text, std::size_t items) {
  for (auto _ : state) {
    std::istringstream in(text);
    std::string line;
    std::size_t objects = 0;
    while (std::getline(in, line)) objects += KLTValue::parse(line, nullptr, false).is_object();
    benchmark::DoNotOptimize(objects);
  }
  state.SetItemsProcessed(state.iterations() * static_cast<int64_t>(items));
}

// A second baseline, for scale: simdjson's DOM parse of each line, building no value of ours.
void simdjsonLinesParse(benchmark::State& state, const std::string& text, std::size_t items) {
  simdjson::dom::parser parser;
  for (auto _ : state) {
    std::istringstream in(text);
    std::string line;
    std::size_t objects = 0;
    while (std::getline(in, line)) objects += parser.parse(line).is_object();
    benchmark::DoNotOptimize(objects);
  }
  state.SetItemsProcessed(state.iterations() * static_cast<int64_t>(items));
}

// One scalar or object of a line, read whole: strings as views, numbers as numbers, objects field
// by field. Returns a checksum, so that nothing read can be left out.
uint64_t readValue(simdjson::ondemand::value value) {
  simdjson::ondemand::json_type type;
  if (value.type().get(type)) return 0;
  switch (type) {
    case simdjson::ondemand::json_type::object: {
      uint64_t sum = 0;
      for (auto field : value.get_object()) {
        std::string_view key;
        if (field.unescaped_key().get(key)) return 0;
        sum += key.size() + readValue(field.value());
      }
      return sum;
    }
    case simdjson::ondemand::json_type::string: {
      std::string_view text;
      return value.get_string().get(text) ? 0 : text.size();
    }
    case simdjson::ondemand::json_type::number: {
      simdjson::ondemand::number number;
      if (value.get_number().get(number)) return 0;
      return number.is_int64() ? static_cast<uint64_t>(number.get_int64()) : static_cast<uint64_t>(number.as_double());
    }
    case simdjson::ondemand::json_type::boolean: {
      bool b = false;
      return value.get_bool().get(b) ? 0 : b;
    }
    default:
      return 1;
  }
}

// The baseline the issue names: simdjson's on-demand parse of each line, reading "t", "type",
// "name", "action" and each attribute's key and value (every field of the line, at every depth).
void simdjsonOnDemandLines(benchmark::State& state, const std::string& text, std::size_t items) {
  simdjson::ondemand::parser parser;
  for (auto _ : state) {
    std::istringstream in(text);
    std::string line;
    uint64_t sum = 0;
    while (std::getline(in, line)) {
      line.reserve(line.size() + simdjson::SIMDJSON_PADDING);  // the on-demand parser reads past the end
      simdjson::ondemand::document doc;
      if (parser.iterate(line.data(), line.size(), line.capacity()).get(doc)) continue;
      simdjson::ondemand::object object;
      if (doc.get_object().get(object)) continue;
      for (auto field : object) {
        std::string_view key;
        if (field.unescaped_key().get(key)) break;
        sum += key.size() + readValue(field.value());
      }
    }
    benchmark::DoNotOptimize(sum);
  }
  state.SetItemsProcessed(state.iterations() * static_cast<int64_t>(items));
}

void BM_Baseline_JsonLinesParse_1MEvents(benchmark::State& state) { jsonLinesParse(state, stream(), kEvents); }
BENCHMARK(BM_Baseline_JsonLinesParse_1MEvents)->Unit(benchmark::kMillisecond)->Iterations(1)->UseRealTime();
void BM_Baseline_SimdjsonLinesParse_1MEvents(benchmark::State& state) { simdjsonLinesParse(state, stream(), kEvents); }
BENCHMARK(BM_Baseline_SimdjsonLinesParse_1MEvents)->Unit(benchmark::kMillisecond)->Iterations(1)->UseRealTime();
void BM_Baseline_SimdjsonOnDemand_1MEvents(benchmark::State& state) { simdjsonOnDemandLines(state, stream(), kEvents); }
BENCHMARK(BM_Baseline_SimdjsonOnDemand_1MEvents)->Unit(benchmark::kMillisecond)->Iterations(1)->UseRealTime();

void BM_Baseline_JsonLinesParse_Realistic200kEvents(benchmark::State& state) {
  jsonLinesParse(state, realisticStream(), kRealisticEvents);
  state.counters["lines"] = static_cast<double>(lineCount(realisticStream()));
}
BENCHMARK(BM_Baseline_JsonLinesParse_Realistic200kEvents)->Unit(benchmark::kMillisecond)->Iterations(1)->UseRealTime();
void BM_Baseline_SimdjsonOnDemand_Realistic200kEvents(benchmark::State& state) {
  simdjsonOnDemandLines(state, realisticStream(), kRealisticEvents);
}
BENCHMARK(BM_Baseline_SimdjsonOnDemand_Realistic200kEvents)->Unit(benchmark::kMillisecond)->Iterations(1)->UseRealTime();

}  // namespace
