// The `kltce fleet` and `kltce fleet merge` commands over replayFleet() (fleet.h): their options
// (read from the command line by cli/fleet_options.h), the workers of one machine, and the output.
//
// Local parallelism: `--workers` threads (default: one per core), each with engines of its own,
// take pieces of the fleet file in turn (fleet_workers.h); their results are added up in memory.
// The CSV rows are in the file's order, whatever the number of workers. Progress (devices and
// events, per second) goes to standard error when `progress` is set.
//
// Output: the merged FleetSummary as a table (the default) or as JSON; the JSON of a run, of a
// shard or of a merge can itself be merged, and merging equals replaying the union in one run.
//
// Functions here write only to the streams and files they are given; not thread-safe.
#pragma once

#include <cstdint>
#include <ostream>
#include <string>
#include <string_view>
#include <vector>

#include "tools/kltce/fleet/fleet.h"

namespace kltce {

// The most workers `--workers` takes: each holds its own engine and stream, and beyond the
// machine's cores more of them only cost.
inline constexpr unsigned kMaxFleetWorkers = 256;

struct FleetCommand {
  std::string document, fleet, state, csv;
  std::string compare;  // the old document of a comparison (fleet_compare.h); empty: none
  std::string shard = "0/1";
  std::string format = "table";  // table or json
  unsigned workers = 0;          // 0: one per core
  bool autoShown = false;
  bool progress = false;
  std::vector<std::string> mergeFiles;
};

// Reads the document (and --state's counters) and checks the options into `options`; false, with
// one line on err, when something cannot be used.
bool prepareFleet(const FleetCommand& command, FleetOptions& options, std::ostream& err);

// `kltce fleet`: replays the fleet with the command's workers and writes the summary. Returns a
// kExit* code; kExitBlocked means the engine's queue of this process may be held for good.
int runFleetCommand(const FleetCommand& command, std::ostream& out, std::ostream& err);
// `kltce fleet merge`: adds up the JSON summaries of mergeFiles and writes the sum. Refuses (exit 2)
// parts of other documents, fleets or options, of another split, a shard twice, a comparison among
// them, and counts that do not add up or would pass 2^64 - 1. When the first part is a comparison,
// the parts are merged as comparisons (runComparisonMerge(), fleet_compare.h).
int runFleetMerge(const FleetCommand& command, std::ostream& out, std::ostream& err);

// A result as one JSON text, and back (what an MPI rank hands rank 0); false (error set) when the
// text is not one.
std::string fleetResultText(const FleetResult& result);
bool fleetResultFromText(std::string_view text, FleetResult& result, std::string& error);
// The end of a run of several workers: the first error (by fleet line) if any, else the merged
// summary, written in `format` (JSON with `identity` as its "part"). Returns the exit code.
int finishFleet(const std::vector<FleetResult>& results, const std::string& format, const FleetIdentity& identity,
                std::ostream& out, std::ostream& err);
}  // namespace kltce
