// `kltce check` without a process: the engine's own rejection reasons, findings only for admitted
// campaigns, the exit status, and the JSON report scripts read.
#include "tools/kltce/check.h"

#include <sstream>

#include <gtest/gtest.h>

#include "testsupport/KLTCapturedLog.h"
#include "tools/kltce/json_text.h"
#include "tools/kltce/time_text.h"

namespace {

const std::filesystem::path kData = std::filesystem::path(KLTCE_SOURCE_DIR) / "tests" / "data" / "kltce";

kltce::CheckOptions optionsFor(const char* document) {
  kltce::CheckOptions o;
  o.document = kltce::loadJsonFile(kData / document).value;
  o.profile = kltce::parseProfile(kltce::loadJsonFile(kData / "profile.json").value).profile;
  o.at = kltce::readInstant(KLTValue("2026-11-22T09:00:00Z"));
  return o;
}

TEST(KltceCheck, VerdictsCarryTheEnginesReasons) {
  auto options = optionsFor("flawed.json");
  options.json = true;
  std::ostringstream out, err;
  int rc;
  {
    KLTScopedLogCapture quiet(2);
    rc = kltce::runCheck(options, out, err);
  }
  EXPECT_EQ(rc, 1);
  const KLTValue report = KLTValue::parse(out.str());
  ASSERT_EQ(report["campaigns"].size(), 4u);
  struct Row {
    std::size_t index;
    bool admitted;
    const char* reason;
    std::vector<std::string> where;
  } rows[] = {
      {0, true, "", {"meta.type", "time_limits", "conditions[0].time_bounds", "conditions[0]", "conditions[0].trigger",
                     "conditions[1].time_bounds", "conditions[1].trigger"}},
      {1, true, "", {"_id", "conditions[0].details.additional_info.time", "conditions[0].trigger"}},
      {2, false, "Version check failed", {}},
      {3, false, "Config disabled", {}},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.index);
    const KLTValue& c = report["campaigns"][row.index];
    EXPECT_EQ(c["admitted"], row.admitted);
    if (!row.admitted) {
      EXPECT_EQ(c["reason"], row.reason);
    }
    std::vector<std::string> where;
    for (const auto& f : c["findings"]) where.push_back(f["where"]);
    EXPECT_EQ(where, row.where);
  }
  EXPECT_EQ(report["errors"], 2);
  EXPECT_EQ(report["rejected"], 2);
  EXPECT_EQ(err.str(), "");
}

TEST(KltceCheck, SoundDocumentPassesAndDatesFollowTheCheckTime) {
  auto options = optionsFor("campaigns.json");
  std::ostringstream out, err;
  KLTScopedLogCapture quiet(2);
  EXPECT_EQ(kltce::runCheck(options, out, err), 0);
  EXPECT_EQ(out.str(), "tap_promo: admitted\nidle_survey: admitted\n2 campaigns: 2 admitted, 0 rejected; 0 errors, 0 warnings\n");

  options.at = kltce::readInstant(KLTValue("2028-01-01T00:00:00Z"));
  std::ostringstream late;
  EXPECT_EQ(kltce::runCheck(options, late, err), 1);
  EXPECT_NE(late.str().find("tap_promo: rejected: Config doesn't fall in between dates"), std::string::npos) << late.str();
}

TEST(KltceCheck, MalformedDocumentsAreRefused) {
  for (const char* text : {R"([1])", R"({"configs": 3})"}) {
    SCOPED_TRACE(text);
    auto options = optionsFor("campaigns.json");
    options.document = KLTValue::parse(text);
    std::ostringstream out, err;
    EXPECT_EQ(kltce::runCheck(options, out, err), 2);
    EXPECT_EQ(out.str(), "");
    EXPECT_FALSE(err.str().empty());
  }
}

}  // namespace
