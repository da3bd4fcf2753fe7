#include "tools/kltce/fleet_workers.h"

#include <poll.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstring>
#include <fstream>
#include <iostream>
#include <string>
#include <string_view>
#include <vector>

#include "tools/kltce/replay.h"

namespace kltce {

namespace {

int failed(std::ostream& err, const std::string& message) {
  err << "kltce: fleet: " << message << '\n';
  return kExitFailed;
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

}  // namespace

int runFleetWorkers(const FleetCommand& command, const FleetOptions& options, std::size_t workers, std::ostream& out,
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
    if (::pipe(pipeFds) != 0) return failed(err, std::string("cannot make a pipe: ") + std::strerror(errno));
    const pid_t pid = ::fork();
    if (pid < 0) return failed(err, std::string("cannot start a worker: ") + std::strerror(errno));
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

}  // namespace kltce
