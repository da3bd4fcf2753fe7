// `kltce fleet`: replays every device of a fleet file (fleet_input.h) against one campaign
// document, each as `kltce run` replays a device alone in a fresh process, and adds the outcomes
// up per campaign (fleet_summary.h).
//
// Per device: the engine is reset (KLTContextEvaluator::resetForTesting(): no campaign, listener
// or rule object of the device before survives), the profile applied, the counters fresh (or a
// copy of the counters given), the virtual clock started at the device's first line, and the
// stream replayed with the decision observer installed. Engine log lines are dropped.
//
// Which devices a process replays: the 64-bit FNV-1a hash h of the id's bytes (offset basis
// 14695981039346656037, prime 1099511628211) selects shard h mod N of `--shard I/N`, and within a
// shard, part (h div N) mod K of the K workers (processes or MPI ranks) sharing it.
//
// replayFleet() installs the engine's process-wide seams as runReplay() does: one fleet at a time
// per process, from one thread. It never throws.
#pragma once

#include <cstdint>
#include <functional>
#include <istream>
#include <optional>
#include <ostream>
#include <string>
#include <string_view>

#include "platform/KLTSharedMap.h"
#include "platform/KLTValue.h"
#include "tools/kltce/fleet_summary.h"

namespace kltce {

// One of `count` equal parts of the devices.
struct FleetPart {
  uint64_t index = 0;
  uint64_t count = 1;
};

uint64_t fleetDeviceHash(std::string_view id);
// Whether the device of this hash belongs to shard `shard` and, within it, to part `part`.
bool fleetSelects(uint64_t hash, FleetPart shard, FleetPart part);
// Reads "I/N" (0 <= I < N); nothing when malformed.
std::optional<FleetPart> parseFleetPart(std::string_view text);

struct FleetOptions {
  KLTValue document;
  std::optional<KLTSharedMap> counters;  // every device starts from these (kltce run --state); none: fresh
  bool autoShown = false;                // report every display as shown (kltce run --auto-shown)
  FleetPart shard;
  FleetPart part;
  std::ostream* csv = nullptr;  // one row per (device, campaign); no header
  // Called after each device replayed, with the totals so far (progress).
  std::function<void(uint64_t devices, uint64_t events)> onDevice;
};

struct FleetResult {
  int exitCode = 0;            // kExit* of replay.h
  FleetSummary summary;        // of the devices replayed before a stop
  std::string error;           // why the fleet stopped; empty when it went through
  std::size_t errorLine = 0;   // the fleet file's line the error names (0: none)
};

FleetResult replayFleet(const FleetOptions& options, std::istream& fleet);

// The CSV header of FleetOptions::csv's rows.
inline constexpr const char* kFleetCsvHeader = "device,campaign,outcome,reason,displays,first_display_ms,text";

}  // namespace kltce
