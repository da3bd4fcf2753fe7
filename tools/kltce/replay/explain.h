// `kltce run --explain` and `--trace`: what the engine decided for each campaign during a replay,
// and why a campaign that never fired did not.
//
// DecisionTracker is the decision observer the replay installs. It keeps, per campaign, the state
// reached (admitted or why not, each condition armed or not, its last count, the last fold, window
// and cap refusals, the dispatches) and a readable account of its decisions; it writes every record
// as a JSON line when given a trace stream. Memory follows the number of campaigns and conditions,
// not the length of the stream (accounts keep their first kAccountLines lines).
//
// The summary of a campaign is data: an OutcomeKind a program can count (a fleet's "why not"
// tallies) and a text for people.
//
// Threading: onDecision() runs on the engine's queue; noteLine() on the replay's thread
// while that queue is idle; outcomes() and writeExplanation() after the replay. A mutex guards the
// state, so any order is safe.
#pragma once

#include <cstddef>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <ostream>
#include <string>
#include <string_view>
#include <vector>

#include "KLTContextEvaluator/KLTCEDecision.h"
#include "platform/KLTClock.h"

namespace kltce {

// How a campaign ended the replay, in the order of the way to a dispatch: the furthest point wins.
enum class OutcomeKind {
  Fired,          // dispatched at least once
  Rejected,       // never admitted
  NeverArmed,     // a condition that did not hold was never armed by its trigger
  CountShort,     // armed, but its matching events did not reach the count
  OutOfBounds,    // the count held, but only outside the condition's time bounds
  FoldFalse,      // the conditions that held do not make the fold true (operators), or none exist
  OutsideWindow,  // everything held, but outside the daily window
  CapBlocked,     // everything held, but the frequency cap refused
  NotDispatched,  // everything held and nothing refused, but the display type dispatches nothing
  NotParsed,      // no record at all (the document never reached the engine)
};
std::string_view outcomeKindName(OutcomeKind kind);

struct CampaignOutcome {
  std::string campaign;
  OutcomeKind kind = OutcomeKind::NotParsed;
  std::string text;                   // "never armed: no app_event 'open_app' in the stream"
  std::vector<std::size_t> firedAtLines;  // stream lines of the dispatches (0: the start-up parse)
  std::string reason;                 // Rejected: the admission step that failed ("version", "hardware", ...)
};

class DecisionTracker final : public KLTCEDecisionObserver {
 public:
  static constexpr std::size_t kAccountLines = 60;

  // trace: where JSON lines of the records go (nullptr: none). zone: for the times in texts.
  // account: keep each campaign's readable account (writeExplanation); without it only the state
  // behind outcomes() is kept, which costs far less per decision (a fleet replays millions).
  DecisionTracker(std::shared_ptr<const KLTTimeZone> zone, std::ostream* trace, bool account = true);
  ~DecisionTracker() override;

  // The stream line now being replayed (0: the start-up parse), and for an event line (name: the
  // event's name; nullptr for any other line) the event delivered to the host, to tell "no such
  // event" from "not matched".
  void noteLine(std::size_t line, unsigned long code, const std::string* name);

  void onDecision(const KLTCEDecision& decision) override;
  // Without an account or a trace, only the kinds behind outcomes() are read.
  bool readsValues(KLTCEDecisionKind kind) const override;

  // Every campaign met in the records, in the order first met.
  std::vector<CampaignOutcome> outcomes() const;
  // Per campaign: its account, line by line, then its outcome; then a closing summary table.
  void writeExplanation(std::ostream& out) const;

 private:
  // What the account of a condition reads from its last event_counted record.
  struct LastCount {
    int64_t count = 0;
    bool held = false;  // outside its time bounds
    int64_t time = 0;
  };
  struct Condition {
    KLTValue description;  // from item_built
    bool armed = false;
    bool held = false;
    std::size_t counted = 0;
    std::optional<LastCount> lastCount;  // of the last event_counted
  };
  struct Campaign {
    std::string id;
    bool admitted = false;
    KLTValue rejection;  // values of the last rejected
    bool sequence = false;
    KLTValue type;
    std::vector<Condition> conditions;
    std::optional<KLTValue> window, cap;  // last refusals since the last dispatch
    bool foldTrue = false;
    std::vector<std::size_t> fired;
    std::vector<std::string> account;
    std::size_t accountDropped = 0;
  };

  Campaign& campaign(const std::string& id);
  void countEvent(unsigned long code, const std::string& name);  // under the lock
  void apply(Campaign& c, const KLTCEDecision& d);
  std::string describe(const Campaign& c, const KLTCEDecision& d) const;
  CampaignOutcome outcomeOf(const Campaign& c) const;
  std::string conditionState(const Campaign& c, std::size_t index, OutcomeKind& kind) const;
  std::string timeText(int64_t epochMillis) const;

  mutable std::mutex mutex_;
  std::shared_ptr<const KLTTimeZone> zone_;
  std::ostream* trace_;
  bool account_;
  std::size_t line_ = 0;
  // Events by (code, name), looked up by a name's view as well as by a key of its own.
  struct EventOrder {
    using is_transparent = void;
    template <class A, class B>
    bool operator()(const A& a, const B& b) const {
      return a.first != b.first ? a.first < b.first : std::string_view(a.second) < std::string_view(b.second);
    }
  };
  std::map<std::pair<unsigned long, std::string>, std::size_t, EventOrder> events_;
  std::vector<Campaign> campaigns_;
  std::map<std::string, std::size_t> index_;
  std::size_t last_ = 0;  // the campaign of the last record
};

}  // namespace kltce

namespace kltce {

struct ReplayOptions;
struct ReplayResult;
class LineSource;

// What the replay does with the engine's decisions.
struct DecisionOptions {
  bool explain = false;           // the per-campaign account and summary, on the explanation stream
  std::ostream* trace = nullptr;  // every record as a JSON line
};

// runReplay() with a DecisionTracker installed as the engine's decision observer for its duration;
// then, with explain, writes the explanation to `explanation`. The display output on out is the
// same as runReplay()'s. outcomes: when given, receives every campaign's outcome.
ReplayResult runReplayWithDecisions(ReplayOptions options, const DecisionOptions& decisions, std::istream& events,
                                    std::ostream& out, std::ostream& err, std::ostream& explanation,
                                    std::vector<CampaignOutcome>* outcomes = nullptr);
// The same over lines already read (see LineSource in replay.h).
ReplayResult runReplayWithDecisions(ReplayOptions options, const DecisionOptions& decisions, LineSource& lines,
                                    std::ostream& out, std::ostream& err, std::ostream& explanation,
                                    std::vector<CampaignOutcome>* outcomes = nullptr);

}  // namespace kltce
