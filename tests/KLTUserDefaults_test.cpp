// The user-defaults store on its own: values read back equal (dates included) after a reopen, a
// write cut off anywhere leaves the last synchronized map and is retried, and unreadable files are
// moved aside. (Compaction under kills is in KLTStoreCrash_test.cpp.)
#include "platform/KLTUserDefaults.h"

#include <gtest/gtest.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <functional>
#include <string>
#include <vector>

#include "testsupport/KLTCapturedLog.h"
#include "testsupport/KLTFaultyStoreFiles.h"
#include "testsupport/KLTTestHost.h"

namespace fs = std::filesystem;

namespace {

KLTTimePoint at(int64_t seconds) { return KLTTimePoint(std::chrono::seconds(seconds)); }

std::string readFile(const fs::path& p) {
  std::ifstream in(p, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(in), {});
}

KLTValue counterRecord(int64_t count, int64_t daySeconds) {
  return KLTValue{{"validity", "OVERALL"}, {"count", count}, {"day", klt::makeDate(at(daySeconds))}};
}

class KLTUserDefaultsTest : public ::testing::Test {
 protected:
  fs::path path() const { return dir_.path() / "sub" / "store.kltstore"; }
  KLTTempDir dir_;
  KLTScopedLogCapture capture_{2};
};

// Each step changes the map and saves it (through the journal after the first); the reopened store
// holds the same values in the same key order. Removed and re-added keys once came back elsewhere.
TEST_F(KLTUserDefaultsTest, ReopenedStoreHoldsTheSynchronizedValuesInTheirOrder) {
  struct Step {
    const char* note;
    std::function<void(KLTValue&)> change;
  };
  const std::vector<Step> steps = {
      {"values of every kind", [](KLTValue& m) {
         m = KLTValue{{"text", ""}, {"int", int64_t{-9'000'000'000'000}}, {"float", 2.5}, {"bool", true},
                      {"list", {1, "two", 3.0}}, {"date", klt::makeDate(at(-86'400) + std::chrono::nanoseconds(123))}};
         for (int i = 0; i < 3; ++i) m["id" + std::to_string(i)] = counterRecord(i, 0);
       }},
      {"change one record", [](KLTValue& m) { m["id2"]["count"] = 99; }},
      {"remove and re-add a record", [](KLTValue& m) { auto r = m["id1"]; m.erase("id1"); m["id1"] = r; }},
      {"remove an entry and add another", [](KLTValue& m) { m["id0"].erase("day"); m["id9"] = counterRecord(9, 9); }},
  };
  KLTValue expected = KLTValue::object();
  for (const auto& step : steps) {
    SCOPED_TRACE(step.note);
    {
      KLTUserDefaults store(path());
      step.change(expected);
      store.setObject(expected, "map");
      store.removeObjectForKey("other");  // a top-level key removed and set again as well
      store.setObject("x", "other");
      ASSERT_TRUE(store.synchronize());
    }
    KLTUserDefaults reopened(path());
    EXPECT_EQ(reopened.objectForKey("map"), expected) << klt::textForm(reopened.objectForKey("map"));
    EXPECT_TRUE(klt::isDate(reopened.objectForKey("map")["date"]));
    EXPECT_EQ(reopened.objectForKey("other"), "x");
  }
  EXPECT_EQ(capture_.log().count("ERROR"), 0);
}

TEST_F(KLTUserDefaultsTest, WriteCutOffAtAnyByteLeavesLastSynchronizedMap) {
  // For every cut point of the next journal record, the failed synchronize leaves the previous
  // map on disk, and a retry in the same process then saves the new one.
  for (std::size_t cut = 0; cut < 200; cut += 3) {
    SCOPED_TRACE("cut after " + std::to_string(cut) + " bytes");
    fs::remove_all(path().parent_path());
    auto files = std::make_shared<KLTFaultyStoreFiles>();
    const KLTValue before{{"a", counterRecord(1, 10)}, {"b", counterRecord(2, 20)}};
    KLTValue after = before;
    after["a"]["count"] = 2;
    after["c"] = counterRecord(3, 30);
    {
      KLTUserDefaults store(path(), files);
      store.setObject(KLTValue{{"a", counterRecord(0, 0)}}, "map");
      ASSERT_TRUE(store.synchronize());
      store.setObject(before, "map");
      ASSERT_TRUE(store.synchronize());  // a record in the journal before the cut one
      files->cutNextWriteAfter(cut);
      store.setObject(after, "map");
      EXPECT_FALSE(store.synchronize());
      EXPECT_EQ(store.objectForKey("map"), after) << "the in-memory map keeps the new values";
      EXPECT_EQ(KLTUserDefaults(path()).objectForKey("map"), before);
      EXPECT_TRUE(store.synchronize());
    }
    EXPECT_EQ(KLTUserDefaults(path()).objectForKey("map"), after);
  }
}

TEST_F(KLTUserDefaultsTest, UnreadableStoreIsMovedAsideAndStartsEmpty) {
  std::string valid;
  {
    KLTUserDefaults store(path());
    store.setObject(KLTValue{{"a", counterRecord(1, 1)}}, "map");
    ASSERT_TRUE(store.synchronize());
    valid = readFile(path());
  }
  std::string flipped = valid;
  flipped[flipped.size() - 2] ^= 0x20;
  for (const std::string& content : {std::string("{\"klt_frequency_config\": {}}\n"), std::string(), valid.substr(0, 12),
                                     valid.substr(0, valid.size() - 3), flipped, valid + "x"}) {
    SCOPED_TRACE(content.size());
    fs::remove_all(path().parent_path());
    fs::create_directories(path().parent_path());
    std::ofstream(path(), std::ios::binary) << content;
    capture_.log().clear();
    {
      KLTUserDefaults store(path());
      EXPECT_TRUE(store.objectForKey("map").is_null());
      EXPECT_EQ(capture_.log().count("-[KLTUserDefaults load]"), 1);
      EXPECT_EQ(readFile(fs::path(path().string() + ".unreadable")), content) << "kept for inspection";
      store.setObject(1, "fresh");
      EXPECT_TRUE(store.synchronize());
    }
    EXPECT_EQ(KLTUserDefaults(path()).objectForKey("fresh"), 1);
  }
  auto files = std::make_shared<KLTFaultyStoreFiles>();
  files->failNextRead();
  capture_.log().clear();
  EXPECT_TRUE(KLTUserDefaults(path(), files).objectForKey("fresh").is_null());
  EXPECT_EQ(capture_.log().count("<KLT ERROR>"), 1) << "a read error is reported";
}

}  // namespace
