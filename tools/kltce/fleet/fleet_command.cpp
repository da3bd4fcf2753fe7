#include "tools/kltce/fleet/fleet_command.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <optional>
#include <sstream>

#include "KLTContextEvaluator/KLTCEConstants.h"
#include "platform/KLTUserDefaults.h"
#include "tools/kltce/fleet/fleet_compare.h"
#include "tools/kltce/fleet/fleet_workers.h"
#include "tools/kltce/input/json_text.h"
#include "tools/kltce/replay/replay.h"

namespace kltce {

namespace {

namespace fs = std::filesystem;

int usage(std::ostream& err, const std::string& message) {
  err << "kltce: fleet: " << message << '\n';
  return kExitUsage;
}

void writeSummary(const FleetSummary& summary, const std::string& format, const FleetIdentity& identity,
                  std::ostream& out) {
  if (format == "json") {
    KLTValue json = summary.toJson();
    json["part"] = identity.toJson();
    out << json.dump(2, ' ', false, KLTValue::error_handler_t::replace) << '\n';
  } else {
    summary.writeTable(out);
  }
  out.flush();
}

}  // namespace

bool prepareFleet(const FleetCommand& command, FleetOptions& options, std::ostream& err) {
  if (command.document.empty() || command.fleet.empty()) {
    usage(err, "--document and --fleet are needed (or: kltce fleet merge FILE...)");
    return false;
  }
  if (command.workers > kMaxFleetWorkers) {
    usage(err, "--workers: " + std::to_string(command.workers) + " is more than " + std::to_string(kMaxFleetWorkers) +
                   " workers (each replays a share of the fleet; more than the machine's cores gain nothing)");
    return false;
  }
  const auto shard = parseFleetPart(command.shard);
  if (!shard) {
    usage(err, "--shard: \"" + command.shard + "\" is not I/N with 0 <= I < N");
    return false;
  }
  options.shard = *shard;
  JsonResult document = loadJsonFile(command.document);
  if (!document.ok()) {
    usage(err, "document: " + document.error);
    return false;
  }
  const KLTValue& configs = klt::valueForKey(document.value, "configs");
  if (!document.value.is_object() || (!configs.is_null() && !configs.is_array())) {
    usage(err, "document: '" + command.document + "' is not a campaign document (an object with a \"configs\" list)");
    return false;
  }
  options.document = std::move(document.value);
  options.autoShown = command.autoShown;
  if (!command.state.empty()) {
    std::error_code ec;
    if (!fs::is_regular_file(command.state, ec)) {
      usage(err, "--state: '" + command.state + "' is not a counters file");
      return false;
    }
    // Only read: a damaged or busy file is refused and left as it is, and a read-only one will do.
    const KLTUserDefaults store(command.state, nullptr, KLTStoreAccess::ReadOnly);
    if (!store.unusable().empty()) {
      usage(err, "--state: " + store.unusable());
      return false;
    }
    options.counters = store.sharedDictionaryForKey(kKLTFrequencyStoreKey);
  }
  if (!command.compare.empty() && !prepareComparison(command.compare, options, err)) return false;
  options.identity = fleetIdentity(options.document, command.fleet, options.counters, options.autoShown,
                                   options.shard.index, options.shard.count);
  if (options.compareWith) options.identity.compare = fleetDocumentHash(*options.compareWith);
  return true;
}

int runFleetCommand(const FleetCommand& command, std::ostream& out, std::ostream& err) {
  FleetOptions options;
  if (!prepareFleet(command, options, err)) return kExitUsage;
  {
    std::ifstream probe(command.fleet);
    if (!probe) return usage(err, "cannot read '" + command.fleet + "': " + std::strerror(errno));
  }
  std::size_t workers = command.workers;
  if (workers == 0) workers = static_cast<std::size_t>(std::max(1L, ::sysconf(_SC_NPROCESSORS_ONLN)));
  // Workers share the file by its pieces; what a pipe gives, one reader takes.
  std::error_code ec;
  if (workers > 1 && fs::is_regular_file(command.fleet, ec)) {
    return runFleetWorkers(command, options, workers, out, err);
  }

  std::ifstream in(command.fleet);
  std::ofstream csv;
  if (!command.csv.empty()) {
    csv.open(command.csv, std::ios::out | std::ios::trunc);
    if (!csv) return usage(err, "--csv: cannot write '" + command.csv + "': " + std::strerror(errno));
    csv << fleetCsvHeader(options) << '\n';
    options.csv = &csv;
  }
  FleetProgressLine line(err);
  if (command.progress) options.onDevice = [&](uint64_t devices, uint64_t events) { line.show(devices, events); };
  // A pipe is known by what comes through it, read once.
  FleetEndsTap tap(*in.rdbuf());
  std::istream tapped(&tap);
  const bool piped = !fs::is_regular_file(command.fleet, ec);
  FleetResult result = replayFleet(options, piped ? tapped : in);
  if (piped) tap.into(options.identity);
  if (csv.is_open() && !csv.flush() && result.exitCode == kExitOk) {
    result.exitCode = kExitFailed;
    result.error = "--csv: writing '" + command.csv + "' failed: " + std::strerror(errno);
  }
  if (command.progress) {
    line.show(result.summary.devices(), result.summary.events(), true);
    line.end();
  }
  return finishFleet({result}, command.format, options.identity, out, err);
}

int runFleetMerge(const FleetCommand& command, std::ostream& out, std::ostream& err) {
  if (mergesComparisons(command.mergeFiles)) return runComparisonMerge(command.mergeFiles, command.format, out, err);
  FleetSummary sum;
  std::optional<FleetIdentity> whole;
  for (const std::string& file : command.mergeFiles) {
    JsonResult json = loadJsonFile(file);
    if (!json.ok()) return usage(err, "merge: " + json.error);
    std::string error;
    if (FleetComparison::isComparisonJson(json.value)) {
      return usage(err, "merge: '" + file +
                            "': it is a comparison (of --compare), the parts before it plain summaries: the two do not merge");
    }
    const auto part = FleetSummary::fromJson(json.value, error);
    if (!part) return usage(err, "merge: '" + file + "': " + error);
    const auto identity = FleetIdentity::fromJson(klt::valueForKey(json.value, "part"), error);
    if (!identity) return usage(err, "merge: '" + file + "': " + error);
    if (whole ? !whole->add(*identity, error) : !(whole = identity)) return usage(err, "merge: '" + file + "': " + error);
    if (!sum.mergeChecked(*part, error)) return usage(err, "merge: '" + file + "': " + error);
  }
  whole->normalize();
  writeSummary(sum, command.format, *whole, out);
  return kExitOk;
}

std::string fleetResultText(const FleetResult& result) {
  KLTValue json = KLTValue::object();
  json["exit"] = result.exitCode;
  json["error"] = result.error;
  json["error_line"] = result.errorLine;
  json["summary"] = result.summary.toJson();
  if (result.comparison) json["comparison"] = result.comparison->toJson();
  return json.dump(-1, ' ', false, KLTValue::error_handler_t::replace);
}

bool fleetResultFromText(std::string_view text, FleetResult& result, std::string& error) {
  JsonResult json = parseJson(text);
  if (!json.ok()) {
    error = json.error;
    return false;
  }
  const KLTValue& v = json.value;
  const auto summary = FleetSummary::fromJson(klt::valueForKey(v, "summary"), error);
  if (!summary || !klt::valueForKey(v, "exit").is_number_integer() || !klt::valueForKey(v, "error").is_string() ||
      !klt::valueForKey(v, "error_line").is_number_unsigned()) {
    if (error.empty()) error = "not a worker's result";
    return false;
  }
  result.summary = *summary;
  result.exitCode = v["exit"].get<int>();
  result.error = v["error"].get<std::string>();
  result.errorLine = v["error_line"].get<std::size_t>();
  if (v.contains("comparison")) {
    result.comparison = FleetComparison::fromJson(v["comparison"], error);
    if (!result.comparison) return false;
  }
  return true;
}

int finishFleet(const std::vector<FleetResult>& results, const std::string& format, const FleetIdentity& identity,
                std::ostream& out, std::ostream& err) {
  const FleetResult* first = nullptr;
  for (const FleetResult& r : results) {
    if (r.exitCode == kExitOk) continue;
    const auto rank = [](const FleetResult* x) { return x->errorLine == 0 ? SIZE_MAX : x->errorLine; };
    if (!first || rank(&r) < rank(first)) first = &r;
  }
  if (first) {
    err << "kltce: fleet: " << (first->errorLine ? "line " + std::to_string(first->errorLine) + ": " : "")
        << first->error << (first->error.empty() || first->error.back() != '\n' ? "\n" : "");
    err.flush();
    return first->exitCode;
  }
  if (!results.empty() && results.front().comparison) return finishComparison(results, format, identity, out, err);
  FleetSummary sum;
  for (const FleetResult& r : results) sum.merge(r.summary);
  writeSummary(sum, format, identity, out);
  return kExitOk;
}

}  // namespace kltce
