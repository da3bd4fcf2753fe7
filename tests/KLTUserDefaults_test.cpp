// The user-defaults store on its own: values read back equal (dates included) after a reopen, key
// order is kept, unreadable files are moved aside while files the machine cannot open for now are
// left alone, read-only stores never write, and failed writes are reported and retried. (Kills
// during writes and a full file system: KLTStoreCrash_test.)
#include "platform/KLTUserDefaults.h"

#include <gtest/gtest.h>

#include <sqlite3.h>
#include <sys/stat.h>

#include <chrono>
#include <cmath>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iostream>
#include <memory>
#include <string>
#include <vector>

#include "testsupport/KLTCapturedLog.h"
#include "testsupport/KLTTestHost.h"
#include "testsupport/KLTTestMount.h"

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

// Trouble that says nothing of the file's contents: the store holds nothing, never writes, says
// why, and leaves the file where and as it was; once the trouble is gone the values are all there.
TEST_F(KLTUserDefaultsTest, TroubleLeavesTheFileAsItIs) {
  struct Row {
    const char* note;
    // Makes the trouble at path (a store holding "kept" = 1 is there when it returns true); false
    // with a reason to skip the row.
    std::function<bool(const fs::path& path, std::string& skip)> make;
    std::function<void()> end;
    const char* why;
  };
  sqlite3* holder = nullptr;
  std::unique_ptr<KLTTestMount> mount;
  const auto storeAt = [](const fs::path& path) {
    KLTUserDefaults store(path);
    store.setObject(1, "kept");
    return store.synchronize();
  };
  const std::vector<Row> rows = {
      {"locked by another program",
       [&](const fs::path& path, std::string&) {
         if (!storeAt(path) || sqlite3_open(path.c_str(), &holder) != SQLITE_OK) return false;
         return sqlite3_exec(holder, "PRAGMA locking_mode=EXCLUSIVE; BEGIN EXCLUSIVE; UPDATE defaults SET position = position",
                             nullptr, nullptr, nullptr) == SQLITE_OK;
       },
       [&] { sqlite3_close(holder); }, "locked"},
      {"read-only file system",
       [&](const fs::path& path, std::string& skip) {
         mount = std::make_unique<KLTTestMount>(1 << 20);
         if (!mount->mounted()) {
           skip = mount->why();
           return false;
         }
         const fs::path inside = mount->path() / "store.kltstore";
         if (!storeAt(inside)) return false;
         fs::create_symlink(inside, path);
         return mount->setReadOnly(true);
       },
       [&] { mount->setReadOnly(false); }, "read"},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.note);
    fs::remove_all(path().parent_path());
    fs::create_directories(path().parent_path());
    std::string skip;
    if (!row.make(path(), skip)) {
      ASSERT_FALSE(skip.empty()) << "could not make the trouble";
      std::cout << "[ SKIPPED  ] " << row.note << ": " << skip << '\n';
      continue;
    }
    const std::string before = readFile(path());
    capture_.log().clear();
    {
      auto faults = std::make_shared<KLTStoreFaults>();
      faults->setBusyWaitMillis(20);
      KLTUserDefaults store(path(), faults);
      EXPECT_NE(store.unusable().find(row.why), std::string::npos) << store.unusable();
      EXPECT_NE(store.unusable().find("left as it is"), std::string::npos) << store.unusable();
      EXPECT_TRUE(store.objectForKey("kept").is_null());
      store.setObject(2, "kept");
      EXPECT_FALSE(store.synchronize()) << "a store that could not read the file must not overwrite it";
    }
    EXPECT_EQ(capture_.log().count("moved aside"), 0);
    EXPECT_FALSE(fs::exists(path().string() + ".unreadable"));
    EXPECT_TRUE(readFile(path()) == before) << "the file is as it was";
    row.end();
    EXPECT_EQ(KLTUserDefaults(path()).objectForKey("kept"), 1);
  }
}

// What is not a file is never opened (a pipe would wait for a writer for good) nor moved.
TEST_F(KLTUserDefaultsTest, OtherThanARegularFileIsRefused) {
  for (const char* kind : {"folder", "pipe"}) {
    SCOPED_TRACE(kind);
    fs::remove_all(path().parent_path());
    fs::create_directories(path().parent_path());
    if (kind == std::string("folder")) {
      fs::create_directory(path());
    } else {
      ASSERT_EQ(::mkfifo(path().c_str(), 0600), 0);
    }
    for (auto access : {KLTStoreAccess::ReadWrite, KLTStoreAccess::ReadOnly}) {
      KLTUserDefaults store(path(), nullptr, access);
      EXPECT_NE(store.unusable().find(kind == std::string("folder") ? "folder" : "not a regular file"), std::string::npos)
          << store.unusable();
      EXPECT_FALSE(store.synchronize());
    }
    EXPECT_EQ(fs::is_directory(path()), kind == std::string("folder"));
    EXPECT_EQ(fs::is_fifo(path()), kind == std::string("pipe"));
  }
}

// A read-only store reads a sound file; a damaged one it reports and leaves in place.
TEST_F(KLTUserDefaultsTest, ReadOnlyStoreNeverWrites) {
  {
    KLTUserDefaults store(path());
    store.setObject(KLTValue{{"n", 1}}, "map");
    ASSERT_TRUE(store.synchronize());
  }
  {
    KLTUserDefaults store(path(), nullptr, KLTStoreAccess::ReadOnly);
    EXPECT_TRUE(store.unusable().empty()) << store.unusable();
    EXPECT_EQ(store.objectForKey("map"), (KLTValue{{"n", 1}}));
    store.setObject(KLTValue{{"n", 2}}, "map");
    EXPECT_FALSE(store.synchronize());
  }
  EXPECT_EQ(KLTUserDefaults(path()).objectForKey("map"), (KLTValue{{"n", 1}}));

  const std::string garbage(3000, '\xA5');
  fs::remove_all(path().parent_path());
  fs::create_directories(path().parent_path());
  writeFile(path(), garbage);
  capture_.log().clear();
  KLTUserDefaults store(path(), nullptr, KLTStoreAccess::ReadOnly);
  EXPECT_NE(store.unusable().find("is damaged (file is not a database)"), std::string::npos) << store.unusable();
  EXPECT_EQ(capture_.log().count("moved aside"), 0);
  EXPECT_TRUE(readFile(path()) == garbage);
  EXPECT_FALSE(fs::exists(path().string() + ".unreadable"));
}

}  // namespace
