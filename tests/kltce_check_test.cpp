// `kltce check` without a process: each row breaks one thing in a sound document and names the one
// finding it must give (path, severity, message) and whether the JSON Schema rejects the document;
// then the exit status, --require-admitted, the check without a profile (no admission), and the
// schema against every shipped document.
#include "tools/kltce/analysis/check.h"

#include <functional>
#include <sstream>

#include <gtest/gtest.h>

#include "testsupport/KLTCapturedLog.h"
#include "tools/kltce/analysis/schema_check.h"
#include "tools/kltce/input/json_text.h"
#include "tools/kltce/input/time_text.h"

namespace {

namespace fs = std::filesystem;
const fs::path kSource(KLTCE_SOURCE_DIR);
const fs::path kData = kSource / "tests" / "data" / "kltce";

kltce::CheckOptions optionsFor(KLTValue document) {
  kltce::CheckOptions o;
  o.document = std::move(document);
  o.profile = kltce::parseProfile(kltce::loadJsonFile(kData / "profile.json").value).profile;  // iPhone14,2, app 1.0
  o.at = kltce::readInstant(KLTValue("2026-11-22T09:00:00Z"));
  o.json = true;
  return o;
}

struct Checked {
  int rc;
  KLTValue report;
};

Checked check(const kltce::CheckOptions& options) {
  std::ostringstream out, err;
  KLTScopedLogCapture quiet(2);
  const int rc = kltce::runCheck(options, out, err);
  EXPECT_EQ(err.str(), "");
  return {rc, KLTValue::parse(out.str())};
}

KLTValue soundDocument() {
  return KLTValue::parse(R"({"configs": [{
    "_id": "c1", "enabled": true, "audience": {"attributes": {"user": [], "session": []}},
    "validity": {"start_date": "2026-01-01T00:00:00Z", "end_date": "2027-01-01T00:00:00Z"},
    "frequency": {"validity": "OVERALL", "count": 3},
    "time_limits_in_day": true, "time_limits": {"start_time": "08:00", "end_time": "22:00"},
    "conditions": [{"event_type": "app_event", "details": {"name": "buy", "additional_info": {}},
      "time_bounds": {"lower": 1767225600000, "upper": 1798761600000}, "count_config": {"count": 2, "operator": "GTE"},
      "combine_operator": "AND", "trigger": {"event_type": "app_start", "details": {"additional_info": {}}}}],
    "meta": {"type": "IN_APP"}}]})");
}

struct Row {
  const char* note;
  std::function<void(KLTValue& c)> change;  // c: the document's first campaign
  const char* path;
  const char* severity;
  std::string message;
  bool schemaRejects;
  std::size_t findings = 1;  // the row's finding comes first
};

TEST(KltceCheck, EachMistakeGivesItsFinding) {
  auto cond = [](KLTValue& c) -> KLTValue& { return c["conditions"][0]; };
  auto timer = [&](KLTValue& c, KLTValue time) { cond(c) = {{"event_type", "idle_time"}, {"details", {{"additional_info", {{"time", time}}}}},
                                                            {"combine_operator", "AND"}, {"trigger", cond(c)["trigger"]}}; };
  const Row rows[] = {
      {"misspelt key", [](KLTValue& c) { c["validty"] = c["validity"]; c["validity"] = {{"start_date", "2026-01-01T00:00:00Z"}, {"end_date", "2027-01-01T00:00:00Z"}}; },
       "/configs/0/validty", "warning", "unknown key \"validty\": the engine ignores it (did you mean \"validity\"?)", true},
      {"cap as text", [](KLTValue& c) { c["frequency"]["count"] = "two"; }, "/configs/0/frequency/count", "warning",
       "cap count \"two\" is not a whole number: it reads as 0, which means no cap at all", true},
      {"prio as a word", [](KLTValue& c) { c["prio"] = "high"; }, "/configs/0/prio", "warning",
       "prio \"high\" is not a whole number: it reads as 0 (a campaign without prio ranks 1)", true},
      {"window 9am", [](KLTValue& c) { c["time_limits"]["start_time"] = "9am"; }, "/configs/0/time_limits/start_time", "warning",
       "\"9am\" is not a time of day HH:MM: it reads as 00:00", true},
      {"window 25:00", [](KLTValue& c) { c["time_limits"]["end_time"] = "25:00"; }, "/configs/0/time_limits/end_time", "warning",
       "\"25:00\" is not a time of day HH:MM: it reads as 25:00, after every time of day", true},
      {"window always open", [](KLTValue& c) { c["time_limits"] = {{"start_time", "0"}, {"end_time", "24:00"}}; },
       "/configs/0/time_limits", "warning", "the daily window \"0\" to \"24:00\" reads as always open: it restricts nothing", true, 2},
      {"duplicate _id", [](KLTValue&) {}, "/configs/1/_id", "warning",
       "_id \"c1\" repeats configs[0]'s: the engine keeps both (the earlier item stays registered, and each is dispatched "
       "when its conditions hold) and they share one set of counters", false},
      {"GTEE", [&](KLTValue& c) { cond(c)["count_config"]["operator"] = "GTEE"; }, "/configs/0/conditions/0/count_config/operator",
       "error", "operator \"GTEE\" is not EQ, NEQ, GT, GTE, LT or LTE (exact words): the count check is always false, so the condition never completes", true},
      {"lower-case and", [&](KLTValue& c) { cond(c)["combine_operator"] = "and"; }, "/configs/0/conditions/0/combine_operator", "error",
       "Improper combine operator: \"and\" is not AND or OR (exact words)", true},
      {"no additional_info", [&](KLTValue& c) { cond(c)["trigger"]["details"].erase("additional_info"); },
       "/configs/0/conditions/0/trigger/details/additional_info", "error",
       "Invalid trigger details additional info format: additional_info must be an object (it may be empty)", true},
      {"end before start", [](KLTValue& c) { c["validity"]["end_date"] = "2025-01-01T00:00:00Z"; }, "/configs/0/validity/end_date", "error",
       "Config doesn't fall in between dates: end_date \"2025-01-01T00:00:00Z\" is before start_date \"2026-01-01T00:00:00Z\", so no moment is within them", false},
      {"clamped timer", [&](KLTValue& c) { timer(c, 1.2e21); }, "/configs/0/conditions/0/details/additional_info/time", "error",
       "time 1.2e+21 ms is too large to read and is clamped: once armed, the timer never ends and blocks the engine's queue for good (no later event is handled, nothing else is dispatched)", true},
      {"timer past the validity", [&](KLTValue& c) { timer(c, int64_t{31536001000}); }, "/configs/0/conditions/0/details/additional_info/time", "error",
       "time 31536001000 ms is longer than the campaign's validity (31536000000 ms from start_date to end_date): the timer cannot end while the campaign runs", false},
      {"match op outside the words", [&](KLTValue& c) { cond(c)["details"]["additional_info"]["plan"] = {{"op", "EQUALS"}, {"t", "s"}, {"val", "gold"}}; },
       "/configs/0/conditions/0/details/additional_info/plan/op", "error",
       "op \"EQUALS\" is not EQ, NEQ, GT, GTE, LT or LTE: the attribute never matches, so the condition never completes", true},
      {"schema only: rule_type", [&](KLTValue& c) { cond(c)["rule_type"] = 5; }, "/configs/0/conditions/0/rule_type", "warning", "5 is not text", true},
      {"text long enough to overflow a regex matcher", [](KLTValue& c) { c["time_limits"]["start_time"] = std::string(300000, '0'); },
       "/configs/0/time_limits/start_time", "warning",
       '"' + std::string(119, '0') + "... (300002 bytes) is not a time of day HH:MM: it reads as 00:00", true},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.note);
    KLTValue document = soundDocument();
    if (std::string_view(row.note) == "duplicate _id") document["configs"].push_back(document["configs"][0]);
    row.change(document["configs"][0]);
    const auto [rc, report] = check(optionsFor(document));
    std::vector<KLTValue> findings;
    for (const auto& c : report["campaigns"]) findings.insert(findings.end(), c["findings"].begin(), c["findings"].end());
    ASSERT_EQ(findings.size(), row.findings) << report.dump(1);
    EXPECT_EQ(findings[0]["path"], row.path);
    EXPECT_EQ(findings[0]["severity"], row.severity);
    EXPECT_EQ(findings[0]["message"], row.message);
    EXPECT_EQ(findings[0]["value"], kltce::valueAtPointer(document, row.path));
    EXPECT_EQ(rc, std::string_view(row.severity) == "error" ? 1 : 0);
    EXPECT_EQ(kltce::validateAgainstSchema(document).empty(), !row.schemaRejects) << kltce::validateAgainstSchema(document).size();
  }
}

TEST(KltceCheck, RejectionsForThisProfileAreErrorsOnlyWhenRequired) {
  KLTValue document = soundDocument();
  document["configs"][0]["audience"]["ver"] = {{"val", "3.0"}, {"op", "GTE"}};
  document["configs"][0]["audience"]["hw"] = {{"val", "iPad13,1"}};
  auto options = optionsFor(document);
  EXPECT_EQ(check(options).rc, 0);  // the rejection findings themselves are in flawed.expected.json
  options.requireAdmitted = true;
  const auto strict = check(options);
  EXPECT_EQ(strict.rc, 1);
  EXPECT_EQ(strict.report["errors"], 2);
}

kltce::CheckOptions withoutProfile(KLTValue document) {
  kltce::CheckOptions o;
  o.document = std::move(document);
  o.json = true;
  o.admission = kltce::Admission::NotChecked;
  return o;
}

// Every finding of a report, campaigns' and the document's, in report order.
std::vector<KLTValue> allFindings(const KLTValue& report) {
  std::vector<KLTValue> findings(report["document"].begin(), report["document"].end());
  for (const auto& c : report["campaigns"]) findings.insert(findings.end(), c["findings"].begin(), c["findings"].end());
  return findings;
}

struct NoProfileRow {
  const char* note;
  std::function<void(KLTValue& c)> change;  // c: the sound document's first campaign
  const char* path;                         // the one finding, or nullptr for none
  const char* severity = "error";
};

// Without a profile a mistake in the document's own values is found; a rejection that another
// device, user, app version or moment would not give is not a finding.
TEST(KltceCheck, WithoutProfileOnlyTheDocumentsOwnMistakesAreFound) {
  auto cond = [](KLTValue& c) -> KLTValue& { return c["conditions"][0]; };
  const NoProfileRow rows[] = {
      {"sound", [](KLTValue&) {}, nullptr},
      {"another device", [](KLTValue& c) { c["audience"]["hw"] = {{"val", "iPad13,1"}}; }, nullptr},
      {"a model that is not text", [](KLTValue& c) { c["audience"]["hw"] = {{"val", 13}}; }, "/configs/0/audience/hw/val"},
      {"another app version", [](KLTValue& c) { c["audience"]["ver"] = {{"val", "3.0"}, {"op", "GTE"}}; }, nullptr},
      {"a version word outside the words", [](KLTValue& c) { c["audience"]["ver"] = {{"val", "3.0"}, {"op", "GTEE"}}; },
       "/configs/0/audience/ver/op"},
      {"no version under a known word: the schema's only", [](KLTValue& c) { c["audience"]["ver"] = {{"op", "NEQ"}}; },
       "/configs/0/audience/ver/val", "warning"},
      {"another user", [](KLTValue& c) { c["audience"]["attributes"]["user"] = {{{"name", "first_name"}, {"operator", "EQ"}, {"value", {"Bob"}}}}; },
       nullptr},
      {"user rules not a list", [](KLTValue& c) { c["audience"]["attributes"]["user"] = {{"name", "first_name"}}; },
       "/configs/0/audience/attributes/user"},
      {"session rules not a list", [](KLTValue& c) { c["audience"]["attributes"]["session"] = "city"; },
       "/configs/0/audience/attributes/session"},
      {"first session only", [](KLTValue& c) { c["audience"]["audience_type"] = "FTU"; }, nullptr},
      {"not started yet", [](KLTValue& c) { c["validity"]["start_date"] = "2026-12-01T00:00:00Z"; c["validity"]["end_date"] = "2026-12-31T00:00:00Z"; },
       nullptr},
      {"over", [](KLTValue& c) { c["validity"]["start_date"] = "2026-01-01T00:00:00Z"; c["validity"]["end_date"] = "2026-02-01T00:00:00Z"; },
       nullptr},
      {"end before start", [](KLTValue& c) { c["validity"]["end_date"] = "2025-01-01T00:00:00Z"; }, "/configs/0/validity/end_date"},
      {"a date that is not one", [](KLTValue& c) { c["validity"]["start_date"] = "soon"; }, "/configs/0/validity/start_date"},
      {"switched off", [](KLTValue& c) { c["enabled"] = false; }, "/configs/0/enabled", "info"},
      {"lower-case and", [&](KLTValue& c) { cond(c)["combine_operator"] = "and"; }, "/configs/0/conditions/0/combine_operator"},
      {"static analysis: GTEE", [&](KLTValue& c) { cond(c)["count_config"]["operator"] = "GTEE"; },
       "/configs/0/conditions/0/count_config/operator"},
      {"schema only: rule_type", [&](KLTValue& c) { cond(c)["rule_type"] = 5; }, "/configs/0/conditions/0/rule_type", "warning"},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.note);
    KLTValue document = soundDocument();
    row.change(document["configs"][0]);
    const auto [rc, report] = check(withoutProfile(document));
    const auto findings = allFindings(report);
    ASSERT_EQ(findings.size(), row.path ? 1u : 0u) << report.dump(1);
    if (row.path) {
      EXPECT_EQ(findings[0]["path"], row.path);
      EXPECT_EQ(findings[0]["severity"], row.severity);
    }
    EXPECT_EQ(rc, row.path && std::string_view(row.severity) == "error" ? 1 : 0);
    EXPECT_EQ(report["admission"], "not checked");
    for (const char* key : {"admitted", "rejected"}) EXPECT_FALSE(report.contains(key)) << key;
    for (const auto& c : report["campaigns"]) {
      for (const char* key : {"admitted", "reason"}) EXPECT_FALSE(c.contains(key)) << key;
    }
  }
}

// The same document checked without a profile gives the findings it gives with any profile, less
// those that only a device, user or moment gives (the infos of a rejection, a switched-off
// campaign aside), for every shipped document and profile.
TEST(KltceCheck, WithoutProfileGivesTheFindingsEveryProfileGives) {
  for (const auto& document : {kSource / "examples" / "campaigns.json", kSource / "examples" / "flawed_campaigns.json",
                               kSource / "examples" / "why_not.json", kSource / "examples" / "fleet" / "campaigns_v2.json",
                               kData / "campaigns.json", kData / "flawed.json", kData / "blocked.json", kData / "endless.json"}) {
    const KLTValue doc = kltce::loadJsonFile(document).value;
    const auto bare = check(withoutProfile(doc));
    for (const auto& profile : {kSource / "examples" / "profile.json", kData / "profile.json"}) {
      SCOPED_TRACE(document.string() + " with " + profile.string());
      auto options = optionsFor(doc);
      options.profile = kltce::parseProfile(kltce::loadJsonFile(profile).value).profile;
      const auto full = check(options);
      std::vector<KLTValue> everywhere;
      for (const auto& f : allFindings(full.report)) {
        const std::string path = f["path"];
        const bool ofThisProfile = f["rejects"] == true && f["severity"] == "info" && !path.ends_with("/enabled");
        if (!ofThisProfile) everywhere.push_back(f);
      }
      EXPECT_EQ(allFindings(bare.report), everywhere) << bare.report.dump(1);
      EXPECT_EQ(bare.rc, full.rc);
    }
  }
}

TEST(KltceCheck, RequireAdmittedWithoutProfileIsAUsageError) {
  auto options = withoutProfile(soundDocument());
  options.requireAdmitted = true;
  std::ostringstream out, err;
  EXPECT_EQ(kltce::runCheck(options, out, err), 2);
  EXPECT_EQ(out.str(), "");
  EXPECT_EQ(err.str(), "kltce: --require-admitted needs --profile: without a profile no admission is checked\n");
}

TEST(KltceCheck, SchemaAcceptsTheSoundDocumentsAndRejectsTheFlawedOnes) {
  for (const auto& [file, sound] : {std::pair{kSource / "examples" / "campaigns.json", true}, {kData / "campaigns.json", true},
                                    {kSource / "examples" / "flawed_campaigns.json", false}, {kData / "flawed.json", false},
                                    {kData / "blocked.json", false}}) {
    SCOPED_TRACE(file.string());
    const auto violations = kltce::validateAgainstSchema(kltce::loadJsonFile(file).value);
    EXPECT_EQ(violations.empty(), sound) << (violations.empty() ? "" : violations[0].path + ": " + violations[0].message);
  }
}

}  // namespace
