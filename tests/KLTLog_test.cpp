// Log lines: their three exact formats and their gating by the host's LOG_LEVEL.
#include "platform/KLTLog.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "testsupport/KLTCapturedLog.h"

namespace {

constexpr char kMethod[] = "-[KLTCEFrequency updateFrequencyForIdentifier:]";

TEST(KLTLog, EachLevelLetsThroughExactlyItsLinesAndEvaluatesOnlyThem) {
  struct Row {
    long level;
    bool debug, error;  // INFO lines pass at every level
  };
  const std::vector<Row> rows = {{1, true, true}, {2, false, true}, {3, false, true}, {4, false, false}, {-1, false, false}};
  const auto before = KLTLog::sink();
  for (const auto& r : rows) {
    SCOPED_TRACE("LOG_LEVEL " + std::to_string(r.level));
    KLTScopedLogCapture capture(r.level);
    int evaluated = 0;
    const int line = __LINE__ + 1;
    KLT_LOG_DEBUG(kMethod, (++evaluated, std::string("debug text")));
    KLT_LOG_INFO(kMethod, std::string("info ") + "100% %@");
    KLT_LOG_ERROR(kMethod, (++evaluated, std::string("error text")));
    std::vector<std::string> expected;
    if (r.debug) expected.push_back("<KLT DEBUG> debug text " + std::string(kMethod) + ":" + std::to_string(line) + "\n");
    expected.push_back("<KLT INFO> info 100% %@ " + std::string(kMethod) + ":" + std::to_string(line + 1) + "\n");
    if (r.error) expected.push_back("<KLT ERROR> error text " + std::string(kMethod) + ":" + std::to_string(line + 2) + "\n");
    EXPECT_EQ(capture.log().lines(), expected);
    EXPECT_EQ(evaluated, int{r.debug} + int{r.error}) << "the message of a gated line is not evaluated";
    LOG_LEVEL = 0;  // read at every call
    KLT_LOG_DEBUG(kMethod, "now shown");
    EXPECT_EQ(capture.log().count("now shown"), 1);
  }
  EXPECT_EQ(KLTLog::sink(), before) << "each capture restores the sink it replaced";
}

}  // namespace
