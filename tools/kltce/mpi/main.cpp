// kltce-fleet-mpi: `kltce fleet` across the ranks of an MPI job. Under `mpirun -n K`, rank 0 hands
// out the pieces of the fleet file (fleet.h: FleetPieces) in turn, as the threads of one process
// take them; every rank runs `--workers` threads (default 1) that take pieces from it and read them
// from the file themselves. The CSV rows of each piece go to rank 0, which writes them in the
// file's order; each rank's summary is reduced on rank 0, which writes the merged one. So the output
// equals that of `kltce fleet` in one process. The fleet must be a regular file every rank can read
// (a pipe cannot be shared between ranks).
//
// Threads and MPI: only one thread of a rank calls MPI at a time (MPI_THREAD_SERIALIZED): on rank 0
// the thread that serves the others' requests, elsewhere a worker holding the rank's lock.
#include <mpi.h>

#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <mutex>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include <CLI/CLI.hpp>

#include "tools/kltce/cli/fleet_options.h"
#include "tools/kltce/fleet/fleet_command.h"
#include "tools/kltce/fleet/fleet_workers.h"
#include "tools/kltce/replay/replay.h"

namespace {

constexpr int kRequestTag = 1;
constexpr int kReplyTag = 2;

// A request to rank 0: its kind, a piece, and for Complete the piece's CSV rows.
enum class Request : char { Take = 'T', Complete = 'C', Stop = 'S', End = 'E' };

// Ends every rank with the same code; nothing waits for an engine.
[[noreturn]] void finish(int code) {
  std::cout.flush();
  std::cerr.flush();
  MPI_Finalize();
  std::_Exit(code);
}

std::string request(Request kind, uint64_t piece, const std::string& rows = {}) {
  std::string text(1 + sizeof piece, '\0');
  text[0] = static_cast<char>(kind);
  std::memcpy(text.data() + 1, &piece, sizeof piece);
  return text + rows;
}

void send(const std::string& text, int to, int tag) {
  MPI_Send(text.data(), static_cast<int>(text.size()), MPI_CHAR, to, tag, MPI_COMM_WORLD);
}

// The pieces of a rank other than 0: every call is a request to rank 0.
class RemotePieceSource final : public kltce::FleetPieceSource {
 public:
  std::optional<std::size_t> take() override {
    std::lock_guard lock(mutex_);
    send(request(Request::Take, 0), 0, kRequestTag);
    int64_t piece = -1;
    MPI_Recv(&piece, 1, MPI_INT64_T, 0, kReplyTag, MPI_COMM_WORLD, MPI_STATUS_IGNORE);
    if (piece < 0) return std::nullopt;
    return static_cast<std::size_t>(piece);
  }
  void complete(std::size_t piece, std::string rows) override {
    std::lock_guard lock(mutex_);
    send(request(Request::Complete, piece, rows), 0, kRequestTag);
  }
  void stop(std::size_t piece) override {
    std::lock_guard lock(mutex_);
    send(request(Request::Stop, piece), 0, kRequestTag);
  }
  void end() {
    std::lock_guard lock(mutex_);
    send(request(Request::End, 0), 0, kRequestTag);
  }

 private:
  std::mutex mutex_;
};

// Rank 0's service of the other ranks' requests, until each has said it ended.
void serve(kltce::LocalPieceSource& source, int ranks) {
  std::vector<char> buffer;
  for (int open = ranks - 1; open > 0;) {
    MPI_Status status;
    MPI_Probe(MPI_ANY_SOURCE, kRequestTag, MPI_COMM_WORLD, &status);
    int length = 0;
    MPI_Get_count(&status, MPI_CHAR, &length);
    buffer.resize(static_cast<std::size_t>(length));
    MPI_Recv(buffer.data(), length, MPI_CHAR, status.MPI_SOURCE, kRequestTag, MPI_COMM_WORLD, MPI_STATUS_IGNORE);
    uint64_t piece = 0;
    if (buffer.size() < 1 + sizeof piece) continue;
    std::memcpy(&piece, buffer.data() + 1, sizeof piece);
    switch (static_cast<Request>(buffer[0])) {
      case Request::Take: {
        const auto next = source.take();
        const int64_t reply = next ? static_cast<int64_t>(*next) : -1;
        MPI_Send(&reply, 1, MPI_INT64_T, status.MPI_SOURCE, kReplyTag, MPI_COMM_WORLD);
        break;
      }
      case Request::Complete:
        source.complete(piece, std::string(buffer.begin() + 1 + sizeof piece, buffer.end()));
        break;
      case Request::Stop:
        source.stop(piece);
        break;
      case Request::End:
        --open;
        break;
    }
  }
}

// Gathers every rank's text on rank 0, in rank order.
std::vector<std::string> gatherTexts(const std::string& text, int rank, int size) {
  int length = static_cast<int>(text.size());
  std::vector<int> lengths(static_cast<std::size_t>(size)), offsets(static_cast<std::size_t>(size));
  MPI_Gather(&length, 1, MPI_INT, lengths.data(), 1, MPI_INT, 0, MPI_COMM_WORLD);
  std::string all;
  if (rank == 0) {
    int at = 0;
    for (int r = 0; r < size; ++r) {
      offsets[static_cast<std::size_t>(r)] = at;
      at += lengths[static_cast<std::size_t>(r)];
    }
    all.resize(static_cast<std::size_t>(at));
  }
  MPI_Gatherv(text.data(), length, MPI_CHAR, all.data(), lengths.data(), offsets.data(), MPI_CHAR, 0, MPI_COMM_WORLD);
  std::vector<std::string> texts;
  if (rank != 0) return texts;
  for (int r = 0; r < size; ++r) {
    texts.push_back(all.substr(static_cast<std::size_t>(offsets[static_cast<std::size_t>(r)]),
                               static_cast<std::size_t>(lengths[static_cast<std::size_t>(r)])));
  }
  return texts;
}

// A rank's results as one text: its workers' results, merged by rank 0 with the others'.
std::string resultsText(const kltce::FleetWorkersRun& run) {
  std::string text;
  for (const auto& r : run.results) text += kltce::fleetResultText(r) + '\n';
  if (!run.error.empty()) {
    kltce::FleetResult failed;
    failed.exitCode = kltce::kExitFailed;
    failed.error = run.error;
    text += kltce::fleetResultText(failed) + '\n';
  }
  return text;
}

}  // namespace

int main(int argc, char** argv) {
  std::ios::sync_with_stdio(false);
  int provided = 0;
  MPI_Init_thread(&argc, &argv, MPI_THREAD_SERIALIZED, &provided);
  int rank = 0, size = 1;
  MPI_Comm_rank(MPI_COMM_WORLD, &rank);
  MPI_Comm_size(MPI_COMM_WORLD, &size);

  CLI::App app{"kltce-fleet-mpi: kltce fleet across the ranks of an MPI job (mpirun -n K)"};
  kltce::FleetCommand command;
  kltce::addFleetOptions(app, command);
  app.footer(kltce::kFleetHelp);
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& e) {
    finish(rank == 0 ? app.exit(e) : e.get_exit_code());
  }
  static std::ostringstream quiet;
  std::ostream& err = rank == 0 ? std::cerr : quiet;  // one rank speaks
  if (provided < MPI_THREAD_SERIALIZED) {
    err << "kltce: fleet: this MPI cannot be called from the workers' threads (MPI_THREAD_SERIALIZED)\n";
    finish(kltce::kExitFailed);
  }
  kltce::FleetOptions options;
  if (!kltce::prepareFleet(command, options, err)) finish(kltce::kExitUsage);
  std::error_code ec;
  if (!std::filesystem::is_regular_file(command.fleet, ec)) {
    err << "kltce: fleet: '" << command.fleet
        << "' is not a regular file: the ranks each read their pieces of the fleet from it, and cannot share a pipe\n";
    finish(kltce::kExitUsage);
  }
  const std::size_t workers = command.workers == 0 ? 1 : command.workers;
  uint64_t mine = workers, all = 0;
  MPI_Allreduce(&mine, &all, 1, MPI_UINT64_T, MPI_SUM, MPI_COMM_WORLD);
  const kltce::FleetPieces pieces = kltce::planFleetPieces(command.fleet, static_cast<std::size_t>(all));

  int code = kltce::kExitOk;
  if (rank == 0) {
    std::ofstream csv;
    if (!command.csv.empty()) {
      csv.open(command.csv, std::ios::out | std::ios::trunc | std::ios::binary);
      if (!csv || !(csv << kltce::fleetCsvHeader(options) << '\n')) {
        err << "kltce: fleet: --csv: cannot write '" << command.csv << "': " << std::strerror(errno) << '\n';
        code = kltce::kExitUsage;
      }
    }
    kltce::FleetCsvInOrder rows(csv.is_open() ? &csv : nullptr);
    kltce::LocalPieceSource source(pieces.count, &rows);
    if (code != kltce::kExitOk) source.stop(0);  // the other ranks get no piece
    std::thread server([&] { serve(source, size); });
    const kltce::FleetWorkersRun run = kltce::runFleetThreads(command, options, workers, pieces, source, err);
    server.join();
    const std::vector<std::string> texts = gatherTexts(resultsText(run), rank, size);
    std::vector<kltce::FleetResult> results;
    for (std::size_t r = 0; r < texts.size(); ++r) {
      std::istringstream lines(texts[r]);
      for (std::string line; std::getline(lines, line);) {
        kltce::FleetResult result;
        std::string error;
        if (!kltce::fleetResultFromText(line, result, error)) {
          result.exitCode = kltce::kExitFailed;
          result.error = "rank " + std::to_string(r) + " sent no result: " + error;
        }
        results.push_back(std::move(result));
      }
    }
    if (const std::string why = rows.finish(); code == kltce::kExitOk && csv.is_open() && !why.empty()) {
      err << "kltce: fleet: --csv: writing '" << command.csv << "' failed: " << why << '\n';
      code = kltce::kExitFailed;
    }
    if (code == kltce::kExitOk) code = kltce::finishFleet(results, command.format, options.identity, std::cout, err);
  } else {
    RemotePieceSource source;
    const kltce::FleetWorkersRun run = kltce::runFleetThreads(command, options, workers, pieces, source, err);
    source.end();
    gatherTexts(resultsText(run), rank, size);
  }
  MPI_Bcast(&code, 1, MPI_INT, 0, MPI_COMM_WORLD);
  finish(code);
}
