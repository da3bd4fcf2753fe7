#include "tools/kltce/fleet_command.h"

#include <poll.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <sstream>

#include "KLTContextEvaluator/KLTCEConstants.h"
#include "platform/KLTUserDefaults.h"
#include "tools/kltce/json_text.h"
#include "tools/kltce/replay.h"

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

--shard I/N replays the devices whose id's 64-bit FNV-1a hash h gives h mod N = I; within a shard,
worker k of K takes those with (h div N) mod K = k. Merging the JSON of shards 0/N .. N-1/N equals
one run's JSON byte for byte.)";

namespace {

namespace fs = std::filesystem;

int usage(std::ostream& err, const std::string& message) {
  err << "kltce: fleet: " << message << '\n';
  return kExitUsage;
}

void writeSummary(const FleetSummary& summary, const std::string& format, std::ostream& out) {
  if (format == "json") {
    out << summary.toJson().dump(2, ' ', false, KLTValue::error_handler_t::replace) << '\n';
  } else {
    summary.writeTable(out);
  }
  out.flush();
}

// Per worker: devices and events so far, in memory shared with the parent across fork().
class SharedProgress {
 public:
  explicit SharedProgress(std::size_t workers) : count_(workers * 2) {
    void* p = ::mmap(nullptr, bytes(), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    if (p != MAP_FAILED) {
      cells_ = static_cast<std::atomic<uint64_t>*>(p);
      for (std::size_t i = 0; i < count_; ++i) new (&cells_[i]) std::atomic<uint64_t>(0);
    }
  }
  ~SharedProgress() {
    if (cells_) ::munmap(cells_, bytes());
  }
  SharedProgress(const SharedProgress&) = delete;
  SharedProgress& operator=(const SharedProgress&) = delete;

  void set(std::size_t worker, uint64_t devices, uint64_t events) {
    if (!cells_) return;
    cells_[worker * 2].store(devices, std::memory_order_relaxed);
    cells_[worker * 2 + 1].store(events, std::memory_order_relaxed);
  }
  std::pair<uint64_t, uint64_t> total() const {
    uint64_t d = 0, e = 0;
    for (std::size_t i = 0; cells_ && i < count_; i += 2) {
      d += cells_[i].load(std::memory_order_relaxed);
      e += cells_[i + 1].load(std::memory_order_relaxed);
    }
    return {d, e};
  }

 private:
  std::size_t bytes() const { return count_ * sizeof(std::atomic<uint64_t>); }
  std::size_t count_;
  std::atomic<uint64_t>* cells_ = nullptr;
};

// Writes "\rkltce: fleet: N devices, M events (X devices/s, Y events/s)" at most 4 times a second.
class ProgressLine {
 public:
  explicit ProgressLine(std::ostream& err) : err_(err), began_(std::chrono::steady_clock::now()) {}
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

bool writeAll(int fd, std::string_view text) {
  while (!text.empty()) {
    const ssize_t n = ::write(fd, text.data(), text.size());
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return false;
    text.remove_prefix(static_cast<std::size_t>(n));
  }
  return true;
}

// One worker in a forked child: replays its part and writes its result to fd. Never returns.
[[noreturn]] void runWorker(const FleetCommand& command, FleetOptions options, std::size_t worker, int fd,
                            SharedProgress& progress) {
  FleetResult result;
  std::ifstream in(command.fleet);
  std::ofstream csv;
  if (!command.csv.empty()) {
    csv.open(command.csv + ".part" + std::to_string(worker), std::ios::out | std::ios::trunc);
    options.csv = &csv;
  }
  options.onDevice = [&](uint64_t devices, uint64_t events) { progress.set(worker, devices, events); };
  if (!in) {
    result.exitCode = kExitUsage;
    result.error = "cannot read '" + command.fleet + "': " + std::strerror(errno);
  } else if (!command.csv.empty() && !csv) {
    result.exitCode = kExitUsage;
    result.error = "cannot write '" + command.csv + ".part" + std::to_string(worker) + "'";
  } else {
    result = replayFleet(options, in);
  }
  csv.close();
  const bool written = writeAll(fd, fleetResultText(result));
  ::close(fd);
  // No destructor or exit handler of the parent's objects runs in the child.
  std::_Exit(written ? 0 : kExitFailed);
}

int runWorkers(const FleetCommand& command, const FleetOptions& options, std::size_t workers, std::ostream& out,
               std::ostream& err) {
  SharedProgress progress(workers);
  std::vector<int> fds(workers, -1);
  std::vector<pid_t> pids(workers, -1);
  std::vector<std::string> texts(workers);
  std::cout.flush();
  std::cerr.flush();
  out.flush();
  err.flush();
  for (std::size_t w = 0; w < workers; ++w) {
    int pipeFds[2];
    if (::pipe(pipeFds) != 0) return usage(err, std::string("cannot make a pipe: ") + std::strerror(errno));
    const pid_t pid = ::fork();
    if (pid < 0) return usage(err, std::string("cannot start a worker: ") + std::strerror(errno));
    if (pid == 0) {
      ::close(pipeFds[0]);
      for (std::size_t i = 0; i < w; ++i) ::close(fds[i]);
      FleetOptions mine = options;
      mine.part = {w, workers};
      runWorker(command, std::move(mine), w, pipeFds[1], progress);
    }
    ::close(pipeFds[1]);
    fds[w] = pipeFds[0];
    pids[w] = pid;
  }
  ProgressLine line(err);
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
      const auto [devices, events] = progress.total();
      line.show(devices, events);
    }
  }
  if (command.progress) {
    const auto [devices, events] = progress.total();
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
  if (!command.csv.empty() && !gatherCsvParts(command.csv, workers, err)) return kExitFailed;
  return finishFleet(results, command.format, out, err);
}

}  // namespace

void addFleetOptions(CLI::App& app, FleetCommand& c) {
  app.add_option("--document", c.document, "campaign document (JSON)");
  app.add_option("--fleet", c.fleet, "fleet file: JSON Lines, every line with \"device\", each device's profile line first");
  app.add_option("--format", c.format, "summary as table (the default) or json (mergeable)")
      ->check(CLI::IsMember({"table", "json"}));
  app.add_option("--csv", c.csv, "also write one CSV row per (device, campaign) to FILE");
  app.add_option("--workers", c.workers, "worker processes, each reading the fleet file (default: one per core); progress on a terminal");
  app.add_option("--shard", c.shard, "replay only shard I of N (I/N, by a hash of the device id; default 0/1)");
  app.add_option("--state", c.state, "every device starts from the counters of this file (only read; default: fresh)");
  app.add_flag("--auto-shown", c.autoShown, "report every display event as shown, as a host would after showing it");
}

bool prepareFleet(const FleetCommand& command, FleetOptions& options, std::ostream& err) {
  if (command.document.empty() || command.fleet.empty()) {
    usage(err, "--document and --fleet are needed (or: kltce fleet merge FILE...)");
    return false;
  }
  const auto shard = parseFleetPart(command.shard);
  if (!shard) {
    usage(err, "--shard: \"" + command.shard + "\" is not I/N with 0 <= I < N");
    return false;
  }
  options.shard = *shard;
  JsonResult document = loadJsonFile(command.document);
  if (!document.ok()) {
    usage(err, "document: " + document.error);
    return false;
  }
  const KLTValue& configs = klt::valueForKey(document.value, "configs");
  if (!document.value.is_object() || (!configs.is_null() && !configs.is_array())) {
    usage(err, "document: '" + command.document + "' is not a campaign document (an object with a \"configs\" list)");
    return false;
  }
  options.document = std::move(document.value);
  options.autoShown = command.autoShown;
  if (!command.state.empty()) {
    std::error_code ec;
    if (!fs::is_regular_file(command.state, ec)) {
      usage(err, "--state: '" + command.state + "' is not a counters file");
      return false;
    }
    std::string error;
    auto store = openStateStore(command.state, false, error);
    if (!store) {
      usage(err, "--state: " + error);
      return false;
    }
    options.counters = store->sharedDictionaryForKey(kKLTFrequencyStoreKey);
  }
  return true;
}

int runFleetCommand(const FleetCommand& command, std::ostream& out, std::ostream& err) {
  FleetOptions options;
  if (!prepareFleet(command, options, err)) return kExitUsage;
  {
    std::ifstream probe(command.fleet);
    if (!probe) return usage(err, "cannot read '" + command.fleet + "': " + std::strerror(errno));
  }
  std::size_t workers = command.workers;
  if (workers == 0) workers = static_cast<std::size_t>(std::max(1L, ::sysconf(_SC_NPROCESSORS_ONLN)));
  if (workers > 1) return runWorkers(command, options, workers, out, err);

  std::ifstream in(command.fleet);
  std::ofstream csv;
  if (!command.csv.empty()) {
    csv.open(command.csv, std::ios::out | std::ios::trunc);
    if (!csv) return usage(err, "--csv: cannot write '" + command.csv + "': " + std::strerror(errno));
    csv << kFleetCsvHeader << '\n';
    options.csv = &csv;
  }
  ProgressLine line(err);
  if (command.progress) options.onDevice = [&](uint64_t devices, uint64_t events) { line.show(devices, events); };
  FleetResult result = replayFleet(options, in);
  if (command.progress) {
    line.show(result.summary.devices(), result.summary.events(), true);
    line.end();
  }
  return finishFleet({result}, command.format, out, err);
}

int runFleetMerge(const FleetCommand& command, std::ostream& out, std::ostream& err) {
  FleetSummary sum;
  for (const std::string& file : command.mergeFiles) {
    JsonResult json = loadJsonFile(file);
    if (!json.ok()) return usage(err, "merge: " + json.error);
    std::string error;
    const auto part = FleetSummary::fromJson(json.value, error);
    if (!part) return usage(err, "merge: '" + file + "': " + error);
    sum.merge(*part);
  }
  writeSummary(sum, command.format, out);
  return kExitOk;
}

std::string fleetResultText(const FleetResult& result) {
  KLTValue json = KLTValue::object();
  json["exit"] = result.exitCode;
  json["error"] = result.error;
  json["error_line"] = result.errorLine;
  json["summary"] = result.summary.toJson();
  return json.dump(-1, ' ', false, KLTValue::error_handler_t::replace);
}

bool fleetResultFromText(std::string_view text, FleetResult& result, std::string& error) {
  JsonResult json = parseJson(text);
  if (!json.ok()) {
    error = json.error;
    return false;
  }
  const KLTValue& v = json.value;
  const auto summary = FleetSummary::fromJson(klt::valueForKey(v, "summary"), error);
  if (!summary || !klt::valueForKey(v, "exit").is_number_integer() || !klt::valueForKey(v, "error").is_string() ||
      !klt::valueForKey(v, "error_line").is_number_unsigned()) {
    if (error.empty()) error = "not a worker's result";
    return false;
  }
  result.summary = *summary;
  result.exitCode = v["exit"].get<int>();
  result.error = v["error"].get<std::string>();
  result.errorLine = v["error_line"].get<std::size_t>();
  return true;
}

int finishFleet(const std::vector<FleetResult>& results, const std::string& format, std::ostream& out,
                std::ostream& err) {
  const FleetResult* first = nullptr;
  for (const FleetResult& r : results) {
    if (r.exitCode == kExitOk) continue;
    const auto rank = [](const FleetResult* x) { return x->errorLine == 0 ? SIZE_MAX : x->errorLine; };
    if (!first || rank(&r) < rank(first)) first = &r;
  }
  if (first) {
    err << "kltce: fleet: " << (first->errorLine ? "line " + std::to_string(first->errorLine) + ": " : "")
        << first->error << (first->error.empty() || first->error.back() != '\n' ? "\n" : "");
    err.flush();
    return first->exitCode;
  }
  FleetSummary sum;
  for (const FleetResult& r : results) sum.merge(r.summary);
  writeSummary(sum, format, out);
  return kExitOk;
}

bool gatherCsvParts(const std::string& csv, std::size_t parts, std::ostream& err) {
  std::ofstream out(csv, std::ios::out | std::ios::trunc | std::ios::binary);
  if (!out) {
    err << "kltce: fleet: --csv: cannot write '" << csv << "': " << std::strerror(errno) << '\n';
    return false;
  }
  out << kFleetCsvHeader << '\n';
  for (std::size_t i = 0; i < parts; ++i) {
    const std::string part = csv + ".part" + std::to_string(i);
    std::ifstream in(part, std::ios::binary);
    if (in && in.peek() != std::ifstream::traits_type::eof()) out << in.rdbuf();
    in.close();
    std::error_code ec;
    fs::remove(part, ec);
  }
  out.flush();
  if (!out) err << "kltce: fleet: --csv: writing '" << csv << "' failed\n";
  return static_cast<bool>(out);
}

}  // namespace kltce
