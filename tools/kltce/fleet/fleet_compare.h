// `kltce fleet --compare OLD.json`: what a change of the campaign document does to its reach. One
// pass over the fleet file; each device's lines are read once and replayed twice, with the old
// document and with the new one, each replay exactly as a plain fleet run replays the device (the
// engine reset, the profile applied, fresh counters or a copy of --state's). The result is a
// FleetComparison (fleet_comparison.h) beside the new document's summary, and the CSV rows are
// one per (device, campaign) whose outcome changed, with both outcomes and both explain lines.
//
// Both replays of a device happen in the process (worker, MPI rank) that reads it, so shards,
// workers and ranks split and merge a comparison as they do a summary.
//
// replayFleetCompared() has replayFleet()'s threading and process-wide seams (fleet.h): one fleet
// at a time per process, from one thread. Nothing here throws.
#pragma once

#include <istream>
#include <ostream>
#include <string>
#include <vector>

#include "tools/kltce/fleet/fleet.h"

namespace kltce {

// replayFleet() when options.compareWith is set (which replayFleet() calls for it).
FleetResult replayFleetCompared(const FleetOptions& options, std::istream& fleet);

// Reads the old document of --compare into options.compareWith; false, with one line on err,
// when it is not a campaign document.
bool prepareComparison(const std::string& path, FleetOptions& options, std::ostream& err);

// The end of a comparison run: the merged comparison of the results (none of which failed),
// written in `format` (table, or json with `identity` as its "part"). Returns the exit code.
int finishComparison(const std::vector<FleetResult>& results, const std::string& format, const FleetIdentity& identity,
                     std::ostream& out, std::ostream& err);

// Whether `kltce fleet merge` is given comparisons: its first file is one (false when that file
// cannot be read: the plain merge then names the problem).
bool mergesComparisons(const std::vector<std::string>& files);
// `kltce fleet merge` of comparisons: adds them up and writes the sum in `format`. Refuses (exit 2),
// as the plain merge does, parts of another run by their "part" (another new or old document,
// fleet, options or split, a shard twice) and a plain summary among them.
int runComparisonMerge(const std::vector<std::string>& files, const std::string& format, std::ostream& out,
                       std::ostream& err);

}  // namespace kltce
