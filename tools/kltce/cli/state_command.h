// `kltce state show|reset --state FILE`: read the persisted display counters as JSON, or clear
// them. Written against the store's public interface (objectForKey, setObject,
// removeObjectForKey, synchronize), so it works whatever the store keeps on disk.
//
// Call from one thread, with no replay running on the same file (one process owns a store).
#pragma once

#include <filesystem>
#include <ostream>

#include "platform/KLTValue.h"

namespace kltce {

// The counters as the tool shows them: every date as ISO 8601 UTC text, and beside each record's
// "day" (the start of its day period) "next_day_period", the moment a new day period can begin
// (25 whole hours later: the cap's day period restarts only after more than 24 whole hours).
KLTValue countersForDisplay(const KLTValue& stored);

// Prints {"state": path, "counters": {...}} on out. 0 done; 2 no store at that path (nothing is
// created), with one line on err.
int runStateShow(const std::filesystem::path& path, std::ostream& out, std::ostream& err);

// Removes every counter and makes that durable. 0 done (also when there was nothing to clear);
// 2 the store could not be written, with one line on err.
int runStateReset(const std::filesystem::path& path, std::ostream& out, std::ostream& err);

}  // namespace kltce
