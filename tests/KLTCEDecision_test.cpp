// Decision records: one scripted day of campaigns yields every kind of record with the values the
// engine compared. (That an observer changes no dispatch and no log line, and that sequence numbers
// rise, is checked by running every runtime scenario with one installed.)
#include "KLTContextEvaluator/KLTCEDecision.h"

#include <gtest/gtest.h>

#include "KLTContextEvaluator/KLTCEConstants.h"
#include "KLTContextEvaluator/KLTContextEvaluator.h"
#include "testsupport/KLTCampaignBuilder.h"
#include "testsupport/KLTTestHost.h"

using namespace kltfixture;

namespace {

class Recorder final : public KLTCEDecisionObserver {
 public:
  void onDecision(const KLTCEDecision& d) override {
    EXPECT_TRUE(KLTContextEvaluator::sharedInstance().ceOpsSerialQueue()->isCurrent());
    records.push_back(d);
  }
  std::vector<KLTCEDecision> records;  // read after the queue is idle
};

// Reads the values of two kinds only.
class PickyRecorder final : public KLTCEDecisionObserver {
 public:
  void onDecision(const KLTCEDecision& d) override { records.push_back(d); }
  bool readsValues(KLTCEDecisionKind kind) const override {
    return kind == KLTCEDecisionKind::EventCounted || kind == KLTCEDecisionKind::CapBlocked;
  }
  std::vector<KLTCEDecision> records;
};

// Whether actual holds expected: dictionaries key by key (recursively), anything else equal.
bool holds(const KLTValue& actual, const KLTValue& expected) {
  if (!expected.is_object()) return actual == expected;
  for (const auto& [key, value] : expected.items()) {
    if (!holds(klt::valueForKey(actual, key), value)) return false;
  }
  return true;
}

KLTValue with(KLTValue c, const char* key, KLTValue v) {
  c[key] = std::move(v);
  return c;
}

// 2026-01-01 from 07:00Z: a window campaign refused at 07:00, then a capped one, a timer, rejections
// by app version, by validity dates and by first session (the test host is not in one); one per
// kind of record, the other audience steps give the same record with other values.
// shared: the document is handed over as a shared one, which the parse must leave as it is.
void runScript(KLTTestHost& host, bool shared = false) {
  auto& evaluator = KLTContextEvaluator::sharedInstance();
  const KLTValue go = KLTValue::array({eventCondition("app_event", "go", "GTE", 1)});
  host.clock().setNow(KLTTimePoint(std::chrono::hours(491'023)));  // 2026-01-06T07:00Z
  auto doc = std::make_shared<const KLTValue>(document(
      {with(campaign("capped", go), "frequency", {{"count", 1}}),
       with(with(campaign("windowed", go), "time_limits_in_day", true), "time_limits", {{"start_time", "09:00"}, {"end_time", "17:30"}}),
       with(campaign("timed", KLTValue::array({timerCondition("activity_time", 2500)})), "sequence_enabled", true),
       with(campaign("old_app", go), "audience", {{"ver", {{"val", "3.2"}, {"op", "GTE"}}}}),
       with(campaign("expired", go), "validity", {{"start_date", "2025-01-01T00:00:00Z"}, {"end_date", "2025-12-31T00:00:00Z"}}),
       with(campaign("first_timers", go), "audience", {{"audience_type", "FTU"}})}));
  const KLTValue before = *doc;
  if (shared) {
    evaluator.parseConfiguration(doc);
  } else {
    evaluator.parseConfiguration(KLTValue(*doc));
  }
  host.drainEvaluatorQueue();
  EXPECT_EQ(*doc, before);
  host.deliver(kKLTEventCodeApp, "go");
  evaluator.updateCountForConfigWithIdentifier("capped");
  host.deliver(kKLTEventCodeApp, "go");
  host.drainEvaluatorQueue();
}

struct Expected {
  KLTCEDecisionKind kind;
  const char* campaign;
  KLTValue values;  // a subset of the record's values
};

TEST(KLTCEDecision, EveryKindCarriesTheValuesCompared) {
  KLTTestHost host{2};
  auto recorder = std::make_shared<Recorder>();
  KLTContextEvaluator::sharedInstance().setDecisionObserver(recorder);
  runScript(host);
  KLTContextEvaluator::sharedInstance().setDecisionObserver(nullptr);
  host.drainEvaluatorQueue();

  using K = KLTCEDecisionKind;
  const Expected rows[] = {
      {K::Admitted, "capped", {{"priority", 1}}},
      {K::ItemBuilt, "windowed", {{"mode", "combined"}, {"window", {{"start", "09:00"}, {"end", "17:30"}}}}},
      {K::TriggerFired, "capped", {{"trigger", "app_start"}}},
      {K::ConditionArmed, "capped", {{"listener", "4___go"}}},
      {K::ConditionArmed, "timed", {{"event_type", "activity_time"}, {"timer_seconds", 2}}},
      {K::TimerEnded, "timed", {{"event_type", "activity_time"}}},
      {K::EventCounted, "capped", {{"count", 1}, {"wanted", 1}, {"operator", "GTE"}, {"count_held", true}, {"in_bounds", true}, {"completed", true}}},
      {K::FoldEvaluated, "capped", {{"flags", {true}}, {"result", true}}},
      {K::WindowClosed, "windowed", {{"local_time", "07:00"}, {"start", "09:00"}, {"end", "17:30"}}},
      {K::Dispatched, "capped", {{"class", "KLTInAppEvent"}, {"info", {{"id", "capped"}, {"type", "IN_APP"}}}}},
      {K::DisplayCounted, "capped", {{"record", {{"limit", 1}, {"count", 1}}}}},
      {K::CapBlocked, "capped", {{"counter", "count"}, {"value", 1}, {"limit_key", "limit"}, {"limit", 1}}},
      {K::Rejected, "old_app", {{"step", "version"}, {"app_version", "1.0"}, {"operator", "GTE"}, {"wanted", "3.2"}}},
      {K::Rejected, "expired", {{"step", "validity_dates"}, {"end_date", "2025-12-31T00:00:00Z"}}},
      {K::Rejected, "first_timers", {{"step", "first_session"}, {"first_session", false}}},
  };
  for (const Expected& row : rows) {
    SCOPED_TRACE(std::string(KLTCEDecisionKindName(row.kind)) + " " + row.campaign);
    bool found = false;
    for (const KLTCEDecision& d : recorder->records) {
      if (d.kind != row.kind || d.campaign != row.campaign) continue;
      found = found || holds(d.values, row.values);
    }
    EXPECT_TRUE(found);
  }
}

// An observer that reads few kinds gets the same records in the same order and numbering, with the
// values of those kinds and none of the others; the same holds of a parse of a shared document.
TEST(KLTCEDecision, UnreadKindsComeWithoutValuesInTheirPlace) {
  auto full = std::make_shared<Recorder>();
  auto picky = std::make_shared<PickyRecorder>();
  for (const bool shared : {false, true}) {
    KLTTestHost host{2};
    KLTContextEvaluator::sharedInstance().setDecisionObserver(shared ? std::shared_ptr<KLTCEDecisionObserver>(picky) : full);
    runScript(host, shared);
    KLTContextEvaluator::sharedInstance().setDecisionObserver(nullptr);
    host.drainEvaluatorQueue();
  }
  ASSERT_EQ(picky->records.size(), full->records.size());
  for (std::size_t i = 0; i < full->records.size(); ++i) {
    const KLTCEDecision &a = full->records[i], &b = picky->records[i];
    SCOPED_TRACE(std::to_string(i) + " " + std::string(KLTCEDecisionKindName(a.kind)));
    EXPECT_EQ(b.kind, a.kind);
    EXPECT_EQ(b.campaign, a.campaign);
    EXPECT_EQ(b.condition, a.condition);
    EXPECT_EQ(b.sequence - picky->records[0].sequence, a.sequence - full->records[0].sequence);
    EXPECT_EQ(b.values, picky->readsValues(a.kind) ? a.values : KLTValue());
  }
}

}  // namespace
