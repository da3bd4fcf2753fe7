// The evaluator: its shared instance and start-up line, and the admission check, whose steps reject in order, each with its own message, read against the
// host at the moment of the check.
#include <chrono>
#include <functional>
#include <set>
#include <thread>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "KLTContextEvaluator/KLTContextEvaluator.h"
#include "platform/KLTDrainedSerialQueue.h"
#include "platform/KLTThreadSerialQueue.h"
#include "host/KLTController.h"
#include "host/KLTUtilities.h"
#include "platform/KLTBundle.h"
#include "testsupport/KLTCapturedLog.h"
#include "testsupport/KLTEngineReset.h"
#include "testsupport/KLTTestHost.h"

namespace {

// The only test here that depends on running first in its process (ctest runs every test in a
// process of its own; run directly, this one comes first by declaration order): the instance is
// created by several threads racing for it, and the start-up line is logged once.
TEST(KLTContextEvaluator, SharedInstanceIsOneObjectLogsItsStartUpOnceAndRefusesStartAndStop) {
  KLTScopedLogCapture capture(4);  // INFO lines pass at every level
  std::vector<KLTContextEvaluator*> seen(8, nullptr);
  std::vector<std::thread> threads;
  for (std::size_t i = 0; i < seen.size(); ++i) {
    threads.emplace_back([&seen, i] { seen[i] = &KLTContextEvaluator::sharedInstance(); });
  }
  for (auto& t : threads) t.join();
  EXPECT_EQ(std::set<KLTContextEvaluator*>(seen.begin(), seen.end()).size(), 1u);
  const auto lines = capture.log().lines();
  ASSERT_EQ(lines.size(), 1u);
  EXPECT_EQ(lines[0].rfind("<KLT INFO> CE Plugin (128) - Initialized -[KLTContextEvaluator init]:", 0), 0u) << lines[0];
  // The plug-in operations change nothing, and the host reads start and stop as refused.
  KLTContextEvaluator::sharedInstance().initialize(KLTValue{{"any", 1}});
  EXPECT_FALSE(KLTContextEvaluator::sharedInstance().start() || KLTContextEvaluator::sharedInstance().stop());
}

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

// Runs the check once on a fresh test host; `prepare` may adjust the host. Expects either
// admission with no line, or rejection with exactly the one message.
void expectOutcome(const KLTValue& config, const std::string& message, const std::function<void(KLTTestHost&)>& prepare = {}) {
  (void)KLTContextEvaluator::sharedInstance();  // its start-up line comes before the capture
  KLTTestHost host(0);
  host.controller().user()->setUserAttributes(J(R"({"tier": "gold", "age": 30})"));
  host.controller().session()->setSessionAttributes(J(R"({"city": "Paris"})"));
  if (prepare) prepare(host);
  const bool admitted = KLTContextEvaluator::sharedInstance().checkConfiguration(config);
  const auto lines = host.log().lines();
  EXPECT_EQ(admitted, message.empty());
  ASSERT_EQ(lines.size(), message.empty() ? 0u : 1u);
  if (message.empty()) return;
  const std::string level = message == "Config disabled" ? "DEBUG" : "ERROR";
  EXPECT_EQ(lines[0].rfind("<KLT " + level + "> " + message + " -[KLTContextEvaluator checkConfiguration:]:", 0), 0u)
      << lines[0];
}

TEST(KLTContextEvaluatorAdmission, EachStepRejectsWithItsMessage) {
  struct Row {
    const char* patch;    // merged into the admitted campaign; null removes a key
    const char* message;  // empty: admitted
  };
  const std::vector<Row> rows = {
      {"{}", ""},
      {R"({"enabled": "no"})", "Config disabled"},
      {R"({"enabled": "YES"})", ""},
      {R"({"enabled": null, "audience": {"hw": {"val": "x"}}, "validity": []})", "Config disabled"},
      {R"({"audience": {"hw": {"val": "iphone14,2"}}})", "Hardware Model check failed"},
      {R"({"audience": {"hw": "iPhone14,2"}})", "Hardware Model check failed"},
      {R"({"audience": {"hw": null}})", ""},
      {R"({"audience": {"ver": {"op": "GTE", "val": 1}}})", ""},
      {R"({"audience": {"ver": {"op": "EQ", "val": 1}}})", "Version check failed"},
      {R"({"audience": {"ver": {"op": null}}})", "Version check failed"},
      {R"({"audience": {"audience_type": "FTU"}})", "FTU condition failed"},
      {R"({"audience": {"audience_type": "ftu"}})", ""},
      {R"({"audience": null})", "Invalid user attrs format"},
      {R"({"audience": {"attributes": {"user": {}}}})", "Invalid user attrs format"},
      {R"({"audience": {"attributes": {"user": []}}})", ""},
      {R"({"audience": {"attributes": {"user": [{"name": "nope", "value": ["x"], "operator": "EQ"},
           {"name": "age", "value": [30.0], "operator": "NEQ"}]}}})",
       "User attributes mismatch"},
      {R"({"audience": {"attributes": {"user": [{"name": "tier", "value": ["silver"], "operator": "EQ"}],
           "session": null}}})",
       "User attributes mismatch"},
      {R"({"audience": {"attributes": {"session": "city"}}})", "Invalid session attrs format"},
      {R"({"audience": {"attributes": {"session": [{"name": "city", "value": ["Paris"], "operator": "NEQ"}]}}})",
       "Session attributes mismatch"},
      {R"({"validity": []})", "Invalid validity format"},
      {R"({"validity": "2026"})", "Config doesn't fall in between dates"},
      {R"({"validity": {"end_date": null}})", "Config doesn't fall in between dates"},
      {R"({"validity": {"end_date": "2026-01-01T01:00:00+01:00"}})", ""},
      {R"({"validity": {"start_date": "0001-01-01T00:00:00Z", "end_date": "4050-01-01T00:00:00Z"}})", ""},
      {R"({"validity": {"end_date": "9999-12-31T23:59:59.999Z"}})", ""},
      {R"({"validity": {"start_date": "4050-01-01T00:00:00Z", "end_date": "9999-12-31T23:59:59Z"}})",
       "Config doesn't fall in between dates"},
      {R"({"conditions": null})", ""},
      {R"({"conditions": [{"combine_operator": "and"}]})", "Improper combine operator"},
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
    expectOutcome(config, r.message);
  }
  expectOutcome(J("[]"), "Config disabled");
}

// The host's device, session, app version, user attributes and clock, read when the check runs.
// The campaign is valid from 10:00 to 12:00:00.250 (both inclusive); rows run at 10:00 unless
// they say otherwise.
TEST(KLTContextEvaluatorAdmission, ReadsTheHostAtTheMomentOfTheCheck) {
  using std::chrono::microseconds;
  const KLTTimePoint start = *KLTUtilities::dateFromKLTDateString(KLTValue("2026-03-01T10:00:00Z"));
  const microseconds open = std::chrono::hours(2) + std::chrono::milliseconds(250);
  const char* outside = "Config doesn't fall in between dates";
  struct Row {
    std::function<void(KLTTestHost&)> prepare;
    const char* message;
    const char* note;
    microseconds sinceStart{0};
  };
  const std::vector<Row> rows = {
      {[](KLTTestHost&) {}, "", "first session admits FTU at the first instant"},
      {[](KLTTestHost&) {}, outside, "a microsecond before the start", microseconds(-1)},
      {[](KLTTestHost&) {}, "", "at the end", open},
      {[](KLTTestHost&) {}, outside, "a microsecond after the end", open + microseconds(1)},
      {[](KLTTestHost&) { KLTUtilities::setFirstSession(false); }, "FTU condition failed", "later session"},
      {[](KLTTestHost&) { KLTBundle::setShortVersionString("1.1"); }, "Version check failed", "other app version"},
      {[](KLTTestHost& h) { h.controller().user()->setUserAttributes(J("{}")); }, "", "user lacks the attribute"},
      {[](KLTTestHost& h) { h.controller().user()->setUserAttribute("tier", J(R"(["vip"])")); },
       "User attributes mismatch", "list attribute without the value"},
  };
  KLTValue config = admittedConfig();
  config["audience"]["audience_type"] = "FTU";
  config["validity"] = J(R"({"start_date": "2026-03-01T10:00:00Z", "end_date": "2026-03-01T12:00:00.250Z"})");
  for (const Row& r : rows) {
    SCOPED_TRACE(r.note);
    expectOutcome(config, r.message, [&](KLTTestHost& h) {
      KLTUtilities::setFirstSession(true);
      h.clock().setNow(start + r.sinceStart);
      r.prepare(h);
    });
  }
}

// Only a list under "configs" is read: any other shape builds nothing; a list builds its items.
TEST(KLTContextEvaluator, OnlyAListOfConfigsBuildsItems) {
  struct Row {
    KLTValue document;
    std::vector<std::string> built;
  };
  const std::vector<Row> rows = {
      {KLTValue{{"configs", KLTValue{{"c1", admittedConfig()}}}}, {}},
      {KLTValue{{"configs", admittedConfig()}}, {}},
      {KLTValue::array({KLTValue{{"configs", KLTValue::array({admittedConfig()})}}}), {}},
      {KLTValue{{"configs", KLTValue::array({admittedConfig()})}}, {"c1"}},
  };
  auto& evaluator = KLTContextEvaluator::sharedInstance();
  for (const auto& row : rows) {
    SCOPED_TRACE(row.document.dump());
    KLTTestHost host(0);
    host.controller().user()->setUserAttributes(J(R"({"tier": "gold"})"));
    host.controller().session()->setSessionAttributes(J(R"({"city": "Paris"})"));
    ASSERT_TRUE(KLTResetEngine(evaluator));
    evaluator.parseConfiguration(row.document);
    host.drainEvaluatorQueue();
    EXPECT_EQ(evaluator.configurationIdentifiers(), row.built);
  }
}

// The engine's queue is chosen once, before the engine's first use; a null queue is never taken.
// The answer says whether the engine then runs on the queue (it does in a process of its own).
TEST(KLTContextEvaluator, QueueIsChosenOnlyBeforeFirstUse) {
  EXPECT_FALSE(KLTContextEvaluator::useSerialQueue(nullptr));
  auto chosen = std::make_shared<KLTThreadSerialQueue>("chosen");
  const bool took = KLTContextEvaluator::useSerialQueue(chosen);
  auto& evaluator = KLTContextEvaluator::sharedInstance();
  EXPECT_EQ(evaluator.ceOpsSerialQueue() == chosen, took);
  auto late = std::make_shared<KLTDrainedSerialQueue>("late");
  EXPECT_FALSE(KLTContextEvaluator::useSerialQueue(late));
  EXPECT_NE(evaluator.ceOpsSerialQueue(), late);
}

}  // namespace
