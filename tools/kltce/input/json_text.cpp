#include "tools/kltce/input/json_text.h"

#include <cerrno>
#include <cstring>
#include <fstream>
#include <sstream>

#include "platform/KLTValueReader.h"

namespace kltce {

JsonResult parseJson(std::string_view text) {
  klt::KLTValueRead read = klt::readJsonText(text);
  JsonResult r{std::move(read.value), std::move(read.error), read.tooDeep};
  // A single line needs no line number: the caller names the line.
  if (!r.ok() && text.find('\n') == std::string_view::npos) {
    if (auto pos = r.error.find("at line 1, column"); pos != std::string::npos) r.error.replace(pos, 17, "at column");
  }
  return r;
}

JsonResult loadJsonFile(const std::filesystem::path& path) {
  JsonResult r;
  // A pipe or a device would make the open wait for a writer, or the read never end.
  std::error_code ec;
  if (const auto status = std::filesystem::status(path, ec);
      !ec && status.type() != std::filesystem::file_type::regular && status.type() != std::filesystem::file_type::directory) {
    r.error = "cannot read '" + path.string() + "': it is not a regular file (a pipe or a device)";
    return r;
  }
  std::ifstream in(path, std::ios::binary);
  if (!in) {
    const int err = errno;
    r.error = "cannot read '" + path.string() + "': " + (err ? std::strerror(err) : "cannot open the file");
    return r;
  }
  if (std::filesystem::is_directory(path, ec)) {
    r.error = "cannot read '" + path.string() + "': it is a folder";
    return r;
  }
  std::ostringstream buffer;
  buffer << in.rdbuf();
  if (in.bad()) {
    r.error = "cannot read '" + path.string() + "': read error";
    return r;
  }
  r = parseJson(buffer.str());
  if (!r.ok()) r.error = "'" + path.string() + (r.tooDeep ? "' is refused: " : "' is not valid JSON: ") + r.error;
  return r;
}

std::string compactJson(const KLTValue& value) {
  return value.dump(-1, ' ', false, KLTValue::error_handler_t::replace);
}

}  // namespace kltce
