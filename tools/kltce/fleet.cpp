#include "tools/kltce/fleet.h"

#include <charconv>
#include <filesystem>
#include <map>
#include <sstream>
#include <streambuf>

#include "KLTContextEvaluator/KLTCEConstants.h"
#include "KLTContextEvaluator/KLTContextEvaluator.h"
#include "platform/KLTDrainedSerialQueue.h"
#include "platform/KLTLog.h"
#include "platform/KLTSerialQueue.h"
#include "platform/KLTUserDefaults.h"
#include "tools/kltce/explain.h"
#include "tools/kltce/fleet_compare.h"
#include "tools/kltce/fleet_input.h"
#include "tools/kltce/replay.h"

namespace kltce {

namespace {

class NullBuffer final : public std::streambuf {
 protected:
  int overflow(int c) override { return c; }
  std::streamsize xsputn(const char*, std::streamsize n) override { return n; }
};

// The engine's log lines of a million devices are of no use to a fleet's summary.
class DroppedLog final : public KLTLogSink {
 public:
  void write(std::string_view) override {}
  void writeLine(KLTLogLevel, std::string_view, std::string_view, int) override {}
  void flush() override {}
};

class ScopedLogSink {
 public:
  explicit ScopedLogSink(std::shared_ptr<KLTLogSink> sink) : previous_(KLTLog::setSink(std::move(sink))) {}
  ~ScopedLogSink() { KLTLog::setSink(previous_); }
  ScopedLogSink(const ScopedLogSink&) = delete;
  ScopedLogSink& operator=(const ScopedLogSink&) = delete;

 private:
  std::shared_ptr<KLTLogSink> previous_;
};

std::string csvField(std::string_view text) {
  if (text.find_first_of(",\"\r\n") == std::string_view::npos) return std::string(text);
  std::string out = "\"";
  for (char c : text) out += c == '"' ? std::string("\"\"") : std::string(1, c);
  return out + "\"";
}

struct Shown {
  uint64_t count = 0;
  std::optional<int64_t> firstMillis;
};

}  // namespace

uint64_t fleetDeviceHash(std::string_view id) {
  uint64_t h = 14695981039346656037ull;
  for (unsigned char c : id) {
    h ^= c;
    h *= 1099511628211ull;
  }
  return h;
}

bool fleetSelects(uint64_t hash, FleetPart shard, FleetPart part) {
  return hash % shard.count == shard.index && (hash / shard.count) % part.count == part.index;
}

std::optional<FleetPart> parseFleetPart(std::string_view text) {
  const std::size_t slash = text.find('/');
  if (slash == std::string_view::npos) return std::nullopt;
  FleetPart p;
  const auto read = [](std::string_view digits, uint64_t& out) {
    const auto [end, ec] = std::from_chars(digits.data(), digits.data() + digits.size(), out);
    return ec == std::errc() && end == digits.data() + digits.size() && !digits.empty();
  };
  if (!read(text.substr(0, slash), p.index) || !read(text.substr(slash + 1), p.count)) return std::nullopt;
  if (p.count == 0 || p.index >= p.count) return std::nullopt;
  return p;
}

std::optional<FleetRange> FleetPieces::range(std::istream& in, std::size_t piece) const {
  const auto begin = fleetRangeStart(in, at(piece), at(piece + 1));
  if (!begin) return std::nullopt;
  for (std::size_t later = piece + 1; later < count; ++later) {
    if (const auto end = fleetRangeStart(in, at(later), at(later + 1))) return FleetRange{*begin, *end};
  }
  if (in.bad()) return std::nullopt;
  return FleetRange{*begin, size};
}

FleetResult replayFleet(const FleetOptions& options, std::istream& fleet) {
  if (options.compareWith) return replayFleetCompared(options, fleet);
  FleetResult result;
  NullBuffer nothing;
  std::ostream dropped(&nothing);
  ScopedLogSink log(std::make_shared<DroppedLog>());
  // As runReplay() does: the engine on a queue this thread drains, chosen before its first use.
  KLTContextEvaluator::useSerialQueue(std::make_shared<KLTDrainedSerialQueue>(kKLTCEOpsSerialQueue));
  auto& evaluator = KLTContextEvaluator::sharedInstance();

  ReplayOptions base;
  base.document = std::make_shared<const KLTValue>(options.document);  // shared by every device's parse
  base.autoShown = options.autoShown;
  base.logLevel = 4;  // no DEBUG or ERROR line is even made; INFO lines go to the dropped log
  const auto wanted = [&](std::string_view id) { return fleetSelects(fleetDeviceHash(id), options.shard, options.part); };
  std::ostringstream err;
  const auto stop = [&](int code, std::string error, std::size_t line) {
    result.exitCode = code;
    result.error = std::move(error);
    result.errorLine = line;
  };
  // Replays the devices of one reader; false when it stopped.
  const auto replayDevices = [&](FleetReader& reader) {
    while (reader.nextDevice(wanted)) {
      const std::string device = reader.device();
      std::ostream* rows = options.csvFor ? options.csvFor(fleetDeviceHash(device)) : options.csv;
      ReplayOptions o = base;
      o.profile = reader.profile();
      o.store = std::make_shared<KLTUserDefaults>(std::filesystem::path());
      if (options.counters) o.store->setSharedDictionary(*options.counters, kKLTFrequencyStoreKey);
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
        if (!s.firstMillis) {
          s.firstMillis = std::chrono::duration_cast<std::chrono::milliseconds>(time - *start).count();
        }
      };
      err.str("");
      std::vector<CampaignOutcome> outcomes;
      const ReplayResult r = runReplayWithDecisions(std::move(o), {}, reader.lines(), dropped, err, dropped, &outcomes);
      if (!reader.ok()) {
        stop(kExitUsage, reader.error(), reader.errorLine());
        return false;
      }
      if (r.queueBlocked) {
        stop(kExitBlocked,
             "device '" + device + "': the engine's queue is blocked for good; its replay says:\n" + err.str(),
             reader.profileLine());
        return false;
      }
      if (const auto failure = KLTSerialQueue::firstTaskFailure()) {
        stop(kExitFailed, "device '" + device + "': a task of the engine failed: " + *failure, reader.profileLine());
        return false;
      }
      if (r.exitCode == kExitUsage) {
        stop(kExitUsage, "device '" + device + "': " + err.str(), reader.profileLine());
        return false;
      }
      if (!evaluator.resetForTesting()) {
        stop(kExitBlocked, "device '" + device + "': the engine could not be reset after it", reader.profileLine());
        return false;
      }
      std::vector<DeviceCampaign> campaigns;
      campaigns.reserve(outcomes.size());
      for (CampaignOutcome& outcome : outcomes) {
        const auto it = shown.find(outcome.campaign);
        DeviceCampaign c;
        if (it != shown.end()) {
          c.displays = it->second.count;
          c.firstDisplayMillis = it->second.firstMillis;
        }
        c.outcome = std::move(outcome);
        if (rows) {
          *rows << csvField(device) << ',' << csvField(c.outcome.campaign) << ',' << outcomeKindName(c.outcome.kind)
                << ',' << csvField(c.outcome.reason) << ',' << c.displays << ','
                << (c.firstDisplayMillis ? std::to_string(*c.firstDisplayMillis) : std::string()) << ','
                << csvField(c.outcome.text) << '\n';
        }
        campaigns.push_back(std::move(c));
      }
      result.summary.addDevice(campaigns, r.lines, r.events, r.badLines);
      if (options.onDevice) options.onDevice(result.summary.devices(), result.summary.events());
    }
    if (!reader.ok()) {
      stop(kExitUsage, reader.error(), reader.errorLine());
      return false;
    }
    if (fleet.bad()) {
      stop(kExitFailed, "reading the fleet failed", 0);
      return false;
    }
    return true;
  };
  if (!options.nextRange) {
    FleetReader reader(fleet);
    replayDevices(reader);
    return result;
  }
  while (const auto range = options.nextRange()) {
    fleet.clear();
    if (!fleet.seekg(static_cast<std::streamoff>(range->begin))) {
      stop(kExitFailed, "reading the fleet failed", 0);
      break;
    }
    FleetReader reader(fleet, range->end - range->begin);
    if (!replayDevices(reader)) {
      // The reader numbered the range's lines from 1.
      if (result.errorLine > 0) result.errorLine += fleetLinesBefore(fleet, range->begin);
      break;
    }
  }
  return result;
}

}  // namespace kltce
