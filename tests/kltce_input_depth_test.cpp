// The nesting limit on every value read from outside: documents, event lines and stored values
// nested past it are refused with one message that says where, never by a crash, and values at the
// limit read as before.
#include <gtest/gtest.h>

#include <fstream>

#include "platform/KLTUserDefaults.h"
#include "platform/KLTValueReader.h"
#include "testsupport/KLTCapturedLog.h"
#include "testsupport/KLTTestHost.h"
#include "tools/kltce/json_text.h"
#include "tools/kltce/stream_line.h"

namespace {

std::string nested(std::size_t levels) { return std::string(levels, '[') + std::string(levels, ']'); }

TEST(KLTValueReader, RefusesNestingPastTheLimitAndSaysWhere) {
  const struct {
    const char* note;
    std::string text;
    const char* error;  // fragment of the expected error; nullptr: read
  } cases[] = {
      {"a document 100,000 deep", R"({"configs": )" + nested(100'000) + "}", "256 levels at line 1, column 268"},
      {"a campaign field, line 2", "{\"configs\": [\n  {\"meta\": " + nested(100'000) + "}]}", "at line 2, column 265"},
      {"brackets inside strings do not count", R"({"s": "[[{{\"[", "v": )" + nested(255) + "}", nullptr},
      {"exactly at the limit", nested(256), nullptr},
      {"one level past it", nested(257), "at line 1, column 257"},
      {"an earlier syntax error wins", "[x" + nested(300), "syntax error"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.note);
    const klt::KLTValueRead r = klt::readJsonText(c.text);
    EXPECT_EQ(r.ok(), c.error == nullptr) << r.error;
    if (c.error) {
      EXPECT_NE(r.error.find(c.error), std::string::npos) << r.error;
    }
  }
  const auto line = kltce::parseStreamLine(R"({"type":"app","name":"x","attributes":{"a":)" + nested(100'000) + "}}");
  EXPECT_EQ(line.error, "refused: nested deeper than 256 levels at column 298");
  KLTTempDir dir;
  std::ofstream(dir.path() / "deep.json") << nested(300) << "\n";
  EXPECT_EQ(kltce::loadJsonFile(dir.path() / "deep.json").error,
            "'" + (dir.path() / "deep.json").string() + "' is refused: nested deeper than 256 levels at line 1, column 257");
}

TEST(KLTValueReader, StoreHoldingADeepValueIsMovedAsideNotCrashed) {
  KLTTempDir dir;
  KLTScopedLogCapture log(2);
  KLTValue deep = KLTValue::array();
  for (int i = 0; i < 300; ++i) deep = KLTValue::array({std::move(deep)});
  {
    KLTUserDefaults store(dir.path() / "store");
    store.setObject(deep, "deep");
    ASSERT_TRUE(store.synchronize());
  }
  EXPECT_TRUE(KLTUserDefaults(dir.path() / "store").objectForKey("deep").is_null());
  EXPECT_TRUE(log.log().contains("Unreadable user defaults store"));
  EXPECT_TRUE(klt::readCbor(std::string(100'000, '\x81')).tooDeep);  // 100,000 nested one-element lists
}

}  // namespace
