// `kltce run`: replays an event stream (stream_line.h) against a campaign document on a simulated
// device, and writes one JSON line per display event the engine dispatches:
//   {"time":"2026-11-22T10:00:30+01:00","class":"KLTInAppEvent","info":{"id":"welcome","type":"IN_APP"},"line":3}
// ("line": the stream line that led to it; 0 for the parse at start-up).
//
// Time is virtual: the clock starts at `start` (else the first line's "t", else the present real
// time), moves to each line's "t" (never backwards), and jumps over the engine's timers, so idle
// and activity timers, time bounds and the daily window behave as on a device without waiting.
// After each line the replay waits until the engine's queue is idle; a queue blocked for good by a
// timer of endless interval stops the replay with a message naming the cause.
//
// runReplay() builds an engine instance for the replay, over an environment of its own (virtual
// clock, state store, host state, dispatch handler, log level), which is in effect on the calling
// thread while it runs: replays on different threads are independent. It never throws.
#pragma once

#include <chrono>
#include <filesystem>
#include <functional>
#include <istream>
#include <memory>
#include <optional>
#include <ostream>
#include <string>

#include "KLTContextEvaluator/KLTCEDecision.h"
#include "KLTContextEvaluator/KLTCEDocument.h"
#include "platform/KLTClock.h"
#include "platform/KLTLog.h"
#include "platform/KLTUserDefaults.h"
#include "platform/KLTValue.h"
#include "tools/kltce/input/profile.h"
#include "tools/kltce/input/stream_line.h"

namespace kltce {

// How display events are written: one JSON object per line, or an aligned table for people.
enum class DisplayFormat { Json, Text };

struct ReplayOptions {
  std::shared_ptr<const KLTValue> document;      // parsed at start-up; only read (a fleet shares one)
  // The same document compiled beforehand, parsed at start-up in its place (a fleet compiles its
  // document once for every device); nullptr: the document is compiled by the parse.
  std::shared_ptr<const KLTCEDocument> compiled;
  Profile profile;
  std::shared_ptr<const KLTTimeZone> zone;       // nullptr: the profile's, else the system's
  std::optional<KLTTimePoint> start;
  std::filesystem::path statePath;               // empty: counters kept in memory only
  std::shared_ptr<KLTUserDefaults> store;        // used instead of opening statePath when set (tests)
  bool fresh = false;                            // start with empty counters (the state file is reset)
  bool autoShown = false;                        // report every dispatch as shown
  bool strict = false;                           // stop at the first bad line
  std::optional<long> logLevel;                  // the engine's log level (default: LOG_LEVEL's present value)
  std::shared_ptr<KLTLogSink> logSink;           // the engine's log (default: the process's sink)
  std::shared_ptr<KLTCEDecisionObserver> observer;  // receives the engine's decision records
  std::filesystem::path baseDir;                 // folder against which "file" of a parse line is read
  bool progress = false;                         // write a progress line on err during long replays
  std::function<std::chrono::steady_clock::time_point()> realNow;  // real time for progress; default steady_clock
  DisplayFormat format = DisplayFormat::Json;
  // Called with each usable stream line just before it is handled (e.g. to follow decisions).
  std::function<void(std::size_t line, const StreamLine& parsed)> onLine;
  // When set, receives each display event (its time, info and stream line) in place of out.
  std::function<void(KLTTimePoint time, const KLTValue& info, std::size_t line)> onDisplay;
};

// Where a replay takes its stream lines from, one at a time, on the replay's thread.
class LineSource {
 public:
  virtual ~LineSource() = default;
  // The next line (blank: neither line nor error) and its number in the stream; false at the end.
  virtual bool next(std::size_t& number, LineResult& line) = 0;
  // Whether reading ended on a read error rather than at the end of the stream.
  virtual bool failed() const { return false; }
};

// The lines of a text stream, numbered from 1, each read and parsed when it is reached.
class TextLineSource final : public LineSource {
 public:
  explicit TextLineSource(std::istream& in) : in_(in) {}
  bool next(std::size_t& number, LineResult& line) override;
  bool failed() const override { return in_.bad(); }

 private:
  std::istream& in_;
  std::string text_;
  std::size_t read_ = 0;
};

// Exit codes.
inline constexpr int kExitOk = 0;
inline constexpr int kExitStopped = 1;   // a bad line under --strict
inline constexpr int kExitUsage = 2;     // unusable document, profile, state path or option
inline constexpr int kExitBlocked = 3;   // the engine's queue is blocked for good
inline constexpr int kExitFailed = 4;    // an exception (out of memory included) stopped the work
inline constexpr int kExitUnsaved = 5;   // the run went through but its counters could not be saved

struct ReplayResult {
  int exitCode = kExitOk;
  // The engine's queue is blocked for good: the process should end without waiting for it
  // (std::_Exit), since its worker never returns.
  bool queueBlocked = false;
  std::size_t lines = 0;      // stream lines read
  std::size_t events = 0;     // host events delivered
  std::size_t displays = 0;   // display events written
  std::size_t badLines = 0;   // lines skipped (or the one that stopped a strict run)
  std::optional<std::string> taskFailure;  // what the first of the engine's tasks to throw threw
};

// The state file a run uses: --state when given; otherwise the per-user default location, except
// with --fresh, where counters live in memory only so that the default store is left alone.
std::filesystem::path resolveStatePath(const std::optional<std::filesystem::path>& state, bool fresh);

// Opens the counter store at path (memory only when empty). With fresh, the file and its write-ahead
// log are removed first. nullptr, with error set to one line a person can act on, when the path
// cannot be used (a folder, a folder that cannot be created, no permission to write).
std::shared_ptr<KLTUserDefaults> openStateStore(const std::filesystem::path& path, bool fresh, std::string& error);

ReplayResult runReplay(const ReplayOptions& options, std::istream& events, std::ostream& out, std::ostream& err);
// The same replay over lines already read (a fleet reads each device's lines from its own file).
ReplayResult runReplay(const ReplayOptions& options, LineSource& lines, std::ostream& out, std::ostream& err);

}  // namespace kltce
