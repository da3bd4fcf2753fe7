// The daily time window: parsing of "HH:MM" texts, the start-included / end-excluded test on the
// present local hour and minute, and a minute-by-minute sweep of whole days against a model.
#include <gtest/gtest.h>

#include <chrono>
#include <random>
#include <string>
#include <tuple>
#include <vector>

#include "KLTContextEvaluator/KLTCEFrequency.h"
#include "testsupport/KLTTestHost.h"

namespace {

using std::chrono::hours;
using std::chrono::minutes;

constexpr char kOutside[] = "<KLT DEBUG> Doesn't fall in between given time limits -[KLTCETimeLimits currentTimeBetweenLimits]:";

TEST(KLTCETimeLimitsTest, ParsesHourAndMinuteTexts) {
  struct Row {
    KLTValue text;
    int64_t hour, minute;
    const char* note;
  };
  const std::vector<Row> rows = {
      {"09:00", 9, 0, "plain"},
      {"9:5", 9, 5, "single digits"},
      {" 07:30", 7, 30, "leading blank"},
      {"7am:x", 7, 0, "digits up to the first other character"},
      {"0930", 0, 0, "no colon"},
      {"9", 0, 0, "a lone hour"},
      {"abc", 0, 0, "no digits, no colon"},
      {"ab:cd", 0, 0, "no digits"},
      {"12:30:45", 12, 30, "pieces beyond the second are ignored"},
      {":30", 0, 30, "empty hour"},
      {"12:", 12, 0, "empty minute"},
      {"-1:+5", -1, 5, "signs"},
      {"25:75", 25, 75, "no range check"},
      {"99999999999999999999:1", INT64_MAX, 1, "overflow clamps"},
      {"", 0, 0, "empty text"},
      {KLTValue(), 0, 0, "absent"},
      {930, 0, 0, "a number is not a text"},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.note);
    const KLTCETimeLimits asStart(row.text, "23:59");
    EXPECT_EQ(asStart.startTimeHour(), row.hour);
    EXPECT_EQ(asStart.startTimeMin(), row.minute);
    const KLTCETimeLimits asEnd("01:02", row.text);
    EXPECT_EQ(asEnd.endTimeHour(), row.hour);
    EXPECT_EQ(asEnd.endTimeMin(), row.minute);
    EXPECT_EQ(asEnd.startTimeHour(), 1);
    EXPECT_EQ(asEnd.startTimeMin(), 2);
  }
}

TEST(KLTCETimeLimitsTest, WindowEdges) {
  struct Row {
    const char* start;
    const char* end;
    int hour, minute;
    bool inside;
  };
  const std::vector<Row> rows = {
      {"09:00", "17:30", 9, 0, true},     {"09:00", "17:30", 8, 59, false},  {"09:00", "17:30", 17, 29, true},
      {"09:00", "17:30", 17, 30, false},  {"09:00", "17:30", 12, 0, true},   {"09:00", "17:30", 0, 0, false},
      {"10:15", "10:15", 10, 15, false},  {"10:15", "10:15", 10, 14, false}, {"10:15", "10:15", 10, 16, false},
      {"22:00", "02:00", 23, 0, false},   {"22:00", "02:00", 1, 0, false},   {"22:00", "02:00", 22, 0, false},
      {"abc", "12:00", 0, 0, true},       {"abc", "12:00", 11, 59, true},    {"abc", "12:00", 12, 0, false},
      {"00:00", "24:00", 23, 59, true},   {"00:00", "24:00", 0, 0, true},    {"9", "10:00", 0, 0, true},
      {"9", "10:00", 9, 59, true},        {"9", "10:00", 10, 0, false},      {"08:00", "abc", 8, 0, false},
      {"08:00", "abc", 0, 0, false},      {"09:75", "11:00", 9, 59, false},  {"09:75", "11:00", 10, 0, true},
  };
  KLTTestHost host(0);
  int day = 0;  // the virtual clock never goes back: each row on a later day
  for (const auto& row : rows) {
    const std::string note = std::string(row.start) + "-" + row.end + " at " + std::to_string(row.hour) + ":" +
                             std::to_string(row.minute);
    SCOPED_TRACE(note);
    // Local time through the clock's zone: UTC+05:30 moves the instant, not the answer.
    host.clock().setTimeZone(KLTTimeZone::fixedOffset(330));
    host.clock().setNow(KLTTimePoint(std::chrono::sys_days(std::chrono::year(2027) / 1 / 1)) + std::chrono::days(++day) +
                        hours(row.hour) + minutes(row.minute) - minutes(330) + std::chrono::seconds(59));
    ASSERT_EQ(host.clock().localTime().hour, row.hour);
    host.log().clear();
    const KLTCETimeLimits limits(row.start, row.end);
    EXPECT_EQ(limits.currentTimeBetweenLimits(), row.inside);
    EXPECT_EQ(host.log().count(kOutside), row.inside ? 0 : 1);
  }
}

// The window as (hour, minute) pairs: start <= now < end, no wrap.
bool modelInside(int64_t sh, int64_t sm, int64_t eh, int64_t em, int h, int m) {
  const auto now = std::make_tuple(int64_t{h}, int64_t{m});
  return std::make_tuple(sh, sm) <= now && now < std::make_tuple(eh, em);
}

TEST(KLTCETimeLimitsTest, EveryMinuteOfADayMatchesModel) {
  KLTTestHost host(2);  // no DEBUG lines: thousands of answers
  std::mt19937 rng(20261122);
  struct Window {
    std::string start, end;
  };
  std::vector<Window> windows = {{"09:00", "17:30"}, {"22:00", "02:00"}, {"00:00", "24:00"}, {"10:15", "10:15"}};
  // Random windows, including out-of-range hours and minutes.
  for (int i = 0; i < 8; ++i) {
    windows.push_back({std::to_string(rng() % 26) + ":" + std::to_string(rng() % 70),
                       std::to_string(rng() % 26) + ":" + std::to_string(rng() % 70)});
  }
  // A zone with daylight saving too: the sweep follows local wall-clock time through the change.
  const auto paris = KLTTimeZone::named("Europe/Paris");
  ASSERT_NE(paris, nullptr);
  host.clock().setTimeZone(paris);
  for (const auto& w : windows) {
    SCOPED_TRACE(w.start + "-" + w.end);
    const KLTCETimeLimits limits(w.start, w.end);
    // 2027-03-28 is the spring change in Paris; the sweep covers it.
    KLTTimePoint t = KLTTimePoint(std::chrono::sys_days(std::chrono::year(2027) / 3 / 27)) + std::chrono::seconds(30);
    for (int step = 0; step < 2 * 24 * 60; ++step, t += minutes(1)) {
      host.clock().setNow(t);
      const KLTLocalTime local = host.clock().localTime();
      ASSERT_EQ(limits.currentTimeBetweenLimits(),
                modelInside(limits.startTimeHour(), limits.startTimeMin(), limits.endTimeHour(), limits.endTimeMin(),
                            local.hour, local.minute))
          << local.hour << ":" << local.minute;
    }
  }
}

}  // namespace
