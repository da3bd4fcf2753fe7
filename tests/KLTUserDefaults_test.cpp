// The user-defaults store on its own: values read back equal (dates included) after a reopen, key
// order is kept, unreadable files are moved aside, and failed writes are reported and retried. (Kills during writes: KLTStoreCrash_test.)
#include "platform/KLTUserDefaults.h"

#include <gtest/gtest.h>

#include <sqlite3.h>

#include <chrono>
#include <cmath>
#include <filesystem>
#include <fstream>
#include <functional>
#include <string>
#include <vector>

#include "testsupport/KLTCapturedLog.h"
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
      {"negative 64-bit integer", int64_t{-9'000'000'000'000}},
      {"floating", 2.5},
      {"boolean", true},
      {"list", KLTValue::array({1, "two", 3.0, true})},
      {"date", klt::makeDate(at(1'767'225'600) + std::chrono::microseconds(123'456))},
      {"date in 9999", klt::makeDate(at(253'402'300'799) + std::chrono::microseconds(999'999))},
      {"date before the epoch", klt::makeDate(at(-86'400))},
      {"nested dictionary with a date", KLTValue{{"cfg", counterRecord(7, 1'767'225'600)}}},
      {"dictionaries shaped like stored tags", KLTValue{{"a", {{"$date", 5}}}, {"b", {{"$dict", {{"$date", "x"}}}}}}},
      {"infinite floats", KLTValue::array({HUGE_VAL, -HUGE_VAL})},
      {"empty dictionary", KLTValue::object()},
  };
  {
    KLTUserDefaults store(path());
    for (std::size_t i = 0; i < rows.size(); ++i) store.setObject(rows[i].value, "k" + std::to_string(i));
    ASSERT_TRUE(store.synchronize());
    // A second round changes single entries.
    store.setObject(rows.back().value, "late");
    store.setObject(KLTValue{{"cfg", counterRecord(8, 1'767'229'200)}}, "k5");
    ASSERT_TRUE(store.synchronize());
  }
  KLTUserDefaults reopened(path());
  for (std::size_t i = 0; i < rows.size(); ++i) {
    SCOPED_TRACE(rows[i].note);
    const KLTValue expected = i == 5 ? KLTValue{{"cfg", counterRecord(8, 1'767'229'200)}} : rows[i].value;
    const KLTValue got = reopened.objectForKey("k" + std::to_string(i));
    EXPECT_EQ(got, expected) << klt::textForm(got);
  }
  EXPECT_EQ(reopened.objectForKey("late"), KLTValue::object());
  EXPECT_EQ(capture_.log().count("ERROR"), 0);
}

TEST_F(KLTUserDefaultsTest, ReopenedMapKeepsKeyOrderAfterRemovalsAndReadditions) {
  struct Step {
    const char* note;
    std::function<void(KLTValue&)> change;
  };
  const std::vector<Step> steps = {
      {"add records", [](KLTValue& m) { for (int i = 0; i < 5; ++i) m["id" + std::to_string(i)] = counterRecord(i, 0); }},
      {"remove and re-add an entry of a record", [](KLTValue& m) { m["id3"].erase("day"); m["id3"]["day"] = klt::makeDate(at(5)); }},
      {"remove and re-add a record", [](KLTValue& m) { auto r = m["id1"]; m.erase("id1"); m["id1"] = r; }},
      {"remove a record, add another", [](KLTValue& m) { m.erase("id0"); m["id9"] = counterRecord(9, 9); }},
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

TEST_F(KLTUserDefaultsTest, UnreadableStoreIsMovedAsideAndStartsEmpty) {
  // A database whose stored value text does not read back.
  const fs::path bad = dir_.path() / "bad";
  {
    sqlite3* db = nullptr;
    sqlite3_open(bad.c_str(), &db);
    sqlite3_exec(db,
                 "CREATE TABLE defaults(key TEXT PRIMARY KEY, position INTEGER NOT NULL, value TEXT);"
                 "CREATE TABLE entries(key TEXT, entry TEXT, position INTEGER, value TEXT);"
                 "INSERT INTO defaults VALUES ('k', 0, '{not json');",
                 nullptr, nullptr, nullptr);
    sqlite3_close(db);
  }
  struct Row {
    const char* note;
    std::string content;
    const char* why;
  };
  const std::vector<Row> rows = {
      {"arbitrary bytes", std::string(3000, '\xA5'), "file is not a database"},
      {"value that does not read back", readFile(bad), "a stored value cannot be read"},
      {"earlier snapshot format", std::string("KLTSNAP1") + std::string(40, '\1'), "earlier snapshot format"},
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
      EXPECT_TRUE(capture_.log().contains(row.why));
      EXPECT_TRUE(readFile(fs::path(path().string() + ".unreadable")) == row.content) << "kept for inspection";
      store.setObject(1, "fresh");
      EXPECT_TRUE(store.synchronize());
    }
    EXPECT_EQ(KLTUserDefaults(path()).objectForKey("fresh"), 1);
  }
}

// The first write of a new store fails, then two more after a good one; the file keeps the last
// good state each time and the next synchronize writes the latest values.
TEST_F(KLTUserDefaultsTest, FailedWriteReportsFalseAndALaterSynchronizeSucceeds) {
  auto faults = std::make_shared<KLTStoreFaults>();
  KLTUserDefaults store(path(), faults);
  const KLTValue none;
  for (const auto& [failures, saved] : {std::pair{1, none}, std::pair{2, KLTValue{{"n", 0}}}}) {
    SCOPED_TRACE(failures);
    faults->failNextWrites(failures);
    for (int i = 1; i <= failures; ++i) {
      store.setObject(KLTValue{{"n", i}}, "map");
      EXPECT_FALSE(store.synchronize());
      EXPECT_EQ(KLTUserDefaults(path()).objectForKey("map"), saved);
    }
    EXPECT_TRUE(store.synchronize());
    EXPECT_EQ(KLTUserDefaults(path()).objectForKey("map"), (KLTValue{{"n", failures}}));
    store.setObject(KLTValue{{"n", 0}}, "map");
    ASSERT_TRUE(store.synchronize());
  }
}

}  // namespace
