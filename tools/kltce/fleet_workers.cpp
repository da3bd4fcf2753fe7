#include "tools/kltce/fleet_workers.h"

#include <poll.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <optional>
#include <sstream>
#include <string>
#include <string_view>
#include <vector>

#include "tools/kltce/fleet_input.h"
#include "tools/kltce/replay.h"

namespace kltce {

namespace {

namespace fs = std::filesystem;

int failed(std::ostream& err, const std::string& message) {
  err << "kltce: fleet: " << message << '\n';
  return kExitFailed;
}

// A file's pieces: of 16 KiB at the least, so that a small fleet still spreads; no more than 64 per
// worker, so that finding where each begins costs nothing beside replaying it, unless they would
// pass 16 MiB: a worker holds a piece's CSV rows until its end.
FleetPieces planPieces(const std::string& fleet, std::size_t workers) {
  std::error_code ec;
  const uintmax_t size = fs::file_size(fleet, ec);
  FleetPieces pieces;
  pieces.size = ec ? 0 : size;
  const uintmax_t most = std::max<uintmax_t>(workers * 64, pieces.size / (16 << 20));
  pieces.count = static_cast<std::size_t>(std::clamp<uintmax_t>(pieces.size / (16 << 10), 1, most));
  return pieces;
}

// What the workers and the parent share across fork(), in anonymous shared memory: per worker its
// devices and events so far; the next piece to take and whether a worker stopped; per piece, who
// replayed it and where its CSV rows of each group are in that worker's part file.
class SharedState {
 public:
  SharedState(std::size_t workers, std::size_t pieces)
      : workers_(workers), count_(workers * 2 + 2 + pieces * (1 + 2 * workers)) {
    void* p = ::mmap(nullptr, bytes(), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    if (p != MAP_FAILED) {
      cells_ = static_cast<std::atomic<uint64_t>*>(p);
      for (std::size_t i = 0; i < count_; ++i) new (&cells_[i]) std::atomic<uint64_t>(0);
    }
  }
  ~SharedState() {
    if (cells_) ::munmap(cells_, bytes());
  }
  SharedState(const SharedState&) = delete;
  SharedState& operator=(const SharedState&) = delete;
  bool ok() const { return cells_ != nullptr; }

  void setProgress(std::size_t worker, uint64_t devices, uint64_t events) {
    cells_[worker * 2].store(devices, std::memory_order_relaxed);
    cells_[worker * 2 + 1].store(events, std::memory_order_relaxed);
  }
  std::pair<uint64_t, uint64_t> progress() const {
    uint64_t d = 0, e = 0;
    for (std::size_t i = 0; i < workers_ * 2; i += 2) {
      d += cells_[i].load(std::memory_order_relaxed);
      e += cells_[i + 1].load(std::memory_order_relaxed);
    }
    return {d, e};
  }
  // Pieces are taken in increasing order, so a worker's part file holds its pieces in order.
  std::size_t take() { return static_cast<std::size_t>(cells_[workers_ * 2].fetch_add(1)); }
  // After a stop the others finish the piece in hand and take no more: every piece before the
  // stopping one is replayed, and so the error of the lowest line is found, as one process finds it.
  void stop(std::size_t piece) {
    std::atomic<uint64_t>& first = cells_[workers_ * 2 + 1];
    uint64_t seen = first.load();
    while ((seen == 0 || piece + 1 < seen) && !first.compare_exchange_weak(seen, piece + 1)) {
    }
  }
  bool stopped() const { return cells_[workers_ * 2 + 1].load() != 0; }
  // Whether the rows of the piece are of devices before the first stop's, so that the CSV of a
  // stopped run holds those a run in one process would have written.
  bool beforeStop(std::size_t piece) const {
    const uint64_t first = cells_[workers_ * 2 + 1].load();
    return first == 0 || piece + 1 <= first;
  }
  // The worker that replayed the piece, plus one (0: none).
  std::atomic<uint64_t>& owner(std::size_t piece) { return cells_[pieceBase(piece)]; }
  std::atomic<uint64_t>& rowsAt(std::size_t piece, std::size_t group) {
    return cells_[pieceBase(piece) + 1 + group * 2];
  }
  std::atomic<uint64_t>& rowsLength(std::size_t piece, std::size_t group) {
    return cells_[pieceBase(piece) + 2 + group * 2];
  }

 private:
  std::size_t pieceBase(std::size_t piece) const { return workers_ * 2 + 2 + piece * (1 + 2 * workers_); }
  std::size_t bytes() const { return count_ * sizeof(std::atomic<uint64_t>); }
  std::size_t workers_, count_;
  std::atomic<uint64_t>* cells_ = nullptr;
};

bool writeAll(int fd, std::string_view text) {
  while (!text.empty()) {
    const ssize_t n = ::write(fd, text.data(), text.size());
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return false;
    text.remove_prefix(static_cast<std::size_t>(n));
  }
  return true;
}

// A SIGTERM or SIGINT the parent received while its workers run; 0 when none.
volatile std::sig_atomic_t stopSignal = 0;
extern "C" void onStopSignal(int signal) { stopSignal = signal; }

// While workers run, SIGTERM and SIGINT reach the parent's loop (they interrupt its poll) rather
// than ending it at once: it stops the workers and removes their part files before it ends by the
// same signal. The previous handlers come back when the workers are done.
class StopSignals {
 public:
  StopSignals() {
    stopSignal = 0;
    struct sigaction action {};
    action.sa_handler = onStopSignal;
    sigemptyset(&action.sa_mask);
    for (int i = 0; i < 2; ++i) ::sigaction(kSignals[i], &action, &previous_[i]);
  }
  ~StopSignals() { restore(); }
  StopSignals(const StopSignals&) = delete;
  StopSignals& operator=(const StopSignals&) = delete;
  void restore() {
    for (int i = 0; i < 2; ++i) ::sigaction(kSignals[i], &previous_[i], nullptr);
  }
  // In a forked worker: the signals end it as they would any process.
  static void defaultsInWorker() {
    for (int signal : kSignals) ::signal(signal, SIG_DFL);
  }

 private:
  static constexpr int kSignals[2] = {SIGTERM, SIGINT};
  struct sigaction previous_[2];
};

// One worker in a forked child: replays the pieces of the file it takes; writes its result to fd.
// Never returns.
[[noreturn]] void runWorker(const FleetCommand& command, FleetOptions options, std::size_t worker, std::size_t workers,
                            const FleetPieces& pieces, int fd, SharedState& shared) {
  FleetResult result;
  std::ifstream in(command.fleet, std::ios::binary);
  std::ifstream probe(command.fleet, std::ios::binary);  // finds where the pieces begin
  const std::string csvPart = command.csv + ".part" + std::to_string(worker);
  std::ofstream csv;
  if (!command.csv.empty()) csv.open(csvPart, std::ios::out | std::ios::trunc | std::ios::binary);
  // The piece in hand and its CSV rows, per group of devices (fleet_command.h).
  std::optional<std::size_t> piece;
  std::vector<std::ostringstream> groups(csv.is_open() ? workers : 0);
  uint64_t csvWritten = 0;
  const auto putRows = [&] {
    if (!piece) return;
    for (std::size_t g = 0; g < groups.size(); ++g) {
      const std::string rows = std::move(groups[g]).str();
      shared.rowsAt(*piece, g).store(csvWritten);
      shared.rowsLength(*piece, g).store(rows.size());
      csv << rows;
      csvWritten += rows.size();
      groups[g].str("");
    }
    piece.reset();
  };
  bool probeFailed = false;
  if (!groups.empty()) options.csvFor = [&](uint64_t hash) { return &groups[(hash / options.shard.count) % workers]; };
  options.nextRange = [&]() -> std::optional<FleetRange> {
    putRows();
    while (!shared.stopped()) {
      const std::size_t c = shared.take();
      if (c >= pieces.count) break;
      const auto range = pieces.range(probe, c);
      if (probe.bad()) {
        probeFailed = true;
        break;
      }
      if (!range) continue;  // the piece before it replays it
      shared.owner(c).store(worker + 1);
      piece = c;
      return range;
    }
    return std::nullopt;
  };
  options.onDevice = [&](uint64_t devices, uint64_t events) { shared.setProgress(worker, devices, events); };
  if (!in || !probe) {
    result.exitCode = kExitUsage;
    result.error = "cannot read '" + command.fleet + "': " + std::strerror(errno);
  } else if (!command.csv.empty() && !csv) {
    result.exitCode = kExitUsage;
    result.error = "cannot write '" + csvPart + "'";
  } else {
    result = replayFleet(options, in);
    if (probeFailed && result.exitCode == kExitOk) {
      result.exitCode = kExitFailed;
      result.error = "reading the fleet failed";
    }
  }
  if (result.exitCode != kExitOk) shared.stop(piece.value_or(0));
  putRows();
  csv.close();
  if (!command.csv.empty() && !csv && result.exitCode == kExitOk) {
    result.exitCode = kExitFailed;
    result.error = "--csv: writing '" + csvPart + "' failed: " + std::strerror(errno);
  }
  const bool written = writeAll(fd, fleetResultText(result));
  ::close(fd);
  // No destructor or exit handler of the parent's objects runs in the child.
  std::_Exit(written ? 0 : kExitFailed);
}

// The CSV rows in groups, each in the file's order: the pieces were taken in order, and each
// worker's part file holds its pieces' rows group by group.
std::vector<CsvSlice> csvSlices(std::size_t workers, const FleetPieces& pieces, SharedState& shared) {
  std::vector<CsvSlice> slices;
  for (std::size_t g = 0; g < workers; ++g) {
    for (std::size_t c = 0; c < pieces.count; ++c) {
      const uint64_t owner = shared.owner(c).load();
      const uint64_t length = shared.rowsLength(c, g).load();
      if (owner == 0 || length == 0 || !shared.beforeStop(c)) continue;
      slices.push_back({static_cast<std::size_t>(owner - 1), shared.rowsAt(c, g).load(), length});
    }
  }
  return slices;
}

// Ends the workers, removes their part files, and ends the process by the signal it received.
[[noreturn]] void stopWorkers(const FleetCommand& command, const std::vector<pid_t>& pids, int signal) {
  for (pid_t pid : pids) {
    if (pid > 0) ::kill(pid, SIGTERM);
  }
  for (pid_t pid : pids) {
    while (pid > 0 && ::waitpid(pid, nullptr, 0) < 0 && errno == EINTR) {
    }
  }
  if (!command.csv.empty()) {
    for (std::size_t w = 0; w < pids.size(); ++w) {
      std::error_code ec;
      fs::remove(command.csv + ".part" + std::to_string(w), ec);
    }
  }
  std::cout.flush();
  std::cerr.flush();
  ::signal(signal, SIG_DFL);
  ::raise(signal);
  std::_Exit(128 + signal);
}

}  // namespace

int runFleetWorkers(const FleetCommand& command, const FleetOptions& options, std::size_t workers, std::ostream& out,
               std::ostream& err) {
  const FleetPieces pieces = planPieces(command.fleet, workers);
  SharedState shared(workers, pieces.count);
  if (!shared.ok()) return failed(err, std::string("cannot share memory with the workers: ") + std::strerror(errno));
  std::vector<int> fds(workers, -1);
  std::vector<pid_t> pids(workers, -1);
  StopSignals signals;
  std::vector<std::string> texts(workers);
  std::cout.flush();
  std::cerr.flush();
  out.flush();
  err.flush();
  for (std::size_t w = 0; w < workers; ++w) {
    int pipeFds[2];
    if (::pipe(pipeFds) != 0) return failed(err, std::string("cannot make a pipe: ") + std::strerror(errno));
    const pid_t pid = ::fork();
    if (pid < 0) return failed(err, std::string("cannot start a worker: ") + std::strerror(errno));
    if (pid == 0) {
      StopSignals::defaultsInWorker();
      ::close(pipeFds[0]);
      for (std::size_t i = 0; i < w; ++i) ::close(fds[i]);
      runWorker(command, options, w, workers, pieces, pipeFds[1], shared);
    }
    ::close(pipeFds[1]);
    fds[w] = pipeFds[0];
    pids[w] = pid;
  }
  FleetProgressLine line(err);
  std::size_t open = workers;
  char buffer[65536];
  while (open > 0) {
    std::vector<pollfd> polls;
    std::vector<std::size_t> owners;
    for (std::size_t w = 0; w < workers; ++w) {
      if (fds[w] < 0) continue;
      polls.push_back({fds[w], POLLIN, 0});
      owners.push_back(w);
    }
    const int ready = ::poll(polls.data(), polls.size(), 250);
    if (stopSignal != 0) stopWorkers(command, pids, static_cast<int>(stopSignal));
    if (ready < 0 && errno != EINTR) break;
    for (std::size_t i = 0; ready > 0 && i < polls.size(); ++i) {
      if (polls[i].revents == 0) continue;
      const std::size_t w = owners[i];
      const ssize_t n = ::read(fds[w], buffer, sizeof buffer);
      if (n > 0) {
        texts[w].append(buffer, static_cast<std::size_t>(n));
      } else if (n == 0 || errno != EINTR) {
        ::close(fds[w]);
        fds[w] = -1;
        --open;
      }
    }
    if (command.progress) {
      const auto [devices, events] = shared.progress();
      line.show(devices, events);
    }
  }
  signals.restore();
  if (stopSignal != 0) stopWorkers(command, pids, static_cast<int>(stopSignal));
  if (command.progress) {
    const auto [devices, events] = shared.progress();
    line.show(devices, events, true);
    line.end();
  }
  std::vector<FleetResult> results(workers);
  for (std::size_t w = 0; w < workers; ++w) {
    int status = 0;
    while (::waitpid(pids[w], &status, 0) < 0 && errno == EINTR) {
    }
    std::string error;
    if (!fleetResultFromText(texts[w], results[w], error)) {
      results[w] = FleetResult{};
      results[w].exitCode = kExitFailed;
      results[w].error = "worker " + std::to_string(w) + " ended without a result (" +
                         (WIFSIGNALED(status) ? "signal " + std::to_string(WTERMSIG(status))
                                              : "exit status " + std::to_string(WEXITSTATUS(status))) +
                         ")";
    }
  }
  if (!command.csv.empty() && !gatherCsvParts(command.csv, workers, csvSlices(workers, pieces, shared), err,
                                                 fleetCsvHeader(options))) {
    return kExitFailed;
  }
  return finishFleet(results, command.format, options.identity, out, err);
}

}  // namespace kltce
