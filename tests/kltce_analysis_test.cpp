// Static analysis of campaigns: each row breaks one thing in an otherwise sound campaign and names
// the one finding it must produce.
#include "tools/kltce/analysis.h"

#include <functional>

#include <gtest/gtest.h>

namespace {

using kltce::Finding;
using kltce::Severity;

KLTValue soundCampaign() {
  return KLTValue::parse(R"({
    "_id": "c1", "enabled": true,
    "validity": {"start_date": "2026-01-01T00:00:00Z", "end_date": "2027-01-01T00:00:00Z"},
    "time_limits_in_day": true, "time_limits": {"start_time": "08:00", "end_time": "22:00"},
    "conditions": [{
      "event_type": "app_event",
      "details": {"name": "purchase", "additional_info": {}},
      "time_bounds": {"lower": 1767225600000, "upper": 1798761600000},
      "count_config": {"count": 2, "operator": "GTE"},
      "combine_operator": "AND",
      "trigger": {"event_type": "app_event", "details": {"name": "open", "additional_info": {}},
                  "time_bounds": {"lower": 1767225600000, "upper": 1798761600000}}
    }],
    "meta": {"type": "IN_APP"}
  })");
}

struct Case {
  const char* note;
  std::function<void(KLTValue&)> change;
  const char* where;  // nullptr: no finding expected
  Severity severity;
  const char* fragment;
};

TEST(KltceAnalysis, EachFlawGivesItsFinding) {
  auto c0 = [](KLTValue& c) -> KLTValue& { return c["conditions"][0]; };
  const Case cases[] = {
      {"sound campaign", [](KLTValue&) {}, nullptr, Severity::Warning, ""},
      {"missing _id", [](KLTValue& c) { c.erase("_id"); }, "/_id", Severity::Error, "no _id"},
      {"numeric _id", [](KLTValue& c) { c["_id"] = 7; }, "/_id", Severity::Error, "not text"},
      {"unknown meta type", [](KLTValue& c) { c["meta"]["type"] = "POPUP"; }, "/meta/type", Severity::Error, "\"POPUP\""},
      {"no meta", [](KLTValue& c) { c.erase("meta"); }, "/meta/type", Severity::Error, "never dispatched"},
      {"lower-case meta type", [](KLTValue& c) { c["meta"]["type"] = "in_app"; }, "/meta/type", Severity::Error, "never"},
      {"window over midnight", [](KLTValue& c) { c["time_limits"] = {{"start_time", "22:00"}, {"end_time", "02:00"}}; },
       "/time_limits", Severity::Error, "never opens"},
      {"window of no length", [](KLTValue& c) { c["time_limits"] = {{"start_time", "10:15"}, {"end_time", "10:15"}}; },
       "/time_limits", Severity::Error, "never opens"},
      {"window end missing reads 00:00", [](KLTValue& c) { c["time_limits"].erase("end_time"); }, "/time_limits",
       Severity::Error, "never opens"},
      {"window of one minute opens", [](KLTValue& c) { c["time_limits"] = {{"start_time", "10:15"}, {"end_time", "10:16"}}; },
       nullptr, Severity::Warning, ""},
      {"end 24:00 opens", [](KLTValue& c) { c["time_limits"] = {{"start_time", "23:59"}, {"end_time", "24:00"}}; }, nullptr,
       Severity::Warning, ""},
      {"bad window ignored when the flag is off",
       [](KLTValue& c) {
         c["time_limits_in_day"] = false;
         c["time_limits"]["end_time"] = "01:00";
       },
       "/time_limits", Severity::Info, "ignored"},
      {"combined mode without conditions", [](KLTValue& c) { c["conditions"] = KLTValue::array(); }, "/conditions",
       Severity::Error, "never dispatched"},
      {"sequence mode without conditions",
       [](KLTValue& c) {
         c["conditions"] = KLTValue::array();
         c["sequence_enabled"] = true;
       },
       nullptr, Severity::Warning, ""},
      {"condition without time_bounds", [&](KLTValue& c) { c0(c).erase("time_bounds"); }, "/conditions/0/time_bounds", Severity::Error,
       "no time_bounds"},
      {"condition bounds reversed", [&](KLTValue& c) { c0(c)["time_bounds"] = {{"lower", 5}, {"upper", 4}}; },
       "/conditions/0/time_bounds", Severity::Error, "above upper"},
      {"condition bounds before the start date", [&](KLTValue& c) { c0(c)["time_bounds"] = {{"lower", 0}, {"upper", 1767225599999}}; },
       "/conditions/0/time_bounds/upper", Severity::Error, "before the campaign's start_date"},
      {"bounds ending at the start instant hold", [&](KLTValue& c) { c0(c)["time_bounds"] = {{"lower", 0}, {"upper", 1767225600000}}; },
       nullptr, Severity::Warning, ""},
      {"condition without count_config", [&](KLTValue& c) { c0(c).erase("count_config"); }, "/conditions/0/count_config/operator", Severity::Error,
       "no count_config operator"},
      {"count without operator", [&](KLTValue& c) { c0(c)["count_config"].erase("operator"); }, "/conditions/0/count_config/operator",
       Severity::Error, "no count_config operator"},
      {"unknown count operator", [&](KLTValue& c) { c0(c)["count_config"]["operator"] = "gte"; }, "/conditions/0/count_config/operator",
       Severity::Error, "\"gte\""},
      {"count LT 1 never holds", [&](KLTValue& c) { c0(c)["count_config"] = {{"count", 1}, {"operator", "LT"}}; },
       "/conditions/0/count_config", Severity::Error, "never holds"},
      {"count EQ 0 never holds", [&](KLTValue& c) { c0(c)["count_config"] = {{"count", 0}, {"operator", "EQ"}}; },
       "/conditions/0/count_config", Severity::Error, "never holds"},
      {"count LT 2 holds once", [&](KLTValue& c) { c0(c)["count_config"] = {{"count", 2}, {"operator", "LT"}}; }, nullptr,
       Severity::Warning, ""},
      {"unknown condition type", [&](KLTValue& c) { c0(c)["event_type"] = "screen_event"; }, "/conditions/0/event_type", Severity::Error,
       "never armed"},
      {"condition without name", [&](KLTValue& c) { c0(c)["details"].erase("name"); }, "/conditions/0/details/name", Severity::Error,
       "no details.name"},
      {"activity condition without activity", [&](KLTValue& c) { c0(c)["event_type"] = "activity_event"; }, "/conditions/0/activity",
       Severity::Error, "without \"activity\""},
      {"client_event trigger", [&](KLTValue& c) { c0(c)["trigger"]["event_type"] = "client_event"; }, "/conditions/0/trigger/event_type",
       Severity::Error, "never fires on client_event"},
      {"unknown trigger type", [&](KLTValue& c) { c0(c)["trigger"]["event_type"] = "push"; }, "/conditions/0/trigger/event_type",
       Severity::Error, "never fires"},
      {"trigger without time_bounds", [&](KLTValue& c) { c0(c)["trigger"].erase("time_bounds"); }, "/conditions/0/trigger/time_bounds",
       Severity::Error, "no time_bounds"},
      {"app_start trigger needs no bounds",
       [&](KLTValue& c) {
         c0(c)["trigger"] = {{"event_type", "app_start"}, {"details", {{"additional_info", KLTValue::object()}}}};
       },
       nullptr, Severity::Warning, ""},
      {"negative idle time blocks the queue",
       [&](KLTValue& c) {
         c0(c) = {{"event_type", "idle_time"}, {"details", {{"additional_info", {{"time", -5000}}}}}, {"combine_operator", "AND"},
                  {"trigger", {{"event_type", "app_start"}, {"details", {{"additional_info", KLTValue::object()}}}}}};
       },
       "/conditions/0/details/additional_info/time", Severity::Error, "blocks the engine's queue"},
      {"negative activity time given as text",
       [&](KLTValue& c) {
         c0(c) = {{"event_type", "activity_time"}, {"details", {{"additional_info", {{"time", "-1000"}}}}},
                  {"combine_operator", "AND"},
                  {"trigger", {{"event_type", "app_start"}, {"details", {{"additional_info", KLTValue::object()}}}}}};
       },
       "/conditions/0/details/additional_info/time", Severity::Error, "-1000"},
      {"-999 ms truncates to a zero interval",
       [&](KLTValue& c) {
         c0(c) = {{"event_type", "idle_time"}, {"details", {{"additional_info", {{"time", -999}}}}}, {"combine_operator", "AND"},
                  {"trigger", {{"event_type", "app_start"}, {"details", {{"additional_info", KLTValue::object()}}}}}};
       },
       nullptr, Severity::Warning, ""},
  };
  for (const auto& row : cases) {
    SCOPED_TRACE(row.note);
    KLTValue config = soundCampaign();
    row.change(config);
    const std::vector<Finding> findings = kltce::analyzeCampaign(config);
    if (!row.where) {
      EXPECT_TRUE(findings.empty()) << findings.front().path << ": " << findings.front().message;
      continue;
    }
    ASSERT_EQ(findings.size(), 1u) << (findings.empty() ? "none" : findings.back().message);
    EXPECT_EQ(findings[0].path, row.where);
    EXPECT_EQ(findings[0].severity, row.severity);
    EXPECT_NE(findings[0].message.find(row.fragment), std::string::npos) << findings[0].message;
  }
}

TEST(KltceAnalysis, ReportsEveryConditionByIndexAndIgnoresNonObjects) {
  KLTValue config = soundCampaign();
  config["conditions"].push_back(config["conditions"][0]);
  config["conditions"][1].erase("count_config");
  const auto findings = kltce::analyzeCampaign(config);
  ASSERT_EQ(findings.size(), 1u);
  EXPECT_EQ(findings[0].path, "/conditions/1/count_config/operator");
  EXPECT_TRUE(kltce::analyzeCampaign(KLTValue::array()).empty());
  EXPECT_TRUE(kltce::analyzeCampaign(KLTValue("text")).empty());
}

}  // namespace
