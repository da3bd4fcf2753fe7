// `kltce fleet`: replays every device of a fleet file (fleet_input.h) against one campaign
// document, each as `kltce run` replays a device alone in a fresh process, and adds the outcomes
// up per campaign (fleet_summary.h).
//
// Per device: an engine instance of its own (no campaign, listener or rule object of the device
// before is reachable from it), the profile applied, the counters fresh (or a copy of the counters
// given), the virtual clock started at the device's first line, and the stream replayed with the
// decision observer installed. Engine log lines are dropped.
//
// Which devices a process replays: the 64-bit FNV-1a hash h of the id's bytes (offset basis
// 14695981039346656037, prime 1099511628211) selects shard h mod N of `--shard I/N`, and within a
// The workers (threads, and MPI ranks) share a shard by ranges of the file (FleetOptions::nextRange),
// which spares each the reading of the others' lines and lets a faster worker take more of them.
//
// replayFleet() may run on several threads at once, each with its own options and stream. It
// never throws.
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
#include "tools/kltce/fleet/fleet_comparison.h"
#include "tools/kltce/fleet/fleet_identity.h"
#include "tools/kltce/fleet/fleet_summary.h"

namespace kltce {

// One of `count` equal parts of the devices.
struct FleetPart {
  uint64_t index = 0;
  uint64_t count = 1;
};

uint64_t fleetDeviceHash(std::string_view id);
// Whether the device of this hash belongs to shard `shard`.
bool fleetSelects(uint64_t hash, FleetPart shard);
// Reads "I/N" (0 <= I < N); nothing when malformed.
std::optional<FleetPart> parseFleetPart(std::string_view text);

// A part of a fleet file in bytes: from the start of a line to that of another, or to the end.
struct FleetRange {
  uint64_t begin = 0;
  uint64_t end = 0;
};

// A fleet file cut into `count` pieces of about equal size, for workers to take in turn. Piece i's
// range runs from the range start found in its bytes (fleet_input.h: fleetRangeStart()) to the
// one found in a later piece, or to the end; a piece that holds none has no range, its bytes being
// those of the range of a piece before it. So the ranges split the file between devices.
struct FleetPieces {
  uint64_t size = 0;  // of the file
  std::size_t count = 1;
  uint64_t at(std::size_t piece) const { return size * piece / count; }
  // Reads `in` near the piece's bounds; nothing also when `in` cannot be read (in.bad()).
  std::optional<FleetRange> range(std::istream& in, std::size_t piece) const;
};

struct FleetOptions {
  KLTValue document;
  std::optional<KLTSharedMap> counters;  // every device starts from these (kltce run --state); none: fresh
  bool autoShown = false;                // report every display as shown (kltce run --auto-shown)
  FleetPart shard;
  std::ostream* csv = nullptr;  // one row per (device, campaign); no header
  // When set, the fleet stream (seekable) is replayed as the ranges this gives, one after another
  // until it gives none, each read as a fleet file of those bytes alone, its lines numbered as in
  // the whole stream. Ranges must begin where fleetRangeStart() (fleet_input.h) says, so that no
  // device is cut. Called again after each range has been replayed, and not after a stop.
  std::function<std::optional<FleetRange>()> nextRange;
  // Called after each device replayed, with the totals so far (progress).
  std::function<void(uint64_t devices, uint64_t events)> onDevice;
  // When set, each device is replayed twice, with this old document and with `document`, and the
  // result compares them (fleet_compare.h); the CSV rows are then those of the changed outcomes.
  std::optional<KLTValue> compareWith;
  // What the run is of, written beside its summary (not read by the replay).
  FleetIdentity identity;
};

struct FleetResult {
  int exitCode = 0;            // kExit* of replay.h
  FleetSummary summary;        // of the devices replayed before a stop
  std::string error;           // why the fleet stopped; empty when it went through
  std::size_t errorLine = 0;   // the fleet file's line the error names (0: none)
  std::optional<FleetComparison> comparison;  // with compareWith; summary is then the new document's
};

FleetResult replayFleet(const FleetOptions& options, std::istream& fleet);

// The CSV header of FleetOptions::csv's rows.
inline constexpr const char* kFleetCsvHeader = "device,campaign,outcome,reason,displays,first_display_ms,text";
// The CSV header of a comparison's rows (FleetOptions::compareWith); fleetCsvHeader(): the header
// of the rows these options make.
inline constexpr const char* kFleetCompareCsvHeader =
    "device,campaign,old_outcome,new_outcome,old_reason,new_reason,old_displays,new_displays,old_text,new_text";
inline const char* fleetCsvHeader(const FleetOptions& options) {
  return options.compareWith ? kFleetCompareCsvHeader : kFleetCsvHeader;
}

}  // namespace kltce
