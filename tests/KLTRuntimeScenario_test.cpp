// End-to-end scenarios of the rules runtime through the reference host: documents parsed by the
// shared evaluator, events delivered through the host registry, display events captured, all on a
// virtual clock and a temporary store.
#include <gtest/gtest.h>

#include <atomic>
#include <future>
#include <thread>

#include "KLTContextEvaluator/KLTCECondition.h"
#include "KLTContextEvaluator/KLTCEConfigItem.h"
#include "KLTContextEvaluator/KLTCEConstants.h"
#include "KLTContextEvaluator/KLTContextEvaluator.h"
#include "testsupport/KLTCampaignBuilder.h"
#include "testsupport/KLTTestHost.h"

using namespace kltfixture;

namespace {

KLTContextEvaluator& evaluator() { return KLTContextEvaluator::sharedInstance(); }

class RuntimeScenario : public ::testing::Test {
 protected:
  KLTTestHost host{0};

  void parse(const KLTValue& doc) {
    evaluator().parseConfiguration(doc);
    host.drainEvaluatorQueue();
  }
  void deliver(unsigned long code, const std::string& name, KLTValue info = KLTValue::object()) {
    host.deliver(code, name, std::move(info));
    host.drainEvaluatorQueue();
  }
  std::size_t dispatchCount(const std::string& id) {
    std::size_t n = 0;
    for (const auto& d : host.dispatched()) n += klt::valueForKey(d.info, "id") == id;
    return n;
  }
  static std::string uniqueId(const std::string& stem) {
    static std::atomic<int> n{0};
    return stem + "-" + std::to_string(++n);
  }
};

TEST_F(RuntimeScenario, ChecksConfigurationsInDescendingPriorityAbsentCountingAsOne) {
  auto disabled = [](const std::string& id, KLTValue prio) {
    KLTValue c = campaign(id, KLTValue::array());
    c["enabled"] = false;
    if (!prio.is_null()) c["prio"] = prio;
    return c;
  };
  parse(document({disabled("p0", 0), disabled("p3", 3), disabled("pabsent", nullptr), disabled("p5", "5"),
                  disabled("pneg", -2)}));
  std::string order;
  for (const auto& line : host.log().lines()) {
    const auto at = line.find("Validation failed for config with id: ");
    if (at != std::string::npos) order += line.substr(at + 38, line.find(' ', at + 38) - at - 38) + " ";
  }
  EXPECT_EQ(order, "p5 p3 pabsent p0 pneg ");
}

TEST_F(RuntimeScenario, StoresByIdReplacesOnReparseAndKeepsItemsThatLaterFail) {
  const std::string id = uniqueId("replace");
  const KLTValue doc = document({campaign(id, KLTValue::array())});
  parse(doc);
  const auto first = evaluator().configItemForIdentifier(id);
  ASSERT_NE(first, nullptr);
  parse(doc);
  const auto second = evaluator().configItemForIdentifier(id);
  ASSERT_NE(second, nullptr);
  EXPECT_NE(first, second);
  const auto ids = evaluator().configurationIdentifiers();
  EXPECT_EQ(std::count(ids.begin(), ids.end(), id), 1);

  KLTValue rejected = campaign(id, KLTValue::array());
  rejected["enabled"] = false;
  parse(document({rejected}));
  EXPECT_EQ(evaluator().configItemForIdentifier(id), second);
}

TEST_F(RuntimeScenario, ConfigurationWithoutTextIdBuildsNothing) {
  KLTValue noId = campaign("x", KLTValue::array({eventCondition("app_event", "noid", "GTE", 1)}));
  noId.erase("_id");
  const auto before = host.controller().registrationCount();
  parse(document({noId}));
  EXPECT_EQ(host.controller().registrationCount(), before);
  EXPECT_TRUE(host.log().contains("<KLT ERROR> Config without a text _id"));
}

// (A) (B "OR") (C "AND") folds as (A OR B) AND C, each row with its own campaign.
TEST_F(RuntimeScenario, CombinedModeFoldsLeftToRightWithoutPrecedence) {
  for (int mask = 0; mask < 8; ++mask) {
    SCOPED_TRACE("satisfied mask " + std::to_string(mask));
    KLTTestHost rowHost{0};
    const std::string id = uniqueId("fold");
    parse(document({campaign(id, KLTValue::array({eventCondition("app_event", "a", "GTE", 1, "AND"),
                                                  eventCondition("app_event", "b", "GTE", 1, "OR"),
                                                  eventCondition("app_event", "c", "GTE", 1, "AND")}))}));
    if (mask & 1) deliver(kKLTEventCodeApp, "a");
    if (mask & 2) deliver(kKLTEventCodeApp, "b");
    if (mask & 4) deliver(kKLTEventCodeApp, "c");
    const bool a = mask & 1, b = mask & 2, c = mask & 4;
    EXPECT_EQ(rowHost.dispatched().size() > 0, (a || b) && c);
  }
}

TEST_F(RuntimeScenario, LaterConditionWithoutAKnownOperatorNeverDispatches) {
  for (const KLTValue& op : {KLTValue(), KLTValue("XOR"), KLTValue("and")}) {
    SCOPED_TRACE(op.dump());
    const std::string id = uniqueId("noop");
    // Admission rejects such an operator, so build the item directly.
    KLTValue config = campaign(id, KLTValue::array({eventCondition("app_event", "x", "GTE", 1, "AND"),
                                                    eventCondition("app_event", "y", "GTE", 1, op)}));
    std::shared_ptr<KLTCEConfigItem> item;
    evaluator().ceOpsSerialQueue()->async([&] { item = KLTCEConfigItem::create(config); });
    host.drainEvaluatorQueue();
    ASSERT_NE(item, nullptr);
    deliver(kKLTEventCodeApp, "x");
    deliver(kKLTEventCodeApp, "y");
    EXPECT_TRUE(item->conditions()[0]->satisfied());
    EXPECT_TRUE(item->conditions()[1]->satisfied());
    EXPECT_EQ(dispatchCount(id), 0u);
  }
}

TEST_F(RuntimeScenario, SequenceModeBuildsInSequenceOrderAndIgnoresTheCap) {
  const std::string id = uniqueId("seq");
  auto step = [](const std::string& name, KLTValue seq) {
    KLTValue c = eventCondition("app_event", name, "GTE", 1);
    if (!seq.is_null()) c["sequence"] = seq;
    return c;
  };
  // "tie" shares its sequence with "first" and follows it in the document, so it comes after it.
  KLTValue config = campaign(id, KLTValue::array({step("third", 3), step("first", 1), step("tie", 1),
                                                  step("second", "2"), step("zeroth", nullptr)}));
  config["sequence_enabled"] = true;
  config["frequency"] = {{"count", 1}};
  parse(document({config}));
  // Only the first step is listening: later steps' events count for nothing yet.
  deliver(kKLTEventCodeApp, "third");
  deliver(kKLTEventCodeApp, "first");
  EXPECT_EQ(dispatchCount(id), 0u);
  for (const char* name : {"zeroth", "first", "tie", "second"}) deliver(kKLTEventCodeApp, name);
  EXPECT_EQ(dispatchCount(id), 0u) << "the early 'third' event must not have counted";
  deliver(kKLTEventCodeApp, "third");
  EXPECT_EQ(dispatchCount(id), 1u);

  // Reach the cap (count 1); a sequence campaign still dispatches when its last step completes again.
  evaluator().updateCountForConfigWithIdentifier(id);
  host.drainEvaluatorQueue();
  deliver(kKLTEventCodeApp, "third");
  EXPECT_EQ(dispatchCount(id), 2u);
  EXPECT_FALSE(host.log().contains("Action count limit exceeded"));
}

TEST_F(RuntimeScenario, EmptyConditionsNeverDispatchCombinedButDispatchSequenceAtOnce) {
  const std::string combined = uniqueId("empty-combined");
  const std::string sequence = uniqueId("empty-sequence");
  KLTValue seq = campaign(sequence, KLTValue::array(), "SURVEY");
  seq["sequence_enabled"] = true;
  KLTValue absent = campaign(uniqueId("absent-sequence"), nullptr, "SURVEY");
  absent.erase("conditions");
  absent["sequence_enabled"] = 1;
  parse(document({campaign(combined, KLTValue::array()), seq, absent}));
  EXPECT_EQ(dispatchCount(combined), 0u);
  EXPECT_EQ(dispatchCount(sequence), 1u);
  EXPECT_EQ(host.dispatched().size(), 2u);
  EXPECT_TRUE(host.log().contains("*** Sequence Message conditions Satisfied ***"));
}

TEST_F(RuntimeScenario, CountOperatorDecidesWhichEventsComplete) {
  struct Row {
    const char* op;
    int64_t count;
    std::vector<std::size_t> dispatchesAfterEachEvent;
  };
  const std::vector<Row> rows = {
      {"EQ", 2, {0, 1, 1, 1}},
      {"GTE", 2, {0, 1, 2, 3}},
      {"GT", 2, {0, 0, 1, 2}},
      {"LT", 3, {1, 2, 2, 2}},
      {"NEQ", 2, {1, 1, 2, 3}},
      {"eq", 1, {0, 0, 0, 0}},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(std::string(row.op) + " " + std::to_string(row.count));
    KLTTestHost rowHost{0};
    const std::string id = uniqueId("count");
    parse(document({campaign(id, KLTValue::array({eventCondition("app_event", "tap", row.op, row.count)}))}));
    for (std::size_t i = 0; i < row.dispatchesAfterEachEvent.size(); ++i) {
      deliver(kKLTEventCodeApp, "tap");
      EXPECT_EQ(rowHost.dispatched().size(), row.dispatchesAfterEachEvent[i]) << "after event " << i + 1;
    }
  }
}

TEST_F(RuntimeScenario, EventsOutsideTimeBoundsStillCount) {
  const std::string id = uniqueId("bounds");
  const int64_t t0 = host.controller().currentSDKTimeInMillis();
  KLTValue condition = eventCondition("activity_event", "home", "EQ", 2);
  condition["time_bounds"] = {{"lower", t0 + 10'000}, {"upper", std::to_string(t0 + 100'000)}};
  parse(document({campaign(id, KLTValue::array({condition}))}));
  deliver(kKLTEventCodeActivity, "home");  // outside: counted, does not complete
  EXPECT_EQ(dispatchCount(id), 0u);
  host.clock().advance(std::chrono::seconds(20));
  deliver(kKLTEventCodeActivity, "home");  // inside, and the second one
  EXPECT_EQ(dispatchCount(id), 1u);
  host.clock().advance(std::chrono::seconds(100));
  deliver(kKLTEventCodeActivity, "home");
  EXPECT_EQ(dispatchCount(id), 1u);
}

TEST_F(RuntimeScenario, AppEventWithWrongAttributesIsNotCounted) {
  const std::string id = uniqueId("attrs");
  parse(document({campaign(
      id, KLTValue::array({eventCondition("app_event", "purchase", "EQ", 1, "AND", appStartTrigger(), {{"plan", "gold"}})}))}));
  deliver(kKLTEventCodeApp, "purchase", {{"plan", "silver"}});
  deliver(kKLTEventCodeApp, "purchase", KLTValue::object());
  EXPECT_EQ(dispatchCount(id), 0u);
  // With EQ 1 this completes only if neither earlier event was counted.
  deliver(kKLTEventCodeApp, "purchase", {{"plan", "gold"}, {"extra", 1}});
  EXPECT_EQ(dispatchCount(id), 1u);
}

TEST_F(RuntimeScenario, ClientEventConditionCountsButClientTriggerNeverFires) {
  const std::string armed = uniqueId("client-armed");
  const std::string never = uniqueId("client-never");
  KLTValue appTrigger{{"event_type", "app_event"},
                      {"details", {{"name", "open"}, {"additional_info", KLTValue::object()}}},
                      {"time_bounds", {{"lower", kAlways}, {"upper", kForever}}}};
  KLTValue clientTrigger = appTrigger;
  clientTrigger["event_type"] = "client_event";
  parse(document({campaign(armed, KLTValue::array({eventCondition("client_event", "buy", "GTE", 1, "AND", appTrigger)})),
                  campaign(never, KLTValue::array({eventCondition("client_event", "buy", "GTE", 1, "AND", clientTrigger)}))}));
  deliver(kKLTEventCodeClient, "buy");  // nobody armed yet
  EXPECT_TRUE(host.dispatched().empty());
  deliver(kKLTEventCodeClient, "open");
  deliver(kKLTEventCodeApp, "open");  // arms the first campaign only
  deliver(kKLTEventCodeClient, "buy");
  EXPECT_EQ(dispatchCount(armed), 1u);
  EXPECT_EQ(dispatchCount(never), 0u);
}

TEST_F(RuntimeScenario, TriggerAttributesAndTimeBoundsGateArming) {
  const std::string id = uniqueId("trigger-gate");
  const int64_t t0 = host.controller().currentSDKTimeInMillis();
  KLTValue trigger{{"event_type", "activity_event"},
                   {"activity", "checkout"},
                   {"details", {{"additional_info", KLTValue::object()}}},
                   {"time_bounds", {{"lower", t0 + 60'000}, {"upper", kForever}}}};
  const std::string byApp = uniqueId("trigger-gate-app");
  KLTValue appTrigger{{"event_type", "app_event"},
                      {"details", {{"name", "open"}, {"additional_info", {{"plan", "gold"}}}}},
                      {"time_bounds", {{"lower", t0 + 60'000}, {"upper", kForever}}}};
  parse(document({campaign(id, KLTValue::array({eventCondition("app_event", "pay", "GTE", 1, "AND", trigger)})),
                  campaign(byApp, KLTValue::array({eventCondition("app_event", "pay", "GTE", 1, "AND", appTrigger)}))}));
  deliver(kKLTEventCodeActivity, "checkout");  // before the triggers' bounds: not armed
  deliver(kKLTEventCodeApp, "open", {{"plan", "gold"}});
  deliver(kKLTEventCodeApp, "pay");
  EXPECT_EQ(dispatchCount(id), 0u);
  host.clock().advance(std::chrono::minutes(2));
  deliver(kKLTEventCodeApp, "open", {{"plan", "silver"}});  // within the bounds, other attributes
  deliver(kKLTEventCodeApp, "pay");
  EXPECT_EQ(dispatchCount(byApp), 0u);
  deliver(kKLTEventCodeActivity, "checkout");
  deliver(kKLTEventCodeApp, "open", {{"plan", "gold"}});
  deliver(kKLTEventCodeApp, "pay");
  EXPECT_EQ(dispatchCount(id), 1u);
  EXPECT_EQ(dispatchCount(byApp), 1u);
}

TEST_F(RuntimeScenario, IdleTimerBlocksTheQueueForItsIntervalThenRegisters) {
  host.clock().setAutoAdvance(false);
  const std::string id = uniqueId("idle");
  const int64_t t0 = host.controller().currentSDKTimeInMillis();
  KLTValue openTrigger{{"event_type", "app_event"},
                      {"details", {{"name", "open"}, {"additional_info", KLTValue::object()}}},
                      {"time_bounds", {{"lower", kAlways}, {"upper", kForever}}}};
  parse(document({campaign(id, KLTValue::array({timerCondition("idle_time", 30000, openTrigger)}))}));
  host.deliver(kKLTEventCodeApp, "open");
  ASSERT_TRUE(host.clock().waitForSleepers(1, std::chrono::seconds(10)));
  std::atomic<bool> laterTaskRan{false};
  evaluator().ceOpsSerialQueue()->async([&] { laterTaskRan = true; });
  EXPECT_FALSE(evaluator().ceOpsSerialQueue()->waitUntilIdleFor(std::chrono::milliseconds(50)));
  EXPECT_FALSE(laterTaskRan);
  EXPECT_EQ(host.deliver(kKLTEventCodePresence, "touch"), 0u) << "not registered while the timer runs";

  host.clock().advance(std::chrono::seconds(29));
  EXPECT_FALSE(evaluator().ceOpsSerialQueue()->waitUntilIdleFor(std::chrono::milliseconds(20)));
  host.clock().advance(std::chrono::seconds(1));
  host.drainEvaluatorQueue();
  EXPECT_TRUE(laterTaskRan);
  ASSERT_EQ(dispatchCount(id), 1u);
  EXPECT_EQ(host.dispatched().front().atMillis, t0 + 30'000);

  const auto item = evaluator().configItemForIdentifier(id);
  ASSERT_NE(item, nullptr);
  ASSERT_EQ(item->conditions().size(), 1u);
  const auto& condition = item->conditions().front();
  EXPECT_TRUE(condition->isCheckingIdleTime());
  EXPECT_EQ(host.deliver(kKLTEventCodeActivity, "any"), 1u);
  host.drainEvaluatorQueue();
  EXPECT_FALSE(condition->isCheckingIdleTime());
  EXPECT_EQ(host.deliver(kKLTEventCodePresence, "touch"), 1u);
  EXPECT_EQ(host.deliver(kKLTEventCodeApp, "any"), 1u);
  EXPECT_EQ(host.deliver(kKLTEventCodeClient, "any"), 0u);
  host.drainEvaluatorQueue();
}

TEST_F(RuntimeScenario, AppStartTimerInCombinedModeCompletesBeforeTheFoldCanSeeIt) {
  const std::string id = uniqueId("combined-timer");
  parse(document({campaign(id, KLTValue::array({timerCondition("activity_time", 1000)}))}));
  const auto item = evaluator().configItemForIdentifier(id);
  ASSERT_NE(item, nullptr);
  ASSERT_EQ(item->conditions().size(), 1u);
  EXPECT_TRUE(item->conditions().front()->satisfied());
  EXPECT_EQ(dispatchCount(id), 0u);
}

// Sequence mode: an app_start timer completes inside the build, where only the sequence step (not
// the combined fold, which has not appended the condition yet) can act on it; it registers nothing.
TEST_F(RuntimeScenario, TimerIntervalsInWholeSeconds) {
  struct Row {
    KLTValue time;
    int64_t expectedMillis;
  };
  const std::vector<Row> rows = {{999, 0}, {1000, 1000}, {"2999.9", 2000}, {nullptr, 0}, {true, 0}};
  for (const auto& row : rows) {
    SCOPED_TRACE(row.time.dump());
    KLTTestHost rowHost{0};
    const int64_t t0 = rowHost.controller().currentSDKTimeInMillis();
    const auto registrations = rowHost.controller().registrationCount();
    KLTValue config = campaign(uniqueId("interval"), KLTValue::array({timerCondition("activity_time", row.time)}), "SURVEY");
    config["sequence_enabled"] = true;
    parse(document({config}));
    ASSERT_EQ(rowHost.dispatched().size(), 1u);
    EXPECT_EQ(rowHost.dispatched().front().atMillis - t0, row.expectedMillis);
    EXPECT_EQ(rowHost.controller().registrationCount(), registrations);
  }
}

// A negative `time` becomes an endless interval: arming blocks its thread until the timer is
// cancelled. Armed here on a thread of the test's own, so the shared queue stays free.
TEST_F(RuntimeScenario, NegativeTimerIntervalNeverFires) {
  std::promise<std::shared_ptr<KLTCECondition>> built;
  std::atomic<bool> completed{false};
  std::thread armer([&] {
    auto condition = KLTCECondition::create(std::make_shared<const KLTCEConditionRule>(timerCondition("activity_time", -5000)),
                                            [&] { completed = true; });
    built.set_value(condition);
  });
  ASSERT_TRUE(host.clock().waitForSleepers(1, std::chrono::seconds(10)));
  EXPECT_EQ(host.clock().blockedForeverCount(), 1);
  host.clock().advance(std::chrono::hours(24 * 365 * 100));
  EXPECT_EQ(host.clock().blockedForeverCount(), 1);
  EXPECT_FALSE(completed);
  // The promise is not set yet: the arming thread is still inside create().
  auto future = built.get_future();
  EXPECT_EQ(future.wait_for(std::chrono::milliseconds(0)), std::future_status::timeout);
  armer.detach();
}

TEST_F(RuntimeScenario, DailyWindowAndCapGateCombinedMode) {
  host.clock().setNow(KLTTimePoint(std::chrono::seconds(1767250800)));  // 2026-01-01T07:00Z
  const std::string id = uniqueId("window-cap");
  KLTValue config = campaign(id, KLTValue::array({eventCondition("app_event", "go", "GTE", 1)}));
  config["time_limits_in_day"] = true;
  config["time_limits"] = {{"start_time", "09:00"}, {"end_time", "17:30"}};
  config["frequency"] = {{"count", 1}, {"validity", "OVERALL"}};
  parse(document({config}));
  deliver(kKLTEventCodeApp, "go");
  EXPECT_EQ(dispatchCount(id), 0u);
  EXPECT_TRUE(host.log().contains("Current time outside limits"));

  host.clock().advance(std::chrono::hours(3));  // 10:00
  deliver(kKLTEventCodeApp, "go");
  EXPECT_EQ(dispatchCount(id), 1u);
  deliver(kKLTEventCodeApp, "go");
  EXPECT_EQ(dispatchCount(id), 2u) << "the cap moves only when the host reports a showing";

  evaluator().updateCountForConfigWithIdentifier(id);
  host.drainEvaluatorQueue();
  deliver(kKLTEventCodeApp, "go");
  EXPECT_EQ(dispatchCount(id), 2u);
  EXPECT_TRUE(host.log().contains("<KLT INFO> Action count limit exceeded -[KLTCEConfigItem checkCountAndValidity]"));

  KLTValue noWindow = campaign(uniqueId("window-off"), KLTValue::array({eventCondition("app_event", "late", "GTE", 1)}));
  noWindow["time_limits"] = {{"start_time", "00:00"}, {"end_time", "00:01"}};
  parse(document({noWindow}));
  deliver(kKLTEventCodeApp, "late");
  EXPECT_EQ(host.dispatched().back().info["id"], noWindow["_id"]) << "time_limits without time_limits_in_day";
}

TEST_F(RuntimeScenario, DisplayEventsCarryExactlyTheirInfoKeys) {
  struct Row {
    const char* type;
    const char* className;
    KLTValue info;  // without the id
  };
  const std::vector<Row> rows = {
      {"SURVEY", "KLTSurveyEvent", KLTValue::object()},
      {"IN_APP", "KLTInAppEvent", {{"type", "IN_APP"}}},
      {"IN_LINE", "KLTInlineEvent", {{"type", "IN_LINE"}, {"subtype", "banner"}}},
      {"in_app", "", KLTValue()},
      {"BANNER", "", KLTValue()},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.type);
    KLTTestHost rowHost{0};
    const std::string id = uniqueId("display");
    KLTValue config = campaign(id, KLTValue::array(), row.type);
    config["sequence_enabled"] = true;
    parse(document({config}));
    ASSERT_EQ(rowHost.dispatched().size(), row.info.is_null() ? 0u : 1u) << "unknown types dispatch nothing";
    if (row.info.is_null()) continue;
    KLTValue expected = {{"id", id}};
    expected.update(row.info);
    EXPECT_EQ(rowHost.dispatched().front().className, row.className);
    EXPECT_EQ(rowHost.dispatched().front().info, expected);
  }
}

TEST_F(RuntimeScenario, CountUpdateMovesPersistedCounterAndIgnoresUnknownIds) {
  const std::string id = uniqueId("count-update");
  parse(document({campaign(id, KLTValue::array())}));
  auto countOf = [&] {
    return klt::integerValue(klt::valueForKey(klt::valueForKey(host.store()->objectForKey(kKLTFrequencyStoreKey), id), "count"));
  };
  evaluator().updateCountForConfigWithIdentifier(id);
  evaluator().updateCountForConfigWithIdentifier(id);
  host.drainEvaluatorQueue();
  EXPECT_EQ(countOf(), 2);
  host.reopenStore();
  EXPECT_EQ(countOf(), 2) << "persisted, not only in memory";

  const KLTValue before = host.store()->objectForKey(kKLTFrequencyStoreKey);
  evaluator().updateCountForConfigWithIdentifier(uniqueId("never-stored"));
  host.drainEvaluatorQueue();
  EXPECT_EQ(host.store()->objectForKey(kKLTFrequencyStoreKey), before);
}

// Whatever the document holds in keys the admission checks do not test, parsing and events go on.
TEST_F(RuntimeScenario, OddValuesInUncheckedKeysNeverStallOrCrash) {
  KLTValue odd = campaign(uniqueId("odd"), KLTValue::array());
  odd["prio"] = KLTValue::array({1, 2});
  odd["frequency"] = "daily";
  odd["time_limits_in_day"] = "yes";
  odd["time_limits"] = {{"start_time", 9}, {"end_time", KLTValue::object()}};
  odd["meta"] = KLTValue::array();
  odd["ui"] = 3;
  odd["sequence_enabled"] = KLTValue::object();
  KLTValue c{{"combine_operator", "OR"},
             {"event_type", 42},
             {"sequence", "x"},
             {"activity", KLTValue::array()},
             {"time_bounds", "soon"},
             {"count_config", {{"count", "two"}, {"operator", 7}}},
             {"rule_type", nullptr},
             {"details", {{"name", 5}, {"additional_info", {{"k", {{"t", "n"}, {"op", "EQ"}, {"val", "x"}}}}}}},
             {"trigger", {{"event_type", "app_event"}, {"details", {{"additional_info", {{"a", KLTValue::array()}}}}}}}};
  odd["conditions"] = KLTValue::array({c, timerCondition("idle_time", "NaN")});
  parse(document({odd}));
  for (unsigned long code : {0ul, 1ul, 3ul, 4ul, 5ul, 99ul}) deliver(code, "5", {{"a", KLTValue::array({1})}});
  EXPECT_TRUE(evaluator().ceOpsSerialQueue()->waitUntilIdleFor(std::chrono::seconds(5)));
}

}  // namespace
