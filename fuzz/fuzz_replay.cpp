// Fuzz target: a campaign document and an event stream through the engine, as `kltce run` replays
// them on the virtual clock (timers jump at once, counters live in memory).
//
// Input: the document's JSON on the first line, then the stream's lines. The engine is reset after
// every input, so that no input reaches the campaigns of an earlier one and a long run stays fast.
#include <cstdint>
#include <cstdlib>
#include <sstream>

#include "KLTContextEvaluator/KLTContextEvaluator.h"
#include "fuzz/fuzz_input.h"
#include "tools/kltce/input/json_text.h"
#include "tools/kltce/input/profile.h"
#include "tools/kltce/input/stream_line.h"
#include "tools/kltce/replay/replay.h"

namespace {

constexpr const char* kProfile = R"({"device_model": "iPhone14,2", "app_version": "2.4.1", "time_zone": "Europe/Paris",
  "user": {"attributes": {"country": "FR", "plan": "gold"}, "custom_info": {"first_name": "Camille"}},
  "session": {"attributes": {"channel": "organic"}, "custom_info": {"city": "Lyon"}}})";

// Whether the stream can run here: no line reads a file (the run stays within its input) and no
// document handed over by a line holds an endless timer.
bool streamIsRunnable(std::string_view stream) {
  std::istringstream lines{std::string(stream)};
  std::string text;
  while (std::getline(lines, text)) {
    const kltce::LineResult r = kltce::parseStreamLine(text);
    if (!r.line || r.line->kind != kltce::LineKind::Parse) continue;
    if (!r.line->file.empty()) return false;
    if (r.line->document && kltce_fuzz::hasEndlessTimer(*r.line->document)) return false;
  }
  return true;
}

kltce::Profile* profile = nullptr;

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  kltce_fuzz::silenceLog();
  static kltce::Profile fixed = kltce::parseProfile(kltce::parseJson(kProfile).value).profile;
  profile = &fixed;
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
  const auto [first, rest] = kltce_fuzz::firstLineAndRest(kltce_fuzz::asText(data, size));
  kltce::JsonResult document = kltce::parseJson(first);
  if (!document.ok() || kltce_fuzz::hasEndlessTimer(document.value) || !streamIsRunnable(rest)) return -1;

  kltce::ReplayOptions options;
  options.document = std::make_shared<const KLTValue>(std::move(document.value));
  options.profile = *profile;
  options.fresh = true;  // counters in memory only
  options.logLevel = 0;
  options.start = KLTTimePoint(std::chrono::milliseconds(1'795'338'000'000));  // 2026-11-22T09:00:00Z
  std::istringstream events{std::string(rest)};
  std::ostringstream out, err;
  const kltce::ReplayResult result = kltce::runReplay(options, events, out, err);
  if (result.queueBlocked) {
    // Only a timer that never ends blocks the queue, and those inputs were left out above.
    std::abort();
  }
  return 0;
}
