// Reading values from outside. The nesting limit on documents, event lines and stored values: past
// it they are refused with one message that says where, never by a crash, and values at the limit
// read as before. And the common lines take the one-scan reading. (That the quicker readers of
// small texts and event lines give the library's own reading is held by fuzz_stream_line, over
// seeds that include every case once tabled here: fuzz/corpus/stream_line/reader_*.)
#include <gtest/gtest.h>

#include <fstream>

#include "platform/KLTFastJson.h"
#include "platform/KLTUserDefaults.h"
#include "platform/KLTValueReader.h"
#include "tests/KLTSameStreamLine.h"
#include "testsupport/KLTCapturedLog.h"
#include "testsupport/KLTSameTree.h"
#include "testsupport/KLTTestHost.h"
#include "tools/kltce/input/json_text.h"
#include "tools/kltce/input/plain_stream_line.h"
#include "tools/kltce/input/stream_line.h"

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

// The quicker reader either builds the library's very tree or stands aside, and readJsonText() reads
// every text as the library alone does, errors included.
// {"k0":0,"k1":1,... without its closing brace.
// The common lines take the one-scan reading, which a fallback to the slower readings would hide
// from the table above; what is not plain is left to those readings.
TEST(KLTValueReader, CommonLinesAreReadInOneScan) {
  using kltce::PlainReading;
  const struct {
    const char* text;
    PlainReading reading;
  } cases[] = {
      {R"({"device":"d1","t":1795382378000,"type":"app","name":"x","attributes":{"n":123456789012345678}})", PlainReading::Read},
      {R"({"device":"d1","name":null,"type":"presence"})", PlainReading::Read},
      {R"({"device":"d1","action":"new_session","custom_info":{"c":"d"},"first_session":false})", PlainReading::Read},
      {R"({"device":"d1","type":"app","name":"x","attributes":{"n":1234567890123456789}})", PlainReading::Unsure},
      {R"({"device":"d1","type":"app","name":"x","attributes":{"n":0.5}})", PlainReading::Unsure},
      {R"({"device":"d1","type":"app","name":"x\ty"})", PlainReading::Unsure},
      {R"({"device":"d1","action":"parse"})", PlainReading::NotQuick},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.text);
    kltce::StreamLine line;
    EXPECT_EQ(kltce::readPlainLine(c.text, true, line), c.reading);
  }
}

}  // namespace
