// Reading values from outside. The nesting limit on documents, event lines and stored values: past
// it they are refused with one message that says where, never by a crash, and values at the limit
// read as before. And the quicker readers of small texts and event lines, held to the library's
// own reading.
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
std::string manyKeys(int n) {
  std::string text = "{";
  for (int i = 0; i < n; ++i) text += (i ? ",\"k" : "\"k") + std::to_string(i) + "\":" + std::to_string(i);
  return text;
}

TEST(KLTValueReader, QuickReaderBuildsTheLibrarysTreeOrStandsAside) {
  const struct {
    std::string text;
    bool quick;  // whether the quicker reader answers
  } cases[] = {
      {R"({"t":1795382378000,"type":"client","name":"a","attributes":{"s":"é","n":-3,"f":2.5,"b":true,"z":null,"l":[1,"x",{}]}})", true},
      {" 0 ", true},
      {"-0", false},  // a signed zero to the library
      {"[1,-0.0]", true},  // a floating zero keeps its sign either way
      {"18446744073709551615", true},
      {"18446744073709551616", false},  // past 64 bits: a floating number to the library
      {"-9223372036854775808", true},
      {"-9223372036854775809", false},
      {"[1e400]", false},
      {"[1e-400, 1.5e3, 0.1, 4.9e-324]", true},
      {R"({"a":1,"b":2,"a":[3]})", true},  // a repeated key: first place, last value
      {manyKeys(20) + R"(,"k3":"x","k0":[1],"k3":null})", true},  // the same in a large object
      {R"(["\u00e9\ud83d\ude00"])", false},
      {R"(["\ud800"])", false},
      {"[\"a\tb\"]", false},  // a control character inside a text
      {"[\"\xff\"]", false},
      {"\xef\xbb\xbf{}", false},
      {"{} x", false},
      {" ", false},
      {"{\"a\":}", false},
      {nested(256), true},
      {nested(257), false},
      {"[" + std::string(70'000, ' ') + "]", false},  // past the size the quicker reader takes
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.text.substr(0, 80));
    const auto quick = klt::readJsonFast(c.text);
    const klt::KLTValueRead library = klt::readJsonTextByLibrary(c.text);
    EXPECT_EQ(quick.has_value(), c.quick);
    if (quick) {
      EXPECT_TRUE(library.ok() && kltfixture::sameTree(*quick, library.value)) << library.value.dump();
    }
    const klt::KLTValueRead read = klt::readJsonText(c.text);
    EXPECT_EQ(read.error, library.error);
    EXPECT_TRUE(kltfixture::sameTree(read.value, library.value));
  }
}

// A common line read straight from its text is the line the general reading makes of the library's
// tree (a fleet's "device" taken out); any other line is left to the general reading.
TEST(KLTValueReader, QuickLineIsTheGeneralReadingOrStandsAside) {
  const struct {
    const char* text;
    bool device;  // a fleet's line
    bool quick;   // whether the quick reading answers
  } cases[] = {
      {R"({"t":1795382378000,"type":"app","name":"buy","attributes":{"plan":"gold","n":[1,{"x":null}]}})", false, true},
      {R"({"type":"presence"})", false, true},
      {R"({"type":"presence","name":null,"attributes":null,"t":null})", false, true},
      {R"({"t":"2026-11-22T09:00:00+01:00","type":"activity","name":"Home"})", false, true},
      {R"({"t":1.7953823785e12,"type":"client","name":"c"})", false, true},
      {R"({"device":"d1","t":1795382378000,"type":"client","name":"c"})", true, true},
      {R"({"device":"d1","type":"client","name":"c"})", false, false},  // a key run lines do not know
      {R"({"type":"app","name":null})", false, false},                    // an error: a name is needed
      {R"({"type":"app"})", false, false},
      {R"({"type":"app","name":"x","name":"y"})", false, false},          // a repeated key
      {R"({"type":"app","name":"x","colour":1})", false, false},          // an unknown key, noted
      {R"({"type":"app","name":"x","attributes":[1]})", false, false},
      {R"({"type":"app","name":"x","attributes":{"z":-0}})", false, false},
      {R"({"type":"screen","name":"x"})", false, false},
      {R"({"type":4,"name":"x"})", false, false},
      {R"({"type":"app","name":7})", false, false},
      {R"({"t":"yesterday","type":"app","name":"x"})", false, false},
      {R"({"t":253402300800000,"type":"app","name":"x"})", false, false},
      {R"({"t":true,"type":"app","name":"x"})", false, false},
      {R"({"t":1795382378000,"action":"shown","id":"x"})", false, true},
      {R"({"device":"d1","id":"x","action":"shown"})", true, true},
      {R"({"action":"shown","id":7})", false, false},
      {R"({"action":"shown","id":"x","name":"y"})", false, false},
      {R"({"action":"new_session","attributes":{"a":1},"custom_info":{"c":"d"},"first_session":true})", false, true},
      {R"({"action":"new_session","custom_info":null,"first_session":null,"attributes":null})", false, true},
      {R"({"action":"new_session","first_session":"yes"})", false, false},
      {R"({"action":"new_session","custom_info":{"c":[1]}})", false, false},
      {R"({"action":"parse"})", false, false},
      {R"({"type":"app","name":"x","action":"shown","id":"x"})", false, false},
      {R"({"type":"app","name":"\u0041"})", false, false},
      {R"([{"type":"app","name":"x"}])", false, false},
      {R"({"type":"app","name":"x"} {})", false, false},
      // Plain lines, and lines a little less than plain.
      {"{ \"type\" : \"app\" ,\t\"name\":\"caf\xc3\xa9 au lait\" }\r", false, true},
      {R"({"type":"app","name":"x","attributes":{"a":1,"b":-2,"a":true,"c":null,"d":false,"e":""}})", false, true},
      {R"({"type":"app","name":"x","attributes":{"a":1,"b":0.5,"a":"z"}})", false, true},
      {R"({"type":"app","name":"x","t":-1000})", false, true},
      {R"({"type":"app","name":"say \"hi\""})", false, true},
      {R"({"type":"app","name":"x","t":123456789012345678901})", false, false},
      {"{\"type\":\"app\",\"name\":\"\xff\"}", false, false},
      {"{\"type\":\"app\",\"name\":\"a\tb\"}", false, false},
      {R"({"type":"app","name":"x","attributes":{"a":01}})", false, false},
      {R"({"type":"app","name":"x",})", false, false},
      {R"({"type":"app","name":"x","attributes":{"a":nul}})", false, false},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.text);
    kltce::StreamLine quick;
    const bool taken = kltce::readStreamLineQuickly(c.text, c.device, quick);
    EXPECT_EQ(taken, c.quick);
    if (!taken) continue;
    KLTValue tree = klt::readJsonTextByLibrary(c.text).value;
    tree.erase("device");
    const kltce::LineResult general = kltce::streamLineFromObject(tree);
    ASSERT_TRUE(general.line.has_value()) << general.error;
    EXPECT_TRUE(kltfixture::sameStreamLine(quick, *general.line));
  }
}

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
