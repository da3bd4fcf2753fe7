// The replay without a process: scripted streams against a small document, with the lines the
// tool must print, its exit status and what it tells the person on standard error. (Single taps,
// the cap, the idle timer, bad lines, --strict, --auto-shown and state files are run end to end
// in kltce_tool.cmake.)
#include "tools/kltce/replay/replay.h"

#include <sstream>

#include <gtest/gtest.h>

#include "KLTContextEvaluator/KLTContextEvaluator.h"
#include "host/KLTController.h"
#include "platform/KLTLog.h"
#include "platform/KLTStoreFaults.h"
#include "testsupport/KLTCapturedLog.h"
#include "testsupport/KLTTestHost.h"
#include "tools/kltce/input/json_text.h"

namespace {

const std::filesystem::path kData = std::filesystem::path(KLTCE_SOURCE_DIR) / "tests" / "data" / "kltce";

struct Outcome {
  kltce::ReplayResult result;
  std::string out;
  std::string err;
};

kltce::ReplayOptions optionsFor(const std::filesystem::path& document, const std::filesystem::path& profile) {
  kltce::ReplayOptions o;
  o.document = std::make_shared<const KLTValue>(kltce::loadJsonFile(document).value);
  o.profile = kltce::parseProfile(kltce::loadJsonFile(profile).value).profile;
  o.fresh = true;  // memory-only counters unless a test sets a state path
  return o;
}

Outcome replay(const kltce::ReplayOptions& options, const std::string& stream) {
  KLTScopedLogCapture quiet(2);  // the engine's own lines stay out of the test output
  std::istringstream in(stream);
  std::ostringstream out, err;
  Outcome o;
  o.result = kltce::runReplay(options, in, out, err);
  o.out = out.str();
  o.err = err.str();
  return o;
}

std::string tap(const char* t) { return std::string(R"({"t":")") + t + R"(","type":"app","name":"tap"})" + "\n"; }
constexpr const char* kTapLine = R"({"time":"2026-11-22T09:00:00Z","class":"KLTInAppEvent","info":{"id":"tap_promo","type":"IN_APP"},"line":1})";

struct StreamCase {
  const char* note;
  std::string stream;
  std::string expectedOut;
  int exitCode;
  const char* errFragment;  // nullptr: nothing expected on standard error
};

TEST(KltceReplay, ScriptedStreams) {
  const StreamCase cases[] = {
      {"the cap moves only when the host reports a display",
       tap("2026-11-22T09:00:00Z") + tap("2026-11-22T09:01:00Z"), std::string(kTapLine) + "\n" +
           R"({"time":"2026-11-22T09:01:00Z","class":"KLTInAppEvent","info":{"id":"tap_promo","type":"IN_APP"},"line":2})" + "\n",
       0, nullptr},
      {"outside the daily window nothing shows", tap("2026-11-22T23:00:00Z"), "", 0, nullptr},
      {"a line without t happens at the present time", tap("2026-11-22T09:00:00Z") + R"({"type":"app","name":"pause"})" "\n",
       std::string(kTapLine) + "\n" +
           R"({"time":"2026-11-22T09:00:30Z","class":"KLTSurveyEvent","info":{"id":"idle_survey"},"line":2})" + "\n",
       0, nullptr},
      {"unknown keys are noted, the line still counts", R"({"t":"2026-11-22T09:00:00Z","type":"app","name":"tap","nme":1})" "\n",
       std::string(kTapLine) + "\n", 0, "line 1: note: unknown key \"nme\""},
  };
  for (const auto& row : cases) {
    SCOPED_TRACE(row.note);
    auto options = optionsFor(kData / "campaigns.json", kData / "profile.json");
    const Outcome o = replay(options, row.stream);
    EXPECT_EQ(o.out, row.expectedOut);
    EXPECT_EQ(o.result.exitCode, row.exitCode);
    if (row.errFragment) {
      EXPECT_NE(o.err.find(row.errFragment), std::string::npos) << o.err;
    } else {
      EXPECT_EQ(o.err, "");
    }
  }
}

// Holds the engine's lines until flushed, as the tool's buffered sink does, writing them to the
// stream that also receives the tool's own messages.
class FlushOnlySink final : public KLTLogSink {
 public:
  explicit FlushOnlySink(std::ostream& to) : to_(to) {}
  void write(std::string_view line) override { held_.append(line); }
  void flush() override {
    to_ << held_;
    held_.clear();
  }

 private:
  std::ostream& to_;
  std::string held_;
};

TEST(KltceReplay, EngineLinesMadeBeforeAMessageComeOutBeforeIt) {
  const auto options = optionsFor(kData / "campaigns.json", kData / "profile.json");
  std::ostringstream out, transcript;
  auto sink = std::make_shared<FlushOnlySink>(transcript);
  const auto previous = KLTLog::setSink(sink);
  const long level = LOG_LEVEL.exchange(2);
  std::istringstream in(tap("2026-11-22T09:00:00Z") + R"({"action":"shown","id":"tap_promo"})" + "\n" +
                        tap("2026-11-22T09:01:00Z") + "{oops\n");
  kltce::runReplay(options, in, out, transcript);
  sink->flush();
  KLTLog::setSink(previous);
  LOG_LEVEL = level;
  const std::string t = transcript.str();
  const auto capped = t.find("<KLT INFO> Action count limit exceeded");
  const auto message = t.find("kltce: line 4: not valid JSON");
  ASSERT_NE(capped, std::string::npos) << t;
  ASSERT_NE(message, std::string::npos) << t;
  EXPECT_LT(capped, message) << t;
}

TEST(KltceReplay, RunsAcrossTheWholeRangeOfDates) {
  // Each instant once overflowed the clock; idle timers and saved counters run there too.
  KLTTempDir dir;
  auto options = optionsFor(kData / "campaigns.json", kData / "profile.json");
  options.fresh = false;
  options.statePath = dir.path() / "counters.kltstore";
  options.autoShown = true;
  KLTValue document = *options.document;
  for (auto& config : document["configs"]) {
    config["validity"] = {{"start_date", "0001-01-01T00:00:00Z"}, {"end_date", "9999-12-31T23:59:59.999Z"}};
    config["conditions"][0]["time_bounds"] = {{"lower", -62135596800000}, {"upper", 253402300799999}};
    config["conditions"][0]["trigger"]["time_bounds"] = config["conditions"][0]["time_bounds"];
  }
  options.document = std::make_shared<const KLTValue>(std::move(document));
  const Outcome o = replay(options, R"({"t":"0001-01-01T00:00:00Z","type":"app","name":"pause"})" "\n"
                                    R"({"t":"2500-06-01T09:00:00Z","type":"app","name":"tap"})" "\n"
                                    R"({"t":253402300000000,"type":"app","name":"pause"})" "\n");
  EXPECT_EQ(o.err, "");
  for (const char* time : {"0001-01-01T00:00:30Z", "2500-06-01T09:00:00Z", "9999-12-31T23:47:10Z"}) {
    EXPECT_NE(o.out.find(std::string(R"({"time":")") + time), std::string::npos) << time << " in " << o.out;
  }
}

TEST(KltceReplay, CountersThatCannotBeSavedEndTheRunWithItsOwnStatus) {
  // Every write failing: one line and status 5; one failed save made good by the last: status 0.
  for (const auto& [failedWrites, exitCode] : {std::pair{1000, kltce::kExitUnsaved}, std::pair{1, kltce::kExitOk}}) {
    SCOPED_TRACE(failedWrites);
    KLTTempDir dir;
    auto files = std::make_shared<KLTStoreFaults>();
    auto options = optionsFor(kData / "campaigns.json", kData / "profile.json");
    options.statePath = dir.path() / "counters.kltstore";
    options.store = std::make_shared<KLTUserDefaults>(options.statePath, files);
    files->failNextWrites(failedWrites);
    const Outcome o = replay(options, tap("2026-11-22T09:00:00Z") + R"({"action":"shown","id":"tap_promo"})" "\n");
    EXPECT_EQ(o.result.exitCode, exitCode);
    EXPECT_EQ(o.err.find("could not be saved to '" + options.statePath.string() + "'") != std::string::npos,
              exitCode == kltce::kExitUnsaved) << o.err;
  }
}

}  // namespace
