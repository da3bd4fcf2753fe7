// Host utilities: reading ISO 8601 date-times, the non-empty text test and the device facts.
#include "host/KLTUtilities.h"

#include <gtest/gtest.h>

#include <optional>
#include <string>
#include <vector>

namespace {

using namespace std::chrono;

KLTTimePoint utc(int y, unsigned mo, unsigned d, int h, int mi, int s) {
  return KLTTimePoint(sys_days(year(y) / month(mo) / day(d)) + hours(h) + minutes(mi) + seconds(s));
}

TEST(KLTUtilities, DateFromKLTDateStringAccepts) {
  const KLTTimePoint ten = utc(2026, 11, 22, 10, 0, 0);
  struct Row {
    const char* text;
    KLTTimePoint expected;
    const char* note;
  };
  const std::vector<Row> rows = {
      {"2026-11-22T10:00:00Z", ten, "UTC"},
      {"2026-11-22t10:00:00z", ten, "lower-case t and z"},
      {"2026-11-22T10:00:00.5Z", ten + 500ms, "one fractional digit"},
      {"2026-11-22T10:00:00.123456Z", ten + 123456us, "microseconds"},
      {"2026-11-22T10:00:00.1234567891Z", ten + 123456us, "digits beyond microseconds are dropped"},
      {"0001-01-01T00:00:00Z", utc(1, 1, 1, 0, 0, 0), "the first instant a date can write"},
      {"9999-12-31T23:59:59.999999+00:00", utc(9999, 12, 31, 23, 59, 59) + 999999us, "the last one"},
      {"4048-02-29T12:00:00+14:00", utc(4048, 2, 28, 22, 0, 0), "a leap day far past 2262"},
      {"2026-11-22T10:00:00.000Z", ten, "zero fraction"},
      {"2026-11-22T11:30:00+01:30", ten, "+hh:mm offset"},
      {"2026-11-22T05:00:00-05:00", ten, "-hh:mm offset"},
      {"2026-11-22T15:45:00+0545", ten, "+hhmm offset"},
      {"2026-11-22T10:00:00+00:00", ten, "zero offset"},
      {"2026-11-23T00:30:00+14:30", ten, "offset crossing midnight"},
      {"2026-11-22T10:00:00.250-00:30", ten + 30min + 250ms, "fraction and negative offset"},
      {"2024-02-29T00:00:00Z", utc(2024, 2, 29, 0, 0, 0), "leap day"},
      {"1970-01-01T00:00:00Z", KLTTimePoint{}, "epoch"},
      {"1969-12-31T23:59:59Z", KLTTimePoint{} - 1s, "before the epoch"},
      {"2026-12-31T23:59:59Z", utc(2026, 12, 31, 23, 59, 59), "last second of the year"},
  };
  for (const auto& r : rows) {
    SCOPED_TRACE(std::string(r.note) + ": " + r.text);
    const auto got = KLTUtilities::dateFromKLTDateString(KLTValue(r.text));
    ASSERT_TRUE(got.has_value());
    EXPECT_EQ(*got, r.expected);
  }
}

TEST(KLTUtilities, DateFromKLTDateStringRejects) {
  struct Row {
    KLTValue value;
    const char* note;
  };
  const std::vector<Row> rows = {
      {"2026-11-22T10:00:00", "no offset"},
      {"2026-11-22", "date only"},
      {"2026-13-01T10:00:00Z", "month 13"},
      {"2026-00-10T10:00:00Z", "month 0"},
      {"2026-02-30T10:00:00Z", "February 30"},
      {"2026-02-29T10:00:00Z", "February 29 of a common year"},
      {"2026-11-00T10:00:00Z", "day 0"},
      {"2026-11-22T24:00:00Z", "hour 24"},
      {"2026-11-22T10:60:00Z", "minute 60"},
      {"2026-11-22T10:00:60Z", "second 60"},
      {"2026-11-22T10:00:00Zjunk", "trailing text"},
      {"2026-11-22T10:00:00Z ", "trailing space"},
      {" 2026-11-22T10:00:00Z", "leading space"},
      {"2026-11-22 10:00:00Z", "space instead of T"},
      {"2026-11-22T10:00Z", "no seconds"},
      {"2026-11-22T10:00:00.Z", "point without digits"},
      {"2026-11-22T10:00:00+01", "offset without minutes"},
      {"2026-11-22T10:00:00+1:00", "one-digit offset hour"},
      {"2026-11-22T10:00:00+24:00", "offset hour 24"},
      {"2026-11-22T10:00:00+01:60", "offset minute 60"},
      {"2026-11-22T10:00:00+01:00:00", "offset with seconds"},
      {"26-11-22T10:00:00Z", "two-digit year"},
      {"2026/11/22T10:00:00Z", "slashes"},
      {"2026-1-22T10:00:00Z", "one-digit month"},
      {"-2026-11-22T10:00:00Z", "signed year"},
      {"", "empty"},
      {KLTValue(), "null"},
      {1795860000, "a number"},
      {KLTValue::array({"2026-11-22T10:00:00Z"}), "a list holding a date"},
      {KLTValue::object({{"d", "2026-11-22T10:00:00Z"}}), "a dictionary"},
      {true, "a boolean"},
  };
  for (const auto& r : rows) {
    SCOPED_TRACE(std::string(r.note) + ": " + r.value.dump());
    EXPECT_FALSE(KLTUtilities::dateFromKLTDateString(r.value).has_value());
  }
}

TEST(KLTUtilities, IsNonEmptyString) {
  struct Row {
    KLTValue value;
    bool expected;
  };
  const std::vector<Row> rows = {
      {"a", true},
      {" ", true},
      {std::string(1, '\0'), true},
      {"", false},
      {KLTValue(), false},
      {0, false},
      {1, false},
      {true, false},
      {KLTValue::array({"a"}), false},
      {KLTValue::object({{"a", "b"}}), false},
  };
  for (const auto& r : rows) {
    SCOPED_TRACE(r.value.dump());
    EXPECT_EQ(KLTUtilities::isNonEmptyString(r.value), r.expected);
  }
}

TEST(KLTUtilities, DeviceNameAndFirstSessionAreSettable) {
  const std::string before = KLTUtilities::deviceName();
  EXPECT_FALSE(before.empty()) << "defaults to the machine name";
  KLTUtilities::setDeviceName("iPhone14,2");
  EXPECT_EQ(KLTUtilities::deviceName(), "iPhone14,2");
  KLTUtilities::setDeviceName(before);

  EXPECT_FALSE(KLTUtilities::isFirstSession()) << "false unless set";
  KLTUtilities::setFirstSession(true);
  EXPECT_TRUE(KLTUtilities::isFirstSession());
  KLTUtilities::setFirstSession(false);
}

}  // namespace
