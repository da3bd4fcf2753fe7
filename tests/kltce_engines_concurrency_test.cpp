// Engine instances side by side: four devices of the shipped fleet replayed at once on four threads,
// each on its own engine, give exactly what each gives replayed alone: the same display events, log
// lines, decision records and stored counters. Run under ThreadSanitizer too (concurrency label),
// where any state two engines shared would show as a race.
#include <gtest/gtest.h>

#include <fstream>
#include <map>
#include <mutex>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "KLTContextEvaluator/KLTCEConstants.h"
#include "platform/KLTLog.h"
#include "platform/KLTUserDefaults.h"
#include "tools/kltce/input/profile.h"
#include "tools/kltce/replay/explain.h"
#include "tools/kltce/replay/replay.h"

namespace {

class LinesSink final : public KLTLogSink {
 public:
  void write(std::string_view line) override {
    std::lock_guard lock(mutex_);
    text_.append(line);
  }
  std::string text() const {
    std::lock_guard lock(mutex_);
    return text_;
  }

 private:
  mutable std::mutex mutex_;
  std::string text_;
};

struct Device {
  std::string id;
  kltce::Profile profile;
  std::string stream;  // its event stream, as `kltce run` reads one
};

// What one replay of a device shows.
struct Observed {
  int exitCode = -1;
  std::string displays, log, records, counters;
  bool operator==(const Observed&) const = default;
};

// The first `count` devices of the fleet file with at least `minLines` stream lines.
std::vector<Device> devicesOf(const std::string& fleet, std::size_t count, std::size_t minLines) {
  std::ifstream in(fleet);
  std::vector<Device> devices;
  std::map<std::string, std::size_t> lines;
  for (std::string line; std::getline(in, line);) {
    KLTValue value = KLTValue::parse(line);
    const std::string id = value["device"].get<std::string>();
    value.erase("device");
    if (value.value("action", "") == "profile") {
      value.erase("action");
      devices.push_back({id, kltce::parseProfile(value).profile, {}});
      continue;
    }
    devices.back().stream += value.dump() + "\n";
    ++lines[id];
  }
  std::vector<Device> chosen;
  for (auto& d : devices) {
    if (chosen.size() < count && lines[d.id] >= minLines) chosen.push_back(std::move(d));
  }
  return chosen;
}

Observed replay(const KLTValue& document, const Device& device) {
  kltce::ReplayOptions options;
  options.document = std::make_shared<const KLTValue>(document);
  options.profile = device.profile;
  options.store = std::make_shared<KLTUserDefaults>(std::filesystem::path());
  options.autoShown = true;
  options.logLevel = 0;  // every line the engine can make
  auto log = std::make_shared<LinesSink>();
  options.logSink = log;
  std::istringstream in(device.stream);
  std::ostringstream out, err, records;
  Observed o;
  o.exitCode = kltce::runReplayWithDecisions(options, {false, &records}, in, out, err, err).exitCode;
  o.displays = out.str();
  o.log = log->text();
  o.records = records.str();
  o.counters = options.store->objectForKey(kKLTFrequencyStoreKey).dump();
  return o;
}

TEST(EngineInstances, FourDevicesOnFourThreadsEqualEachAlone) {
  const std::string root = KLTCE_SOURCE_DIR;
  std::ifstream docIn(root + "/examples/campaigns.json");
  const KLTValue document = KLTValue::parse(docIn);
  const std::vector<Device> devices = devicesOf(root + "/examples/fleet/fleet.jsonl", 4, 12);
  ASSERT_EQ(devices.size(), 4u);

  std::vector<Observed> alone;
  for (const Device& d : devices) alone.push_back(replay(document, d));

  std::vector<Observed> together(devices.size());
  std::vector<std::thread> threads;
  for (std::size_t i = 0; i < devices.size(); ++i) {
    threads.emplace_back([&, i] { together[i] = replay(document, devices[i]); });
  }
  for (auto& t : threads) t.join();

  std::size_t displays = 0;
  for (std::size_t i = 0; i < devices.size(); ++i) {
    SCOPED_TRACE(devices[i].id);
    EXPECT_EQ(alone[i].exitCode, kltce::kExitOk);
    EXPECT_FALSE(alone[i].log.empty());
    EXPECT_FALSE(alone[i].records.empty());
    EXPECT_EQ(together[i].displays, alone[i].displays);
    EXPECT_EQ(together[i].log, alone[i].log);
    EXPECT_EQ(together[i].records, alone[i].records);
    EXPECT_EQ(together[i].counters, alone[i].counters);
    displays += static_cast<std::size_t>(std::count(alone[i].displays.begin(), alone[i].displays.end(), '\n'));
  }
  // The devices differ, so a mix-up between engines would show: at least one display happened.
  EXPECT_GT(displays, 0u);
  EXPECT_NE(alone[0].log, alone[1].log);
}

}  // namespace
