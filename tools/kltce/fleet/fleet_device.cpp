#include "tools/kltce/fleet/fleet_device.h"

#include <chrono>
#include <filesystem>
#include <map>
#include <sstream>
#include <streambuf>

#include "KLTContextEvaluator/KLTCEConstants.h"
#include "KLTContextEvaluator/KLTContextEvaluator.h"
#include "platform/KLTDrainedSerialQueue.h"
#include "platform/KLTSerialQueue.h"
#include "platform/KLTUserDefaults.h"
#include "tools/kltce/replay/explain.h"

namespace kltce {

namespace {

class NullBuffer final : public std::streambuf {
 protected:
  int overflow(int c) override { return c; }
  std::streamsize xsputn(const char*, std::streamsize n) override { return n; }
};

class DroppedLog final : public KLTLogSink {
 public:
  void write(std::string_view) override {}
  void writeLine(KLTLogLevel, std::string_view, std::string_view, int) override {}
  void flush() override {}
};

struct Shown {
  uint64_t count = 0;
  std::optional<int64_t> firstMillis;
};

}  // namespace

std::string csvField(std::string_view text) {
  if (text.find_first_of(",\"\r\n") == std::string_view::npos) return std::string(text);
  std::string out = "\"";
  for (char c : text) out += c == '"' ? std::string("\"\"") : std::string(1, c);
  return out + "\"";
}

DeviceRun replayFleetDevice(ReplayOptions o, const std::optional<KLTSharedMap>& counters, const std::string& device,
                            LineSource& lines) {
  DeviceRun run;
  NullBuffer nothing;
  std::ostream dropped(&nothing);
  std::ostringstream err;
  // A fleet's summary has no use for a million devices' log lines.
  static const auto noLog = std::make_shared<DroppedLog>();
  o.logSink = noLog;
  o.store = std::make_shared<KLTUserDefaults>(std::filesystem::path());
  if (counters) o.store->setSharedDictionary(*counters, kKLTFrequencyStoreKey);
  std::optional<KLTTimePoint> start;  // the clock at the device's first line
  std::map<std::string, Shown> shown;
  o.onLine = [&](std::size_t, const StreamLine&) {
    if (!start) start = KLTClock::current()->now();
  };
  o.onDisplay = [&](KLTTimePoint time, const KLTValue& info, std::size_t) {
    if (!start) start = time;  // dispatched by the start-up parse, before any line
    const std::string* id = klt::stringPtr(klt::valueForKey(info, "id"));
    Shown& s = shown[id ? *id : std::string()];
    ++s.count;
    if (!s.firstMillis) s.firstMillis = std::chrono::duration_cast<std::chrono::milliseconds>(time - *start).count();
  };
  std::vector<CampaignOutcome> outcomes;
  run.replay = runReplayWithDecisions(std::move(o), {}, lines, dropped, err, dropped, &outcomes);
  const auto fail = [&](int code, std::string error) {
    run.exitCode = code;
    run.error = "device '" + device + "': " + std::move(error);
    return run;
  };
  if (run.replay.queueBlocked) return fail(kExitBlocked, "the engine's queue is blocked for good; its replay says:\n" + err.str());
  if (const auto& failure = run.replay.taskFailure) return fail(kExitFailed, "a task of the engine failed: " + *failure);
  if (run.replay.exitCode == kExitUsage) return fail(kExitUsage, err.str());
  run.campaigns.reserve(outcomes.size());
  for (CampaignOutcome& outcome : outcomes) {
    DeviceCampaign c;
    if (const auto it = shown.find(outcome.campaign); it != shown.end()) {
      c.displays = it->second.count;
      c.firstDisplayMillis = it->second.firstMillis;
    }
    c.outcome = std::move(outcome);
    run.campaigns.push_back(std::move(c));
  }
  return run;
}

bool stopFleet(FleetResult& result, int code, std::string error, std::size_t line) {
  result.exitCode = code;
  result.error = std::move(error);
  result.errorLine = line;
  return false;
}

void replayFleetReaders(const FleetOptions& options, std::istream& fleet, FleetResult& result,
                        const std::function<bool(FleetReader&)>& replayDevices) {
  if (!options.nextRange) {
    FleetReader reader(fleet);
    replayDevices(reader);
    return;
  }
  while (const auto range = options.nextRange()) {
    fleet.clear();
    if (!fleet.seekg(static_cast<std::streamoff>(range->begin))) {
      stopFleet(result, kExitFailed, "reading the fleet failed", 0);
      return;
    }
    FleetReader reader(fleet, range->end - range->begin);
    if (!replayDevices(reader)) {
      // The reader numbered the range's lines from 1.
      if (result.errorLine > 0) result.errorLine += fleetLinesBefore(fleet, range->begin);
      return;
    }
  }
}

}  // namespace kltce
