// The frequency cap: session and lifetime modes, day periods on
// whole hours, persistence across restarts, last-writer-wins between objects, damaged records,
// and the daily time window.
#include "KLTContextEvaluator/KLTCEFrequency.h"

#include <gtest/gtest.h>

#include <chrono>
#include <string>
#include <vector>

#include "KLTContextEvaluator/KLTCEConstants.h"
#include "testsupport/KLTTestHost.h"

namespace {

using std::chrono::hours;
using std::chrono::minutes;

constexpr int64_t kNoLimit = 2147483647;

class KLTCEFrequencyTest : public ::testing::Test {
 protected:
  KLTValue stored(const std::string& id) const {
    return klt::valueForKey(host_.store()->objectForKey(kKLTFrequencyStoreKey), id);
  }
  // A restart of the app: the store is read again from its file, and the config parsed again.
  KLTCEFrequency restart(const KLTValue& data, const std::string& id) {
    host_.reopenStore();
    return KLTCEFrequency(data, id);
  }
  KLTTestHost host_{0};
};

// How many showings each document allows, counted with a restart (and days passing) between them,
// or in one process. (The records each document builds: the 10,000-cap model below.)
TEST_F(KLTCEFrequencyTest, ShowingsAllowedByEachMode) {
  struct Row {
    const char* note;
    KLTValue data;
    bool restarts;
    int allowed;
  };
  const std::vector<Row> rows = {
      {"no frequency: no limit", KLTValue(), true, 99},
      {"frequency not a dictionary", KLTValue("SESSION"), true, 99},
      {"session limit 3 acts as a lifetime cap", {{"ses_lmt", 3}}, true, 3},
      {"count 2 with OVERALL", {{"validity", "OVERALL"}, {"count", 2}}, true, 2},
      {"lower-case session is lifetime mode", {{"validity", "session"}, {"count", 2}}, true, 2},
      {"session mode counts from zero at each parse", {{"validity", "SESSION"}, {"count", 2}}, true, 99},
      {"session mode in one process", {{"validity", "SESSION"}, {"count", 2}}, false, 2},
      {"day limit hides the session limit", {{"day_lmt", 2}, {"ses_lmt", 1}}, false, 2},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.note);
    const std::string id = row.note;
    KLTCEFrequency f(row.data, id);
    for (int shown = 0; shown <= std::min(row.allowed, 4); ++shown) {
      if (row.restarts) {
        host_.clock().advance(hours(50));  // every showing in a fresh process, days later
        f = restart(row.data, id);
      }
      EXPECT_EQ(f.checkValidityAndCountForIdentifier(id), shown < row.allowed) << "after " << shown << " showings";
      f.updateFrequencyForIdentifier(id);
    }
  }
}

TEST_F(KLTCEFrequencyTest, DayPeriodEndsAfterMoreThan24WholeHoursAndOnlyAConstructionOrUpdateOpensIt) {
  struct Row {
    const char* note;
    std::chrono::nanoseconds elapsed;
    bool newPeriod;
  };
  const std::vector<Row> rows = {
      {"24 h exactly", hours(24), false},
      {"a microsecond short of 25 h", hours(25) - std::chrono::microseconds(1), false},
      {"25 h", hours(25), true},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.note);
    const std::string id = row.note;
    const KLTValue data{{"day_lmt", 1}};
    // At a construction: a new period restarts the day count at 0.
    KLTCEFrequency f(data, id);
    f.updateFrequencyForIdentifier(id);
    const KLTValue start = stored(id)[kKLTDay];
    host_.clock().advance(row.elapsed);
    EXPECT_FALSE(f.checkValidityAndCountForIdentifier(id)) << "the check alone never opens a new period";
    KLTCEFrequency rebuilt(data, id);
    EXPECT_EQ(rebuilt.checkValidityAndCountForIdentifier(id), row.newPeriod);
    EXPECT_EQ(stored(id)[kKLTDayCount], row.newPeriod ? 0 : 1);
    EXPECT_EQ(klt::isEqual(stored(id)[kKLTDay], start), !row.newPeriod);

    // At an update: a new period restarts the day count at 1, with the showing that opens it.
    const std::string other = id + " (update)";
    KLTCEFrequency viaUpdate(data, other);
    viaUpdate.updateFrequencyForIdentifier(other);
    host_.clock().advance(row.elapsed);
    viaUpdate.updateFrequencyForIdentifier(other);
    EXPECT_EQ(stored(other)[kKLTDayCount], row.newPeriod ? 1 : 2);
    EXPECT_EQ(klt::isEqual(stored(other)[kKLTDay], klt::makeDate(host_.clock().now())), row.newPeriod);
  }
}

TEST_F(KLTCEFrequencyTest, UnknownIdentifierIsBlockedAndAnUpdateCreatesAMinimalRecord) {
  KLTCEFrequency f(KLTValue{{"count", 3}}, "known");
  EXPECT_FALSE(f.checkValidityAndCountForIdentifier("unknown"));
  f.updateFrequencyForIdentifier("unknown");
  const KLTValue expected{{kKLTDay, klt::makeDate(host_.clock().now())}, {kKLTDayCount, 1}, {kKLTCount, 1}};
  EXPECT_EQ(stored("unknown"), expected) << klt::textForm(stored("unknown"));
  EXPECT_TRUE(host_.log().contains("<KLT DEBUG> Updated count for identifier: unknown "
                                   "-[KLTCEFrequency updateFrequencyForIdentifier:]"));
}

TEST_F(KLTCEFrequencyTest, FailedSaveIsLoggedAndTheObjectKeepsCounting) {
  auto files = std::make_shared<KLTStoreFaults>();
  KLTUserDefaults::setStandardUserDefaults(std::make_shared<KLTUserDefaults>(host_.storePath(), files));
  files->failNextWrites(1);
  KLTCEFrequency f(KLTValue{{"count", 2}}, "cfg");
  EXPECT_EQ(host_.log().count("<KLT ERROR> Couldn't save enable SDK state -[KLTCEFrequency initWithData:withIdentifier:]"), 1);
  files->failNextWrites(1);
  f.updateFrequencyForIdentifier("cfg");
  EXPECT_EQ(host_.log().count("<KLT ERROR> Couldn't save enable SDK state -[KLTCEFrequency updateFrequencyForIdentifier:]"), 1);
  EXPECT_FALSE(host_.log().contains("Updated count"));
  f.updateFrequencyForIdentifier("cfg");
  EXPECT_FALSE(f.checkValidityAndCountForIdentifier("cfg"));
  EXPECT_EQ(KLTUserDefaults(host_.storePath()).objectForKey(kKLTFrequencyStoreKey)["cfg"][kKLTCount], 2);
}

TEST_F(KLTCEFrequencyTest, MalformedStoredValuesAreReplacedWithAnError) {
  struct Row {
    const char* note;
    KLTValue map;
    bool keepsOther;
  };
  const std::vector<Row> rows = {
      {"map is text", "garbage", false},
      {"record is a number", {{"cfg", 7}, {"other", {{"count", 3}}}}, true},
      {"day is text", {{"cfg", {{"day", "yesterday"}, {"day_count", 1}}}, {"other", {{"count", 3}}}}, true},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.note);
    host_.store()->setObject(row.map, kKLTFrequencyStoreKey);
    host_.log().clear();
    KLTCEFrequency f(KLTValue{{"day_lmt", 2}}, "cfg");
    EXPECT_EQ(host_.log().count("<KLT ERROR>"), klt::isDictionary(klt::valueForKey(row.map, "cfg")) ? 0 : 1);
    EXPECT_TRUE(f.checkValidityAndCountForIdentifier("cfg"));
    EXPECT_EQ(stored("cfg")[kKLTDayCount], 0) << "no readable day: a new period";
    EXPECT_EQ(stored("other")[kKLTCount], row.keepsOther ? KLTValue(3) : KLTValue());
  }
}

// The daily time window, parsed from "HH:MM" texts: start <= now < end on (hour, minute), no wrap.
TEST(KLTCETimeLimitsTest, ParsesHourAndMinuteTexts) {
  struct Row {
    KLTValue text;
    int64_t hour, minute;
  };
  const std::vector<Row> rows = {
      {"9:5", 9, 5},      {"7am:x", 7, 0},   {"0930", 0, 0},  {"12:30:45", 12, 30}, {":30", 0, 30},
      {"-1:+5", -1, 5},   {"99999999999999999999:1", INT64_MAX, 1}, {KLTValue(), 0, 0},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.text.dump());
    const KLTCETimeLimits limits(row.text, row.text);
    EXPECT_EQ(limits.startTimeHour(), row.hour);
    EXPECT_EQ(limits.startTimeMin(), row.minute);
    EXPECT_EQ(limits.endTimeHour(), row.hour);
    EXPECT_EQ(limits.endTimeMin(), row.minute);
  }
}

// The window holds from its start minute up to, not including, its end minute, and never wraps
// over midnight. Rows go forward through one day, since the clock never moves back.
TEST_F(KLTCEFrequencyTest, DailyWindowIncludesItsStartAndExcludesItsEnd) {
  struct Row {
    const char *start, *end;
    int hour, minute;
    bool inside;
  };
  const std::vector<Row> rows = {
      {"08:00", "22:30", 7, 59, false}, {"08:00", "22:30", 8, 0, true},   {"08:30", "22:00", 8, 29, false},
      {"08:00", "22:00", 21, 59, true}, {"08:00", "22:00", 22, 0, false}, {"08:00", "22:30", 22, 29, true},
      {"08:00", "22:30", 22, 30, false}, {"22:00", "08:00", 23, 0, false},
  };
  host_.clock().setTimeZone(KLTTimeZone::fixedOffset(0));
  const KLTTimePoint midnight = host_.clock().now();  // the fixture's clock starts at 00:00 UTC
  for (const auto& row : rows) {
    SCOPED_TRACE(std::string(row.start) + "-" + row.end + " at " + std::to_string(row.hour) + ":" + std::to_string(row.minute));
    host_.clock().setNow(midnight + hours(row.hour) + minutes(row.minute));
    EXPECT_EQ(KLTCETimeLimits(row.start, row.end).currentTimeBetweenLimits(), row.inside);
  }
}

// 10,000 caps built as one parse (limits of 0, below 1 or beyond 32 bits read as no limit), then displays counted on a few, checked against a model in which
// each object copies the whole map when built and writes that copy back whole at every save (its
// copy is taken only for the objects that count displays: the others never save again). The last
// object to save wins, its older copies of other caps' records included.
TEST_F(KLTCEFrequencyTest, TenThousandCapsMatchAWholeMapCopyModel) {
  constexpr int kCaps = 10'000;
  const std::vector<KLTValue> docs = {
      {{"validity", "SESSION"}, {"count", 3}},
      {{"validity", "OVERALL"}, {"count", 5}, {"day_lmt", 2}, {"time_interval", 60}},
      {{"count", 0}, {"ses_lmt", 4}, {"day_lmt", 0.9}},
      {{"validity", "session"}, {"count", "7"}, {"ses_lmt", int64_t{1} << 40}},
      KLTValue(),
  };
  const KLTValue today = klt::makeDate(host_.clock().now());
  const auto limit = [](const KLTValue& v) -> int64_t { return klt::int32Value(v) < 1 ? kNoLimit : klt::int32Value(v); };
  const auto built = [&](const KLTValue& d) {
    KLTValue r = KLTValue::object();
    if (d.contains("validity")) r["validity"] = d["validity"];
    r["limit"] = limit(klt::valueForKey(d, "count"));
    if (d.contains("time_interval")) r["time_interval"] = d["time_interval"];
    if (r.value("validity", "") == "SESSION") {
      r["count"] = 0;
    } else {
      r["ses_lmt"] = limit(klt::valueForKey(d, "ses_lmt"));
      r["day_lmt"] = limit(klt::valueForKey(d, "day_lmt"));
      r["day"] = today;
      r["day_count"] = 0;
    }
    return r;
  };
  const auto counted = [](KLTValue r) {
    if (r.value("validity", "") != "SESSION") {
      const char* key = r["day_lmt"] != kNoLimit ? "day_count" : "session_count";
      r[key] = r.value(key, 0) + 1;
    }
    r["count"] = r.value("count", 0) + 1;
    return r;
  };
  const auto expectStored = [&](const KLTValue& model, const std::string& when) {
    SCOPED_TRACE(when);
    const KLTValue stored = host_.store()->objectForKey(kKLTFrequencyStoreKey);
    ASSERT_EQ(stored.size(), model.size());
    for (auto it = stored.begin(), m = model.begin(); it != stored.end(); ++it, ++m) {
      ASSERT_EQ(it.key(), m.key());
      ASSERT_EQ(it.value(), m.value()) << it.key();
    }
  };
  const std::vector<int> displays = {9999, 9999, 0, 4999, 1, 9998, 0, 4999, 2};
  const std::string id0 = "cap";
  KLTValue disk = KLTValue::object();  // the stored map, in key order
  std::map<int, KLTValue> copies;      // index -> the model object's whole copy
  std::vector<std::unique_ptr<KLTCEFrequency>> caps;
  for (int i = 0; i < kCaps; ++i) {
    caps.push_back(std::make_unique<KLTCEFrequency>(docs[i % docs.size()], id0 + std::to_string(i)));
    disk[id0 + std::to_string(i)] = built(docs[i % docs.size()]);
    if (std::find(displays.begin(), displays.end(), i) != displays.end()) copies[i] = disk;
  }
  expectStored(disk, "after the parse");
  for (const int i : displays) {
    const std::string id = id0 + std::to_string(i);
    caps[i]->updateFrequencyForIdentifier(id);
    copies[i][id] = counted(copies[i][id]);
    disk = copies[i];  // the whole copy, older records of other caps and all
    expectStored(disk, "display on " + id);
  }
  host_.reopenStore();
  expectStored(disk, "after reopening");
}

}  // namespace
