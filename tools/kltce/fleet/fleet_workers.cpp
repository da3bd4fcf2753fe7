#include "tools/kltce/fleet/fleet_workers.h"

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <system_error>
#include <thread>
#include <vector>

#include "tools/kltce/fleet/fleet_input.h"
#include "tools/kltce/replay/replay.h"

namespace kltce {

namespace {

namespace fs = std::filesystem;

// What the workers report while they run, and their end, for the thread that shows progress.
struct Progress {
  explicit Progress(std::size_t workers) : devices(workers), events(workers) {}
  std::vector<std::atomic<uint64_t>> devices, events;
  std::mutex mutex;
  std::condition_variable ended;
  std::size_t running = 0;
  std::pair<uint64_t, uint64_t> totals() const {
    uint64_t d = 0, e = 0;
    for (std::size_t w = 0; w < devices.size(); ++w) {
      d += devices[w].load(std::memory_order_relaxed);
      e += events[w].load(std::memory_order_relaxed);
    }
    return {d, e};
  }
};

// One worker: replays the pieces it takes, each as a fleet file of its bytes alone.
FleetResult runWorker(const FleetCommand& command, FleetOptions options, std::size_t worker, const FleetPieces& pieces,
                      FleetPieceSource& source, Progress& progress) {
  FleetResult result;
  std::ifstream in(command.fleet, std::ios::binary);
  std::ifstream probe(command.fleet, std::ios::binary);  // finds where the pieces begin
  std::ostringstream rows;
  std::optional<std::size_t> piece;  // the piece in hand
  const bool csv = !command.csv.empty();  // its rows go to the source, piece by piece
  options.csv = csv ? &rows : nullptr;
  const auto handIn = [&] {
    if (!piece) return;
    source.complete(*piece, csv ? std::move(rows).str() : std::string());
    rows.str("");
    piece.reset();
  };
  bool probeFailed = false;
  options.nextRange = [&]() -> std::optional<FleetRange> {
    handIn();
    while (const auto next = source.take()) {
      const auto range = pieces.range(probe, *next);
      if (probe.bad()) {
        probeFailed = true;
        piece = *next;  // stops there
        break;
      }
      if (!range) {
        source.complete(*next, std::string());  // the piece before it replays its bytes
        continue;
      }
      piece = *next;
      return range;
    }
    return std::nullopt;
  };
  options.onDevice = [&](uint64_t devices, uint64_t events) {
    progress.devices[worker].store(devices, std::memory_order_relaxed);
    progress.events[worker].store(events, std::memory_order_relaxed);
  };
  if (!in || !probe) {
    result.exitCode = kExitUsage;
    result.error = "cannot read '" + command.fleet + "': " + std::strerror(errno);
  } else {
    result = replayFleet(options, in);
    if (probeFailed && result.exitCode == kExitOk) {
      result.exitCode = kExitFailed;
      result.error = "reading the fleet failed";
    }
  }
  if (result.exitCode != kExitOk) source.stop(piece.value_or(0));
  handIn();
  return result;
}

}  // namespace

void FleetCsvInOrder::complete(std::size_t piece, std::string rows) {
  std::lock_guard lock(mutex_);
  waiting_.emplace(piece, std::move(rows));
  writeReady();
}

void FleetCsvInOrder::stopAt(std::size_t piece) {
  std::lock_guard lock(mutex_);
  limit_ = std::min(limit_, piece);
  writeReady();
}

std::string FleetCsvInOrder::failure() const {
  std::lock_guard lock(mutex_);
  return failure_;
}

std::string FleetCsvInOrder::finish() {
  std::lock_guard lock(mutex_);
  if (failure_.empty() && out_ && !out_->flush()) failure_ = std::strerror(errno);
  return failure_;
}

void FleetCsvInOrder::writeReady() {
  for (auto it = waiting_.begin(); it != waiting_.end() && it->first == next_ && next_ <= limit_;
       it = waiting_.erase(it), ++next_) {
    if (!failure_.empty() || !out_ || it->second.empty()) continue;
    out_->write(it->second.data(), static_cast<std::streamsize>(it->second.size()));
    if (!*out_) failure_ = std::strerror(errno);  // read now: later calls change errno
  }
}

std::optional<std::size_t> LocalPieceSource::take() {
  if (stopped_.load(std::memory_order_acquire)) return std::nullopt;
  const std::size_t piece = next_.fetch_add(1, std::memory_order_relaxed);
  if (piece >= count_) return std::nullopt;
  return piece;
}

void LocalPieceSource::complete(std::size_t piece, std::string rows) {
  if (csv_) csv_->complete(piece, std::move(rows));
}

void LocalPieceSource::stop(std::size_t piece) {
  // Pieces are handed out in order: every piece before this one is taken and will be done.
  stopped_.store(true, std::memory_order_release);
  if (csv_) csv_->stopAt(piece);
}

FleetPieces planFleetPieces(const std::string& fleet, std::size_t workers) {
  // Pieces of 16 KiB at the least, so that a small fleet still spreads; no more than 64 per worker,
  // so that finding where each begins costs nothing beside replaying it, unless they would pass
  // 16 MiB: the rows of a piece done early wait in memory for those before it.
  std::error_code ec;
  const uintmax_t size = fs::file_size(fleet, ec);
  FleetPieces pieces;
  pieces.size = ec ? 0 : size;
  const uintmax_t most = std::max<uintmax_t>(workers * 64, pieces.size / (16 << 20));
  pieces.count = static_cast<std::size_t>(std::clamp<uintmax_t>(pieces.size / (16 << 10), 1, most));
  return pieces;
}

FleetWorkersRun runFleetThreads(const FleetCommand& command, const FleetOptions& options, std::size_t workers,
                                const FleetPieces& pieces, FleetPieceSource& source, std::ostream& err) {
  FleetWorkersRun run;
  run.results.resize(workers);
  Progress progress(workers);
  std::vector<std::thread> threads;
  threads.reserve(workers);
  for (std::size_t w = 0; w < workers; ++w) {
    {
      std::lock_guard lock(progress.mutex);
      ++progress.running;
    }
    try {
      threads.emplace_back([&, w] {
        run.results[w] = runWorker(command, options, w, pieces, source, progress);
        std::lock_guard lock(progress.mutex);
        --progress.running;
        progress.ended.notify_all();
      });
    } catch (const std::system_error& e) {
      // The workers started take every piece; none is replayed twice or lost. The run still
      // fails: it was asked for more than it could have.
      std::lock_guard lock(progress.mutex);
      --progress.running;
      run.results.resize(w);
      run.error = std::string("cannot start worker ") + std::to_string(w) + ": " + e.what();
      source.stop(0);
      break;
    }
  }
  FleetProgressLine line(err);
  {
    std::unique_lock lock(progress.mutex);
    while (progress.running > 0) {
      progress.ended.wait_for(lock, std::chrono::milliseconds(250));
      if (command.progress) {
        const auto [devices, events] = progress.totals();
        line.show(devices, events);
      }
    }
  }
  for (auto& t : threads) t.join();
  if (command.progress) {
    const auto [devices, events] = progress.totals();
    line.show(devices, events, true);
    line.end();
  }
  return run;
}

int runFleetWorkers(const FleetCommand& command, const FleetOptions& options, std::size_t workers, std::ostream& out,
                    std::ostream& err) {
  const FleetPieces pieces = planFleetPieces(command.fleet, workers);
  std::ofstream csv;
  if (!command.csv.empty()) {
    csv.open(command.csv, std::ios::out | std::ios::trunc | std::ios::binary);
    if (!csv || !(csv << fleetCsvHeader(options) << '\n')) {
      err << "kltce: fleet: --csv: cannot write '" << command.csv << "': " << std::strerror(errno) << '\n';
      return kExitUsage;
    }
  }
  FleetCsvInOrder rows(csv.is_open() ? &csv : nullptr);
  LocalPieceSource source(pieces.count, &rows);
  FleetWorkersRun run = runFleetThreads(command, options, workers, pieces, source, err);
  if (!run.error.empty()) {
    err << "kltce: fleet: " << run.error << '\n';
    return kExitFailed;
  }
  if (const std::string why = rows.finish(); csv.is_open() && !why.empty()) {
    err << "kltce: fleet: --csv: writing '" << command.csv << "' failed: " << why << '\n';
    return kExitFailed;
  }
  return finishFleet(run.results, command.format, options.identity, out, err);
}

}  // namespace kltce
