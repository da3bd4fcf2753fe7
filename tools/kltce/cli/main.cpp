// kltce: replays event streams against campaign documents, checks documents against a device
// profile, and expands message placeholders. Argument parsing only; the work is in the layers below.
#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <iterator>
#include <new>
#include <stdexcept>
#include <optional>
#include <sstream>
#include <string>
#include <string_view>
#include <utility>

#include <CLI/CLI.hpp>

#include "KLTContextEvaluator/KLTContextEvaluator_vers.h"
#include "platform/KLTLog.h"
#include "platform/KLTSerialQueue.h"
#include "tools/kltce/analysis/check.h"
#include "tools/kltce/analysis/check_compare.h"
#include "tools/kltce/cli/explain_report_command.h"
#include "tools/kltce/cli/fleet_options.h"
#include "tools/kltce/cli/fleet_report_command.h"
#include "tools/kltce/cli/macros.h"
#include "tools/kltce/cli/state_command.h"
#include "tools/kltce/fleet/fleet_command.h"
#include "tools/kltce/input/json_text.h"
#include "tools/kltce/input/profile.h"
#include "tools/kltce/input/time_text.h"
#include "tools/kltce/replay/buffered_log.h"
#include "tools/kltce/replay/explain.h"
#include "tools/kltce/replay/replay.h"
#include "tools/kltce/report/report_facts.h"

namespace {

using kltce::kExitUsage;

bool loadDocument(const std::string& path, KLTValue& document) {
  kltce::JsonResult r = kltce::loadJsonFile(path);
  if (!r.ok()) {
    std::cerr << "kltce: document: " << r.error << '\n';
    return false;
  }
  document = std::move(r.value);
  return true;
}

bool loadProfile(const std::string& path, kltce::Profile& profile) {
  kltce::JsonResult r = kltce::loadJsonFile(path);
  if (!r.ok()) {
    std::cerr << "kltce: profile: " << r.error << '\n';
    return false;
  }
  kltce::ProfileResult p = kltce::parseProfile(r.value);
  for (const auto& note : p.notes) std::cerr << "kltce: profile '" << path << "': note: " << note << '\n';
  if (!p.ok()) {
    std::cerr << "kltce: profile '" << path << "': " << p.error << '\n';
    return false;
  }
  profile = std::move(p.profile);
  return true;
}

bool readInstantOption(const std::string& name, const std::string& text, std::optional<KLTTimePoint>& out) {
  KLTValue v = text;
  if (!text.empty() && text.find_first_not_of("-0123456789") == std::string::npos) v = std::strtoll(text.c_str(), nullptr, 10);
  out = kltce::readInstant(v);
  if (!out) std::cerr << "kltce: " << name << ": \"" << text << "\" is not an ISO 8601 time or epoch milliseconds\n";
  return out.has_value();
}

}  // namespace

static int runCommand(int argc, char** argv) {
  CLI::App app{"kltce: replay event streams against campaign documents, check documents, expand placeholders"};
  app.require_subcommand(1);
  const std::string toolVersion = std::string("kltce ") + KLTCE_TOOL_VERSION + " (KLTContextEvaluator library " +
                                  KLTContextEvaluatorVersionString + ")";
  app.set_version_flag("--version", toolVersion);

  std::string document, profile, events = "-", state, tz, start, at;
  bool fresh = false, autoShown = false, strict = false, json = false, requireAdmitted = false;
  long logLevel = 2;

  auto* run = app.add_subcommand("run", "replay an event stream (JSON Lines) and print every display event");
  run->add_option("--document", document, "campaign document (JSON)")->required();
  run->add_option("--profile", profile, "device profile (JSON)")->required();
  run->add_option("--events", events, "event stream, one JSON object per line; - for standard input (default)");
  auto* stateOpt = run->add_option("--state", state, "file of the persisted counters (default: the per-user store)");
  run->add_flag("--fresh", fresh, "start with empty counters (with --state: that file is reset; without: kept in memory)");
  run->add_flag("--auto-shown", autoShown, "report every display event as shown, as a host would after showing it");
  auto* levelOpt = run->add_option("--log-level", logLevel, "the engine's LOG_LEVEL (0-1 debug, 2 default, 4 quiet)");
  auto* tzOpt = run->add_option("--tz", tz, "time zone: IANA name or +HH:MM (default: the profile's, else the system's)");
  auto* startOpt = run->add_option("--start", start, "start time (ISO 8601 or epoch ms; default: the first line's t)");
  run->add_flag("--strict", strict, "stop at the first bad line");
  bool explain = false;
  std::string trace, format = "json";
  auto* explainOpt = run->add_flag("--explain", explain, "after the replay, tell per campaign what the engine decided and why it did not fire (standard error)");
  auto* traceOpt = run->add_option("--trace", trace, "write every decision record to FILE as JSON Lines");
  std::string explainHtml;
  auto* explainHtmlOpt = run->add_option("--html", explainHtml, "with --explain: also write it as an HTML page to FILE (a timeline per campaign)")
                             ->needs(explainOpt);
  run->add_option("--format", format, "display events as json (JSON Lines, the default) or text (an aligned table)")
      ->check(CLI::IsMember({"json", "text"}));

  auto* check = app.add_subcommand("check", "validate a document: every mistake in it, and what the profile admits");
  check->add_option("--document", document, "campaign document (JSON)")->required();
  auto* checkProfileOpt = check->add_option(
      "--profile", profile, "device profile (JSON); without it: the document's mistakes only, admission not checked");
  check->add_flag("--json", json, "one JSON object on standard output");
  check->add_flag("--require-admitted", requireAdmitted, "a campaign this profile does not admit is an error (needs --profile)");
  auto* atOpt = check->add_option("--at", at, "check at this time (ISO 8601 or epoch ms; default: now; needs --profile)");
  std::string compareDocument;
  auto* compareOpt = check->add_option(
      "--compare", compareDocument,
      "an old document: the campaigns added, removed and edited, the values changed, and admission old -> new");
  compareOpt->excludes(check->get_option("--require-admitted"));

  std::string text;
  auto* macros = app.add_subcommand("macros", "expand [user_x(default)] and [session_x(default)] placeholders");
  macros->add_option("--profile", profile, "device profile (JSON)")->required();
  auto* textOpt = macros->add_option("text", text, "the text (default: standard input)");

  std::string statePath;
  auto* stateCmd = app.add_subcommand("state", "show or clear the persisted display counters");
  stateCmd->require_subcommand(1);
  auto* stateShow = stateCmd->add_subcommand("show", "print the counters as JSON (dates as ISO 8601 UTC text)");
  auto* stateReset = stateCmd->add_subcommand("reset", "remove every counter");
  for (auto* sub : {stateShow, stateReset}) sub->add_option("--state", statePath, "file of the persisted counters")->required();

  kltce::FleetCommand fleetCommand;
  auto* fleet = app.add_subcommand("fleet", "replay every device of a fleet file and sum up, per campaign, whom it reached and why not");
  kltce::addFleetOptions(*fleet, fleetCommand);
  fleet->footer(kltce::kFleetHelp);
  auto* fleetMerge = fleet->add_subcommand("merge", "add up the JSON summaries of fleet runs (shards) into one");
  fleetMerge->add_option("summaries", fleetCommand.mergeFiles, "JSON summaries of `kltce fleet --format json`")->required();
  fleetMerge->add_option("--format", fleetCommand.format, "table (the default) or json")->check(CLI::IsMember({"table", "json"}));
  std::string fleetHtml;
  fleet->add_option("--html", fleetHtml, "also write the summary as an HTML report (charts and tables per campaign) to FILE");
  fleetMerge->add_option("--html", fleetHtml, "also write the sum as an HTML report to FILE");
  fleetMerge->add_option("--document", fleetCommand.document, "the campaign document, named with its SHA-256 in --html's header");
  fleetMerge->add_option("--compare", fleetCommand.compare, "the old document of merged comparisons, named likewise");

  // A word where a command is expected is named as an unknown command, not as a missing one.
  for (auto [parent, place] : {std::pair{static_cast<CLI::App*>(&app), 1}, std::pair{stateCmd, 2}}) {
    if (argc <= place || (place == 2 && std::string_view(argv[1]) != "state")) continue;
    const std::string word = argv[place];
    std::string names;
    bool known = false;
    for (const auto* sub : parent->get_subcommands({})) {
      names += (names.empty() ? "" : ", ") + sub->get_name();
      known = known || sub->check_name(word);
    }
    if (word.empty() || word[0] == '-' || known) continue;
    std::cerr << "kltce: unknown command '" << word << "'" << (place == 2 ? " of state" : "") << " (commands: " << names
              << "; kltce --help tells more)\n";
    return kExitUsage;
  }
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& e) {
    // --help and --version end here with 0; every mistake on the command line is status 2.
    return app.exit(e) == 0 ? kltce::kExitOk : kExitUsage;
  }

  if (fleet->parsed()) {
    // A merge of comparisons is told from a plain one by its first part.
    if (fleetMerge->parsed()) {
      return fleetHtml.empty() ? kltce::runFleetMerge(fleetCommand, std::cout, std::cerr)
                               : kltce::runFleetWithHtml(fleetCommand, true, fleetHtml, toolVersion, std::cout, std::cerr);
    }
    fleetCommand.progress = ::isatty(STDERR_FILENO) == 1;
    const int code = fleetHtml.empty()
                         ? kltce::runFleetCommand(fleetCommand, std::cout, std::cerr)
                         : kltce::runFleetWithHtml(fleetCommand, false, fleetHtml, toolVersion, std::cout, std::cerr);
    // A queue held for good by a timer that never ends: ending normally could wait for it.
    if (code == kltce::kExitBlocked) {
      std::cout.flush();
      std::cerr.flush();
      std::_Exit(code);
    }
    return code;
  }

  if (stateCmd->parsed()) {
    return stateShow->parsed() ? kltce::runStateShow(statePath, std::cout, std::cerr)
                               : kltce::runStateReset(statePath, std::cout, std::cerr);
  }

  // A document's author checks its mistakes without any device: nothing then depends on a moment.
  const bool checkWithoutProfile = check->parsed() && checkProfileOpt->count() == 0;
  if (checkWithoutProfile && (atOpt->count() || compareOpt->count())) {
    std::cerr << "kltce: " << (atOpt->count() ? "--at" : "--compare")
              << " needs --profile: without a profile no admission is checked\n";
    return kExitUsage;
  }
  kltce::Profile p;
  if (!checkWithoutProfile && !loadProfile(profile, p)) return kExitUsage;

  if (macros->parsed()) {
    if (textOpt->count() == 0) {
      text.assign(std::istreambuf_iterator<char>(std::cin), std::istreambuf_iterator<char>());
      if (!text.empty() && text.back() == '\n') text.pop_back();
    }
    return kltce::runMacros(p, text, std::cout, std::cerr);
  }

  kltce::CheckOptions checkOptions;
  kltce::ReplayOptions replayOptions;
  KLTValue doc;
  if (!loadDocument(document, doc)) return kExitUsage;
  if (run->parsed()) {
    replayOptions.document = std::make_shared<const KLTValue>(std::move(doc));
  } else {
    checkOptions.document = std::move(doc);
  }

  if (check->parsed()) {
    checkOptions.profile = std::move(p);
    checkOptions.json = json;
    checkOptions.requireAdmitted = requireAdmitted;
    if (checkWithoutProfile) checkOptions.admission = kltce::Admission::NotChecked;
    if (atOpt->count() && !readInstantOption("--at", at, checkOptions.at)) return kExitUsage;
    if (compareOpt->count()) {
      KLTValue before;
      if (!loadDocument(compareDocument, before)) return kExitUsage;
      return kltce::runCheckCompare(checkOptions, before, std::cout, std::cerr);
    }
    return kltce::runCheck(checkOptions, std::cout, std::cerr);
  }

  replayOptions.profile = std::move(p);
  replayOptions.fresh = fresh;
  replayOptions.autoShown = autoShown;
  replayOptions.strict = strict;
  if (levelOpt->count()) replayOptions.logLevel = logLevel;
  if (tzOpt->count()) {
    replayOptions.zone = kltce::zoneFromText(tz);
    if (!replayOptions.zone) {
      std::cerr << "kltce: --tz: unknown time zone \"" << tz << "\" (use an IANA name such as Europe/Paris, or +HH:MM)\n";
      return kExitUsage;
    }
  }
  if (startOpt->count() && !readInstantOption("--start", start, replayOptions.start)) return kExitUsage;
  replayOptions.statePath = kltce::resolveStatePath(
      stateOpt->count() ? std::optional<std::filesystem::path>(state) : std::nullopt, fresh);
  if (replayOptions.statePath.empty() && !fresh) {
    std::cerr << "kltce: note: KLTCE_STATE_DIR, XDG_STATE_HOME and HOME are all unset: the counters of this run are "
                 "not kept (give --state FILE to keep them)\n";
  }
  replayOptions.progress = ::isatty(STDERR_FILENO) == 1;

  std::ifstream file;
  std::istream* in = &std::cin;
  if (events == "-" && ::fcntl(STDIN_FILENO, F_GETFD) == -1) {
    std::cerr << "kltce: events: standard input is closed; give the stream with --events FILE or on standard input\n";
    return kExitUsage;
  }
  if (std::error_code ec; events != "-" && std::filesystem::is_directory(events, ec)) {
    std::cerr << "kltce: events: '" << events << "' is a folder; --events takes a file of JSON Lines\n";
    return kExitUsage;
  }
  if (events != "-") {
    file.open(events);
    if (!file) {
      std::cerr << "kltce: events: cannot read '" << events << "': " << std::strerror(errno) << '\n';
      return kExitUsage;
    }
    in = &file;
    replayOptions.baseDir = std::filesystem::path(events).parent_path();
  }
  replayOptions.format = format == "text" ? kltce::DisplayFormat::Text : kltce::DisplayFormat::Json;
  std::ofstream traceFile;
  if (traceOpt->count()) {
    traceFile.open(trace, std::ios::out | std::ios::trunc);
    if (!traceFile) {
      std::cerr << "kltce: --trace: cannot write '" << trace << "': " << std::strerror(errno) << '\n';
      return kExitUsage;
    }
  }
  // --html: the records pass through reportTrace on their way to --trace's file, if any.
  kltce::ExplainReportFacts reportFacts;
  kltce::ReportTrace reportTrace(traceOpt->count() ? &traceFile : nullptr);
  std::vector<kltce::CampaignOutcome> outcomes;
  std::ostream* traceTo = traceOpt->count() ? &traceFile : nullptr;
  if (explainHtmlOpt->count()) {
    std::string error;
    const auto facts = kltce::documentFacts(document, error);
    if (!facts) {
      std::cerr << "kltce: --html: " << error << '\n';
      return kExitUsage;
    }
    // A page that cannot be written stops the run before the replay, not after it.
    if (!std::ofstream(explainHtml, std::ios::out | std::ios::trunc)) {
      std::cerr << "kltce: --html: cannot write '" << explainHtml << "': " << std::strerror(errno) << '\n';
      return kExitUsage;
    }
    reportFacts = {facts->name, facts->sha256, profile, events, kltce::reportTimeText(kltce::reportMoment()), toolVersion};
    traceTo = &reportTrace;
  }
  // The engine's log goes out in blocks; the replay flushes it before each message of its own.
  kltce::ScopedBufferedLog log;
  const kltce::ReplayResult result =
      explain || traceOpt->count()
          ? kltce::runReplayWithDecisions(std::move(replayOptions), {explain, traceTo}, *in, std::cout, std::cerr,
                                          std::cerr, explainHtmlOpt->count() ? &outcomes : nullptr)
          : kltce::runReplay(replayOptions, *in, std::cout, std::cerr);
  log.flush();
  int code = result.exitCode;
  if (explainHtmlOpt->count() && !result.queueBlocked &&
      !kltce::writeExplainReport(explainHtml, reportTrace, outcomes, reportFacts, std::cerr) && code == kltce::kExitOk) {
    code = kExitUsage;
  }
  if (traceOpt->count() && !traceFile.flush()) {
    std::cerr << "kltce: --trace: writing '" << trace << "' failed: " << std::strerror(errno) << '\n';
    if (code == kltce::kExitOk) code = kltce::kExitFailed;
  }
  // A task that threw on the engine's queue was logged and skipped there; the run is not sound.
  if (const auto failure = KLTSerialQueue::firstTaskFailure()) {
    if (*failure == std::bad_alloc().what()) throw std::bad_alloc();
    throw std::runtime_error(*failure);
  }
  if (result.queueBlocked) {
    // The engine's queue never becomes idle; ending normally could wait for it.
    std::cout.flush();
    std::cerr.flush();
    std::_Exit(result.exitCode);
  }
  return code;
}

// Output that did not reach standard output fails the command, whatever it did besides: a script
// reading it must not take a cut result for a whole one.
static int checkOutput(int code) {
  if (std::cout.flush()) return code;
  std::cerr << "kltce: writing standard output failed"
            << (::fcntl(STDOUT_FILENO, F_GETFD) == -1 ? ": standard output is closed" : " (is the device full?)") << '\n';
  return code == kltce::kExitOk ? kltce::kExitFailed : code;
}

int main(int argc, char** argv) {
  std::ios::sync_with_stdio(false);
  // Whatever escapes a command ends the run with one line and a failure code, never with 0.
  try {
    return checkOutput(runCommand(argc, argv));
  } catch (const std::bad_alloc&) {
    std::cout.flush();
    std::cerr << "kltce: out of memory\n";
  } catch (const std::exception& e) {
    std::cout.flush();
    std::cerr << "kltce: failed: " << e.what() << '\n';
  } catch (...) {
    std::cout.flush();
    std::cerr << "kltce: failed: an exception of unknown type\n";
  }
  std::cerr.flush();
  // The engine's worker may still hold work; ending normally would wait for it.
  std::_Exit(kltce::kExitFailed);
}
