// Host utilities: reading ISO 8601 date-times and the non-empty text test.
#include "host/KLTUtilities.h"

#include <gtest/gtest.h>

#include <optional>
#include <vector>

namespace {

using namespace std::chrono;

TEST(KLTUtilities, DateFromKLTDateStringAndNonEmptyText) {
  const KLTTimePoint ten = KLTTimePoint(sys_days(year(2026) / 11 / 22) + hours(10));
  struct Row {
    KLTValue text;
    std::optional<KLTTimePoint> expected;  // nullopt: rejected
  };
  const std::vector<Row> rows = {
      {"2026-11-22t10:00:00z", ten},        {"2026-11-22T10:00:00.1234567891Z", ten + 123456us},
      {"2026-11-22T15:45:00+0545", ten},    {"2026-11-22T10:00:00.250-00:30", ten + 30min + 250ms},
      {"2026-11-23T00:30:00+14:30", ten},   {"2024-02-29T00:00:00Z", KLTTimePoint(sys_days(year(2024) / 2 / 29))},
      {"1969-12-31T23:59:59Z", KLTTimePoint{} - 1s},
      {"0001-01-01T00:00:00Z", KLTTimePoint(sys_days(year(1) / 1 / 1))},
      {"9999-12-31T23:59:59.999999+00:00", KLTTimePoint(sys_days(year(9999) / 12 / 31)) + 86399s + 999999us},
      {"4048-02-29T12:00:00+14:00", KLTTimePoint(sys_days(year(4048) / 2 / 28)) + 22h},
      {"2026-11-22T10:00:00", std::nullopt},  {"2026-02-29T10:00:00Z", std::nullopt}, {"2026-13-01T10:00:00Z", std::nullopt},
      {"2026-11-22T24:00:00Z", std::nullopt}, {"2026-11-22T10:00:60Z", std::nullopt}, {"2026-11-22T10:00:00Z ", std::nullopt},
      {"2026-11-22T10:00Z", std::nullopt},    {"2026-11-22T10:00:00.Z", std::nullopt}, {"2026-11-22T10:00:00+01", std::nullopt},
      {"2026-11-22T10:00:00+24:00", std::nullopt}, {"2026-1-22T10:00:00Z", std::nullopt}, {1795860000, std::nullopt},
  };
  for (const auto& r : rows) {
    SCOPED_TRACE(r.text.dump());
    EXPECT_EQ(KLTUtilities::dateFromKLTDateString(r.text), r.expected);
  }
  EXPECT_TRUE(KLTUtilities::isNonEmptyString(KLTValue(std::string(1, '\0'))));
  for (const KLTValue& v : {KLTValue(""), KLTValue(), KLTValue(1), KLTValue::array({"a"})}) {
    EXPECT_FALSE(KLTUtilities::isNonEmptyString(v)) << v.dump();
  }
}

}  // namespace
