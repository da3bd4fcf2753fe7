// The frequency cap: limits read from the document, session and lifetime modes, day periods on
// whole hours, persistence across restarts, last-writer-wins between objects, and a seeded random
// walk against a small model of the counters.
#include "KLTContextEvaluator/KLTCEFrequency.h"

#include <gtest/gtest.h>

#include <chrono>
#include <map>
#include <optional>
#include <random>
#include <string>
#include <vector>

#include "KLTContextEvaluator/KLTCEConstants.h"
#include "testsupport/KLTFaultyStoreFiles.h"
#include "testsupport/KLTTestHost.h"

namespace {

using std::chrono::hours;
using std::chrono::minutes;
using std::chrono::seconds;

constexpr int64_t kNoLimit = 2147483647;

// The count of a record in a map, read as the cap reads it (absent: 0).
int64_t countIn(const KLTValue& map, const std::string& id) {
  return klt::integerValue(klt::valueForKey(klt::valueForKey(map, id), kKLTCount));
}

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

TEST_F(KLTCEFrequencyTest, LimitsReadFromTheDocument) {
  struct Row {
    const char* note;
    KLTValue value;  // used for count, ses_lmt and day_lmt alike
    int64_t expected;
  };
  const std::vector<Row> rows = {
      {"absent", KLTValue(), kNoLimit},
      {"zero", 0, kNoLimit},
      {"negative", -3, kNoLimit},
      {"one", 1, 1},
      {"numeric text", "5", 5},
      {"non-numeric text", "abc", kNoLimit},
      {"floating truncated", 2.9, 2},
      {"floating below one", 0.9, kNoLimit},
      {"true reads 1", true, 1},
      {"beyond 32 bits clamps", int64_t{1} << 40, kNoLimit},
      {"list", KLTValue::array({3}), kNoLimit},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.note);
    KLTValue data = KLTValue::object();
    if (!row.value.is_null()) data = {{"count", row.value}, {"ses_lmt", row.value}, {"day_lmt", row.value}};
    KLTCEFrequency f(data, "cfg");
    const KLTValue record = stored("cfg");
    EXPECT_EQ(record[kKLTLimit], row.expected);
    EXPECT_EQ(record[kKLTSessionLimit], row.expected);
    EXPECT_EQ(record[kKLTDayLimit], row.expected);
  }
}

TEST_F(KLTCEFrequencyTest, MissingOrNonDictionaryFrequencyIsLifetimeWithoutLimits) {
  for (const KLTValue& data : {KLTValue(), KLTValue("SESSION"), KLTValue::array({1})}) {
    SCOPED_TRACE(klt::textForm(data));
    KLTCEFrequency f(data, "cfg");
    const KLTValue record = stored("cfg");
    EXPECT_FALSE(record.contains(kKLTValidity));
    EXPECT_EQ(record[kKLTLimit], kNoLimit);
    EXPECT_TRUE(klt::isDate(record[kKLTDay]));
    for (int i = 0; i < 3; ++i) f.updateFrequencyForIdentifier("cfg");
    EXPECT_TRUE(f.checkValidityAndCountForIdentifier("cfg"));
  }
}

TEST_F(KLTCEFrequencyTest, SessionCapBlocksAfterItsCountAndReopensAtTheNextConstruction) {
  const KLTValue data{{"validity", "SESSION"}, {"count", 2}};
  KLTCEFrequency f(data, "cfg");
  EXPECT_TRUE(f.checkValidityAndCountForIdentifier("cfg"));
  f.updateFrequencyForIdentifier("cfg");
  EXPECT_TRUE(f.checkValidityAndCountForIdentifier("cfg"));
  f.updateFrequencyForIdentifier("cfg");
  EXPECT_FALSE(f.checkValidityAndCountForIdentifier("cfg"));
  EXPECT_EQ(stored("cfg")[kKLTCount], 2);
  // Session mode touches neither the day nor the session counters.
  EXPECT_FALSE(stored("cfg").contains(kKLTDay));
  EXPECT_FALSE(stored("cfg").contains(kKLTSessionCount));

  KLTCEFrequency again = restart(data, "cfg");
  EXPECT_TRUE(again.checkValidityAndCountForIdentifier("cfg"));
  EXPECT_EQ(stored("cfg")[kKLTCount], 0);
}

TEST_F(KLTCEFrequencyTest, LifetimeLimitsSurviveRestarts) {
  struct Row {
    const char* note;
    KLTValue data;
    int allowed;  // showings before the check turns false for good
  };
  const std::vector<Row> rows = {
      {"session limit 3 acts as a lifetime cap", {{"ses_lmt", 3}}, 3},
      {"count 2 with OVERALL", {{"validity", "OVERALL"}, {"count", 2}}, 2},
      {"lower-case session is lifetime mode", {{"validity", "session"}, {"count", 2}}, 2},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.note);
    const std::string id = row.note;
    for (int shown = 0; shown <= row.allowed + 1; ++shown) {
      // Every showing happens in a fresh process, after days have passed.
      host_.clock().advance(hours(50));
      KLTCEFrequency f = restart(row.data, id);
      EXPECT_EQ(f.checkValidityAndCountForIdentifier(id), shown < row.allowed) << "after " << shown << " showings";
      f.updateFrequencyForIdentifier(id);
    }
    EXPECT_EQ(stored(id)[kKLTCount], row.allowed + 2);
  }
}

TEST_F(KLTCEFrequencyTest, DayLimitHidesSessionLimitAndOnlyAConstructionOpensANewPeriod) {
  const KLTValue data{{"day_lmt", 1}, {"ses_lmt", 1}};
  KLTCEFrequency f(data, "cfg");
  EXPECT_TRUE(f.checkValidityAndCountForIdentifier("cfg"));
  f.updateFrequencyForIdentifier("cfg");
  EXPECT_FALSE(f.checkValidityAndCountForIdentifier("cfg"));
  EXPECT_FALSE(stored("cfg").contains(kKLTSessionCount)) << "ses_lmt is never counted while a day limit is set";

  host_.clock().advance(hours(100));
  EXPECT_FALSE(f.checkValidityAndCountForIdentifier("cfg")) << "the check alone never opens a new period";

  KLTCEFrequency next(data, "cfg");
  EXPECT_TRUE(next.checkValidityAndCountForIdentifier("cfg"));
  EXPECT_EQ(stored("cfg")[kKLTDayCount], 0);
  EXPECT_EQ(klt::dateValue(stored("cfg")[kKLTDay]), host_.clock().now());
  next.updateFrequencyForIdentifier("cfg");
  EXPECT_FALSE(next.checkValidityAndCountForIdentifier("cfg"));
}

TEST_F(KLTCEFrequencyTest, DayPeriodEndsAfterMoreThan24WholeHours) {
  struct Row {
    const char* note;
    std::chrono::nanoseconds elapsed;
    bool newPeriod;
  };
  const std::vector<Row> rows = {
      {"just after", seconds(1), false},
      {"24 h exactly", hours(24), false},
      {"24 h 59 min", hours(24) + minutes(59), false},
      {"a microsecond short of 25 h", hours(25) - std::chrono::microseconds(1), false},
      {"25 h", hours(25), true},
      {"a week", hours(24 * 7), true},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.note);
    const std::string id = row.note;
    const KLTValue data{{"day_lmt", 5}};

    // At a construction: a new period restarts the day count at 0.
    KLTCEFrequency f(data, id);
    f.updateFrequencyForIdentifier(id);
    const KLTValue start = stored(id)[kKLTDay];
    host_.clock().advance(row.elapsed);
    KLTCEFrequency rebuilt(data, id);
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

TEST_F(KLTCEFrequencyTest, RecordIsRefreshedNotRebuilt) {
  KLTCEFrequency lifetime(KLTValue{{"validity", "OVERALL"}, {"count", 9}, {"time_interval", {{"h", 1}}}}, "cfg");
  lifetime.updateFrequencyForIdentifier("cfg");
  KLTValue before = stored("cfg");
  EXPECT_EQ(before[kKLTTimeInterval], (KLTValue{{"h", 1}}));
  EXPECT_EQ(before[kKLTSessionCount], 1);

  // Switching to session mode keeps the lifetime keys, unread; time_interval goes with the document.
  KLTCEFrequency session(KLTValue{{"validity", "SESSION"}, {"count", 4}}, "cfg");
  KLTValue after = stored("cfg");
  EXPECT_EQ(after[kKLTValidity], "SESSION");
  EXPECT_EQ(after[kKLTLimit], 4);
  EXPECT_EQ(after[kKLTCount], 0);
  EXPECT_FALSE(after.contains(kKLTTimeInterval));
  for (const char* key : {kKLTSessionLimit, kKLTDayLimit, kKLTDay, kKLTDayCount, kKLTSessionCount}) {
    SCOPED_TRACE(key);
    EXPECT_TRUE(klt::isEqual(after[key], before[key]));
  }

  // And without a validity the key is removed again, while the count carries on.
  KLTCEFrequency none(KLTValue{{"count", 4}}, "cfg");
  EXPECT_FALSE(stored("cfg").contains(kKLTValidity));
  EXPECT_EQ(stored("cfg")[kKLTCount], 0);
}

TEST_F(KLTCEFrequencyTest, LastObjectToSaveWins) {
  KLTCEFrequency first(KLTValue{{"count", 5}}, "a");
  KLTCEFrequency second(KLTValue{{"count", 5}}, "b");  // its copy holds a's record as built
  first.updateFrequencyForIdentifier("a");
  first.updateFrequencyForIdentifier("a");
  EXPECT_EQ(stored("a")[kKLTCount], 2);
  second.updateFrequencyForIdentifier("b");
  EXPECT_EQ(countIn(host_.store()->objectForKey(kKLTFrequencyStoreKey), "a"), 0)
      << "b's older copy of a overwrote a's counters";
  EXPECT_EQ(stored("b")[kKLTCount], 1);
  // Each object still reads its own copy.
  EXPECT_EQ(countIn(first.frequencyConfig(), "a"), 2);

  KLTCEFrequency third = restart(KLTValue{{"count", 5}}, "c");
  EXPECT_EQ(countIn(third.frequencyConfig(), "a"), 0);
  EXPECT_EQ(countIn(third.frequencyConfig(), "b"), 1);
}

TEST_F(KLTCEFrequencyTest, FailedSaveIsLoggedAndTheObjectKeepsCounting) {
  auto files = std::make_shared<KLTFaultyStoreFiles>();
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
      {"map is a list", KLTValue::array({1, 2}), false},
      {"record is a number", {{"cfg", 7}, {"other", {{"count", 3}}}}, true},
      {"day is text", {{"cfg", {{"day", "yesterday"}, {"day_count", 1}}}, {"other", {{"count", 3}}}}, true},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.note);
    host_.store()->setObject(row.map, kKLTFrequencyStoreKey);
    host_.log().clear();
    KLTCEFrequency f(KLTValue{{"day_lmt", 2}}, "cfg");
    const bool malformedRecord = !klt::isDictionary(klt::valueForKey(row.map, "cfg"));
    EXPECT_EQ(host_.log().count("<KLT ERROR>"), malformedRecord ? 1 : 0);
    EXPECT_TRUE(f.checkValidityAndCountForIdentifier("cfg"));
    EXPECT_EQ(stored("cfg")[kKLTDayCount], 0) << "no readable day: a new period";
    EXPECT_EQ(stored("other")[kKLTCount], row.keepsOther ? KLTValue(3) : KLTValue());
  }
  // An update of a record that turned into a non-dictionary starts it afresh.
  host_.store()->setObject(KLTValue{{"x", "bad"}}, kKLTFrequencyStoreKey);
  KLTCEFrequency g(KLTValue(), "y");
  host_.log().clear();
  g.updateFrequencyForIdentifier("x");
  EXPECT_EQ(host_.log().count("<KLT ERROR>"), 1);
  EXPECT_EQ(stored("x")[kKLTCount], 1);
}

// ---- Seeded random walk against a model ----------------------------------------------------

// The counters as plain fields; an absent field reads 0. Time is whole minutes since the start.
struct ModelRecord {
  std::optional<std::string> validity;
  int64_t limit = 0, count = 0, sesLmt = 0, dayLmt = 0, dayCount = 0, sessionCount = 0;
  std::optional<int64_t> day;
};
using ModelMap = std::map<std::string, ModelRecord>;

int64_t modelLimit(int64_t v) { return v < 1 ? kNoLimit : v; }
bool modelNewPeriod(const ModelRecord& r, int64_t now) { return !r.day || (now - *r.day) / 60 > 24; }

struct ModelDoc {
  std::optional<std::string> validity;
  int64_t count = 0, sesLmt = 0, dayLmt = 0;
  KLTValue json() const {
    KLTValue d{{"count", count}, {"ses_lmt", sesLmt}, {"day_lmt", dayLmt}};
    if (validity) d["validity"] = *validity;
    return d;
  }
};

void modelConstruct(ModelMap& copy, const ModelDoc& doc, const std::string& id, int64_t now) {
  ModelRecord& r = copy[id];
  r.validity = doc.validity;
  r.limit = modelLimit(doc.count);
  if (doc.validity == "SESSION") {
    r.count = 0;
    return;
  }
  r.sesLmt = modelLimit(doc.sesLmt);
  r.dayLmt = modelLimit(doc.dayLmt);
  if (modelNewPeriod(r, now)) {
    r.day = now;
    r.dayCount = 0;
  }
}

void modelUpdate(ModelMap& copy, const std::string& id, int64_t now) {
  ModelRecord& r = copy[id];
  if (r.validity != "SESSION") {
    if (r.dayLmt != kNoLimit) {
      if (modelNewPeriod(r, now)) {
        r.day = now;
        r.dayCount = 1;
      } else {
        ++r.dayCount;
      }
    } else {
      ++r.sessionCount;
    }
  }
  ++r.count;
}

bool modelCheck(const ModelMap& copy, const std::string& id) {
  const auto it = copy.find(id);
  const ModelRecord r = it == copy.end() ? ModelRecord{} : it->second;
  if (r.validity == "SESSION") return r.count < r.limit;
  if (r.count >= r.limit) return false;
  if (r.dayLmt != kNoLimit) return r.dayCount < r.dayLmt;
  return r.sessionCount < r.sesLmt;
}

TEST_F(KLTCEFrequencyTest, RandomWalkMatchesModel) {
  const std::vector<std::string> ids = {"a", "b", "c"};
  const std::vector<std::optional<std::string>> validities = {std::nullopt, "SESSION", "OVERALL", "session"};
  const std::vector<int64_t> advances = {0, 1, 59, 60, 24 * 60, 24 * 60 + 59, 25 * 60, 7 * 60, 3 * 24 * 60};
  for (const uint32_t seed : {1u, 2u, 3u}) {
    SCOPED_TRACE("seed " + std::to_string(seed));
    std::mt19937 rng(seed);
    const auto pick = [&](auto n) { return static_cast<std::size_t>(rng() % n); };
    host_.store()->removeObjectForKey(kKLTFrequencyStoreKey);
    ASSERT_TRUE(host_.store()->synchronize());
    const KLTTimePoint origin = host_.clock().now();
    int64_t now = 0;  // minutes since origin
    ModelMap disk;
    std::map<std::string, ModelMap> modelObjects;
    std::map<std::string, std::unique_ptr<KLTCEFrequency>> objects;

    const auto parse = [&] {
      for (const auto& id : ids) {
        ModelDoc doc{validities[pick(validities.size())], static_cast<int64_t>(pick(5)) - 1,
                     static_cast<int64_t>(pick(4)), static_cast<int64_t>(pick(4))};
        ModelMap copy = disk;
        modelConstruct(copy, doc, id, now);
        disk = copy;
        modelObjects[id] = std::move(copy);
        objects[id] = std::make_unique<KLTCEFrequency>(doc.json(), id);
      }
    };
    parse();
    for (int step = 0; step < 300; ++step) {
      const std::size_t action = pick(20);
      const std::string& id = ids[pick(ids.size())];
      std::string what;
      if (action < 8) {
        what = "update " + id;
        modelUpdate(modelObjects[id], id, now);
        disk = modelObjects[id];
        objects[id]->updateFrequencyForIdentifier(id);
      } else if (action < 14) {
        what = "advance";
        now += advances[pick(advances.size())];
        host_.clock().setNow(origin + minutes(now));
      } else if (action < 19) {
        what = "parse";
        parse();
      } else {
        what = "restart";
        objects.clear();
        host_.reopenStore();
        parse();
      }
      SCOPED_TRACE("step " + std::to_string(step) + ": " + what);
      for (const auto& checked : ids) {
        ASSERT_EQ(objects[checked]->checkValidityAndCountForIdentifier(checked),
                  modelCheck(modelObjects[checked], checked))
            << checked << " " << klt::textForm(klt::valueForKey(objects[checked]->frequencyConfig(), checked));
        const ModelRecord& saved = disk[checked];
        ASSERT_EQ(countIn(host_.store()->objectForKey(kKLTFrequencyStoreKey), checked), saved.count) << checked;
      }
    }
  }
}

}  // namespace
