// The workers of `kltce fleet`: threads of this process, each replaying devices on engines of its
// own, and the progress line.
//
// The fleet file is cut into pieces (fleet.h: FleetPieces), which the workers take in turn from a
// FleetPieceSource, each reading the file through a stream of its own: a worker reads only the
// lines it replays, and a faster one takes more pieces. The fleet must be a regular file (a pipe
// cannot be shared this way). Every worker adds up its own FleetResult; they are merged when all
// are done. The CSV rows of a piece are handed in when the piece is done, and written in the file's
// order (FleetCsvInOrder), so the CSV of any number of workers equals that of one.
//
// After an error a worker stops, and no more pieces are handed out: the error of the lowest line
// is reported, as one worker reports it, and the CSV holds the rows of the devices before it.
#pragma once

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <map>
#include <mutex>
#include <optional>
#include <ostream>
#include <string>

#include "tools/kltce/fleet/fleet.h"
#include "tools/kltce/fleet/fleet_command.h"

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

// The CSV rows of pieces handed in out of order, written in piece order: a piece's rows go out once
// every piece before it is in. After stopAt(p), no piece after p is written. Each write is checked:
// a failed one makes failure() say why, and nothing more is written. Thread-safe.
class FleetCsvInOrder {
 public:
  explicit FleetCsvInOrder(std::ostream* out) : out_(out) {}
  void complete(std::size_t piece, std::string rows);
  void stopAt(std::size_t piece);
  // Why the first write failed (the system's words); empty while none has.
  std::string failure() const;
  // failure(), else why flushing out now fails; empty when everything was written.
  std::string finish();

 private:
  void writeReady();  // with mutex_ held
  std::ostream* out_;
  mutable std::mutex mutex_;
  std::map<std::size_t, std::string> waiting_;
  std::size_t next_ = 0;
  std::size_t limit_ = SIZE_MAX;
  std::string failure_;
};

// Where the workers take pieces from: in increasing order, none after a stop.
class FleetPieceSource {
 public:
  virtual ~FleetPieceSource() = default;
  // The next piece, after the rows of the worker's previous one (when it had one) were handed in;
  // nothing when none is left or the fleet stopped. Any thread.
  virtual std::optional<std::size_t> take() = 0;
  // The rows of a piece done (or, after the worker's stop, done up to its error).
  virtual void complete(std::size_t piece, std::string rows) = 0;
  // A worker stopped in this piece: no more pieces are handed out, and no rows of a later piece
  // are written.
  virtual void stop(std::size_t piece) = 0;
};

// The pieces of one process: a counter shared by its workers.
class LocalPieceSource final : public FleetPieceSource {
 public:
  LocalPieceSource(std::size_t count, FleetCsvInOrder* csv) : count_(count), csv_(csv) {}
  std::optional<std::size_t> take() override;
  void complete(std::size_t piece, std::string rows) override;
  void stop(std::size_t piece) override;

 private:
  const std::size_t count_;
  FleetCsvInOrder* csv_;
  std::atomic<std::size_t> next_{0};
  std::atomic<bool> stopped_{false};
};

// What the workers of one process did: their results, merged by finishFleet() (fleet_command.h).
struct FleetWorkersRun {
  std::vector<FleetResult> results;
  std::string error;  // a worker could not be started; empty otherwise
};

// Runs `workers` threads over the fleet file's pieces from `source`; shows progress on err when
// command.progress is set. Returns when every worker is done.
FleetWorkersRun runFleetThreads(const FleetCommand& command, const FleetOptions& options, std::size_t workers,
                                const FleetPieces& pieces, FleetPieceSource& source, std::ostream& err);

// The pieces of the command's fleet file for this many workers in all (over every process).
FleetPieces planFleetPieces(const std::string& fleet, std::size_t workers);

// `kltce fleet` with several workers in this process. Returns the exit code of the run
// (fleet_command.h: finishFleet()).
int runFleetWorkers(const FleetCommand& command, const FleetOptions& options, std::size_t workers, std::ostream& out,
                    std::ostream& err);

}  // namespace kltce
