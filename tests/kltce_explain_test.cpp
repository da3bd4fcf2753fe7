// The explanation of a replay: for each way a campaign can end up not firing, the outcome kind a
// program counts and the text a person reads; and the display table of --format text. (Firing,
// then being blocked by a cap, is explained end to end on the shipped example in kltce_tool.cmake.)
#include "tools/kltce/replay/explain.h"

#include <sstream>

#include <gtest/gtest.h>

#include "testsupport/KLTCampaignBuilder.h"
#include "testsupport/KLTCapturedLog.h"
#include "testsupport/KLTTestHost.h"
#include "tools/kltce/replay/display_table.h"
#include "tools/kltce/replay/replay.h"

using namespace kltfixture;
using kltce::OutcomeKind;

namespace {

std::string at(const char* hhmm, const std::string& rest) {
  return std::string(R"({"t":"2026-11-22T)") + hhmm + R"(:00Z",)" + rest + "}\n";
}
const std::string kBuy = R"("type":"app","name":"buy")";
const std::string kShown = R"("action":"shown","id":"c")";

struct Row {
  const char* note;
  KLTValue campaign;
  std::string stream;
  bool rerun;  // replay the stream again on the counters the first run left
  OutcomeKind kind;
  const char* text;
};

KLTValue with(KLTValue c, const char* key, KLTValue v) {
  c[key] = std::move(v);
  return c;
}

kltce::CampaignOutcome outcomeOf(const Row& row, const std::filesystem::path& state) {
  kltce::ReplayOptions options;
  options.document = std::make_shared<const KLTValue>(document({row.campaign}));  // one campaign, "c"
  options.profile.deviceModel = "iPhone14,2";
  options.profile.appVersion = "3.1.9";
  options.zone = KLTTimeZone::fixedOffset(0);
  options.statePath = state;
  std::vector<kltce::CampaignOutcome> outcomes;
  for (int run = 0; run < (row.rerun ? 2 : 1); ++run) {
    std::istringstream in(row.stream);
    std::ostringstream out, err;
    kltce::runReplayWithDecisions(options, {}, in, out, err, err, &outcomes);
  }
  for (const auto& o : outcomes) {
    if (o.campaign == "c") return o;
  }
  return {};
}

TEST(KltceExplain, FurthestPointOfEveryCampaign) {
  const KLTValue buy3 = eventCondition("app_event", "buy", "GTE", 3);
  const KLTValue buy1 = eventCondition("app_event", "buy", "GTE", 1);
  KLTValue openTrigger{{"event_type", "app_event"},
                       {"details", {{"name", "open_app"}, {"additional_info", KLTValue::object()}}},
                       {"time_bounds", {{"lower", kAlways}, {"upper", kForever}}}};
  KLTValue late = buy1;
  late["time_bounds"]["lower"] = kForever - 1;
  const Row rows[] = {
      {"rejected by version",
       with(campaign("c", KLTValue::array({buy1})), "audience",
            {{"ver", {{"val", "3.2"}, {"op", "GTE"}}}, {"attributes", {{"user", KLTValue::array()}, {"session", KLTValue::array()}}}}),
       at("09:00", kBuy), false, OutcomeKind::Rejected, "rejected: app 3.1.9 is not GTE 3.2"},
      {"trigger event absent", campaign("c", KLTValue::array({eventCondition("app_event", "buy", "GTE", 1, "AND", openTrigger)})),
       at("09:00", kBuy), false, OutcomeKind::NeverArmed, "0 of 1 condition held; never armed: no app_event 'open_app' in the stream"},
      {"count short", campaign("c", KLTValue::array({buy1, buy3})), at("09:00", kBuy), false, OutcomeKind::CountShort,
       "1 of 2 conditions held; 'buy' counted 1 of 3 (GTE)"},
      {"out of bounds", campaign("c", KLTValue::array({late})), at("09:00", kBuy), false, OutcomeKind::OutOfBounds,
       "'buy' counted 1 of 1 (GTE) at 2026-11-22T09:00:00Z, outside its time bounds 2099-12-31T23:59:59.999Z"},
      {"no conditions", campaign("c", KLTValue::array()), at("09:00", kBuy), false, OutcomeKind::FoldFalse, "no conditions"},
      {"outside the window",
       with(with(campaign("c", KLTValue::array({buy1})), "time_limits_in_day", true), "time_limits", {{"start_time", "09:00"}, {"end_time", "21:00"}}),
       at("08:10", kBuy) + at("08:30", kBuy), false, OutcomeKind::OutsideWindow, "outside the window 09:00-21:00 at 08:30"},
      {"blocked from the start", with(campaign("c", KLTValue::array({buy1})), "frequency", {{"count", 3}, {"day_lmt", 1}}), at("09:01", kBuy) + at("09:02", kShown), true, OutcomeKind::CapBlocked,
       "blocked by the day limit: day_count 1 >= day_lmt 1"},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.note);
    KLTTempDir dir;
    KLTScopedLogCapture quiet(2);
    const kltce::CampaignOutcome o = outcomeOf(row, dir.path() / "state.kltstore");
    EXPECT_EQ(kltce::outcomeKindName(o.kind), kltce::outcomeKindName(row.kind)) << o.text;
    EXPECT_NE(o.text.find(row.text), std::string::npos) << o.text;
  }
}

}  // namespace
