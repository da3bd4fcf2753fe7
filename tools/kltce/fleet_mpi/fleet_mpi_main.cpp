// kltce-fleet-mpi: `kltce fleet` across the ranks of an MPI job. Under `mpirun -n K`, rank r
// replays part r of K of the devices (by the hash fleet.h names, within --shard I/N), every rank
// reading the fleet file itself; rank 0 gathers the partial results, merges them and writes the
// summary (and gathers the CSV parts), so the output equals that of `kltce fleet` in one process.
// Options are those of `kltce fleet` (--workers is ignored: the ranks are the workers).
#include <mpi.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iostream>
#include <sstream>
#include <string>
#include <vector>

#include <CLI/CLI.hpp>

#include "tools/kltce/fleet_command.h"
#include "tools/kltce/replay.h"

namespace {

// Ends every rank with the same code; the engine's queue of a rank may be held for good, so
// nothing waits for it.
[[noreturn]] void finish(int code) {
  std::cout.flush();
  std::cerr.flush();
  MPI_Finalize();
  std::_Exit(code);
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

}  // namespace

int main(int argc, char** argv) {
  std::ios::sync_with_stdio(false);
  MPI_Init(&argc, &argv);
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
  std::ostringstream quiet;
  kltce::FleetOptions options;
  if (!kltce::prepareFleet(command, options, rank == 0 ? std::cerr : quiet)) finish(kltce::kExitUsage);
  options.part = {static_cast<uint64_t>(rank), static_cast<uint64_t>(size)};

  kltce::FleetResult result;
  std::ifstream in(command.fleet);
  std::ofstream csv;
  if (!command.csv.empty()) {
    csv.open(command.csv + ".part" + std::to_string(rank), std::ios::out | std::ios::trunc);
    options.csv = &csv;
  }
  if (!in) {
    result.exitCode = kltce::kExitUsage;
    result.error = "cannot read '" + command.fleet + "': " + std::strerror(errno);
  } else {
    result = kltce::replayFleet(options, in);
  }
  csv.close();

  const std::vector<std::string> texts = gatherTexts(kltce::fleetResultText(result), rank, size);
  int code = kltce::kExitOk;
  if (rank == 0) {
    std::vector<kltce::FleetResult> results(texts.size());
    for (std::size_t r = 0; r < texts.size(); ++r) {
      std::string error;
      if (!kltce::fleetResultFromText(texts[r], results[r], error)) {
        results[r].exitCode = kltce::kExitFailed;
        results[r].error = "rank " + std::to_string(r) + " sent no result: " + error;
      }
    }
    if (!command.csv.empty() &&
        !kltce::gatherCsvParts(command.csv, texts.size(), std::cerr, kltce::fleetCsvHeader(options))) {
      code = kltce::kExitFailed;
    }
    if (code == kltce::kExitOk) code = kltce::finishFleet(results, command.format, options.identity, std::cout, std::cerr);
  }
  MPI_Bcast(&code, 1, MPI_INT, 0, MPI_COMM_WORLD);
  finish(code);
}
