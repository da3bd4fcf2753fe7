// Reading JSON documents and lines for the kltce tool, with messages a person can act on.
//
// Pure functions apart from reading the named file; safe from any thread. Nothing throws.
#pragma once

#include <filesystem>
#include <string>
#include <string_view>

#include "platform/KLTValue.h"

namespace kltce {

struct JsonResult {
  KLTValue value;       // the parsed tree; null on failure
  std::string error;    // empty on success; otherwise what is wrong ("syntax error at column 5: ...")
  bool tooDeep = false; // refused for nesting past klt::kKLTMaxValueDepth rather than for its syntax
  bool ok() const { return error.empty(); }
};

// Parses one JSON text. On failure the error names the line and column (the line only when the
// text has several) and what the parser expected. A value nested deeper than klt::kKLTMaxValueDepth
// levels is refused: "nested deeper than 256 levels at column 257".
JsonResult parseJson(std::string_view text);

// Reads and parses a whole file. On failure the error names the file and the cause
// ("cannot read 'x.json': No such file or directory", "'x.json' is not valid JSON: ...",
// "'x.json' is refused: nested deeper than 256 levels at line 3, column 12"). A pipe or a device is
// refused unread ("it is not a regular file"), so that reading never waits for a writer.
JsonResult loadJsonFile(const std::filesystem::path& path);

// The compact JSON text of a value; invalid UTF-8 is replaced rather than refused.
std::string compactJson(const KLTValue& value);

}  // namespace kltce
