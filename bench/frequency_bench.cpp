// Cost of building the frequency caps of a large configuration against a persisted store.
//
// BM_Construct1000Caps: 1,000 constructions of KLTCEFrequency (a parse of 1,000 campaigns) against a
// store file already holding 1,000 counter records; each construction takes a shared copy of the
// map, refreshes one record and saves. The per_construction counter is the time of one construction.
// BM_SynchronizeOneRecordChange: the baseline, one plain store save after a one-record change of
// the same 1,000-record map (setObject of the whole map, then synchronize).
// BM_OpenStore: opening the store file (reading every row back), as at app start.
#include <benchmark/benchmark.h>

#include <string>

#include "KLTContextEvaluator/KLTCEConstants.h"
#include "KLTContextEvaluator/KLTCEFrequency.h"
#include "platform/KLTUserDefaults.h"
#include "testsupport/KLTTestHost.h"

namespace {

constexpr int kRecords = 1000;

std::string idOf(int i) { return "5f3c2a91e4b0c7d8a1b2c3" + std::to_string(1000 + i); }

KLTValue frequencyDoc(int i) {
  return KLTValue{{"validity", i % 4 == 0 ? "SESSION" : "OVERALL"}, {"count", 5}, {"ses_lmt", 3}, {"day_lmt", i % 2}};
}

// The scripted host's temporary store, filled with 1,000 records and read back from its file as at
// app start, with the host's virtual clock and a quiet log, for the lifetime of the fixture.
class PersistedStore {
 public:
  PersistedStore() {
    for (int i = 0; i < kRecords; ++i) {
      KLTCEFrequency f(frequencyDoc(i), idOf(i));
      f.updateFrequencyForIdentifier(idOf(i));
    }
    host_.reopenStore();
  }
  const std::filesystem::path& path() const { return host_.storePath(); }
  KLTUserDefaults& store() { return *host_.store(); }

 private:
  KLTTestHost host_{2};
};

void BM_Construct1000Caps(benchmark::State& state) {
  PersistedStore fixture;
  for (auto _ : state) {
    for (int i = 0; i < kRecords; ++i) {
      KLTCEFrequency f(frequencyDoc(i), idOf(i));
      benchmark::DoNotOptimize(f.frequencyConfig());
    }
  }
  state.counters["per_construction"] =
      benchmark::Counter(kRecords, benchmark::Counter::kIsIterationInvariantRate | benchmark::Counter::kInvert);
  state.counters["store_bytes"] = static_cast<double>(std::filesystem::file_size(fixture.path()));
}
BENCHMARK(BM_Construct1000Caps)->Unit(benchmark::kMillisecond)->UseRealTime();

void BM_SynchronizeOneRecordChange(benchmark::State& state) {
  PersistedStore fixture;
  KLTValue map = fixture.store().objectForKey(kKLTFrequencyStoreKey);
  int64_t n = 0;
  for (auto _ : state) {
    map[idOf(static_cast<int>(n % kRecords))][kKLTCount] = n;
    ++n;
    fixture.store().setObject(map, kKLTFrequencyStoreKey);
    benchmark::DoNotOptimize(fixture.store().synchronize());
  }
}
BENCHMARK(BM_SynchronizeOneRecordChange)->Unit(benchmark::kMicrosecond)->UseRealTime();

void BM_OpenStore(benchmark::State& state) {
  PersistedStore fixture;
  for (auto _ : state) {
    KLTUserDefaults store(fixture.path());
    benchmark::DoNotOptimize(store.objectForKey(kKLTFrequencyStoreKey));
  }
}
BENCHMARK(BM_OpenStore)->Unit(benchmark::kMicrosecond)->UseRealTime();

}  // namespace
