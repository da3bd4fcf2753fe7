// `kltce fleet` on a generated fleet (examples/fleet/fleet_gen.h) with the example document
// (examples/campaigns.json), beside baselines run in the same process:
// - events/s of one process replaying 10,000 devices x 100 events from a file, against a bare JSON
//   Lines parse of the same text in memory (one JSON parse per line, nothing else);
// - the wall time of two worker processes against one, on the same fleet in a file;
// - the peak resident memory of a worker (a process of its own, measured by the kernel) for fleets of
//   1,000, 10,000 and 100,000 devices of 10 events: it must not grow with the fleet.
// - the same on a fleet shaped like a week of real sessions: 30,000 devices of 3 to 40 lines (about
//   23 on average), against simdjson's parse of the same lines;
// - the wall time of 2 and 3 worker threads against 1 on each fleet, and the peak resident memory
//   of 1 and 2 workers.
// Each case runs once per repetition; run with --benchmark_repetitions=3 for medians and spread.
#include <benchmark/benchmark.h>
#include <simdjson.h>

#include <fcntl.h>
#include <spawn.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "examples/fleet/fleet_gen.h"
#include "tools/kltce/fleet/fleet.h"
#include "tools/kltce/fleet/fleet_command.h"
#include "tools/kltce/input/json_text.h"

namespace {

constexpr uint64_t kDevices = 10'000;
constexpr uint64_t kEvents = 100;

std::string fleetText(uint64_t devices, uint64_t events) {
  fleetgen::FleetRandom r{42};
  std::string out;
  for (uint64_t d = 0; d < devices; ++d) fleetgen::appendDevice(r, d, events, out);
  return out;
}

const std::string& fleet() {
  static const std::string text = fleetText(kDevices, kEvents);
  return text;
}

constexpr uint64_t kShortDevices = 30'000;
constexpr uint64_t kShort = 0;  // events: "short", 2 to 39 events after the profile line

// Events of device d of a fleet: `events`, or for the short shape 2 to 39 spread evenly.
uint64_t eventsOf(uint64_t d, uint64_t events) { return events == kShort ? 2 + (d * 7919) % 38 : events; }

// The fleet in a file, as `kltce fleet` reads it.
std::string fleetFile(uint64_t devices, uint64_t events) {
  const std::string shape = events == kShort ? std::string("short") : std::to_string(events);
  const std::string path = (std::filesystem::temp_directory_path() /
                            ("kltce_fleet_bench_" + std::to_string(devices) + "x" + shape + ".jsonl"))
                               .string();
  if (std::filesystem::exists(path)) return path;
  std::ofstream file(path);
  fleetgen::FleetRandom r{42};
  std::string chunk;
  for (uint64_t d = 0; d < devices; ++d) {
    fleetgen::appendDevice(r, d, eventsOf(d, events), chunk);
    if (chunk.size() > (1 << 20) || d + 1 == devices) {
      file << chunk;
      chunk.clear();
    }
  }
  return path;
}

const std::string kDocument = KLTCE_SOURCE_DIR "/examples/campaigns.json";

kltce::FleetOptions options() {
  kltce::FleetOptions o;
  o.document = kltce::loadJsonFile(kDocument).value;
  return o;
}

void BM_Fleet_OneProcess_10kDevicesX100Events(benchmark::State& state) {
  const kltce::FleetOptions o = options();
  uint64_t events = 0;
  // Read from a file, as `kltce fleet` reads it (a stream over the text in memory would add a
  // copy of the whole text to each repetition); the file is written once, outside any timing.
  const std::string path = fleetFile(kDevices, kEvents);
  for (auto _ : state) {
    std::ifstream in(path);
    const kltce::FleetResult r = kltce::replayFleet(o, in);
    if (r.exitCode != 0 || r.summary.devices() != kDevices) state.SkipWithError("fleet failed");
    events = r.summary.events();
  }
  state.SetItemsProcessed(static_cast<int64_t>(state.iterations() * events));
}
BENCHMARK(BM_Fleet_OneProcess_10kDevicesX100Events)->Unit(benchmark::kMillisecond)->Iterations(1)->UseRealTime();

void BM_Baseline_JsonLinesParse_10kDevicesX100Events(benchmark::State& state) {
  fleet();  // generated once, outside any timing
  for (auto _ : state) {
    std::istringstream in(fleet());
    std::string line;
    std::size_t objects = 0;
    while (std::getline(in, line)) objects += KLTValue::parse(line, nullptr, false).is_object();
    benchmark::DoNotOptimize(objects);
  }
  state.SetItemsProcessed(static_cast<int64_t>(state.iterations() * kDevices * kEvents));
}
BENCHMARK(BM_Baseline_JsonLinesParse_10kDevicesX100Events)->Unit(benchmark::kMillisecond)->Iterations(1)->UseRealTime();

// A second baseline, for scale: simdjson's own parse of each line, building no value at all.
void BM_Baseline_SimdjsonLinesParse_10kDevicesX100Events(benchmark::State& state) {
  simdjson::dom::parser parser;
  fleet();  // generated once, outside any timing
  for (auto _ : state) {
    std::istringstream in(fleet());
    std::string line;
    std::size_t objects = 0;
    while (std::getline(in, line)) objects += parser.parse(line).is_object();
    benchmark::DoNotOptimize(objects);
  }
  state.SetItemsProcessed(static_cast<int64_t>(state.iterations()) * kDevices * kEvents);
}
BENCHMARK(BM_Baseline_SimdjsonLinesParse_10kDevicesX100Events)->Unit(benchmark::kMillisecond)->Iterations(1)->UseRealTime();

// The short-device fleet, one worker, from a file; items are the file's lines.
void BM_Fleet_OneProcess_30kShortDevices(benchmark::State& state) {
  const kltce::FleetOptions o = options();
  const std::string path = fleetFile(kShortDevices, kShort);
  uint64_t lines = 0;
  for (uint64_t d = 0; d < kShortDevices; ++d) lines += 1 + eventsOf(d, kShort);
  for (auto _ : state) {
    std::ifstream in(path);
    const kltce::FleetResult r = kltce::replayFleet(o, in);
    if (r.exitCode != 0 || r.summary.devices() != kShortDevices) state.SkipWithError("fleet failed");
  }
  state.SetItemsProcessed(static_cast<int64_t>(state.iterations() * lines));
}
BENCHMARK(BM_Fleet_OneProcess_30kShortDevices)->Unit(benchmark::kMillisecond)->Iterations(1)->UseRealTime();

// simdjson's on-demand parse of every line of a fleet file, reading each field at every depth (the
// replay needs every value), from the same file: the least any reading of the fleet costs.
uint64_t countFields(simdjson::ondemand::value v) {
  uint64_t n = 1;
  switch (v.type()) {
    case simdjson::ondemand::json_type::object:
      for (auto field : v.get_object()) {
        std::string_view key = field.unescaped_key();
        benchmark::DoNotOptimize(key);
        n += countFields(field.value());
      }
      break;
    case simdjson::ondemand::json_type::array:
      for (auto item : v.get_array()) n += countFields(item.value());
      break;
    case simdjson::ondemand::json_type::string: {
      std::string_view text = v.get_string();
      benchmark::DoNotOptimize(text);
      break;
    }
    case simdjson::ondemand::json_type::number: {
      double x = v.get_double();
      benchmark::DoNotOptimize(x);
      break;
    }
    case simdjson::ondemand::json_type::boolean: {
      bool b = v.get_bool();
      benchmark::DoNotOptimize(b);
      break;
    }
    default:
      break;
  }
  return n;
}

void simdjsonOverFile(benchmark::State& state, const std::string& path) {
  simdjson::ondemand::parser parser;
  uint64_t lines = 0;
  for (auto _ : state) {
    std::ifstream in(path);
    simdjson::padded_string padded;
    uint64_t fields = 0;
    lines = 0;
    for (std::string line; std::getline(in, line); ++lines) {
      padded = simdjson::padded_string(line);
      simdjson::ondemand::document doc = parser.iterate(padded);
      fields += countFields(doc.get_value());
    }
    benchmark::DoNotOptimize(fields);
  }
  state.SetItemsProcessed(static_cast<int64_t>(state.iterations() * lines));
}

void BM_Baseline_SimdjsonOnDemand_30kShortDevices(benchmark::State& state) {
  simdjsonOverFile(state, fleetFile(kShortDevices, kShort));
}
BENCHMARK(BM_Baseline_SimdjsonOnDemand_30kShortDevices)->Unit(benchmark::kMillisecond)->Iterations(1)->UseRealTime();

void BM_Baseline_SimdjsonOnDemand_10kDevicesX100Events(benchmark::State& state) {
  simdjsonOverFile(state, fleetFile(kDevices, kEvents));
}
BENCHMARK(BM_Baseline_SimdjsonOnDemand_10kDevicesX100Events)->Unit(benchmark::kMillisecond)->Iterations(1)->UseRealTime();

// The whole command with 1 (the baseline), 2 or 3 worker threads; its output is dropped.
void BM_FleetCommand_Workers(benchmark::State& state) {
  kltce::FleetCommand command;
  command.document = kDocument;
  command.fleet = fleetFile(kDevices, kEvents);  // the one-process case's fleet
  command.workers = static_cast<unsigned>(state.range(0));
  command.format = "json";
  for (auto _ : state) {
    std::ostringstream out, err;
    if (kltce::runFleetCommand(command, out, err) != 0) state.SkipWithError(err.str().c_str());
  }
  state.SetItemsProcessed(static_cast<int64_t>(state.iterations() * kDevices * kEvents));
}
BENCHMARK(BM_FleetCommand_Workers)->Arg(1)->Arg(2)->Arg(3)->Unit(benchmark::kMillisecond)->Iterations(1)->UseRealTime();

void BM_FleetCommand_Workers_ShortDevices(benchmark::State& state) {
  kltce::FleetCommand command;
  command.document = kDocument;
  command.fleet = fleetFile(kShortDevices, kShort);
  command.workers = static_cast<unsigned>(state.range(0));
  command.format = "json";
  for (auto _ : state) {
    std::ostringstream out, err;
    if (kltce::runFleetCommand(command, out, err) != 0) state.SkipWithError(err.str().c_str());
  }
}
BENCHMARK(BM_FleetCommand_Workers_ShortDevices)->Arg(1)->Arg(2)->Unit(benchmark::kMillisecond)->Iterations(1)->UseRealTime();

// Peak RSS (kB) of `kltce fleet --workers W` replaying N devices x 10 events from a file, as
// /usr/bin/time reports it: a process started afresh from a small one, so that nothing of this
// process's memory is counted (Linux keeps a process's peak across exec, and a child started from
// this one would inherit this one's).
void BM_FleetWorkerPeakMemory(benchmark::State& state) {
  const std::string path = fleetFile(static_cast<uint64_t>(state.range(0)), 10);
  const std::string report = path + ".rss";
  const std::string workers = std::to_string(state.range(1));
  long peakKb = 0;
  for (auto _ : state) {
    std::string args[] = {"/usr/bin/time", "-f", "%M", "-o", report, KLTCE_TOOL_PATH, "fleet", "--workers", workers,
                          "--format", "json", "--document", kDocument, "--fleet", path};
    std::vector<char*> argv;
    for (auto& a : args) argv.push_back(a.data());
    argv.push_back(nullptr);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, "/dev/null", O_WRONLY, 0);
    pid_t pid = -1;
    const int failed = ::posix_spawn(&pid, argv[0], &actions, nullptr, argv.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    int status = 0;
    if (failed == 0) ::waitpid(pid, &status, 0);
    if (failed != 0 || !WIFEXITED(status) || WEXITSTATUS(status) != 0) state.SkipWithError("kltce fleet (under /usr/bin/time) failed");
    std::ifstream(report) >> peakKb;
  }
  state.counters["peak_rss_kB"] = static_cast<double>(peakKb);
}
BENCHMARK(BM_FleetWorkerPeakMemory)
    ->Args({1'000, 1})
    ->Args({10'000, 1})
    ->Args({100'000, 1})
    ->Args({100'000, 2})
    ->Args({100'000, 3})
    ->Unit(benchmark::kMillisecond)
    ->Iterations(1)
    ->UseRealTime();

}  // namespace
