#include "tools/kltce/replay/replay.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstring>
#include <mutex>
#include <system_error>
#include <vector>

#include "KLTContextEvaluator/KLTCECampaign.h"
#include "KLTContextEvaluator/KLTCEConstants.h"
#include "KLTContextEvaluator/KLTContextEvaluator.h"
#include "host/KLTController.h"
#include "host/KLTUtilities.h"
#include "platform/KLTDrainedSerialQueue.h"
#include "platform/KLTLog.h"
#include "platform/KLTStoreLock.h"
#include "platform/KLTVirtualClock.h"
#include "tools/kltce/input/json_text.h"
#include "tools/kltce/input/stream_line.h"
#include "tools/kltce/input/time_text.h"
#include "tools/kltce/replay/display_table.h"

namespace kltce {

namespace {

namespace fs = std::filesystem;

constexpr std::chrono::seconds kProgressAfter{1};
constexpr std::chrono::milliseconds kProgressEvery{250};

struct Display {
  KLTTimePoint time;
  std::string className;
  KLTValue info;
  std::size_t line = 0;
};

// One replay's device: its environment (a virtual clock, the counter store, this device's host
// state and the log), in effect on the replay's thread for the replay's duration, and an engine
// instance over it that runs on a queue this thread drains.
class ReplayHost {
 public:
  ReplayHost(const ReplayOptions& options, KLTTimePoint start, std::shared_ptr<const KLTTimeZone> zone,
             std::shared_ptr<KLTUserDefaults> store)
      : clock_(std::make_shared<KLTVirtualClock>(start, std::move(zone))),
        environment_(makeEnvironment(options, clock_, std::move(store))),
        scope_(*environment_) {
    applyProfile(options.profile);
    environment_->controller->setDispatchHandler([this](std::shared_ptr<KLTDisplayEvent> e) {
      Display d{clock_->now(), std::string(e->className()), e->info(), currentLine_.load(std::memory_order_acquire)};
      std::lock_guard lock(mutex_);
      pending_.push_back(std::move(d));
      displaysWaiting_.store(true, std::memory_order_release);
    });
    auto queue = std::make_shared<KLTDrainedSerialQueue>(kKLTCEOpsSerialQueue);
    drained_ = queue.get();
    // Tasks run on this thread, which must not block: an endless wait unwinds and holds the queue.
    clock_->setUnwindEndlessWaits(true);
    engine_ = KLTContextEvaluator::create(*environment_, std::move(queue));
    if (options.observer) engine_->setDecisionObserver(options.observer);
  }

  ReplayHost(const ReplayHost&) = delete;
  ReplayHost& operator=(const ReplayHost&) = delete;

  KLTContextEvaluator& engine() { return *engine_; }
  KLTController& controller() { return *environment_->controller; }
  KLTDeviceFacts& device() { return *environment_->device; }

  KLTVirtualClock& clock() { return *clock_; }

  // Set before the line is handled, and read by the dispatch handler, which the engine's queue
  // runs after the line's events were posted to it: no lock is needed.
  void setLine(std::size_t line) { currentLine_.store(line, std::memory_order_release); }

  std::vector<Display> takeDisplays() {
    std::vector<Display> out;
    // Most lines dispatch nothing: then the lock is not taken.
    if (!displaysWaiting_.load(std::memory_order_acquire)) return out;
    std::lock_guard lock(mutex_);
    out.swap(pending_);
    displaysWaiting_.store(false, std::memory_order_relaxed);
    return out;
  }

  // Runs everything posted to the engine's queue so far. False when a timer that never ends holds
  // it: then it never becomes idle.
  bool drain() { return drained_->drain(); }

 private:
  static std::shared_ptr<KLTEnvironment> makeEnvironment(const ReplayOptions& options, std::shared_ptr<KLTClock> clock,
                                                         std::shared_ptr<KLTUserDefaults> store) {
    KLTEnvironment parts;
    parts.clock = std::move(clock);
    parts.store = std::move(store);
    parts.logSink = options.logSink ? options.logSink : KLTLog::sink();
    parts.logLevel = std::make_shared<std::atomic<long>>(options.logLevel ? *options.logLevel : LOG_LEVEL.load());
    return KLTEnvironment::make(std::move(parts));
  }

  std::shared_ptr<KLTVirtualClock> clock_;
  std::shared_ptr<KLTEnvironment> environment_;
  KLTEnvironment::Scope scope_;
  KLTDrainedSerialQueue* drained_ = nullptr;  // the engine's queue
  std::shared_ptr<KLTContextEvaluator> engine_;
  std::mutex mutex_;
  std::vector<Display> pending_;
  std::atomic<bool> displaysWaiting_{false};  // whether pending_ holds any; written under mutex_
  std::atomic<std::size_t> currentLine_{0};
};

class Replay {
 public:
  Replay(const ReplayOptions& options, ReplayHost& host, std::ostream& out, std::ostream& err)
      : options_(options), host_(host), out_(out), err_(err), zone_(host.clock().timeZone()) {
    if (options.document) documents_.push_back(options.document);
    realNow_ = options.realNow ? options.realNow : [] { return std::chrono::steady_clock::now(); };
    began_ = lastProgress_ = realNow_();
  }

  // Parses the start document. False when the engine's queue is blocked for good.
  bool startUp() {
    if (options_.compiled) {
      host_.engine().parseConfiguration(options_.compiled);
    } else {
      host_.engine().parseConfiguration(options_.document);  // shared, not copied
    }
    return settle(0);
  }

  // Handles one stream line, taking what it keeps out of it; false when the replay must stop.
  bool line(std::size_t number, LineResult& parsed) {
    ++result.lines;
    if (!parsed.line) {
      if (parsed.error.empty()) return true;  // blank
      return bad(number, parsed.error);
    }
    StreamLine& l = *parsed.line;
    if (options_.onLine) options_.onLine(number, l);
    for (const auto& note : l.notes) say() << "kltce: line " << number << ": note: " << note << '\n';
    host_.setLine(number);
    if (l.time) host_.clock().setNow(*l.time);
    KLTController& controller = host_.controller();
    KLTContextEvaluator& evaluator = host_.engine();
    bool posted = false;
    switch (l.kind) {
      case LineKind::Event:
        ++result.events;
        // The line is done with once delivered: its name and attributes move into the event.
        posted = controller.deliverEvent(KLTEvent::make(l.code, std::move(l.name), std::move(l.attributes))) > 0;
        break;
      case LineKind::Shown:
        evaluator.updateCountForConfigWithIdentifier(l.id);
        posted = true;
        break;
      case LineKind::SetUserAttributes:
        for (const auto& [k, v] : l.attributes.items()) controller.user()->setUserAttribute(k, v);
        break;
      case LineKind::SetSessionAttributes:
        for (const auto& [k, v] : l.attributes.items()) controller.session()->setSessionAttribute(k, v);
        break;
      case LineKind::SetUserCustomInfo:
        for (const auto& [k, v] : l.customInfo.items()) controller.user()->setCustomInfoValue(k, v);
        break;
      case LineKind::SetSessionCustomInfo:
        for (const auto& [k, v] : l.customInfo.items()) controller.session()->setCustomInfoValue(k, v);
        break;
      case LineKind::NewSession: {
        auto session = std::make_shared<KLTSession>();
        session->setSessionAttributes(l.attributes);
        session->setCustomInfo(l.customInfo);
        controller.setSession(std::move(session));
        host_.device().setFirstSession(l.firstSession);
        break;
      }
      case LineKind::Parse: {
        std::shared_ptr<const KLTValue> document = options_.document;
        if (l.document) {
          document = std::make_shared<const KLTValue>(std::move(*l.document));
        } else if (!l.file.empty()) {
          fs::path file = l.file;
          if (file.is_relative() && !options_.baseDir.empty()) file = options_.baseDir / file;
          JsonResult loaded = loadJsonFile(file);
          if (!loaded.ok()) return bad(number, loaded.error);
          if (!loaded.value.is_object()) return bad(number, "'" + file.string() + "' is not a campaign document (a JSON object)");
          document = std::make_shared<const KLTValue>(std::move(loaded.value));
        }
        documents_.push_back(document);
        evaluator.parseConfiguration(std::move(document));
        posted = true;
        break;
      }
    }
    if (posted && !settle(number)) return false;
    progress();
    return true;
  }

  void finish() {
    if (progressShown_) say() << '\n';
    if (result.badLines > 0 && result.exitCode == kExitOk) {
      say() << "kltce: " << result.badLines << (result.badLines == 1 ? " line was" : " lines were") << " skipped\n";
    }
  }

  // The stream for the tool's own messages, once the engine's log lines made so far are out: the
  // two share standard error, and a person reads them in the order they were made.
  std::ostream& say() {
    KLTLog::flush();
    return err_;
  }

  ReplayResult result;

 private:
  bool bad(std::size_t number, const std::string& message) {
    ++result.badLines;
    say() << "kltce: line " << number << ": " << message << '\n';
    if (options_.strict) {
      err_ << "kltce: stopped at line " << number << " (--strict); the lines before it were replayed\n";
      result.exitCode = kExitStopped;
      return false;
    }
    return true;
  }

  // Waits for the engine, writes what it dispatched, and with --auto-shown reports each display.
  bool settle(std::size_t number) {
    if (!host_.drain()) return blocked(number);
    std::vector<Display> displays = host_.takeDisplays();
    if (displays.empty()) return true;
    for (const auto& d : displays) {
      if (options_.onDisplay) {
        options_.onDisplay(d.time, d.info, d.line);
        continue;
      }
      KLTValue line = KLTValue::object();
      line["time"] = formatInstant(d.time, *zone_);
      line["class"] = d.className;
      line["info"] = d.info;
      line["line"] = d.line;
      if (options_.format == DisplayFormat::Text) {
        writeDisplayRow(out_, line, tableStarted_);
      } else {
        out_ << compactJson(line) << '\n';
      }
    }
    out_.flush();
    result.displays += displays.size();
    if (options_.autoShown) {
      for (const auto& d : displays) {
        if (const std::string* id = klt::stringPtr(klt::valueForKey(d.info, "id"))) {
          host_.engine().updateCountForConfigWithIdentifier(*id);
        }
      }
      if (!host_.drain()) return blocked(number);
    }
    return true;
  }

  bool blocked(std::size_t number) {
    result.exitCode = kExitBlocked;
    result.queueBlocked = true;
    const std::vector<EndlessTimer> timers = endlessTimers();
    bool negative = false, tooLong = false;
    for (const auto& t : timers) (t.negative ? negative : tooLong) = true;
    const std::string cause = negative && tooLong ? "a negative \"time\", or a \"time\" too long to ever end,"
                              : tooLong           ? "a \"time\" too long to ever end"
                              : negative          ? "a negative \"time\""
                                                  : "a \"time\" that never ends";
    std::ostream& err = say();
    err << "kltce: " << (number == 0 ? std::string("start-up") : "line " + std::to_string(number))
        << ": the engine's queue is blocked for good: a timer condition (idle_time or activity_time) with " << cause
        << " was armed, and its timer never ends, so no later event can be handled.\n";
    if (!timers.empty()) {
      err << "kltce: timers that never end:\n";
      for (const auto& t : timers) {
        err << "kltce:   campaign " << t.campaign << ", " << t.where << ": time " << t.millis << " ms "
            << (t.negative ? "is negative" : "is too long: its end lies beyond the last instant the clock can hold")
            << '\n';
      }
    }
    err << "kltce: stopped; give the timer a time of 0 or more"
        << (tooLong ? " and short enough to end" : "") << " (kltce check lists such timers)\n";
    return false;
  }

  struct EndlessTimer {
    std::string campaign;
    std::string where;
    int64_t millis = 0;
    bool negative = false;
  };

  // The timer conditions of the documents replayed so far whose timer never ends, read as the
  // engine reads them (platform/KLTRunLoop.h: a whole number of seconds, taken as unsigned, from
  // now): a negative time, or one whose end lies beyond the clock's range (a time of 2^70 ms reads
  // as the largest number, which is such a time).
  std::vector<EndlessTimer> endlessTimers() {
    std::vector<EndlessTimer> found;
    const KLTTimePoint now = host_.clock().now();
    for (const auto& document : documents_) {
      const KLTValue& configs = klt::valueForKey(*document, kKLTConfigs);
      if (!configs.is_array()) continue;
      for (const auto& config : configs) {
        const auto campaign = KLTCECampaign::compile(config);
        if (!campaign) continue;
        // In document order, which sequence mode's order of use need not be.
        std::vector<const KLTCEConditionRule*> rules;
        for (const KLTCEConditionRule& rule : campaign->conditions()) rules.push_back(&rule);
        std::sort(rules.begin(), rules.end(), [](const auto* a, const auto* b) { return a->position < b->position; });
        for (const KLTCEConditionRule* r : rules) {
          const KLTCEConditionRule& rule = *r;
          if (rule.kind != KLTCEEventKind::IdleTime && rule.kind != KLTCEEventKind::ActivityTime) continue;
          if (!rule.timerNeverEnds(now)) continue;
          found.push_back({campaign->identifier(),
                           "conditions[" + std::to_string(rule.position) + "].details.additional_info.time",
                           klt::integerValue(rule.time), rule.timerNegative()});
        }
      }
    }
    return found;
  }

  void progress() {
    if (!options_.progress || (result.lines & 1023) != 0) return;
    const auto now = realNow_();
    if (now - began_ < kProgressAfter || now - lastProgress_ < kProgressEvery) return;
    lastProgress_ = now;
    progressShown_ = true;
    say() << "\rkltce: " << result.lines << " lines, " << result.events << " events, " << result.displays << " displays"
         << std::flush;
  }

  const ReplayOptions& options_;
  ReplayHost& host_;
  std::ostream& out_;
  std::ostream& err_;
  std::shared_ptr<const KLTTimeZone> zone_;
  // The documents parsed so far, shared with the engine's parses: the start document (a fleet
  // replays one per device) and those of parse lines.
  std::vector<std::shared_ptr<const KLTValue>> documents_;
  std::function<std::chrono::steady_clock::time_point()> realNow_;
  std::chrono::steady_clock::time_point began_, lastProgress_;
  bool progressShown_ = false;
  bool tableStarted_ = false;
};

bool writable(const fs::path& path, std::string& why) {
  if (::access(path.c_str(), W_OK) == 0) return true;
  why = std::strerror(errno);
  return false;
}

}  // namespace

fs::path resolveStatePath(const std::optional<fs::path>& state, bool fresh) {
  if (state) return *state;
  if (fresh) return {};
  return KLTUserDefaults::defaultLocation();
}

std::shared_ptr<KLTUserDefaults> openStateStore(const fs::path& path, bool fresh, std::string& error) {
  if (path.empty()) return std::make_shared<KLTUserDefaults>(fs::path());
  std::error_code ec;
  const std::string shownPath = "'" + path.string() + "'";
  if (fs::is_directory(path, ec)) {
    error = "the state path " + shownPath + " is a folder; --state takes a file name";
    return nullptr;
  }
  if (fs::exists(path, ec) && !fs::is_regular_file(path, ec)) {
    error = "the state path " + shownPath + " is not a regular file (a pipe or a device); --state takes a file";
    return nullptr;
  }
  const fs::path folder = path.has_parent_path() ? path.parent_path() : fs::path(".");
  fs::create_directories(folder, ec);
  if (ec || !fs::is_directory(folder)) {
    error = "cannot create the folder of the state file " + shownPath + ": " + (ec ? ec.message() : "not a folder");
    return nullptr;
  }
  std::string why;
  if (!writable(folder, why)) {
    error = "cannot write the state file " + shownPath + ": its folder is not writable (" + why + ")";
    return nullptr;
  }
  // The store's write-ahead log and its index sit beside the file and go with it.
  fs::path wal = path, shm = path;
  wal += "-wal";
  shm += "-shm";
  for (const auto& file : {path, wal}) {
    if (fs::exists(file, ec) && !writable(file, why)) {
      error = "cannot write the state file '" + file.string() + "': " + why;
      return nullptr;
    }
  }
  // The lock comes before a reset, so that a second run cannot remove the file a first one writes.
  auto lock = KLTStoreLock::acquire(path, why);
  if (!lock) {
    error = "the state file " + shownPath + " is in use: " + why + "; run one replay per state file at a time";
    return nullptr;
  }
  if (fresh) {
    for (const auto& file : {path, wal, shm}) {
      fs::remove(file, ec);
      if (ec) {
        error = "cannot reset the state file '" + file.string() + "': " + ec.message();
        return nullptr;
      }
    }
  }
  // The store keeps its lock for as long as anyone holds it (the engine may, to the end of the process).
  struct Locked {
    Locked(std::unique_ptr<KLTStoreLock> l, const fs::path& p) : lock(std::move(l)), store(p) {}
    std::unique_ptr<KLTStoreLock> lock;
    KLTUserDefaults store;
  };
  auto locked = std::make_shared<Locked>(std::move(lock), path);
  if (!locked->store.unusable().empty()) {
    error = locked->store.unusable();
    return nullptr;
  }
  return std::shared_ptr<KLTUserDefaults>(locked, &locked->store);
}

ReplayResult runReplay(const ReplayOptions& options, LineSource& lines, std::ostream& out, std::ostream& err) {
  ReplayResult failed;
  failed.exitCode = kExitUsage;
  if (!options.document || !options.document->is_object()) {
    err << "kltce: the document must be a JSON object with \"configs\"\n";
    return failed;
  }
  if (const KLTValue& configs = klt::valueForKey(*options.document, "configs"); !configs.is_null() && !configs.is_array()) {
    err << "kltce: the document's \"configs\" must be a list of campaigns\n";
    return failed;
  }
  std::string error;
  auto store = options.store ? options.store : openStateStore(options.statePath, options.fresh, error);
  if (!store) {
    err << "kltce: " << error << '\n';
    return failed;
  }

  // The first non-blank line gives the start time unless --start does.
  std::size_t number = 0;
  LineResult parsed;
  std::optional<std::size_t> first;
  std::optional<LineResult> firstParsed;
  while (lines.next(number, parsed)) {
    if (!parsed.line && parsed.error.empty()) continue;  // blank
    first = number;
    firstParsed = std::move(parsed);
    break;
  }
  KLTTimePoint start = options.start ? *options.start
                       : (firstParsed && firstParsed->line && firstParsed->line->time) ? *firstParsed->line->time
                                                                                       : KLTRealClock().now();
  auto zone = options.zone ? options.zone : options.profile.timeZone ? options.profile.timeZone : KLTTimeZone::system();

  const std::shared_ptr<KLTUserDefaults> counters = store;
  ReplayHost host(options, start, zone, std::move(store));
  Replay replay(options, host, out, err);
  bool going = replay.startUp();
  if (going && first) going = replay.line(*first, *firstParsed);
  while (going && lines.next(number, parsed)) going = replay.line(number, parsed);
  if (lines.failed() && going) {
    replay.say() << "kltce: reading the event stream failed after line " << number << '\n';
    if (replay.result.exitCode == kExitOk) replay.result.exitCode = kExitFailed;
  }
  replay.finish();
  replay.result.lines = number;
  replay.result.taskFailure = host.engine().ceOpsSerialQueue()->taskFailure();
  // The engine logs each save that fails and goes on with the counters in memory. Once it is idle,
  // one more save either makes every counter durable (a no-op when the last save worked) or shows
  // that this run's counters are lost, which the person must learn from more than a log line.
  if (!replay.result.queueBlocked && !counters->synchronize()) {
    replay.say() << "kltce: the counters of this run could not be saved to '" << options.statePath.string()
        << "'; the next run with this state starts from the last counters saved\n";
    if (replay.result.exitCode == kExitOk) replay.result.exitCode = kExitUnsaved;
  }
  return replay.result;
}

bool TextLineSource::next(std::size_t& number, LineResult& line) {
  if (!std::getline(in_, text_)) return false;
  number = ++read_;
  line = parseStreamLine(text_);
  return true;
}

ReplayResult runReplay(const ReplayOptions& options, std::istream& events, std::ostream& out, std::ostream& err) {
  TextLineSource lines(events);
  return runReplay(options, lines, out, err);
}

}  // namespace kltce
