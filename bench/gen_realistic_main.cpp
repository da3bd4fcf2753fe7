// gen_realistic: writes a realistic campaign document, device profile and event stream
// (bench/gen_realistic.h) to files, so that `kltce run` can be timed on them from the command line,
// and measures the shape the engine sees on them.
//
//   gen_realistic [--campaigns N] [--events M] [--seed S] [--out DIR] [--shape] [--check-shape]
//
// --out DIR writes DIR/realistic-campaigns.json, DIR/realistic-profile.json and
// DIR/realistic-events.jsonl. --shape replays the stream through the engine as `kltce run
// --fresh --auto-shown` does, with a decision observer and a log sink that count, and prints per
// host event: the conditions armed for the event's code and name when it arrives (the listeners it
// reaches), those that counted it, and the completions the cap refused (each logged "Action count
// limit exceeded"). --check-shape does the same and exits 1 unless the shape is the one the
// benchmarks claim (40-56 listeners and 14-22 refused completions per host event).
#include <CLI/CLI.hpp>

#include <fstream>
#include <iostream>
#include <memory>
#include <sstream>
#include <streambuf>
#include <string>
#include <unordered_map>
#include <vector>

#include "KLTContextEvaluator/KLTContextEvaluator.h"
#include "bench/gen_realistic.h"
#include "platform/KLTLog.h"
#include "tools/kltce/input/profile.h"
#include "tools/kltce/replay/replay.h"

namespace {

struct Shape {
  std::size_t events = 0;             // host events (presence included)
  std::size_t reached = 0;            // sum over events of the armed conditions registered for them
  std::size_t eventsReaching = 0;     // events that reach at least one armed condition
  std::size_t counted = 0;            // event_counted records
  std::size_t capBlocked = 0;         // cap_blocked records
  std::size_t capLogLines = 0;        // "Action count limit exceeded" log lines
  std::size_t dispatched = 0;
  std::size_t admitted = 0;
  std::size_t rejected = 0;
  std::size_t armedConditions = 0;    // distinct conditions armed by the end
};

std::string key(unsigned long code, const std::string& name) { return std::to_string(code) + '|' + name; }

// Follows which conditions are armed, from the records of the engine, and counts the kinds the
// shape is made of. Runs on the engine's queue, which the replay drains on its own thread.
class ShapeObserver final : public KLTCEDecisionObserver {
 public:
  ShapeObserver(const genrealistic::Document& doc, Shape& shape) : doc_(doc), shape_(shape) {
    for (const auto& conditions : doc.conditions) armed_.emplace_back(conditions.size(), false);
  }
  void onDecision(const KLTCEDecision& d) override {
    switch (d.kind) {
      case KLTCEDecisionKind::Admitted: ++shape_.admitted; break;
      case KLTCEDecisionKind::Rejected: ++shape_.rejected; break;
      case KLTCEDecisionKind::EventCounted: ++shape_.counted; break;
      case KLTCEDecisionKind::CapBlocked: ++shape_.capBlocked; break;
      case KLTCEDecisionKind::Dispatched: ++shape_.dispatched; break;
      case KLTCEDecisionKind::ConditionArmed: arm(d.campaign, d.condition); break;
      default: break;
    }
  }
  bool readsValues(KLTCEDecisionKind) const override { return false; }
  // Armed conditions listening to this code and name.
  std::size_t listeners(unsigned long code, const std::string& name) const {
    const auto it = armedByKey_.find(key(code, name));
    return it == armedByKey_.end() ? 0 : it->second;
  }

 private:
  void arm(const std::string& campaign, int64_t condition) {
    // Campaign ids are "rc-<index>"; re-arming a condition registers nothing new.
    const auto index = static_cast<std::size_t>(std::stoul(campaign.substr(3)));
    const auto c = static_cast<std::size_t>(condition);
    if (index >= armed_.size() || c >= armed_[index].size() || armed_[index][c]) return;
    armed_[index][c] = true;
    ++shape_.armedConditions;
    const genrealistic::Listening& l = doc_.conditions[index][c];
    ++armedByKey_[key(l.code, l.name)];
  }
  const genrealistic::Document& doc_;
  Shape& shape_;
  std::vector<std::vector<bool>> armed_;
  std::unordered_map<std::string, std::size_t> armedByKey_;
};

// Counts the cap's refusals as logged, and drops every line.
class CountingLogSink final : public KLTLogSink {
 public:
  explicit CountingLogSink(Shape& shape) : shape_(shape) {}
  void write(std::string_view line) override {
    if (line.find("Action count limit exceeded") != std::string_view::npos) ++shape_.capLogLines;
  }
  void writeLine(KLTLogLevel level, std::string_view message, std::string_view, int) override {
    if (level == KLTLogLevel::Info && message == "Action count limit exceeded") ++shape_.capLogLines;
  }

 private:
  Shape& shape_;
};

class NullBuffer final : public std::streambuf {
 protected:
  int overflow(int c) override { return c; }
  std::streamsize xsputn(const char*, std::streamsize n) override { return n; }
};

int measureShape(const genrealistic::Options& options, const genrealistic::Document& doc, const std::string& stream,
                 bool check) {
  Shape shape;
  auto observer = std::make_shared<ShapeObserver>(doc, shape);
  kltce::ReplayOptions replay;
  // Installed on the replay's engine before its first task.
  replay.observer = observer;
  replay.logSink = std::make_shared<CountingLogSink>(shape);
  replay.document = std::make_shared<const KLTValue>(doc.value);
  replay.profile = kltce::parseProfile(genrealistic::profile()).profile;
  replay.fresh = true;
  replay.autoShown = true;
  replay.onLine = [&](std::size_t, const kltce::StreamLine& line) {
    if (line.kind != kltce::LineKind::Event) return;
    ++shape.events;
    const std::size_t n = observer->listeners(line.code, line.name);
    shape.reached += n;
    shape.eventsReaching += n > 0;
  };
  std::istringstream in(stream);
  NullBuffer nothing;
  std::ostream out(&nothing);
  const kltce::ReplayResult result = kltce::runReplay(replay, in, out, std::cerr);
  if (result.exitCode != kltce::kExitOk) {
    std::cerr << "gen_realistic: the replay failed (exit code " << result.exitCode << ")\n";
    return 1;
  }

  const double events = static_cast<double>(shape.events);
  const double listeners = static_cast<double>(shape.reached) / events;
  const double refused = static_cast<double>(shape.capBlocked) / events;
  std::cout.setf(std::ios::fixed);
  std::cout.precision(2);
  std::cout << "campaigns " << options.campaigns << " (admitted " << shape.admitted << ", rejected " << shape.rejected
            << "), conditions armed " << shape.armedConditions << "\n"
            << "host events " << shape.events << " (" << shape.eventsReaching << " reach an armed condition), lines "
            << result.lines << "\n"
            << "per host event: listeners reached " << listeners << ", counted " << static_cast<double>(shape.counted) / events
            << ", completions refused by the cap " << refused << "\n"
            << "per event reaching a listener: listeners " << static_cast<double>(shape.reached) / static_cast<double>(shape.eventsReaching)
            << "\n"
            << "cap refusals " << shape.capBlocked << ", \"Action count limit exceeded\" log lines " << shape.capLogLines
            << ", displays " << result.displays << " (dispatched records " << shape.dispatched << ")\n";
  if (!check) return 0;
  const bool ok = listeners >= 40 && listeners <= 56 && refused >= 14 && refused <= 22 && shape.capLogLines == shape.capBlocked &&
                  result.displays == shape.dispatched;
  if (!ok) std::cerr << "gen_realistic: the shape is not the one the benchmarks claim\n";
  return ok ? 0 : 1;
}

bool writeFile(const std::string& path, const std::string& text) {
  std::ofstream f(path, std::ios::binary);
  f << text;
  f.close();
  if (!f) std::cerr << "gen_realistic: cannot write '" << path << "'\n";
  return static_cast<bool>(f);
}

}  // namespace

int main(int argc, char** argv) {
  genrealistic::Options options;
  std::string dir;
  bool shape = false, check = false;
  CLI::App app{"gen_realistic: a realistic campaign document, profile and event stream for `kltce run`"};
  app.add_option("--campaigns", options.campaigns, "campaigns in the document")->check(CLI::Range(1, 1'000'000));
  app.add_option("--events", options.events, "host events in the stream")->check(CLI::Range(1, 100'000'000));
  app.add_option("--seed", options.seed, "seed of the generator");
  app.add_option("--out", dir, "folder to write realistic-{campaigns.json,profile.json,events.jsonl} into");
  app.add_flag("--shape", shape, "replay the stream and print its shape");
  app.add_flag("--check-shape", check, "as --shape, exiting 1 unless the shape is the claimed one");
  CLI11_PARSE(app, argc, argv);

  const genrealistic::Document doc = genrealistic::campaignDocument(options);
  const std::string stream = genrealistic::eventStream(options);
  if (!dir.empty()) {
    const std::string base = dir + "/realistic-";
    if (!writeFile(base + "campaigns.json", doc.value.dump(2) + "\n") ||
        !writeFile(base + "profile.json", genrealistic::profile().dump(2) + "\n") || !writeFile(base + "events.jsonl", stream)) {
      return 2;
    }
    std::cout << "wrote " << base << "campaigns.json, " << base << "profile.json, " << base << "events.jsonl\n";
  }
  if (shape || check) return measureShape(options, doc, stream, check);
  return 0;
}
