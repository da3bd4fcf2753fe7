// The nesting limit on every value read from outside: documents, event lines and stored values
// nested past it are refused with one message that says where, never by a crash, and values at the
// limit read as before.
#include "platform/KLTValueReader.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>

#include "platform/KLTUserDefaults.h"
#include "testsupport/KLTCapturedLog.h"
#include "testsupport/KLTTestHost.h"
#include "tools/kltce/json_text.h"
#include "tools/kltce/stream_line.h"

namespace {

std::string nested(std::size_t levels) { return std::string(levels, '[') + std::string(levels, ']'); }

struct DepthCase {
  const char* note;
  std::string text;
  const char* error;  // fragment of the expected error; nullptr: read
};

TEST(KLTValueReader, RefusesNestingPastTheLimit) {
  const DepthCase cases[] = {
      {"a document nested 100,000 levels", R"({"configs": )" + nested(100'000) + "}",
       "nested deeper than 256 levels at line 1, column 268"},
      {"a campaign field nested 100,000 levels, on line 2",
       "{\"configs\": [\n  {\"_id\": \"a\", \"meta\": " + nested(100'000) + "}]}",
       "nested deeper than 256 levels at line 2, column 277"},
      {"brackets inside strings do not count", R"({"s": "[[[[{{{{\"[[", "v": )" + nested(255) + "}", nullptr},
      {"exactly at the limit", nested(256), nullptr},
      {"one level past it", nested(257), "at line 1, column 257"},
      {"a syntax error before the depth is a syntax error", "[x" + nested(300), "syntax error"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.note);
    const klt::KLTValueRead r = klt::readJsonText(c.text);
    if (!c.error) {
      EXPECT_TRUE(r.ok()) << r.error;
      continue;
    }
    EXPECT_NE(r.error.find(c.error), std::string::npos) << r.error;
    EXPECT_TRUE(r.value.is_null());
  }
}

TEST(KLTValueReader, ToolNamesTheFileOrLineOfADeepValue) {
  KLTTempDir dir;
  const auto path = dir.path() / "deep.json";
  std::ofstream(path) << R"({"configs": )" << nested(100'000) << "}\n";
  EXPECT_EQ(kltce::loadJsonFile(path).error,
            "'" + path.string() + "' is refused: nested deeper than 256 levels at line 1, column 268");

  const auto line = kltce::parseStreamLine(R"({"type":"app","name":"x","attributes":{"a":)" + nested(100'000) + "}}");
  EXPECT_FALSE(line.line.has_value());
  EXPECT_EQ(line.error, "refused: nested deeper than 256 levels at column 298");
}

TEST(KLTValueReader, StoreWithADeepValueIsMovedAsideNotCrashed) {
  KLTTempDir dir;
  KLTScopedLogCapture log(2);
  const auto path = dir.path() / "store.kltstore";
  KLTValue deep = KLTValue::array();
  for (int i = 0; i < 300; ++i) deep = KLTValue::array({std::move(deep)});
  {
    KLTUserDefaults store(path);
    store.setObject(deep, "deep");
    ASSERT_TRUE(store.synchronize());
  }
  KLTUserDefaults reopened(path);
  EXPECT_TRUE(reopened.objectForKey("deep").is_null());
  EXPECT_TRUE(log.log().contains("Unreadable user defaults store"));

  EXPECT_TRUE(klt::readCbor(std::string(1, '\x81') + std::string(1, '\x80')).ok());  // [[]]
  EXPECT_TRUE(klt::readCbor(std::string(100'000, '\x81')).tooDeep);
}

}  // namespace
