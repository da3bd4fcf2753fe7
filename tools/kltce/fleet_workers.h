// The worker processes of `kltce fleet` on one machine, and its progress line.
//
// runFleetWorkers() forks `workers` processes (before this process has used the engine: the
// engine's seams are process-wide, and a fork carries no thread). The fleet file is cut into
// pieces (fleet.h: FleetPieces), which the workers take in turn, each opening the file itself: a
// worker reads only the lines it replays, and a faster one takes more pieces. The fleet must be a
// regular file (a pipe cannot be shared this way). Each worker writes its FleetResult as one JSON text to a pipe
// (fleet_command.h: fleetResultText()); the parent reads the pipes, shows the progress the workers
// keep in memory shared with it, waits for them, gathers their CSV parts and writes the merged
// summary. A worker that ends without a result is an error naming it.
//
// After an error a worker stops, and the others take no more pieces: the error of the lowest line
// is reported, as one process reports it, and the CSV holds the rows of the devices before it.
//
// Call from one thread, with nothing else of this process writing to the streams meanwhile.
#pragma once

#include <algorithm>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <ostream>

#include "tools/kltce/fleet.h"
#include "tools/kltce/fleet_command.h"

namespace kltce {

// Writes "\rkltce: fleet: N devices, M events (X devices/s, Y events/s)" at most 4 times a second.
class FleetProgressLine {
 public:
  explicit FleetProgressLine(std::ostream& err) : err_(err), began_(std::chrono::steady_clock::now()) {}
  void show(uint64_t devices, uint64_t events, bool force = false) {
    const auto now = std::chrono::steady_clock::now();
    if (!force && now - last_ < std::chrono::milliseconds(250)) return;
    last_ = now;
    const double seconds = std::max(1e-3, std::chrono::duration<double>(now - began_).count());
    err_ << "\rkltce: fleet: " << devices << " devices, " << events << " events ("
         << static_cast<uint64_t>(static_cast<double>(devices) / seconds) << " devices/s, "
         << static_cast<uint64_t>(static_cast<double>(events) / seconds) << " events/s)   " << std::flush;
    shown_ = true;
  }
  void end() {
    if (shown_) err_ << '\n';
  }

 private:
  std::ostream& err_;
  std::chrono::steady_clock::time_point began_, last_{};
  bool shown_ = false;
};

// Returns the exit code of the run (fleet_command.h: finishFleet()).
int runFleetWorkers(const FleetCommand& command, const FleetOptions& options, std::size_t workers, std::ostream& out,
                    std::ostream& err);

}  // namespace kltce
