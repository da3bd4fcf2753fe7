// `kltce fleet --compare` against a plain fleet run, in one process: the shipped example's old and
// new documents (examples/campaigns.json, examples/fleet/campaigns_v2.json) over a generated fleet
// of 5,000 devices x 100 events (examples/fleet/fleet_gen.h, seed 42) read from a file.
// - BM_Fleet_Plain: replayFleet() with the new document alone;
// - BM_Fleet_Compare: replayFleet() with compareWith the old one (each device replayed twice);
// - BM_FleetCompare_Ratio: the two in turn, plain then compare, in each iteration, reporting both
//   times and compare / plain as counters, by the wall clock and by this thread's CPU time (the
//   replay runs on this thread alone): pairing keeps the ratio sound when the machine's speed
//   drifts, and CPU time when other processes share its cores.
// Each case runs once per repetition; run with --benchmark_repetitions=5 for medians.
#include <benchmark/benchmark.h>

#include <time.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <string>

#include "examples/fleet/fleet_gen.h"
#include "tools/kltce/fleet/fleet.h"
#include "tools/kltce/input/json_text.h"

namespace {

constexpr uint64_t kDevices = 5'000;
constexpr uint64_t kEvents = 100;

// The fleet in a file, written once, outside any timing.
std::string fleetFile() {
  const std::string path = (std::filesystem::temp_directory_path() /
                            ("kltce_fleet_compare_bench_" + std::to_string(kDevices) + "x" + std::to_string(kEvents) + ".jsonl"))
                               .string();
  if (std::filesystem::exists(path)) return path;
  std::ofstream file(path);
  fleetgen::FleetRandom r{42};
  std::string chunk;
  for (uint64_t d = 0; d < kDevices; ++d) {
    fleetgen::appendDevice(r, d, kEvents, chunk);
    if (chunk.size() > (1 << 20) || d + 1 == kDevices) {
      file << chunk;
      chunk.clear();
    }
  }
  return path;
}

kltce::FleetOptions options(bool compare) {
  kltce::FleetOptions o;
  o.document = kltce::loadJsonFile(KLTCE_SOURCE_DIR "/examples/fleet/campaigns_v2.json").value;
  if (compare) o.compareWith = kltce::loadJsonFile(KLTCE_SOURCE_DIR "/examples/campaigns.json").value;
  return o;
}

double threadCpuSeconds() {
  timespec t{};
  ::clock_gettime(CLOCK_THREAD_CPUTIME_ID, &t);
  return static_cast<double>(t.tv_sec) + static_cast<double>(t.tv_nsec) * 1e-9;
}

struct Timed {
  double wall = 0, cpu = 0;  // seconds
};

// One fleet run's times; false when it failed.
bool timeFleet(const kltce::FleetOptions& o, const std::string& path, Timed& timed) {
  std::ifstream in(path);
  const auto begin = std::chrono::steady_clock::now();
  const double cpuBegin = threadCpuSeconds();
  const kltce::FleetResult r = kltce::replayFleet(o, in);
  timed.cpu = threadCpuSeconds() - cpuBegin;
  timed.wall = std::chrono::duration<double>(std::chrono::steady_clock::now() - begin).count();
  return r.exitCode == 0 && r.summary.devices() == kDevices && r.comparison.has_value() == o.compareWith.has_value();
}

void fleetRun(benchmark::State& state, bool compare) {
  const kltce::FleetOptions o = options(compare);
  const std::string path = fleetFile();
  for (auto _ : state) {
    Timed timed;
    if (!timeFleet(o, path, timed)) state.SkipWithError("fleet failed");
  }
  state.SetItemsProcessed(static_cast<int64_t>(state.iterations() * kDevices * kEvents));
}

void BM_Fleet_Plain(benchmark::State& state) { fleetRun(state, false); }
BENCHMARK(BM_Fleet_Plain)->Unit(benchmark::kMillisecond)->Iterations(1)->UseRealTime();

void BM_Fleet_Compare(benchmark::State& state) { fleetRun(state, true); }
BENCHMARK(BM_Fleet_Compare)->Unit(benchmark::kMillisecond)->Iterations(1)->UseRealTime();

void BM_FleetCompare_Ratio(benchmark::State& state) {
  const kltce::FleetOptions plain = options(false), compare = options(true);
  const std::string path = fleetFile();
  Timed p, c;
  for (auto _ : state) {
    if (!timeFleet(plain, path, p) || !timeFleet(compare, path, c)) state.SkipWithError("fleet failed");
  }
  state.counters["plain_s"] = p.wall;
  state.counters["compare_s"] = c.wall;
  state.counters["ratio"] = p.wall > 0 ? c.wall / p.wall : 0;
  state.counters["plain_cpu_s"] = p.cpu;
  state.counters["compare_cpu_s"] = c.cpu;
  state.counters["cpu_ratio"] = p.cpu > 0 ? c.cpu / p.cpu : 0;
}
BENCHMARK(BM_FleetCompare_Ratio)->Unit(benchmark::kMillisecond)->Iterations(1)->UseRealTime();

}  // namespace
