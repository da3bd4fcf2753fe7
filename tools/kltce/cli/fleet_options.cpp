#include "tools/kltce/cli/fleet_options.h"

#include <CLI/CLI.hpp>

namespace kltce {

const char* const kFleetHelp = R"(
The fleet file is JSON Lines. Every line carries "device" (the device's id, non-empty text). A
device's lines are contiguous and its first line is its profile line:
  {"device": "d1", "action": "profile", "app_version": "2.4.1", "time_zone": "Europe/Paris", ...}
(the keys of a --profile file); the lines after it, up to the next device's profile line, are its
event stream, each an event stream line of `kltce run` with "device" added. A line that breaks this
order stops the fleet with its line number. The file is read once, one device at a time.

Each device is replayed as `kltce run --fresh` replays it alone in a fresh process (with --state:
as `kltce run --state` on a copy of that file; the file is only read). Its stream lines are
numbered from 1, as in a file of its stream alone.

Output per campaign: devices that met it, admitted, rejected (by the admission step that failed),
reached (one display or more), displays (in all and per reached device), seconds from a device's
first line to its first display (median and 90th percentile, nearest rank over exact counts per
whole second), and for devices not reached the count of each "why not" of `kltce run --explain`.
--format json writes it as JSON, which `kltce fleet merge` adds up; --csv writes one row per
(device, campaign).

--workers K threads take pieces of the fleet file in turn (a fleet that is not a regular file,
such as a pipe, is replayed by one). --shard I/N replays the devices whose id's 64-bit FNV-1a hash h
gives h mod N = I. Merging the JSON of shards 0/N .. N-1/N equals one run's JSON byte for byte.
--csv lists the devices in the file's order, whatever the number of workers. After an error, it
holds the rows of the devices before the error.)";

void addFleetOptions(CLI::App& app, FleetCommand& c) {
  app.add_option("--document", c.document, "campaign document (JSON)");
  app.add_option("--fleet", c.fleet, "fleet file: JSON Lines, every line with \"device\", each device's profile line first");
  app.add_option("--format", c.format, "summary as table (the default) or json (mergeable)")
      ->check(CLI::IsMember({"table", "json"}));
  app.add_option("--csv", c.csv, "also write one CSV row per (device, campaign) to FILE");
  app.add_option("--workers", c.workers, "worker threads, taking pieces of the fleet file in turn (default: one per core); progress on a terminal");
  app.add_option("--shard", c.shard, "replay only shard I of N (I/N, by a hash of the device id; default 0/1)");
  app.add_option("--state", c.state, "every device starts from the counters of this file (only read; default: fresh)");
  app.add_flag("--auto-shown", c.autoShown, "report every display event as shown, as a host would after showing it");
  app.add_option("--compare", c.compare, "an old document: replay each device with it too and compare (old -> new; --csv: the changed rows)");
}

}  // namespace kltce
