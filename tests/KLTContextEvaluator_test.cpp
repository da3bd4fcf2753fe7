// The evaluator's shell: the shared instance and its start-up line, the plug-in operations that
// change nothing, its serial queue and the exported version symbols and constants.
#include "KLTContextEvaluator/KLTContextEvaluator.h"

#include <gtest/gtest.h>

#include <set>
#include <string>
#include <thread>
#include <vector>

#include "KLTContextEvaluator/KLTCEConstants.h"
#include "KLTContextEvaluator/KLTContextEvaluator_vers.h"
#include "testsupport/KLTCapturedLog.h"

namespace {

// The only test here that depends on running first in its process (ctest runs every test in a
// process of its own; run directly, this one comes first by declaration order): the instance is
// created by several threads racing for it, and the start-up line is logged once.
TEST(KLTContextEvaluator, SharedInstanceIsOneObjectAndLogsItsStartUpOnce) {
  KLTScopedLogCapture capture(4);  // INFO lines pass at every level
  constexpr int kThreads = 8;
  std::vector<KLTContextEvaluator*> seen(kThreads, nullptr);
  std::vector<std::thread> threads;
  for (int i = 0; i < kThreads; ++i) {
    threads.emplace_back([&seen, i] { seen[i] = &KLTContextEvaluator::sharedInstance(); });
  }
  for (auto& t : threads) t.join();
  seen.push_back(&KLTContextEvaluator::sharedInstance());
  EXPECT_EQ(std::set<KLTContextEvaluator*>(seen.begin(), seen.end()).size(), 1u);

  const auto lines = capture.log().lines();
  ASSERT_EQ(lines.size(), 1u);
  // The line ends in the source line of the log statement, a positive number.
  const std::string head = "<KLT INFO> CE Plugin (128) - Initialized -[KLTContextEvaluator init]:";
  ASSERT_EQ(lines[0].rfind(head, 0), 0u) << lines[0];
  const std::string line = lines[0].substr(head.size());
  ASSERT_GE(line.size(), 2u) << lines[0];
  EXPECT_EQ(line.back(), '\n') << lines[0];
  EXPECT_EQ(line.find_first_not_of("0123456789"), line.size() - 1) << lines[0];
  EXPECT_NE(line[0], '0') << lines[0];
}

TEST(KLTContextEvaluator, PluginOperationsChangeNothing) {
  KLTContextEvaluator& evaluator = KLTContextEvaluator::sharedInstance();
  KLTScopedLogCapture capture(0);
  const auto queue = evaluator.ceOpsSerialQueue();
  ASSERT_TRUE(queue->waitUntilIdle());
  const auto idsBefore = evaluator.configurationIdentifiers();

  const std::vector<KLTValue> arguments = {
      KLTValue(),
      KLTValue(1),
      KLTValue("start"),
      KLTValue::object({{"configs", KLTValue::array({KLTValue::object({{"_id", "c1"}})})}}),
      KLTValue::array({1, 2}),
      klt::makeDate(KLTTimePoint{}),
  };
  for (const auto& argument : arguments) {
    SCOPED_TRACE(klt::textForm(argument));
    evaluator.initialize(argument);
    EXPECT_FALSE(evaluator.start());
    EXPECT_FALSE(evaluator.stop());
  }
  ASSERT_TRUE(queue->waitUntilIdle());
  EXPECT_EQ(evaluator.configurationIdentifiers(), idsBefore);
  EXPECT_EQ(evaluator.ceOpsSerialQueue(), queue) << "the queue is never replaced";
  EXPECT_TRUE(capture.log().lines().empty()) << "nothing is logged";
}

TEST(KLTContextEvaluator, SerialQueueIsLabelledAndRunsPostedTasks) {
  const auto queue = KLTContextEvaluator::sharedInstance().ceOpsSerialQueue();
  ASSERT_NE(queue, nullptr);
  EXPECT_EQ(queue->label(), "com.kelto.serial.ce_operations");
  bool ranOnQueue = false;
  queue->async([&] { ranOnQueue = queue->isCurrent(); });
  ASSERT_TRUE(queue->waitUntilIdle());
  EXPECT_TRUE(ranOnQueue);
}

TEST(KLTContextEvaluator, VersionSymbolsAndConstants) {
  EXPECT_EQ(kKLTContextEvalutorVersion, 128);
  EXPECT_EQ(KLTContextEvaluatorVersionNumber, 1.0);
  EXPECT_STREQ(KLTContextEvaluatorVersionString, "1.0");
  struct Row {
    const char* constant;
    const char* expected;
  };
  const std::vector<Row> rows = {
      {kKLTCEOpsSerialQueue, "com.kelto.serial.ce_operations"},
      {kKLTFrequencyConfigLocation, "com.kelto.ce.freqency.config.json"},
      {kKLTFrequencyStoreKey, "klt_frequency_config"},
      {kKLTConfigs, "configs"},
      {kKLTConfigId, "_id"},
      {kKLTSessionLimit, "ses_lmt"},
      {kKLTDayLimit, "day_lmt"},
      {kKLTOverall, "OVERALL"},
      {kKLTFTU, "FTU"},
      {kKLTPriority, "prio"},
      {kKLTInLine, "IN_LINE"},
      {kKLTTimeLimitsInDay, "time_limits_in_day"},
      {kKLTAdditionalInfo, "additional_info"},
      {kKLTAppStart, "app_start"},
  };
  for (const auto& r : rows) EXPECT_STREQ(r.constant, r.expected);
}

}  // namespace
