#include "tools/kltce/replay/explain.h"

#include <algorithm>

#include "KLTContextEvaluator/KLTContextEvaluator.h"
#include "platform/KLTLog.h"
#include "tools/kltce/input/json_text.h"
#include "tools/kltce/input/stream_line.h"
#include "tools/kltce/input/time_text.h"
#include "tools/kltce/replay/replay.h"

namespace kltce {

namespace {

std::string text(const KLTValue& v) { return klt::textForm(v); }

// The value under key, or null: records are read without assuming a key is there.
const KLTValue& at(const KLTValue& v, const char* key) { return klt::valueForKey(v, key); }

int64_t number(const KLTValue& v, const char* key) { return klt::integerValue(klt::valueForKey(v, key)); }

bool flag(const KLTValue& v, const char* key) { return klt::boolValue(klt::valueForKey(v, key)); }

// Copies from over to, reusing to's storage where the two have the same shape: a campaign's last
// refusal comes again and again with the same keys. Any other pair is copied whole.
void copyInto(KLTValue& to, const KLTValue& from) {
  if (to.is_string() && from.is_string()) {
    to.get_ref<std::string&>() = from.get_ref<const std::string&>();
    return;
  }
  if (to.is_object() && from.is_object() && to.size() == from.size()) {
    auto& a = to.get_ref<KLTValue::object_t&>();
    const auto& b = from.get_ref<const KLTValue::object_t&>();
    if (std::equal(a.begin(), a.end(), b.begin(), [](const auto& x, const auto& y) { return x.first == y.first; })) {
      auto bt = b.begin();
      for (auto& entry : a) copyInto(entry.second, (bt++)->second);
      return;
    }
  }
  to = from;
}

void copyInto(std::optional<KLTValue>& to, const KLTValue& from) {
  if (to) {
    copyInto(*to, from);
  } else {
    to = from;
  }
}

// The host event code a rule of this event_type listens on (0: none).
unsigned long codeOf(const KLTValue& eventType) {
  if (klt::isText(eventType, "app_event")) return 4;
  if (klt::isText(eventType, "client_event")) return 5;
  if (klt::isText(eventType, "activity_event")) return 1;
  return 0;
}

std::string kindOfCode(unsigned long code) {
  switch (code) {
    case 1: return "activity_event";
    case 3: return "presence";
    case 4: return "app_event";
    case 5: return "client_event";
    default: return "event " + std::to_string(code);
  }
}

std::string quoted(const KLTValue& v) { return "'" + text(v) + "'"; }

std::string plural(std::size_t n, const char* one, const char* many) {
  return std::to_string(n) + " " + (n == 1 ? one : many);
}

std::string lineList(const std::vector<std::size_t>& lines) {
  std::string out;
  for (std::size_t i = 0; i < lines.size() && i < 10; ++i) out += (i ? ", " : "") + std::to_string(lines[i]);
  if (lines.size() > 10) out += ", ...";
  return out;
}

std::string windowText(const KLTValue& v) {
  return "outside the window " + text(at(v, "start")) + "-" + text(at(v, "end")) + " at " + text(at(v, "local_time"));
}

std::string capText(const KLTValue& v, const KLTTimeZone& zone) {
  const std::string counter = text(at(v, "counter"));
  const char* which = counter == "day_count" ? "the day limit" : counter == "session_count" ? "the session limit" : "the cap";
  std::string out = std::string("blocked by ") + which + ": " + counter + " " + text(at(v, "value")) + " >= " +
                    text(at(v, "limit_key")) + " " + text(at(v, "limit"));
  if (v.contains("next_period_from")) {
    out += " until " + formatInstant(KLTTimePoint(std::chrono::milliseconds(number(v, "next_period_from"))), zone);
  }
  return out;
}

// The name a condition is known by: its event's or activity's name, else its event type.
std::string conditionName(const KLTValue& description) {
  const KLTValue& name = at(description, "name");
  return text(name.is_null() ? at(description, "event_type") : name);
}

std::string countText(const KLTValue& description, int64_t count) {
  return quoted(at(description, "name")) + " counted " + std::to_string(count) + " of " +
         std::to_string(number(description, "count")) + " (" + text(at(description, "operator")) + ")";
}

}  // namespace

std::string_view outcomeKindName(OutcomeKind kind) {
  switch (kind) {
    case OutcomeKind::Fired: return "fired";
    case OutcomeKind::Rejected: return "rejected";
    case OutcomeKind::NeverArmed: return "never_armed";
    case OutcomeKind::CountShort: return "count_short";
    case OutcomeKind::OutOfBounds: return "out_of_bounds";
    case OutcomeKind::FoldFalse: return "fold_false";
    case OutcomeKind::OutsideWindow: return "outside_window";
    case OutcomeKind::CapBlocked: return "cap_blocked";
    case OutcomeKind::NotDispatched: return "not_dispatched";
    case OutcomeKind::NotParsed: return "not_parsed";
  }
  return "unknown";
}

DecisionTracker::DecisionTracker(std::shared_ptr<const KLTTimeZone> zone, std::ostream* trace, bool account)
    : zone_(std::move(zone)), trace_(trace), account_(account) {}

DecisionTracker::~DecisionTracker() {
  // A fleet makes and drops a tracker per device: its values go the cheap way.
  for (Campaign& c : campaigns_) {
    klt::release(c.rejection);
    klt::release(c.type);
    for (Condition& condition : c.conditions) klt::release(condition.description);
    if (c.window) klt::release(*c.window);
    if (c.cap) klt::release(*c.cap);
  }
}

void DecisionTracker::noteLine(std::size_t line, unsigned long code, const std::string* name) {
  std::lock_guard lock(mutex_);
  line_ = line;
  if (name) countEvent(code, *name);
}

void DecisionTracker::countEvent(unsigned long code, const std::string& name) {
  // Found without a key of its own: the same few events come again and again.
  const auto key = std::make_pair(code, std::string_view(name));
  if (const auto it = events_.find(key); it != events_.end()) {
    ++it->second;
  } else {
    events_.emplace(std::make_pair(code, name), 1);
  }
}

std::string DecisionTracker::timeText(int64_t epochMillis) const {
  return formatInstant(KLTTimePoint(std::chrono::milliseconds(epochMillis)), *zone_);
}

DecisionTracker::Campaign& DecisionTracker::campaign(const std::string& id) {
  // Records come in runs for one campaign (a counted event, its fold, its cap check).
  if (last_ < campaigns_.size() && campaigns_[last_].id == id) return campaigns_[last_];
  auto [it, added] = index_.try_emplace(id, campaigns_.size());
  if (added) {
    campaigns_.emplace_back();
    campaigns_.back().id = id;
  }
  last_ = it->second;
  return campaigns_[last_];
}

void DecisionTracker::onDecision(const KLTCEDecision& d) {
  if (!account_ && !trace_) {
    std::lock_guard lock(mutex_);
    apply(campaign(d.campaign), d);
    return;
  }
  const KLTTimePoint now = KLTClock::current()->now();
  std::lock_guard lock(mutex_);
  if (trace_) {
    KLTValue json = KLTCEDecisionToJson(d);
    json["line"] = line_;
    json["time"] = formatInstant(now, *zone_);
    *trace_ << compactJson(json) << '\n';
  }
  Campaign& c = campaign(d.campaign);
  apply(c, d);
  if (!account_) return;
  if (c.account.size() >= kAccountLines) {
    ++c.accountDropped;
    return;
  }
  c.account.push_back("line " + std::to_string(line_) + "  " + formatInstant(now, *zone_) + "  " + describe(c, d));
}

bool DecisionTracker::readsValues(KLTCEDecisionKind kind) const {
  if (account_ || trace_) return true;
  switch (kind) {
    case KLTCEDecisionKind::Rejected:
    case KLTCEDecisionKind::ItemBuilt:
    case KLTCEDecisionKind::EventCounted:
    case KLTCEDecisionKind::FoldEvaluated:
    case KLTCEDecisionKind::WindowClosed:
    case KLTCEDecisionKind::CapBlocked:
      return true;
    default:
      return false;
  }
}

void DecisionTracker::apply(Campaign& c, const KLTCEDecision& d) {
  const KLTValue& v = d.values;
  Condition* condition = d.condition >= 0 && static_cast<std::size_t>(d.condition) < c.conditions.size()
                             ? &c.conditions[static_cast<std::size_t>(d.condition)]
                             : nullptr;
  switch (d.kind) {
    case KLTCEDecisionKind::Admitted:
      c.admitted = true;
      break;
    case KLTCEDecisionKind::Rejected:
      c.rejection = v;
      break;
    case KLTCEDecisionKind::ItemBuilt:
      // A new item for the campaign: its conditions start afresh (an older item's conditions keep
      // running in the engine; their records then update the newest item's states).
      c.sequence = klt::isText(at(v, "mode"), "sequence");
      c.type = at(v, "type");
      c.conditions.clear();
      for (const KLTValue& description : at(v, "conditions")) c.conditions.emplace_back().description = description;
      c.window.reset();
      c.cap.reset();
      c.foldTrue = false;
      break;
    case KLTCEDecisionKind::ConditionArmed:
      if (condition) condition->armed = true;
      break;
    case KLTCEDecisionKind::TimerEnded:
      if (condition) condition->held = true;
      break;
    case KLTCEDecisionKind::EventCounted:
      if (condition) {
        ++condition->counted;
        condition->lastCount = LastCount{number(v, "count"), flag(v, "count_held"), number(v, "time")};
        condition->held = condition->held || flag(v, "completed");
      }
      break;
    case KLTCEDecisionKind::FoldEvaluated:
      c.foldTrue = flag(v, "result");
      break;
    case KLTCEDecisionKind::WindowClosed:
      copyInto(c.window, v);
      break;
    case KLTCEDecisionKind::CapBlocked:
      copyInto(c.cap, v);
      break;
    case KLTCEDecisionKind::Dispatched:
      c.fired.push_back(line_);
      c.window.reset();
      c.cap.reset();
      break;
    case KLTCEDecisionKind::TriggerFired:
    case KLTCEDecisionKind::DisplayCounted:
      break;
  }
}

namespace {

std::string rejectionText(const KLTValue& r) {
  const std::string step = text(at(r, "step"));
  if (step == "version") {
    if (at(r, "app_version").is_null()) return "rejected: no app version to compare, wanted " + text(at(r, "operator")) + " " + text(at(r, "wanted"));
    return "rejected: app " + text(at(r, "app_version")) + " is not " + text(at(r, "operator")) + " " + text(at(r, "wanted"));
  }
  if (step == "hardware") return "rejected: device " + quoted(at(r, "device_model")) + " is not hw.val " + quoted(at(r, "hw_val"));
  if (step == "enabled") return "rejected: not enabled (enabled: " + compactJson(at(r, "enabled")) + ")";
  if (step == "first_session") return "rejected: audience_type FTU, and this is not the first session";
  if (step == "user_attributes" || step == "session_attributes") {
    return "rejected: " + step.substr(0, step.find('_')) + " attribute rule " + compactJson(at(r, "rule")) +
           " does not hold for the host value " + compactJson(at(r, "host_value"));
  }
  if (step == "conditions") return "rejected: condition " + text(at(r, "condition")) + ": " + text(at(r, "message"));
  return "rejected: " + text(at(r, "message"));
}

}  // namespace

std::string DecisionTracker::describe(const Campaign& c, const KLTCEDecision& d) const {
  const KLTValue& v = d.values;
  std::string who;
  if (d.condition >= 0) {
    who = "condition " + std::to_string(d.condition);
    if (static_cast<std::size_t>(d.condition) < c.conditions.size()) {
      who += " (" + conditionName(c.conditions[static_cast<std::size_t>(d.condition)].description) + ")";
    }
    who += ": ";
  }
  switch (d.kind) {
    case KLTCEDecisionKind::Admitted:
      return "admitted (priority " + text(at(v, "priority")) + ")";
    case KLTCEDecisionKind::Rejected:
      return at(v, "step") == "validity_dates" ? "rejected: now " + timeText(number(v, "now")) + " is not within " +
                                                 text(at(v, "start_date")) + " .. " + text(at(v, "end_date"))
                                           : rejectionText(v);
    case KLTCEDecisionKind::ItemBuilt: {
      std::string out = "built in " + text(at(v, "mode")) + " mode: " + plural(at(v, "conditions").size(), "condition", "conditions");
      if (v.contains("window")) out += ", window " + text(at(at(v, "window"), "start")) + "-" + text(at(at(v, "window"), "end"));
      return out + ", type " + text(at(v, "type"));
    }
    case KLTCEDecisionKind::TriggerFired:
      if (!v.contains("code")) return who + "trigger " + text(at(v, "trigger")) + " fired";
      return who + "trigger fired by " + kindOfCode(static_cast<unsigned long>(number(v, "code"))) + " " + quoted(at(v, "name"));
    case KLTCEDecisionKind::ConditionArmed:
      if (v.contains("listener")) return who + "armed, listening on " + text(at(v, "listener"));
      if (v.contains("timer_seconds")) return who + "armed: " + text(at(v, "event_type")) + " timer of " + text(at(v, "timer_seconds")) + " s";
      return who + "armed, but event_type " + quoted(at(v, "event_type")) + " listens to nothing";
    case KLTCEDecisionKind::TimerEnded:
      return who + "timer ended: holds";
    case KLTCEDecisionKind::EventCounted: {
      std::string out = who + quoted(at(v, "name")) + " counted " + text(at(v, "count")) + " of " + text(at(v, "wanted")) + " (" +
                        text(at(v, "operator")) + ")";
      if (flag(v, "completed")) return out + ": holds";
      if (flag(v, "count_held")) return out + ", outside its time bounds " + text(at(v, "lower")) + ".." + text(at(v, "upper"));
      return out;
    }
    case KLTCEDecisionKind::FoldEvaluated: {
      std::string out = "fold:";
      for (std::size_t i = 0; i < at(v, "flags").size(); ++i) {
        if (i > 0) out += " " + text(at(v, "operators")[i]);
        out += std::string(" ") + (at(v, "flags")[i].get<bool>() ? "true" : "false");
      }
      return out + " = " + (flag(v, "result") ? "true" : "false");
    }
    case KLTCEDecisionKind::WindowClosed:
      return windowText(v);
    case KLTCEDecisionKind::CapBlocked:
      return capText(v, *zone_);
    case KLTCEDecisionKind::Dispatched:
      return "dispatched " + text(at(v, "class")) + " " + compactJson(at(v, "info"));
    case KLTCEDecisionKind::DisplayCounted:
      return "display counted: " + compactJson(at(v, "record"));
  }
  return "";
}

std::string DecisionTracker::conditionState(const Campaign& c, std::size_t index, OutcomeKind& kind) const {
  const Condition& condition = c.conditions[index];
  const KLTValue& description = condition.description;
  const KLTValue& trigger = at(description, "trigger");
  if (!condition.armed) {
    kind = OutcomeKind::NeverArmed;
    const unsigned long code = codeOf(at(trigger, "event_type"));
    if (code != 4 && code != 1) return "never armed: its trigger " + quoted(at(trigger, "event_type")) + " never fires";
    const auto it = events_.find({code, text(at(trigger, "name"))});
    if (it == events_.end()) return "never armed: no " + kindOfCode(code) + " " + quoted(at(trigger, "name")) + " in the stream";
    return "never armed: " + kindOfCode(code) + " " + quoted(at(trigger, "name")) + " came " +
           plural(it->second, "time", "times") + ", outside the trigger's time bounds or without its attributes";
  }
  kind = OutcomeKind::CountShort;
  const KLTValue& type = at(description, "event_type");
  if (klt::isText(type, "idle_time") || klt::isText(type, "activity_time")) return "its timer has not ended";
  if (codeOf(type) == 0) return "armed, but event_type " + quoted(type) + " listens to nothing";
  if (!condition.lastCount) return countText(description, 0);
  if (condition.lastCount->held) {
    kind = OutcomeKind::OutOfBounds;
    return countText(description, condition.lastCount->count) + " at " + timeText(condition.lastCount->time) +
           ", outside its time bounds " + timeText(number(description, "lower")) + " .. " +
           timeText(number(description, "upper"));
  }
  return countText(description, condition.lastCount->count);
}

CampaignOutcome DecisionTracker::outcomeOf(const Campaign& c) const {
  CampaignOutcome out{c.id, OutcomeKind::NotParsed, "", c.fired, ""};
  const std::string cap = c.cap ? capText(*c.cap, *zone_) : "";
  if (!c.fired.empty()) {
    out.kind = OutcomeKind::Fired;
    out.text = "fired " + plural(c.fired.size(), "time", "times") + " (line" + (c.fired.size() > 1 ? "s " : " ") +
               lineList(c.fired) + ")";
    if (c.cap) out.text += "; then " + cap;
    if (c.window && !c.cap) out.text += "; then " + windowText(*c.window);
    return out;
  }
  if (!c.admitted) {
    out.kind = c.rejection.is_null() ? OutcomeKind::NotParsed : OutcomeKind::Rejected;
    if (const std::string* step = klt::stringPtr(klt::valueForKey(c.rejection, "step"))) out.reason = *step;
    out.text = c.rejection.is_null() ? "no decision recorded"
               : at(c.rejection, "step") == "validity_dates"
                   ? "rejected: now " + timeText(number(c.rejection, "now")) + " is not within " +
                         text(at(c.rejection, "start_date")) + " .. " + text(at(c.rejection, "end_date"))
                   : rejectionText(c.rejection);
    return out;
  }
  if (c.cap) {
    out.kind = OutcomeKind::CapBlocked;
    out.text = cap;
    return out;
  }
  if (c.window) {
    out.kind = OutcomeKind::OutsideWindow;
    out.text = windowText(*c.window);
    return out;
  }
  const std::size_t n = c.conditions.size();
  std::size_t held = 0;
  std::optional<std::size_t> firstOpen;
  for (std::size_t i = 0; i < n; ++i) {
    if (c.conditions[i].held) {
      ++held;
    } else if (!firstOpen) {
      firstOpen = i;
    }
  }
  if (c.sequence) {
    if (firstOpen) {
      out.text = "step " + std::to_string(*firstOpen + 1) + " of " + std::to_string(n) + ": " +
                 conditionState(c, *firstOpen, out.kind);
      return out;
    }
  } else if (n == 0) {
    out.kind = OutcomeKind::FoldFalse;
    out.text = "no conditions: a combined campaign without conditions never fires";
    return out;
  } else if (!c.foldTrue) {
    if (!firstOpen) {
      out.kind = OutcomeKind::FoldFalse;
      out.text = "all " + std::to_string(n) + " conditions held, but the fold is false (combine operators)";
      return out;
    }
    out.text = std::to_string(held) + " of " + plural(n, "condition", "conditions") + " held; " +
               conditionState(c, *firstOpen, out.kind);
    return out;
  }
  out.kind = OutcomeKind::NotDispatched;
  out.text = "its conditions held, but display type " + quoted(c.type) + " dispatches nothing";
  return out;
}

std::vector<CampaignOutcome> DecisionTracker::outcomes() const {
  std::lock_guard lock(mutex_);
  std::vector<CampaignOutcome> out;
  out.reserve(campaigns_.size());
  for (const Campaign& c : campaigns_) out.push_back(outcomeOf(c));
  return out;
}

void DecisionTracker::writeExplanation(std::ostream& out) const {
  const std::vector<CampaignOutcome> results = outcomes();
  std::lock_guard lock(mutex_);
  std::size_t width = 0;
  for (const Campaign& c : campaigns_) width = std::max(width, c.id.size());
  for (std::size_t i = 0; i < campaigns_.size(); ++i) {
    const Campaign& c = campaigns_[i];
    out << "== " << c.id << '\n';
    for (const std::string& line : c.account) out << "  " << line << '\n';
    if (c.accountDropped > 0) out << "  ... " << c.accountDropped << " more decisions (--trace FILE lists them all)\n";
    out << "  => " << results[i].text << "\n\n";
  }
  out << "summary:\n";
  for (const CampaignOutcome& r : results) {
    out << "  " << r.campaign << std::string(width - r.campaign.size(), ' ') << "  " << r.text << '\n';
  }
}

}  // namespace kltce

namespace kltce {

ReplayResult runReplayWithDecisions(ReplayOptions options, const DecisionOptions& decisions, std::istream& events,
                                    std::ostream& out, std::ostream& err, std::ostream& explanation,
                                    std::vector<CampaignOutcome>* outcomes) {
  TextLineSource lines(events);
  return runReplayWithDecisions(std::move(options), decisions, lines, out, err, explanation, outcomes);
}

ReplayResult runReplayWithDecisions(ReplayOptions options, const DecisionOptions& decisions, LineSource& lines,
                                    std::ostream& out, std::ostream& err, std::ostream& explanation,
                                    std::vector<CampaignOutcome>* outcomes) {
  // The zone the replay will use, so that the explanation's times read like the display lines.
  auto zone = options.zone ? options.zone : options.profile.timeZone ? options.profile.timeZone : KLTTimeZone::system();
  auto tracker = std::make_shared<DecisionTracker>(zone, decisions.trace, decisions.explain);
  auto previous = std::move(options.onLine);
  options.onLine = [tracker, previous](std::size_t number, const StreamLine& line) {
    tracker->noteLine(number, line.code, line.kind == LineKind::Event ? &line.name : nullptr);
    if (previous) previous(number, line);
  };
  options.observer = tracker;
  const ReplayResult result = runReplay(options, lines, out, err);
  if (decisions.trace) decisions.trace->flush();
  // The engine's lines made during the replay come out before the account that follows them.
  KLTLog::flush();
  if (decisions.explain) tracker->writeExplanation(explanation);
  if (outcomes) *outcomes = tracker->outcomes();
  return result;
}

}  // namespace kltce
