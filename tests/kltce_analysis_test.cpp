// Static analysis of campaigns: each row breaks one thing in an otherwise sound campaign and names
// the one finding it must produce.
#include "tools/kltce/analysis/analysis.h"

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
  // The flaws of tests/data/kltce/flawed.json (missing _id and meta type, no conditions, bounds
  // reversed or before the start, no operator or trigger bounds, a second condition's index) are
  // checked end to end against flawed.expected.json, and `kltce check`'s table holds the operator
  // words, windows and timers; these rows are the rest and the edges where a finding must not appear.
  auto c0 = [](KLTValue& c) -> KLTValue& { return c["conditions"][0]; };
  auto timer = [&](KLTValue& c, KLTValue time) {
    c0(c) = {{"event_type", "activity_time"}, {"details", {{"additional_info", {{"time", time}}}}}, {"combine_operator", "AND"},
             {"trigger", {{"event_type", "app_start"}, {"details", {{"additional_info", KLTValue::object()}}}}}};
  };
  const Case cases[] = {
      {"sound campaign", [](KLTValue&) {}, nullptr, Severity::Warning, ""},
      {"window end missing reads 00:00", [](KLTValue& c) { c["time_limits"].erase("end_time"); }, "/time_limits", Severity::Error, "never opens"},
      {"window of one minute opens", [](KLTValue& c) { c["time_limits"] = {{"start_time", "10:15"}, {"end_time", "10:16"}}; }, nullptr, Severity::Warning, ""},
      {"end 24:00 opens", [](KLTValue& c) { c["time_limits"] = {{"start_time", "23:59"}, {"end_time", "24:00"}}; }, nullptr, Severity::Warning, ""},
      {"bad window ignored when the flag is off", [](KLTValue& c) { c["time_limits_in_day"] = false, c["time_limits"]["end_time"] = "01:00"; },
       "/time_limits", Severity::Info, "ignored"},
      {"sequence mode without conditions", [](KLTValue& c) { c["conditions"] = KLTValue::array(), c["sequence_enabled"] = true; }, nullptr,
       Severity::Warning, ""},
      {"bounds ending at the start instant hold", [&](KLTValue& c) { c0(c)["time_bounds"] = {{"lower", 0}, {"upper", 1767225600000}}; }, nullptr,
       Severity::Warning, ""},
      {"count LT 1 never holds", [&](KLTValue& c) { c0(c)["count_config"] = {{"count", 1}, {"operator", "LT"}}; }, "/conditions/0/count_config",
       Severity::Error, "never holds"},
      {"count LT 2 holds once", [&](KLTValue& c) { c0(c)["count_config"] = {{"count", 2}, {"operator", "LT"}}; }, nullptr, Severity::Warning, ""},
      {"unknown condition type", [&](KLTValue& c) { c0(c)["event_type"] = "screen_event"; }, "/conditions/0/event_type", Severity::Error, "never armed"},
      {"condition without name", [&](KLTValue& c) { c0(c)["details"].erase("name"); }, "/conditions/0/details/name", Severity::Error, "no details.name"},
      {"activity condition without activity", [&](KLTValue& c) { c0(c)["event_type"] = "activity_event"; }, "/conditions/0/activity",
       Severity::Error, "without \"activity\""},
      {"negative timer given as text", [&](KLTValue& c) { timer(c, "-1000"); }, "/conditions/0/details/additional_info/time", Severity::Error, "-1000"},
      {"-999 ms truncates to a zero interval, with an app_start trigger that needs no bounds", [&](KLTValue& c) { timer(c, -999); }, nullptr,
       Severity::Warning, ""},
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

}  // namespace
