// Fuzz target: event-stream lines as `kltce run` reads them, and the instants they carry.
//
// Input: one line (any bytes). A line read as usable with a time must format and read back to the
// same instant to the millisecond. The line's JSON, read as every line is read, must give the JSON
// library's own reading: the very same tree, or the same error; and a common line read straight
// from the text must be the line read from that tree (as a run's line and as a fleet's).
#include <cstdint>
#include <cstdlib>

#include "fuzz/fuzz_input.h"
#include "platform/KLTValueReader.h"
#include "tests/KLTSameStreamLine.h"
#include "testsupport/KLTSameTree.h"
#include "tools/kltce/input/stream_line.h"
#include "tools/kltce/input/time_text.h"

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  kltce_fuzz::silenceLog();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
  const auto text = kltce_fuzz::asText(data, size);
  const klt::KLTValueRead read = klt::readJsonText(text), library = klt::readJsonTextByLibrary(text);
  if (read.error != library.error || !kltfixture::sameTree(read.value, library.value)) std::abort();
  for (const bool fleet : {false, true}) {
    kltce::StreamLine quick;
    if (!kltce::readStreamLineQuickly(text, fleet, quick)) continue;
    KLTValue tree = library.value;
    if (fleet && tree.is_object()) tree.erase("device");
    const kltce::LineResult general = kltce::streamLineFromObject(tree);
    if (!library.ok() || !general.line || !kltfixture::sameStreamLine(quick, *general.line)) std::abort();
  }
  const kltce::LineResult r = kltce::parseStreamLine(text);
  if (!r.line || !r.line->time) return 0;
  static const auto utc = KLTTimeZone::fixedOffset(0);
  const KLTTimePoint t = std::chrono::floor<std::chrono::milliseconds>(*r.line->time);
  const auto back = kltce::readInstant(KLTValue(kltce::formatInstant(t, *utc)));
  if (!back || *back != t) std::abort();
  return 0;
}
