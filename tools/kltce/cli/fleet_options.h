// The options of `kltce fleet` on the command line, shared by `kltce` and `kltce-fleet-mpi` so that
// both take the same flags and print the same help.
//
// Only declares CLI::App; the callers parse with CLI11 themselves. Not thread-safe (fills one
// command from one parse).
#pragma once

#include "tools/kltce/fleet/fleet_command.h"

namespace CLI {
class App;
}  // namespace CLI

namespace kltce {

// Adds the replay options (--document, --fleet, --format, --csv, --workers, --shard, --state,
// --auto-shown, --compare) to a command.
void addFleetOptions(CLI::App& app, FleetCommand& command);
// The text of `kltce fleet --help`'s footer: the fleet file's form and what the output holds.
extern const char* const kFleetHelp;

}  // namespace kltce
