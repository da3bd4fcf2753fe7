// Fuzz target: the counter store opened on arbitrary files, through KLTUserDefaults' public API
// only (open, read, write, synchronize, reopen), so that it holds whatever the files' format is.
//
// Input: 4 bytes (big-endian) giving the length of the store file's content, that content, then
// the content of the journal file beside it. Whatever the files hold, opening must not crash, and a
// value written and synchronized must read back equal after a reopen.
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>

#include "fuzz/fuzz_input.h"
#include "platform/KLTUserDefaults.h"

namespace fs = std::filesystem;

namespace {

fs::path folder;

void writeFile(const fs::path& path, std::string_view content) {
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  out.write(content.data(), static_cast<std::streamsize>(content.size()));
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  kltce_fuzz::silenceLog();
  folder = fs::temp_directory_path() / ("kltce-fuzz-store-" + std::to_string(::getpid()));
  fs::create_directories(folder);
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
  if (size < 4) return -1;
  const std::size_t declared = (std::size_t{data[0]} << 24) | (std::size_t{data[1]} << 16) | (std::size_t{data[2]} << 8) | data[3];
  const std::string_view body = kltce_fuzz::asText(data + 4, size - 4);
  const std::size_t split = std::min(declared, body.size());
  std::error_code ec;
  fs::remove_all(folder, ec);
  fs::create_directories(folder, ec);
  const fs::path path = folder / "store.kltstore";
  writeFile(path, body.substr(0, split));
  writeFile(path.string() + ".journal", body.substr(split));

  const KLTValue written = {{"validity", "OVERALL"}, {"count", 3}, {"day", klt::makeDate(KLTTimePoint{})}};
  {
    KLTUserDefaults store(path);
    (void)store.objectForKey("klt_frequency_config");
    KLTValue map = store.objectForKey("klt_frequency_config");
    if (!map.is_object()) map = KLTValue::object();
    map["fuzz"] = written;
    store.setObject(std::move(map), "klt_frequency_config");
    store.removeObjectForKey("other");
    if (!store.synchronize()) return 0;  // a write the files refused: nothing to read back
  }
  KLTUserDefaults reopened(path);
  if (!klt::isEqual(klt::valueForKey(reopened.objectForKey("klt_frequency_config"), "fuzz"), written)) {
    std::abort();  // a synchronized value was lost
  }
  return 0;
}
