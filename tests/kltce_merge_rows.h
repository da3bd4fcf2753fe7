// Rows of `kltce fleet merge` cases, shared by the plain and the comparison merge tests: each row's
// parts are written to files "part 1", "part 2"... and merged; the status must be the row's, the
// output (or, when refused, the error) must hold its message, and a refusal prints nothing.
#pragma once

#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "tools/kltce/fleet/fleet_command.h"

struct KltceMergeRow {
  const char* note;
  std::vector<std::string> parts;
  int status;
  const char* message;
};

inline void expectMergeRows(const std::vector<KltceMergeRow>& rows) {
  const std::filesystem::path dir = std::filesystem::temp_directory_path() / ("kltce_merge_" + std::to_string(::getpid()));
  for (const auto& row : rows) {
    SCOPED_TRACE(row.note);
    std::filesystem::create_directories(dir);
    kltce::FleetCommand command;
    command.format = "json";
    for (std::size_t i = 0; i < row.parts.size(); ++i) {
      command.mergeFiles.push_back((dir / ("part " + std::to_string(i + 1))).string());
      std::ofstream(command.mergeFiles.back()) << row.parts[i];
    }
    std::ostringstream out, err;
    EXPECT_EQ(kltce::runFleetMerge(command, out, err), row.status) << err.str();
    EXPECT_NE((row.status == 0 ? out : err).str().find(row.message), std::string::npos) << out.str() << err.str();
    if (row.status != 0) {
      EXPECT_EQ("", out.str());
    }
    std::filesystem::remove_all(dir);
  }
}
