// The user-defaults store on its own: values read back equal (dates included) after a reopen, a
// write cut off anywhere leaves the last synchronized map, unreadable files are moved aside, failed
// writes are reported and retried, and compaction keeps the content.
#include "platform/KLTUserDefaults.h"

#include <gtest/gtest.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <functional>
#include <random>
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
void writeFile(const fs::path& p, std::string_view data) {
  std::ofstream out(p, std::ios::binary | std::ios::trunc);
  out.write(data.data(), static_cast<std::streamsize>(data.size()));
}

KLTValue counterRecord(int64_t count, int64_t daySeconds) {
  return KLTValue{{"validity", "OVERALL"}, {"limit", 5},          {"count", count},
                  {"day", klt::makeDate(at(daySeconds))}, {"day_count", count % 3}};
}

class KLTUserDefaultsTest : public ::testing::Test {
 protected:
  fs::path path() const { return dir_.path() / "sub" / "store.kltstore"; }
  KLTTempDir dir_;
  KLTScopedLogCapture capture_{2};
};

TEST_F(KLTUserDefaultsTest, ValuesReadBackEqualAfterReopen) {
  struct Row {
    const char* note;
    KLTValue value;
  };
  const std::vector<Row> rows = {
      {"text", "SESSION"},
      {"empty text", ""},
      {"integer", 42},
      {"negative 64-bit integer", int64_t{-9'000'000'000'000}},
      {"floating", 2.5},
      {"boolean", true},
      {"list", KLTValue::array({1, "two", 3.0})},
      {"date", klt::makeDate(at(1'767'225'600) + std::chrono::microseconds(123'456))},
      {"date in 9999", klt::makeDate(at(253'402'300'799) + std::chrono::microseconds(999'999))},
      {"date before the epoch", klt::makeDate(at(-86'400))},
      {"nested dictionary with a date", KLTValue{{"cfg", counterRecord(7, 1'767'225'600)}}},
      {"empty dictionary", KLTValue::object()},
  };
  {
    KLTUserDefaults store(path());
    for (std::size_t i = 0; i < rows.size(); ++i) store.setObject(rows[i].value, "k" + std::to_string(i));
    ASSERT_TRUE(store.synchronize());
    // A second round goes through the journal rather than the snapshot.
    store.setObject(rows.back().value, "late");
    store.setObject(KLTValue{{"cfg", counterRecord(8, 1'767'229'200)}}, "k9");
    ASSERT_TRUE(store.synchronize());
  }
  KLTUserDefaults reopened(path());
  for (std::size_t i = 0; i < rows.size(); ++i) {
    SCOPED_TRACE(rows[i].note);
    const KLTValue expected = i == 9 ? KLTValue{{"cfg", counterRecord(8, 1'767'229'200)}} : rows[i].value;
    const KLTValue got = reopened.objectForKey("k" + std::to_string(i));
    EXPECT_EQ(got, expected) << klt::textForm(got);
    EXPECT_TRUE(klt::isEqual(got, expected));
  }
  EXPECT_TRUE(klt::isDate(reopened.objectForKey("k7")));
  EXPECT_EQ(klt::dateValue(reopened.objectForKey("k9")["cfg"]["day"]), at(1'767'229'200));
  EXPECT_EQ(reopened.objectForKey("late"), KLTValue::object());
  EXPECT_TRUE(reopened.objectForKey("absent").is_null());
  EXPECT_EQ(capture_.log().count("ERROR"), 0);
}

// Regression: the journal replayed a key that was removed and set again in its old position, so
// the reopened map listed its keys in another order than the one that was synchronized.
TEST_F(KLTUserDefaultsTest, ReopenedMapKeepsKeyOrderAfterRemovalsAndReadditions) {
  struct Step {
    const char* note;
    std::function<void(KLTValue&)> change;
  };
  const std::vector<Step> steps = {
      {"add records", [](KLTValue& m) { for (int i = 0; i < 5; ++i) m["id" + std::to_string(i)] = counterRecord(i, 0); }},
      {"change one record", [](KLTValue& m) { m["id2"]["count"] = 99; }},
      {"remove an entry of a record", [](KLTValue& m) { m["id3"].erase("day"); }},
      {"remove and re-add a record", [](KLTValue& m) { auto r = m["id1"]; m.erase("id1"); m["id1"] = r; }},
      {"re-add an entry of a record", [](KLTValue& m) { m["id3"]["day"] = klt::makeDate(at(5)); }},
      {"remove a record", [](KLTValue& m) { m.erase("id0"); }},
      {"add after removal", [](KLTValue& m) { m["id9"] = counterRecord(9, 9); }},
  };
  KLTValue expected = KLTValue::object();
  KLTValue other = "x";
  for (const auto& step : steps) {
    SCOPED_TRACE(step.note);
    {
      KLTUserDefaults store(path());
      step.change(expected);
      store.setObject(expected, "map");
      // A top-level key removed and set again as well.
      store.removeObjectForKey("other");
      store.setObject(other, "other");
      ASSERT_TRUE(store.synchronize());
    }
    KLTUserDefaults reopened(path());
    EXPECT_EQ(reopened.objectForKey("map"), expected) << klt::textForm(reopened.objectForKey("map"));
    EXPECT_EQ(reopened.objectForKey("other"), other);
  }
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
      store.setObject(before, "map");
      ASSERT_TRUE(store.synchronize());
      store.setObject(KLTValue{{"a", counterRecord(0, 0)}}, "map");
      ASSERT_TRUE(store.synchronize());  // a record in the journal before the cut one
      store.setObject(before, "map");
      ASSERT_TRUE(store.synchronize());
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

TEST_F(KLTUserDefaultsTest, JournalTruncatedByHandGivesAWholeEarlierMap) {
  // Saves five maps, noting the journal size after each; then, for every length of the journal,
  // a copy cut to that length must read back as the last map whose record is whole.
  std::vector<KLTValue> maps;
  std::vector<std::uintmax_t> sizes;
  const fs::path original = path();
  {
    KLTUserDefaults store(original);
    for (int i = 0; i < 5; ++i) {
      KLTValue m = KLTValue::object();
      for (int j = 0; j <= i; ++j) m["id" + std::to_string(j)] = counterRecord(i * 10 + j, i * 3600);
      store.setObject(m, "map");
      ASSERT_TRUE(store.synchronize());
      maps.push_back(m);
      sizes.push_back(fs::file_size(store.journalPath()));
    }
  }
  const std::string journal = readFile(KLTUserDefaults(original).journalPath());
  const std::string snap = readFile(original);
  ASSERT_EQ(journal.size(), sizes.back());
  const fs::path copy = dir_.path() / "copy" / "store.kltstore";
  fs::create_directories(copy.parent_path());
  for (std::size_t len = sizes.front(); len <= journal.size(); ++len) {
    SCOPED_TRACE("journal cut to " + std::to_string(len) + " bytes");
    writeFile(copy, snap);
    writeFile(fs::path(copy.string() + ".journal"), std::string_view(journal).substr(0, len));
    std::size_t whole = 0;
    while (whole + 1 < sizes.size() && sizes[whole + 1] <= len) ++whole;
    KLTUserDefaults store(copy);
    ASSERT_EQ(store.objectForKey("map"), maps[whole]);
    // The torn tail is dropped, so the next record lands behind the whole ones.
    store.setObject(maps.back(), "map");
    ASSERT_TRUE(store.synchronize());
    ASSERT_EQ(KLTUserDefaults(copy).objectForKey("map"), maps.back());
  }
  EXPECT_EQ(capture_.log().count("ERROR"), 0);
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
  std::mt19937 rng(7);
  std::string garbage(300, '\0');
  for (auto& ch : garbage) ch = static_cast<char>(rng());
  struct Row {
    const char* note;
    std::string content;
  };
  const std::vector<Row> rows = {
      {"random bytes", garbage},
      {"text file", "{\"klt_frequency_config\": {}}\n"},
      {"empty file", ""},
      {"right magic, cut short", valid.substr(0, 12)},
      {"payload cut short", valid.substr(0, valid.size() - 3)},
      {"payload damaged", flipped},
      {"trailing bytes", valid + "x"},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.note);
    fs::remove_all(path().parent_path());
    fs::create_directories(path().parent_path());
    writeFile(path(), row.content);
    capture_.log().clear();
    {
      KLTUserDefaults store(path());
      EXPECT_TRUE(store.objectForKey("map").is_null());
      EXPECT_EQ(capture_.log().count("<KLT ERROR>"), 1);
      EXPECT_TRUE(capture_.log().contains("-[KLTUserDefaults load]"));
      EXPECT_EQ(readFile(fs::path(path().string() + ".unreadable")), row.content) << "kept for inspection";
      store.setObject(1, "fresh");
      EXPECT_TRUE(store.synchronize());
    }
    EXPECT_EQ(KLTUserDefaults(path()).objectForKey("fresh"), 1);
  }
}

TEST_F(KLTUserDefaultsTest, ReadErrorIsReportedAndStartsEmpty) {
  {
    KLTUserDefaults store(path());
    store.setObject(1, "k");
    ASSERT_TRUE(store.synchronize());
  }
  auto files = std::make_shared<KLTFaultyStoreFiles>();
  files->failNextRead();
  KLTUserDefaults store(path(), files);
  EXPECT_TRUE(store.objectForKey("k").is_null());
  EXPECT_EQ(capture_.log().count("<KLT ERROR>"), 1);
}

TEST_F(KLTUserDefaultsTest, FailedWriteReportsFalseAndALaterSynchronizeSucceeds) {
  struct Row {
    const char* note;
    int goodSyncsFirst;  // 0: the failing write is the first snapshot; later ones are journal appends
    int failures;
  };
  const std::vector<Row> rows = {
      {"first snapshot fails", 0, 1},
      {"journal append fails", 2, 1},
      {"three writes in a row fail", 2, 3},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.note);
    fs::remove_all(path().parent_path());
    auto files = std::make_shared<KLTFaultyStoreFiles>();
    KLTUserDefaults store(path(), files);
    for (int i = 0; i < row.goodSyncsFirst; ++i) {
      store.setObject(i, "n");
      ASSERT_TRUE(store.synchronize());
    }
    const KLTValue saved = store.objectForKey("n");
    files->failNextWrites(row.failures);
    for (int i = 0; i < row.failures; ++i) {
      store.setObject(100 + i, "n");
      EXPECT_FALSE(store.synchronize());
      EXPECT_EQ(KLTUserDefaults(path()).objectForKey("n"), saved);
    }
    EXPECT_TRUE(store.synchronize());
    EXPECT_EQ(KLTUserDefaults(path()).objectForKey("n"), 100 + row.failures - 1);
  }
}

TEST_F(KLTUserDefaultsTest, CompactionKeepsContentAndBoundsTheJournal) {
  KLTValue map = KLTValue::object();
  for (int i = 0; i < 50; ++i) map["id" + std::to_string(i)] = counterRecord(0, i);
  std::uintmax_t largestJournal = 0;
  std::uintmax_t journalBefore = 0;
  int compactions = 0;
  {
    KLTUserDefaults store(path());
    for (int round = 0; round < 1000; ++round) {
      map["id" + std::to_string(round % 50)]["count"] = round;
      store.setObject(map, "map");
      // About 1 KB per record, so that the journal outgrows its limit several times.
      store.setObject(std::string(1000, 'x') + std::to_string(round), "round");
      ASSERT_TRUE(store.synchronize());
      const auto size = fs::file_size(store.journalPath());
      if (size < journalBefore) ++compactions;
      journalBefore = size;
      largestJournal = std::max(largestJournal, size);
      if (round % 331 == 0) {
        KLTUserDefaults reopened(path());
        ASSERT_EQ(reopened.objectForKey("map"), map);
      }
    }
  }
  EXPECT_GE(compactions, 3);
  EXPECT_LT(largestJournal, 300u * 1024u);
  KLTUserDefaults reopened(path());
  EXPECT_EQ(reopened.objectForKey("map"), map);
  EXPECT_EQ(reopened.objectForKey("round"), std::string(1000, 'x') + "999");
}

TEST_F(KLTUserDefaultsTest, MemoryOnlyStoreKeepsValuesAndAlwaysSynchronizes) {
  KLTUserDefaults store{fs::path()};
  store.setObject(KLTValue{{"a", 1}}, "map");
  EXPECT_TRUE(store.synchronize());
  EXPECT_EQ(store.objectForKey("map"), (KLTValue{{"a", 1}}));
  store.removeObjectForKey("map");
  EXPECT_TRUE(store.objectForKey("map").is_null());
}

}  // namespace
