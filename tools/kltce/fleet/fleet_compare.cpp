#include "tools/kltce/fleet/fleet_compare.h"

#include <memory>
#include <utility>

#include "tools/kltce/fleet/fleet_device.h"
#include "tools/kltce/fleet/fleet_input.h"
#include "tools/kltce/input/json_text.h"
#include "tools/kltce/replay/explain.h"
#include "tools/kltce/replay/replay.h"

namespace kltce {

namespace {

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

  ReplayOptions before, after;
  before.document = std::make_shared<const KLTValue>(*options.compareWith);
  after.document = std::make_shared<const KLTValue>(options.document);
  for (ReplayOptions* o : {&before, &after}) {
    o->autoShown = options.autoShown;
    o->logLevel = 4;  // as a plain fleet: no DEBUG or ERROR line is even made
    o->compiled = KLTCEDocument::compile(o->document);
  }
  const auto wanted = [&](std::string_view id) { return fleetSelects(fleetDeviceHash(id), options.shard); };
  const auto stop = [&](int code, std::string error, std::size_t line) { return stopFleet(result, code, std::move(error), line); };
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
        runs.push_back(replayFleetDevice(*o, options.counters, device, lines));
        if (runs.back().exitCode != kExitOk) return stop(runs.back().exitCode, runs.back().error, reader.profileLine());
      }
      const ReplayResult& r = runs.back().replay;
      if (std::ostream* rows = options.csv) {
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
  replayFleetReaders(options, fleet, result, replayDevices);
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

void writeComparison(const FleetComparison& comparison, const std::string& format, const FleetIdentity& identity,
                     std::ostream& out) {
  if (format == "json") {
    KLTValue json = comparison.toJson();
    json["part"] = identity.toJson();
    out << json.dump(2, ' ', false, KLTValue::error_handler_t::replace) << '\n';
  } else {
    comparison.writeTable(out);
  }
  out.flush();
}

}  // namespace

int finishComparison(const std::vector<FleetResult>& results, const std::string& format, const FleetIdentity& identity,
                     std::ostream& out, std::ostream& err) {
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
  writeComparison(sum.value_or(FleetComparison()), format, identity, out);
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
  std::optional<FleetIdentity> whole;
  for (const std::string& file : files) {
    JsonResult json = loadJsonFile(file);
    std::string error;
    std::optional<FleetComparison> part;
    std::optional<FleetIdentity> identity;
    // The first problem found is the one told: unreadable, not a comparison, of another run, or
    // (which the identity should already have told) of other campaign statuses.
    if (!json.ok()) {
      error = json.error;
    } else if ((part = FleetComparison::fromJson(json.value, error)) &&
               (identity = FleetIdentity::fromJson(klt::valueForKey(json.value, "part"), error)) && sum &&
               whole->add(*identity, error)) {
      sum->merge(*part, error);
    }
    if (!error.empty()) {
      err << "kltce: fleet: merge: '" << file << "': " << error << '\n';
      return kExitUsage;
    }
    if (!sum) {
      sum = std::move(part);
      whole = std::move(identity);
    }
  }
  if (whole) whole->normalize();
  writeComparison(sum.value_or(FleetComparison()), format, whole.value_or(FleetIdentity()), out);
  return kExitOk;
}

}  // namespace kltce
