#include <chrono>
#include <functional>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "KLTContextEvaluator/KLTContextEvaluator.h"
#include "host/KLTController.h"
#include "host/KLTUtilities.h"
#include "platform/KLTBundle.h"
#include "testsupport/KLTTestHost.h"

namespace {

KLTValue J(const std::string& text) { return KLTValue::parse(text); }

// A campaign that the test host (device "iPhone14,2", app "1.0", user tier gold, session city
// Paris, clock at 2026-01-01T00:00Z) admits.
KLTValue admittedConfig() {
  return J(R"({
    "_id": "c1", "enabled": true,
    "audience": {
      "hw": {"val": "iPhone14,2"},
      "ver": {"val": "1.0", "op": "EQ"},
      "audience_type": "ALL",
      "attributes": {
        "user": [{"name": "tier", "value": ["gold"], "operator": "EQ"}],
        "session": [{"name": "city", "value": ["Paris"], "operator": "EQ"}]
      }
    },
    "validity": {"start_date": "2025-06-01T00:00:00Z", "end_date": "2026-06-01T00:00:00Z"},
    "conditions": [
      {"combine_operator": "AND", "details": {"additional_info": {}},
       "trigger": {"details": {"additional_info": {}}}}
    ]
  })");
}

// The evaluator logs its start-up line once, at first use; take it before any log is captured.
void evaluatorReady() { (void)KLTContextEvaluator::sharedInstance(); }

struct Outcome {
  bool admitted = false;
  std::vector<std::string> lines;
};

// Runs the check once on a fresh test host at the given level; `prepare` may adjust the host.
Outcome check(const KLTValue& config, long level = 0, const std::function<void(KLTTestHost&)>& prepare = {}) {
  evaluatorReady();
  KLTTestHost host(level);
  host.controller().user()->setUserAttributes(J(R"({"tier": "gold", "age": 30})"));
  host.controller().session()->setSessionAttributes(J(R"({"city": "Paris"})"));
  if (prepare) prepare(host);
  Outcome out;
  out.admitted = KLTContextEvaluator::sharedInstance().checkConfiguration(config);
  out.lines = host.log().lines();
  return out;
}

std::string expectedLine(const std::string& message) {
  const std::string level = message == "Config disabled" ? "DEBUG" : "ERROR";
  return "<KLT " + level + "> " + message + " -[KLTContextEvaluator checkConfiguration:]:";
}

// Checks the outcome: admitted with no line, or rejected with exactly the one message.
void expectOutcome(const Outcome& out, const std::string& message) {
  if (message.empty()) {
    EXPECT_TRUE(out.admitted);
    EXPECT_TRUE(out.lines.empty()) << out.lines.front();
    return;
  }
  EXPECT_FALSE(out.admitted);
  ASSERT_EQ(out.lines.size(), 1u);
  EXPECT_EQ(out.lines[0].rfind(expectedLine(message), 0), 0u) << out.lines[0];
}

TEST(KLTContextEvaluatorAdmission, EachStepRejectsWithItsMessage) {
  struct Row {
    const char* patch;  // merged into the admitted campaign; null removes a key
    const char* message;  // empty: admitted
  };
  const std::vector<Row> rows = {
      {"{}", ""},
      {R"({"enabled": null})", "Config disabled"},
      {R"({"enabled": false})", "Config disabled"},
      {R"({"enabled": "no"})", "Config disabled"},
      {R"({"enabled": "YES"})", ""},
      {R"({"enabled": 2})", ""},
      {R"({"enabled": null, "audience": {"hw": {"val": "x"}}, "validity": []})", "Config disabled"},
      {R"({"audience": {"hw": {"val": "iPhone14,3"}}})", "Hardware Model check failed"},
      {R"({"audience": {"hw": {"val": "iphone14,2"}}})", "Hardware Model check failed"},
      {R"({"audience": {"hw": {"val": null}}})", "Hardware Model check failed"},
      {R"({"audience": {"hw": "iPhone14,2"}})", "Hardware Model check failed"},
      {R"({"audience": {"hw": null}})", ""},
      {R"({"audience": {"ver": {"op": "GT"}}})", "Version check failed"},
      {R"({"audience": {"ver": {"op": "GTE", "val": 1}}})", ""},
      {R"({"audience": {"ver": {"op": "EQ", "val": 1}}})", "Version check failed"},
      {R"({"audience": {"ver": {"op": "EQ", "val": 1.0}}})", "Version check failed"},
      {R"({"audience": {"ver": {"op": "NEQ", "val": null}}})", ""},
      {R"({"audience": {"ver": {"op": null}}})", "Version check failed"},
      {R"({"audience": {"ver": null}})", ""},
      {R"({"audience": {"audience_type": "FTU"}})", "FTU condition failed"},
      {R"({"audience": {"audience_type": "ftu"}})", ""},
      {R"({"audience": null})", "Invalid user attrs format"},
      {R"({"audience": {"attributes": {"user": null}}})", "Invalid user attrs format"},
      {R"({"audience": {"attributes": {"user": {}}}})", "Invalid user attrs format"},
      {R"({"audience": {"attributes": {"user": []}}})", ""},
      {R"({"audience": {"attributes": {"user": [{"name": "tier", "value": ["silver"], "operator": "EQ"}]}}})",
       "User attributes mismatch"},
      {R"({"audience": {"attributes": {"user": [{"name": "nope", "value": ["x"], "operator": "EQ"},
           {"name": "age", "value": [30.0], "operator": "NEQ"}]}}})",
       "User attributes mismatch"},
      {R"({"audience": {"attributes": {"user": [{"name": "tier", "value": ["silver"], "operator": "EQ"}],
           "session": null}}})",
       "User attributes mismatch"},
      {R"({"audience": {"attributes": {"session": null}}})", "Invalid session attrs format"},
      {R"({"audience": {"attributes": {"session": "city"}}})", "Invalid session attrs format"},
      {R"({"audience": {"attributes": {"session": [{"name": "city", "value": ["Paris"], "operator": "NEQ"}]}}})",
       "Session attributes mismatch"},
      {R"({"validity": []})", "Invalid validity format"},
      {R"({"validity": "2026"})", "Config doesn't fall in between dates"},
      {R"({"validity": 5})", "Config doesn't fall in between dates"},
      {R"({"validity": null})", "Config doesn't fall in between dates"},
      {R"({"validity": {"start_date": null}})", "Config doesn't fall in between dates"},
      {R"({"validity": {"start_date": "2025-06-01"}})", "Config doesn't fall in between dates"},
      {R"({"validity": {"end_date": null}})", "Config doesn't fall in between dates"},
      {R"({"validity": {"start_date": "2026-01-01T00:00:01Z"}})", "Config doesn't fall in between dates"},
      {R"({"validity": {"end_date": "2025-12-31T23:59:59Z"}})", "Config doesn't fall in between dates"},
      {R"({"validity": {"end_date": "2026-01-01T01:00:00+01:00"}})", ""},
      {R"({"validity": {"start_date": "0001-01-01T00:00:00Z", "end_date": "4050-01-01T00:00:00Z"}})", ""},
      {R"({"validity": {"end_date": "9999-12-31T23:59:59.999Z"}})", ""},
      {R"({"validity": {"start_date": "4050-01-01T00:00:00Z", "end_date": "9999-12-31T23:59:59Z"}})",
       "Config doesn't fall in between dates"},
      {R"({"conditions": null})", ""},
      {R"({"conditions": []})", ""},
      {R"({"conditions": [{"combine_operator": "OR", "details": {"additional_info": {}}}]})",
       "Invalid trigger format"},
      {R"({"conditions": [{"combine_operator": "and"}]})", "Improper combine operator"},
      {R"({"conditions": [{"details": {"additional_info": {}}}]})", "Improper combine operator"},
      {R"({"conditions": ["AND"]})", "Improper combine operator"},
      {R"({"conditions": [{"combine_operator": "OR"}]})", "Invalid details format"},
      {R"({"conditions": [{"combine_operator": "OR", "details": {"additional_info": []}}]})",
       "Invalid additional info format"},
      {R"({"conditions": [{"combine_operator": "OR", "details": {"additional_info": {}}, "trigger": []}]})",
       "Invalid trigger format"},
      {R"({"conditions": [{"combine_operator": "OR", "details": {"additional_info": {}}, "trigger": {}}]})",
       "Invalid trigger details format"},
      {R"({"conditions": [{"combine_operator": "OR", "details": {"additional_info": {}},
           "trigger": {"details": {"additional_info": null}}}]})",
       "Invalid trigger details additional info format"},
      {R"({"conditions": [{"combine_operator": "OR", "details": {"additional_info": {}},
           "trigger": {"details": {"additional_info": {}}}}, {"combine_operator": "XOR"}]})",
       "Improper combine operator"},
  };
  for (const Row& r : rows) {
    SCOPED_TRACE(std::string(r.patch) + " -> " + (*r.message ? r.message : "admitted"));
    KLTValue config = admittedConfig();
    config.merge_patch(J(r.patch));
    expectOutcome(check(config), r.message);
  }
}

TEST(KLTContextEvaluatorAdmission, AnyValueIsACampaignThatIsNotEnabled) {
  for (const char* config : {"null", "[]", R"("enabled")", "true", "7", R"([{"enabled": true}])"}) {
    SCOPED_TRACE(config);
    expectOutcome(check(J(config)), "Config disabled");
  }
}

TEST(KLTContextEvaluatorAdmission, ReadsTheHostAtTheMomentOfTheCheck) {
  struct Row {
    std::function<void(KLTTestHost&)> prepare;
    const char* message;
    const char* note;
  };
  const std::vector<Row> rows = {
      {[](KLTTestHost&) {}, "", "first session admits FTU"},
      {[](KLTTestHost&) { KLTUtilities::setFirstSession(false); }, "FTU condition failed", "later session"},
      {[](KLTTestHost&) { KLTUtilities::setDeviceName("Pixel"); }, "Hardware Model check failed", "other device"},
      {[](KLTTestHost&) { KLTBundle::setShortVersionString("1.1"); }, "Version check failed", "other app version"},
      {[](KLTTestHost&) { KLTBundle::setShortVersionString(std::nullopt); }, "Version check failed", "no app version"},
      {[](KLTTestHost& h) { h.controller().user()->setUserAttributes(J("{}")); }, "", "user lacks the attribute"},
      {[](KLTTestHost& h) { h.controller().user()->setUserAttribute("tier", J(R"(["vip", "gold"])")); }, "",
       "list attribute holding the value"},
      {[](KLTTestHost& h) { h.controller().user()->setUserAttribute("tier", J(R"(["vip"])")); },
       "User attributes mismatch", "list attribute without the value"},
      {[](KLTTestHost& h) { h.controller().session()->setSessionAttribute("city", J(R"("paris")")); },
       "Session attributes mismatch", "case matters"},
  };
  KLTValue config = admittedConfig();
  config["audience"]["audience_type"] = "FTU";
  for (const Row& r : rows) {
    SCOPED_TRACE(r.note);
    expectOutcome(check(config, 0,
                        [&](KLTTestHost& h) {
                          KLTUtilities::setFirstSession(true);
                          r.prepare(h);
                        }),
                  r.message);
  }
}

TEST(KLTContextEvaluatorAdmission, ValidityBoundsAreInclusive) {
  using std::chrono::microseconds;
  const KLTTimePoint start = *KLTUtilities::dateFromKLTDateString(KLTValue("2026-03-01T10:00:00Z"));
  const KLTTimePoint end = *KLTUtilities::dateFromKLTDateString(KLTValue("2026-03-01T12:00:00.250Z"));
  struct Row {
    KLTTimePoint now;
    bool admitted;
    const char* note;
  };
  const std::vector<Row> rows = {
      {start - microseconds(1), false, "just before the start"},
      {start, true, "at the start"},
      {end, true, "at the end"},
      {end + microseconds(1), false, "just after the end"},
  };
  for (const Row& r : rows) {
    SCOPED_TRACE(r.note);
    KLTValue config = admittedConfig();
    config["validity"] = J(R"({"start_date": "2026-03-01T10:00:00Z", "end_date": "2026-03-01T12:00:00.250Z"})");
    expectOutcome(check(config, 0, [&](KLTTestHost& h) { h.clock().setNow(r.now); }),
                  r.admitted ? "" : "Config doesn't fall in between dates");
  }
}

TEST(KLTContextEvaluatorAdmission, LogLevelGatesOnlyTheLines) {
  struct Row {
    long level;
    bool debugShown;
    bool errorShown;
  };
  const std::vector<Row> rows = {
      {0, true, true}, {1, true, true}, {2, false, true}, {3, false, true}, {4, false, false},
  };
  KLTValue disabled = admittedConfig();
  disabled["enabled"] = false;
  KLTValue wrongDevice = admittedConfig();
  wrongDevice["audience"]["hw"]["val"] = "Pixel";
  for (const Row& r : rows) {
    SCOPED_TRACE("LOG_LEVEL " + std::to_string(r.level));
    const Outcome d = check(disabled, r.level);
    EXPECT_FALSE(d.admitted);
    EXPECT_EQ(d.lines.size(), r.debugShown ? 1u : 0u);
    const Outcome e = check(wrongDevice, r.level);
    EXPECT_FALSE(e.admitted);
    ASSERT_EQ(e.lines.size(), r.errorShown ? 1u : 0u);
    if (r.errorShown) {
      EXPECT_EQ(e.lines[0].rfind(expectedLine("Hardware Model check failed"), 0), 0u);
    }
    const Outcome ok = check(admittedConfig(), r.level);
    EXPECT_TRUE(ok.admitted);
    EXPECT_TRUE(ok.lines.empty());
  }
}

}  // namespace
