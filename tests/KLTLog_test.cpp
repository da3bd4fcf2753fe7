// Log lines: their three exact formats and their gating by the host's LOG_LEVEL.
#include "platform/KLTLog.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "testsupport/KLTCapturedLog.h"

namespace {

constexpr char kMethod[] = "-[KLTCEFrequency updateFrequencyForIdentifier:]";

// Emits one line of each level and returns the source lines of the three statements.
struct EmittedLines {
  int debug, info, error;
};
EmittedLines emitOneOfEach() {
  EmittedLines at{};
  at.debug = __LINE__ + 1;
  KLT_LOG_DEBUG(kMethod, "debug text");
  at.info = __LINE__ + 1;
  KLT_LOG_INFO(kMethod, std::string("info ") + "text");
  at.error = __LINE__ + 1;
  KLT_LOG_ERROR(kMethod, "error text");
  return at;
}

TEST(KLTLog, EachLevelLetsThroughExactlyItsLines) {
  struct Row {
    long level;
    bool debug, info, error;
  };
  const std::vector<Row> rows = {
      {0, true, true, true},     {1, true, true, true},   {2, false, true, true},
      {3, false, true, true},    {4, false, true, false}, {-1, false, true, false},  // -1 is huge unsigned
      {100, false, true, false},
  };
  for (const auto& r : rows) {
    SCOPED_TRACE("LOG_LEVEL " + std::to_string(r.level));
    KLTScopedLogCapture capture(r.level);
    const EmittedLines at = emitOneOfEach();
    std::vector<std::string> expected;
    if (r.debug)
      expected.push_back("<KLT DEBUG> debug text " + std::string(kMethod) + ":" + std::to_string(at.debug) + "\n");
    if (r.info)
      expected.push_back("<KLT INFO> info text " + std::string(kMethod) + ":" + std::to_string(at.info) + "\n");
    if (r.error)
      expected.push_back("<KLT ERROR> error text " + std::string(kMethod) + ":" + std::to_string(at.error) + "\n");
    EXPECT_EQ(capture.log().lines(), expected);
    EXPECT_EQ(KLTLog::enabled(KLTLogLevel::Debug), r.debug);
    EXPECT_EQ(KLTLog::enabled(KLTLogLevel::Info), r.info);
    EXPECT_EQ(KLTLog::enabled(KLTLogLevel::Error), r.error);
  }
}

TEST(KLTLog, GatingIsReadAtEveryCall) {
  KLTScopedLogCapture capture(2);
  KLT_LOG_DEBUG(kMethod, "hidden");
  LOG_LEVEL = 1;
  KLT_LOG_DEBUG(kMethod, "shown");
  LOG_LEVEL = 4;
  KLT_LOG_ERROR(kMethod, "hidden");
  ASSERT_EQ(capture.log().lines().size(), 1u);
  EXPECT_EQ(capture.log().count("shown"), 1);
  EXPECT_EQ(capture.log().count("hidden"), 0);
}

TEST(KLTLog, MessageOfAGatedLineIsNotEvaluated) {
  struct Row {
    long level;
    int debugEvaluations, errorEvaluations;
  };
  const std::vector<Row> rows = {{0, 1, 1}, {2, 0, 1}, {4, 0, 0}, {-5, 0, 0}};
  for (const auto& r : rows) {
    SCOPED_TRACE("LOG_LEVEL " + std::to_string(r.level));
    KLTScopedLogCapture capture(r.level);
    int debugCount = 0, errorCount = 0;
    KLT_LOG_DEBUG(kMethod, (++debugCount, std::string("d")));
    KLT_LOG_ERROR(kMethod, (++errorCount, std::string("e")));
    EXPECT_EQ(debugCount, r.debugEvaluations);
    EXPECT_EQ(errorCount, r.errorEvaluations);
  }
}

TEST(KLTLog, FormatWithEmptyAndOddMessages) {
  EXPECT_EQ(KLTLog::format(KLTLogLevel::Info, "", "-[A b]", 7), "<KLT INFO>  -[A b]:7\n");
  EXPECT_EQ(KLTLog::format(KLTLogLevel::Error, "100% %@ %s", "-[A b:]_block_invoke", 0),
            "<KLT ERROR> 100% %@ %s -[A b:]_block_invoke:0\n")
      << "the message is data, never a format";
}

TEST(KLTLog, CaptureRestoresThePreviousSinkAndLevel) {
  LOG_LEVEL = 2;
  const auto before = KLTLog::sink();
  {
    KLTScopedLogCapture outer(0);
    {
      KLTScopedLogCapture inner(4);
      KLT_LOG_INFO(kMethod, "to inner");
      EXPECT_EQ(inner.log().count("to inner"), 1);
    }
    EXPECT_EQ(LOG_LEVEL.load(), 0);
    KLT_LOG_DEBUG(kMethod, "to outer");
    EXPECT_EQ(outer.log().count("to outer"), 1);
    EXPECT_EQ(outer.log().count("to inner"), 0);
  }
  EXPECT_EQ(LOG_LEVEL.load(), 2);
  EXPECT_EQ(KLTLog::sink(), before);
}

}  // namespace
