// The compiled campaign: what a configuration compiles to (words, keys, timers, order), and the
// attribute matcher read through an event's index, for events of a few and of many attributes.
#include "KLTContextEvaluator/KLTCECampaign.h"

#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "KLTContextEvaluator/KLTCEUtility.h"
#include "host/KLTController.h"
#include "host/KLTEvent.h"

namespace {

KLTValue J(const std::string& text) { return KLTValue::parse(text); }

// A condition as JSON text with the given type, name fields and extras.
std::string condition(const std::string& fields) {
  return R"({"combine_operator":"AND","count_config":{"count":2,"operator":"GTE"},)" + fields + "}";
}

TEST(KLTCECampaign, CompilesEachConditionsWordsKeysAndTimer) {
  struct Row {
    std::string condition;
    KLTCEEventKind kind;
    std::string listener;  // "" : registers under no name
    bool routedNameMatches;
    uint64_t timerSeconds;
    KLTCEEventKind triggerKind;
    std::string triggerListener;
  };
  const uint64_t endless = static_cast<uint64_t>(int64_t{-5});
  const std::vector<Row> rows = {
      {condition(R"("event_type":"app_event","details":{"name":"buy"},"trigger":{"event_type":"app_start"})"),
       KLTCEEventKind::AppEvent, "4___buy", true, 0, KLTCEEventKind::AppStart, ""},
      {condition(R"("event_type":"client_event","details":{"name":7},"trigger":{"event_type":"app_event","details":{"name":"go"}})"),
       KLTCEEventKind::ClientEvent, "5___7", false, 0, KLTCEEventKind::AppEvent, "4___go"},
      {condition(R"("event_type":"activity_event","activity":"Home","details":{"name":"x"},"trigger":{"event_type":"activity_event","activity":"Cart"})"),
       KLTCEEventKind::ActivityEvent, "1___Home", true, 0, KLTCEEventKind::ActivityEvent, "1___Cart"},
      {condition(R"("event_type":"activity_event","trigger":{"event_type":"client_event","details":{"name":"c"}})"),
       KLTCEEventKind::ActivityEvent, "1___(null)", false, 0, KLTCEEventKind::ClientEvent, ""},
      {condition(R"("event_type":"idle_time","details":{"additional_info":{"time":30999}},"trigger":{"event_type":"app_start"})"),
       KLTCEEventKind::IdleTime, "", false, 30, KLTCEEventKind::AppStart, ""},
      {condition(R"("event_type":"activity_time","details":{"additional_info":{"time":-5000}},"trigger":{"event_type":"x"})"),
       KLTCEEventKind::ActivityTime, "", false, endless, KLTCEEventKind::Other, ""},
      {condition(R"("event_type":"App_Event","details":{"name":"buy"},"trigger":{})"), KLTCEEventKind::Other, "", false, 0,
       KLTCEEventKind::Other, ""},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.condition);
    const KLTCEConditionRule rule(J(row.condition));
    EXPECT_EQ(rule.kind, row.kind);
    EXPECT_EQ(rule.listener.code == 0 ? "" : rule.listener.identifier(), row.listener);
    EXPECT_EQ(rule.routedNameMatches, row.routedNameMatches);
    EXPECT_EQ(rule.timerSeconds, row.timerSeconds);
    EXPECT_EQ(rule.countConfig.op(), KLTCEOperator::GTE);
    EXPECT_EQ(rule.combine, KLTCECombine::And);
    EXPECT_EQ(rule.trigger.kind, row.triggerKind);
    EXPECT_EQ(rule.trigger.listener.code == 0 ? "" : rule.trigger.listener.identifier(), row.triggerListener);
  }
}

TEST(KLTCECampaign, CompilesTheCampaignAndOrdersSequenceConditionsStably) {
  EXPECT_EQ(KLTCECampaign::compile(J(R"({"_id":5})")), nullptr);
  EXPECT_EQ(KLTCECampaign::compile(J("[]")), nullptr);

  const auto sequence = KLTCECampaign::compile(J(R"({"_id":"s","sequence_enabled":"y","meta":{"type":"IN_LINE"},
      "ui":{"display_type":"banner"},"time_limits_in_day":1,"time_limits":{"start_time":"09:00"},
      "conditions":[{"sequence":2,"activity":"a"},{"sequence":1,"activity":"b"},{"activity":"c"},{"sequence":1,"activity":"d"}]})"));
  ASSERT_NE(sequence, nullptr);
  EXPECT_TRUE(sequence->sequenceEnabled());
  EXPECT_EQ(sequence->displayKind(), KLTCEDisplayKind::InLine);
  EXPECT_EQ(sequence->subtype(), "banner");
  EXPECT_TRUE(sequence->hasWindow());
  EXPECT_EQ(sequence->windowStart(), "09:00");
  EXPECT_TRUE(sequence->windowEnd().is_null());
  std::string order;
  for (const auto& rule : sequence->conditions()) order += rule.activity.get<std::string>();
  EXPECT_EQ(order, "cbda");

  const auto combined = KLTCECampaign::compile(J(R"({"_id":"c","meta":{"type":"in_app"},"time_limits":{},
      "conditions":[{"sequence":2,"activity":"a"},{"sequence":1,"activity":"b"}]})"));
  ASSERT_NE(combined, nullptr);
  EXPECT_EQ(combined->displayKind(), KLTCEDisplayKind::None);
  EXPECT_FALSE(combined->hasWindow());
  EXPECT_EQ(combined->conditions().front().activity, "a");
  EXPECT_TRUE(KLTCECampaign::compile(J(R"({"_id":"n","conditions":{"0":{}}})"))->conditions().empty());
}

TEST(KLTCEAttributeMatcher, MatchesThroughTheEventsIndexAndNamesTheFailingKey) {
  // Twelve attributes: past the index's straight pass, into its search.
  KLTValue attributes = KLTValue::object();
  for (int i = 0; i < 10; ++i) attributes["k" + std::to_string(i)] = i;
  attributes["plan"] = "gold";
  attributes["tags"] = KLTValue::array({"a", "b"});
  const auto event = KLTEvent::make(kKLTEventCodeApp, "buy", attributes);
  const auto few = KLTEvent::make(kKLTEventCodeApp, "buy", J(R"({"plan":"gold","k9":9})"));
  struct Row {
    bool trigger;
    const char* data;
    const char* failingKey;  // nullptr: matches
  };
  const std::vector<Row> rows = {
      {false, "{}", nullptr},
      {false, R"({"plan":"gold","k9":9})", nullptr},
      {false, R"({"k3":{"t":"n","op":"GT","val":2},"plan":"silver"})", "plan"},
      {false, R"({"tags":"b","k7":{"t":"l","op":"LT","val":7}})", "k7"},
      {false, R"({"absent":{"t":"b","op":"EQ","val":false}})", nullptr},
      {false, R"({"k1":{"t":"n","op":"EQ","val":"1"}})", ""},
      {true, R"({"plan":"gold","k2":2})", nullptr},
      {true, R"({"k2":2.0})", "k2"},
      {true, R"({"absent":null})", "absent"},
      {true, R"({"tags":["b"],"plan":"other"})", nullptr},
      {true, R"({"tags":["c"],"plan":"gold"})", "tags"},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(std::string(row.trigger ? "trigger " : "condition ") + row.data);
    const KLTValue data = J(row.data);
    const auto matcher = row.trigger ? KLTCEAttributeMatcher::forTrigger(data) : KLTCEAttributeMatcher::forCondition(data);
    const auto failing = matcher.failingKey(event->attributes());
    EXPECT_EQ(failing.has_value(), row.failingKey != nullptr);
    if (failing && row.failingKey) {
      EXPECT_EQ(*failing, row.failingKey);
    }
    EXPECT_EQ(matcher.matches(*event), !row.failingKey);
    // The same answers as the value readings the rules are defined by, on both event sizes.
    for (const auto* e : {event.get(), few.get()}) {
      const bool expected = row.trigger ? KLTCEUtility::doesDictionary(e->additionalInfo, data)
                                        : KLTCEUtility::doesEventAttributes(e->additionalInfo, data);
      EXPECT_EQ(matcher.matches(*e), expected);
    }
  }
}

TEST(KLTController, RegistersByKeyOnceAndCountsGenerationsOfForgetting) {
  struct Listener final : KLTEventListener {
    int seen = 0;
    void onEvent(std::shared_ptr<const KLTEvent>) override { ++seen; }
  };
  KLTController controller;
  auto listener = std::make_shared<Listener>();
  controller.registerListener(4, "a___b", listener);
  controller.registerIdentifer("4___a___b", listener);
  EXPECT_EQ(controller.registrationCount(), 1u);
  EXPECT_EQ(controller.deliverEvent(KLTEvent::make(4, "a___b")), 1u);
  EXPECT_EQ(listener->seen, 1);
  const uint64_t before = controller.listenerGeneration();
  controller.removeAllListeners();
  EXPECT_NE(controller.listenerGeneration(), before);
  EXPECT_EQ(controller.deliverEvent(KLTEvent::make(4, "a___b")), 0u);
  controller.discardRemovedListeners();
}

}  // namespace
