#include "tools/kltce/json_text.h"

#include <cerrno>
#include <cstring>
#include <fstream>
#include <sstream>

namespace kltce {

JsonResult parseJson(std::string_view text) {
  JsonResult r;
  // The library reports where and why only through its exception; it never leaves this function.
  try {
    r.value = KLTValue::parse(text.begin(), text.end());
  } catch (const nlohmann::json::parse_error& e) {
    std::string what = e.what();
    // Drop the library's "[json.exception.parse_error.101] " tag; keep "parse error at line 1, column 5: ...".
    if (auto pos = what.find("] "); what.rfind("[json.exception", 0) == 0 && pos != std::string::npos) {
      what.erase(0, pos + 2);
    }
    // A single line needs no line number: the caller names the line.
    if (text.find('\n') == std::string_view::npos) {
      if (auto pos = what.find("at line 1, column"); pos != std::string::npos) what.replace(pos, 17, "at column");
    }
    r.value = nullptr;
    r.error = what.empty() ? "not valid JSON" : what;
  } catch (const std::exception& e) {
    r.value = nullptr;
    r.error = e.what();
  }
  return r;
}

JsonResult loadJsonFile(const std::filesystem::path& path) {
  JsonResult r;
  std::ifstream in(path, std::ios::binary);
  if (!in) {
    const int err = errno;
    r.error = "cannot read '" + path.string() + "': " + (err ? std::strerror(err) : "cannot open the file");
    return r;
  }
  std::error_code ec;
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
  if (!r.ok()) r.error = "'" + path.string() + "' is not valid JSON: " + r.error;
  return r;
}

std::string compactJson(const KLTValue& value) {
  return value.dump(-1, ' ', false, KLTValue::error_handler_t::replace);
}

}  // namespace kltce
