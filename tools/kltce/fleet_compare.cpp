#include "tools/kltce/fleet_compare.h"

#include <filesystem>
#include <map>
#include <memory>
#include <sstream>
#include <streambuf>
#include <utility>

#include "KLTContextEvaluator/KLTCEConstants.h"
#include "KLTContextEvaluator/KLTContextEvaluator.h"
#include "platform/KLTDrainedSerialQueue.h"
#include "platform/KLTLog.h"
#include "platform/KLTSerialQueue.h"
#include "platform/KLTUserDefaults.h"
#include "tools/kltce/explain.h"
#include "tools/kltce/fleet_input.h"
#include "tools/kltce/json_text.h"
#include "tools/kltce/replay.h"

namespace kltce {

namespace {

class NullBuffer final : public std::streambuf {
 protected:
  int overflow(int c) override { return c; }
  std::streamsize xsputn(const char*, std::streamsize n) override { return n; }
};

// The engine's log lines are of no use to a comparison, as to a fleet's summary.
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

// A device's stream lines, read once from the fleet and handed to each replay in turn: a copy of
// each line to all replays but the last, which takes the lines themselves (a replay moves what it
// keeps out of a line).
class RecordedLines final : public LineSource {
 public:
  explicit RecordedLines(LineSource& from) {
    std::size_t number = 0;
    LineResult line;
    while (from.next(number, line)) lines_.emplace_back(number, std::move(line));
  }
  // Starts a replay of the lines; `last`: no replay follows.
  void rewind(bool last) {
    next_ = 0;
    last_ = last;
  }
  bool next(std::size_t& number, LineResult& line) override {
    if (next_ == lines_.size()) return false;
    auto& [n, recorded] = lines_[next_++];
    number = n;
    line = last_ ? std::move(recorded) : recorded;
    return true;
  }

 private:
  std::vector<std::pair<std::size_t, LineResult>> lines_;
  std::size_t next_ = 0;
  bool last_ = false;
};

struct Shown {
  uint64_t count = 0;
  std::optional<int64_t> firstMillis;
};

// One replay of a device with one document. exitCode is not kExitOk when the fleet must stop
// there, error then saying why (the device named).
struct DeviceRun {
  ReplayResult replay;
  std::vector<DeviceCampaign> campaigns;
  int exitCode = kExitOk;
  std::string error;
};

// Replays the device as replayFleet() does: fresh counters (or a copy of `counters`), the clock at
// its first line, its displays timed from it; then resets the engine for the next replay.
DeviceRun replayDevice(ReplayOptions o, const std::optional<KLTSharedMap>& counters, const std::string& device,
                       LineSource& lines) {
  DeviceRun run;
  NullBuffer nothing;
  std::ostream dropped(&nothing);
  std::ostringstream err;
  o.store = std::make_shared<KLTUserDefaults>(std::filesystem::path());
  if (counters) o.store->setSharedDictionary(*counters, kKLTFrequencyStoreKey);
  std::optional<KLTTimePoint> start;
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
  if (const auto failure = KLTSerialQueue::firstTaskFailure()) return fail(kExitFailed, "a task of the engine failed: " + *failure);
  if (run.replay.exitCode == kExitUsage) return fail(kExitUsage, err.str());
  if (!KLTContextEvaluator::sharedInstance().resetForTesting()) return fail(kExitBlocked, "the engine could not be reset after it");
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

void writeChangedRows(std::ostream& rows, const std::string& device, const std::vector<OutcomeChange>& changes) {
  static const DeviceCampaign kAbsent;
  for (const OutcomeChange& c : changes) {
    const DeviceCampaign& before = c.before ? *c.before : kAbsent;
    const DeviceCampaign& after = c.after ? *c.after : kAbsent;
    rows << csvField(device) << ',' << csvField(c.campaign) << ',' << outcomeName(c.before) << ','
         << outcomeName(c.after) << ',' << csvField(before.outcome.reason) << ',' << csvField(after.outcome.reason) << ','
         << before.displays << ',' << after.displays << ',' << csvField(before.outcome.text) << ','
         << csvField(after.outcome.text) << '\n';
  }
}

}  // namespace

FleetResult replayFleetCompared(const FleetOptions& options, std::istream& fleet) {
  FleetResult result;
  FleetComparison comparison(diffDocuments(*options.compareWith, options.document));
  ScopedLogSink log(std::make_shared<DroppedLog>());
  // As runReplay() does: the engine on a queue this thread drains, chosen before its first use.
  KLTContextEvaluator::useSerialQueue(std::make_shared<KLTDrainedSerialQueue>(kKLTCEOpsSerialQueue));

  ReplayOptions before, after;
  before.document = std::make_shared<const KLTValue>(*options.compareWith);
  after.document = std::make_shared<const KLTValue>(options.document);
  for (ReplayOptions* o : {&before, &after}) {
    o->autoShown = options.autoShown;
    o->logLevel = 4;  // as a plain fleet: no DEBUG or ERROR line is even made
  }
  const auto wanted = [&](std::string_view id) { return fleetSelects(fleetDeviceHash(id), options.shard, options.part); };
  const auto stop = [&](int code, std::string error, std::size_t line) {
    result.exitCode = code;
    result.error = std::move(error);
    result.errorLine = line;
    return false;
  };
  // Replays the devices of one reader; false when it stopped.
  const auto replayDevices = [&](FleetReader& reader) {
    while (reader.nextDevice(wanted)) {
      const std::string device = reader.device();
      RecordedLines lines(reader.lines());
      if (!reader.ok()) return stop(kExitUsage, reader.error(), reader.errorLine());
      std::vector<DeviceRun> runs;
      for (ReplayOptions* o : {&before, &after}) {
        o->profile = reader.profile();
        lines.rewind(o == &after);
        runs.push_back(replayDevice(*o, options.counters, device, lines));
        if (runs.back().exitCode != kExitOk) return stop(runs.back().exitCode, runs.back().error, reader.profileLine());
      }
      const ReplayResult& r = runs.back().replay;
      if (std::ostream* rows = options.csvFor ? options.csvFor(fleetDeviceHash(device)) : options.csv) {
        writeChangedRows(*rows, device, outcomeChanges(runs[0].campaigns, runs[1].campaigns));
      }
      comparison.addDevice(runs[0].campaigns, runs[1].campaigns, r.lines, r.events, r.badLines);
      result.summary.addDevice(runs[1].campaigns, r.lines, r.events, r.badLines);
      if (options.onDevice) options.onDevice(result.summary.devices(), result.summary.events());
    }
    if (!reader.ok()) return stop(kExitUsage, reader.error(), reader.errorLine());
    if (fleet.bad()) return stop(kExitFailed, "reading the fleet failed", 0);
    return true;
  };
  if (!options.nextRange) {
    FleetReader reader(fleet);
    replayDevices(reader);
  }
  while (const auto range = options.nextRange ? options.nextRange() : std::nullopt) {
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
  result.comparison = std::move(comparison);
  return result;
}

bool prepareComparison(const std::string& path, FleetOptions& options, std::ostream& err) {
  JsonResult document = loadJsonFile(path);
  const KLTValue& configs = klt::valueForKey(document.value, "configs");
  if (!document.ok()) {
    err << "kltce: fleet: --compare: " << document.error << '\n';
    return false;
  }
  if (!document.value.is_object() || (!configs.is_null() && !configs.is_array())) {
    err << "kltce: fleet: --compare: '" << path << "' is not a campaign document (an object with a \"configs\" list)\n";
    return false;
  }
  options.compareWith = std::move(document.value);
  return true;
}

namespace {

void writeComparison(const FleetComparison& comparison, const std::string& format, std::ostream& out) {
  if (format == "json") {
    out << comparison.toJson().dump(2, ' ', false, KLTValue::error_handler_t::replace) << '\n';
  } else {
    comparison.writeTable(out);
  }
  out.flush();
}

}  // namespace

int finishComparison(const std::vector<FleetResult>& results, const std::string& format, std::ostream& out,
                     std::ostream& err) {
  std::optional<FleetComparison> sum;
  for (const FleetResult& r : results) {
    if (!r.comparison) continue;
    std::string error;
    if (!sum) {
      sum = r.comparison;
    } else if (!sum->merge(*r.comparison, error)) {
      err << "kltce: fleet: " << error << '\n';
      return kExitFailed;
    }
  }
  writeComparison(sum.value_or(FleetComparison()), format, out);
  return kExitOk;
}

bool mergesComparisons(const std::vector<std::string>& files) {
  if (files.empty()) return false;
  const JsonResult first = loadJsonFile(files.front());
  return first.ok() && FleetComparison::isComparisonJson(first.value);
}

int runComparisonMerge(const std::vector<std::string>& files, const std::string& format, std::ostream& out,
                       std::ostream& err) {
  std::optional<FleetComparison> sum;
  for (const std::string& file : files) {
    JsonResult json = loadJsonFile(file);
    std::string error;
    std::optional<FleetComparison> part;
    if (!json.ok()) {
      error = json.error;
    } else if ((part = FleetComparison::fromJson(json.value, error)) && sum) {
      sum->merge(*part, error);
    }
    if (!error.empty()) {
      err << "kltce: fleet: merge: '" << file << "': " << error << '\n';
      return kExitUsage;
    }
    if (!sum) sum = std::move(part);
  }
  writeComparison(sum.value_or(FleetComparison()), format, out);
  return kExitOk;
}

}  // namespace kltce
