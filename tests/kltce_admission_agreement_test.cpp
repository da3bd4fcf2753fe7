// One source of truth for admission: for every campaign of every shipped example and test document,
// under each shipped profile, the engine's admission and the admission part of `kltce check`'s
// report agree (admitted exactly when the report finds nothing against it, and the report's first
// finding names the step the engine rejects at): a step one of them reads otherwise fails here.
#include <filesystem>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "KLTContextEvaluator/KLTContextEvaluator.h"
#include "testsupport/KLTTestHost.h"
#include "tools/kltce/analysis/admission_report.h"
#include "tools/kltce/input/json_text.h"
#include "tools/kltce/input/profile.h"

namespace {

namespace fs = std::filesystem;
const fs::path kSource(KLTCE_SOURCE_DIR);

std::vector<fs::path> documents() {
  std::vector<fs::path> found;
  for (const fs::path& folder : {kSource / "examples", kSource / "examples" / "fleet", kSource / "tests" / "data" / "kltce"}) {
    for (const auto& entry : fs::directory_iterator(folder)) {
      if (entry.path().extension() == ".json") found.push_back(entry.path());
    }
  }
  return found;
}

TEST(AdmissionAgreement, EngineAndCheckAgreeOnEveryShippedCampaign) {
  KLTTestHost host(4);
  host.clock().setNow(KLTTimePoint(std::chrono::seconds(1795341600)));  // 2026-11-22T10:00Z
  auto& engine = KLTContextEvaluator::sharedInstance();
  std::size_t campaigns = 0, rejected = 0;
  for (const fs::path& profilePath : {kSource / "examples" / "profile.json", kSource / "tests" / "data" / "kltce" / "profile.json"}) {
    const auto profile = kltce::parseProfile(kltce::loadJsonFile(profilePath).value);
    ASSERT_TRUE(profile.ok()) << profilePath;
    kltce::applyProfile(profile.profile);
    for (const fs::path& path : documents()) {
      const KLTValue document = kltce::loadJsonFile(path).value;
      const KLTValue& configs = klt::valueForKey(document, "configs");
      if (!configs.is_array()) continue;
      for (std::size_t i = 0; i < configs.size(); ++i) {
        SCOPED_TRACE(path.filename().string() + " configs[" + std::to_string(i) + "] with " + profilePath.filename().string());
        const KLTCEAdmission admission = engine.admissionOfConfiguration(configs[i]);
        const auto findings = kltce::admissionFindings(configs[i]);
        ++campaigns;
        EXPECT_EQ(admission.admitted, findings.empty());
        if (admission.admitted || findings.empty()) continue;
        ++rejected;
        const std::string message = klt::valueForKey(admission.reason, "message").get<std::string>();
        EXPECT_EQ(findings.front().message.rfind(message, 0), 0u) << findings.front().message << " / " << message;
      }
    }
  }
  // The documents hold both kinds, so neither half of the agreement is empty.
  EXPECT_GT(campaigns, 20u);
  EXPECT_GT(rejected, 5u);
}

}  // namespace
