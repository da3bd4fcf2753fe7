// Lenient readings of the value model: kind tests, integer/floating/truth readings, equality for
// list membership, the "%@" text form and dates.
#include "platform/KLTValue.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <limits>
#include <string>
#include <vector>

namespace {

constexpr int64_t kI64Max = std::numeric_limits<int64_t>::max();
constexpr int64_t kI64Min = std::numeric_limits<int64_t>::min();
constexpr int32_t kI32Max = std::numeric_limits<int32_t>::max();
constexpr int32_t kI32Min = std::numeric_limits<int32_t>::min();
constexpr uint64_t kU64Max = std::numeric_limits<uint64_t>::max();
constexpr double kInf = std::numeric_limits<double>::infinity();
const double kNaN = std::numeric_limits<double>::quiet_NaN();

KLTValue aDate() { return klt::makeDate(KLTTimePoint(std::chrono::seconds(1'795'860'000))); }

std::string describe(const KLTValue& v) {
  if (klt::isDate(v)) return "date";
  return v.dump(-1, ' ', false, KLTValue::error_handler_t::replace) + " (" + v.type_name() + ")";
}

TEST(KLTValue, KindTests) {
  struct Row {
    KLTValue value;
    const char* kinds;  // the kind tests that hold: L(ist) S(tring) D(ictionary) N(umber) T(date)
  };
  // Binary values that are no date (another subtype, or none) pass no kind test.
  const std::vector<Row> rows = {
      {KLTValue(), ""},     {KLTValue(true), "N"},       {KLTValue(2.5), "N"},   {KLTValue("5"), "S"},
      {KLTValue::array({1, 2}), "L"}, {KLTValue::object(), "D"}, {aDate(), "T"},
      {KLTValue::binary({1, 2, 3, 4, 5, 6, 7, 8}, 0x10), ""}, {KLTValue::binary({1, 2, 3, 4, 5, 6, 7, 8}), ""},
  };
  for (const auto& r : rows) {
    SCOPED_TRACE(describe(r.value));
    const std::string got = std::string(klt::isList(r.value) ? "L" : "") + (klt::isString(r.value) ? "S" : "") +
                            (klt::isDictionary(r.value) ? "D" : "") + (klt::isNumber(r.value) ? "N" : "") +
                            (klt::isDate(r.value) ? "T" : "");
    EXPECT_EQ(got, r.kinds);
  }
}

TEST(KLTValue, IntegerReadings) {
  struct Row {
    KLTValue value;
    int64_t i64;
    int32_t i32;
    const char* note;
  };
  const std::vector<Row> rows = {
      {KLTValue(true), 1, 1, "true reads 1"},
      {KLTValue(-2.9), -2, -2, "float truncates toward zero"},
      {KLTValue(kInf), kI64Max, kI32Max, "+inf clamps"},
      {KLTValue(9223372036854775808.0), kI64Max, kI32Max, "2^63 as float is out of range"},
      {KLTValue(-9223372036854775808.0), kI64Min, kI32Min, "-2^63 as float is exactly INT64_MIN"},
      {KLTValue(uint64_t{1} << 63), kI64Max, kI32Max, "unsigned 2^63 clamps"},
      {KLTValue(" -12abc"), -12, -12, "white space, sign, digits up to the first other character"},
      {KLTValue("\t\n\r\f\v+7"), 7, 7, "every white space, plus sign"},
      {KLTValue("- 3"), 0, 0, "white space after the sign"},
      {KLTValue("19.9"), 19, 19, "text stops at the point, nine is a digit"},
      {KLTValue("9223372036854775808"), kI64Max, kI32Max, "one above INT64_MAX as text clamps"},
      {KLTValue("-9223372036854775809"), kI64Min, kI32Min, "one below INT64_MIN as text clamps"},
      {KLTValue("2147483648"), 2147483648, kI32Max, "2^31 as text clamps in int32"},
      {KLTValue::array({5}), 0, 0, "list"},
  };
  for (const auto& r : rows) {
    SCOPED_TRACE(std::string(r.note) + ": " + describe(r.value));
    EXPECT_EQ(klt::integerValue(r.value), r.i64);
    EXPECT_EQ(klt::int32Value(r.value), r.i32);
    if (klt::isString(r.value)) {
      EXPECT_EQ(klt::parseInt32(r.value.get<std::string>()), r.i32);
    }
  }
}

// Decimal texts read as numbers; beyond the double range, as infinity when too large and as zero
// when too small, each with its sign.
TEST(KLTValue, DecimalTextsOutOfRange) {
  struct Row {
    std::string text;
    double expected;
  };
  const std::vector<Row> rows = {
      {"1e400", kInf},  {"-1e400", -kInf}, {"+1e400", kInf}, {"1e-400", 0.0},
      {"-1e-400", -0.0}, {"0.0001e-320", 0.0}, {"12345e-400", 0.0}, {"+-1", 0.0},
      {"0.1e400", kInf}, {"9e309", kInf}, {"2.5", 2.5}, {" +7e2", 700.0},
      // Leading zeros are not digits of the magnitude, before or after the point.
      {std::string(500, '0') + "1e-400", 0.0}, {"0." + std::string(400, '0') + "1e50", 0.0},
      {"1" + std::string(400, '0'), kInf},  // too large by its digits alone
      {"0." + std::string(501, '1') + "e400", kInf},  // only leading zeros of a fraction lower the magnitude
      {"1e" + std::string(30, '9'), kInf}, {"-1e-" + std::string(30, '9'), -0.0},  // exponents past 64 bits
  };
  for (const auto& r : rows) {
    SCOPED_TRACE(r.text);
    const double got = klt::doubleValue(KLTValue(r.text));
    EXPECT_EQ(got, r.expected);
    EXPECT_EQ(std::signbit(got), std::signbit(r.expected));
  }
}

TEST(KLTValue, TruthReading) {
  struct Row {
    KLTValue value;
    bool expected;
  };
  const std::vector<Row> rows = {
      {"Y", true},       {"yes", true},  {"t", true},      {"True", true},   {"0001", true},  {"-5", true},
      {"9", true},       {" \t+9", true}, {" 0", false},   {"000", false},   {"no", false},   {"false", false},
      {"", false},       {"x1", false},  {"0.5", false},   {1, true},        {-3, true},      {0, false},
      {uint64_t{1} << 63, true}, {0.25, true}, {-0.0, false}, {kNaN, true}, {true, true},    {false, false},
      {KLTValue(), false}, {KLTValue::array({1}), false}, {aDate(), false},
  };
  for (const auto& r : rows) {
    SCOPED_TRACE(describe(r.value));
    EXPECT_EQ(klt::boolValue(r.value), r.expected);
  }
}

TEST(KLTValue, EqualityAndListMembership) {
  struct Row {
    KLTValue a, b;
    bool equal;
    const char* note;
  };
  const std::vector<Row> rows = {
      {5, 5.0, true, "integer equals integral float"},
      {5, 5.5, false, "integer vs fraction"},
      {true, 2, false, "true is not 2"},
      {"5", 5, false, "a string never equals a number"},
      {KLTValue(), KLTValue(), true, "null equals null"},
      {KLTValue(), "", false, "null is not the empty string"},
      {uint64_t{5}, int64_t{5}, true, "unsigned vs signed, same value"},
      {kU64Max, int64_t{-1}, false, "UINT64_MAX vs -1"},
      {uint64_t{1} << 63, kI64Max, false, "2^63 unsigned vs INT64_MAX"},
      {uint64_t{1} << 63, 9223372036854775808.0, true, "2^63 unsigned vs 2^63 float"},
      {int64_t{9007199254740993}, 9007199254740992.0, false, "2^53+1 vs 2^53 as double: exact comparison"},
      {kI64Max, 9223372036854775808.0, false, "INT64_MAX vs 2^63 float"},
      {0, kNaN, false, "NaN equals nothing"},
      {KLTValue::array({1, "a", KLTValue::array({2.0})}), KLTValue::array({1.0, "a", KLTValue::array({2})}), true,
       "nested lists by element"},
      {KLTValue::array({1, 2}), KLTValue::array({1, 3}), false, "last element differs"},
      {KLTValue::array({1}), KLTValue::array({1, 1}), false, "longer list"},
      {KLTValue::object({{"a", 1}, {"b", KLTValue::object({{"c", true}})}}),
       KLTValue::object({{"b", KLTValue::object({{"c", 1}})}, {"a", 1.0}}), true, "dictionaries ignore key order"},
      {KLTValue::object({{"a", 1}}), KLTValue::object({{"a", 1}, {"b", 2}}), false, "extra key"},
      {KLTValue::object({{"a", 1}}), KLTValue::object({{"b", 1}}), false, "same size, other key"},
      {KLTValue::object({{"a", 1}}), KLTValue::object({{"a", 2}}), false, "same key, other value"},
      {aDate(), klt::makeDate(KLTTimePoint(std::chrono::seconds(1))), false, "other date"},
      {aDate(), aDate(), true, "same date"},
      {KLTValue::binary({1, 2}), KLTValue::binary({1, 2}), true, "same bytes"},
      {KLTValue::binary({1, 2}), KLTValue::binary({1, 3}), false, "other bytes"},
      {aDate(), 1'795'860'000, false, "a date is never a number"},
  };
  for (const auto& r : rows) {
    SCOPED_TRACE(std::string(r.note) + ": " + describe(r.a) + " vs " + describe(r.b));
    EXPECT_EQ(klt::isEqual(r.a, r.b), r.equal);
    EXPECT_EQ(klt::isEqual(r.b, r.a), r.equal) << "isEqual must be symmetric";
    EXPECT_EQ(klt::listContains(KLTValue::array({"other", r.a}), r.b), r.equal);
  }
  EXPECT_FALSE(klt::listContains(KLTValue::object({{"5", 5}}), 5)) << "a dictionary is not a list";
}

TEST(KLTValue, TextForm) {
  struct Row {
    KLTValue value;
    std::string expected;
  };
  const std::vector<Row> rows = {
      {"as it stands", "as it stands"}, {kI64Min, "-9223372036854775808"}, {kU64Max, "18446744073709551615"},
      {-3.0, "-3"}, {1.0 / 3.0, "0.3333333333333333"}, {-0.0, "0"}, {1e300, "1e+300"}, {1e20, "100000000000000000000"}, {1e21, "1e+21"},
      {false, "false"}, {true, "true"}, {KLTValue(), "(null)"},
      {KLTValue::object({{"b", 1}, {"a", KLTValue::array({true, "x", KLTValue()})}}), R"({"b":1,"a":[true,"x",null]})"},
      {aDate(), "2026-11-28 10:00:00 +0000"},
  };
  for (const auto& r : rows) {
    SCOPED_TRACE(describe(r.value));
    EXPECT_EQ(klt::textForm(r.value), r.expected);
  }
  // Invalid UTF-8 inside a dictionary is replaced, never thrown; a bare string comes back as it is.
  const std::string bad = "a\xff" "b";
  EXPECT_EQ(klt::textForm(KLTValue::object({{"k", bad}})), "{\"k\":\"a\xEF\xBF\xBD" "b\"}");
  EXPECT_EQ(klt::textForm(KLTValue(bad)), bad);
}

TEST(KLTValue, DatesRoundTrip) {
  using namespace std::chrono;
  const std::vector<KLTTimePoint> instants = {
      KLTTimePoint{},
      KLTTimePoint(seconds(1'795'860'000)) + microseconds(123'456),
      KLTTimePoint(seconds(-86'400)),
      KLTTimePoint(sys_days(year(1) / 1 / 1)),                              // before 1678
      KLTTimePoint(sys_days(year(9999) / 12 / 31)) + microseconds(86'399'999'999),  // after 2261
  };
  for (const auto& t : instants) {
    SCOPED_TRACE(t.time_since_epoch().count());
    EXPECT_EQ(klt::dateValue(klt::makeDate(t)), t);
  }
  EXPECT_EQ(klt::formatDate(KLTTimePoint(seconds(-86'400))), "1969-12-31 00:00:00 +0000");
  EXPECT_EQ(klt::formatDate(instants[4]), "9999-12-31 23:59:59 +0000");
  // Stores written before instants went past 2261 hold nanoseconds under subtype 0x44: still read.
  const KLTValue stored = KLTValue::binary({0x18, 0x9e, 0x8a, 0x3f, 0x87, 0x5b, 0x1d, 0x15}, 0x44);
  EXPECT_EQ(klt::dateValue(stored), KLTTimePoint(microseconds(1'774'007'308'689'022)));
  EXPECT_EQ(klt::makeDate(*klt::dateValue(stored)).get_binary().subtype(), 0x44);
  for (const KLTValue& notDate : {KLTValue(1), KLTValue("2026-11-22"), KLTValue(), KLTValue::binary({1, 2, 3})}) {
    SCOPED_TRACE(describe(notDate));
    EXPECT_FALSE(klt::dateValue(notDate).has_value());
  }

}

// Releasing leaves null behind, whatever the value held: nested values, and nesting deeper than
// the release takes apart itself (the sanitizer builds check that nothing is lost on the way).
TEST(KLTValue, ReleaseLeavesNull) {
  KLTValue deep = "bottom";
  for (int i = 0; i < 100; ++i) {
    deep = i % 2 ? KLTValue::array({deep, i}) : KLTValue{{"k", deep}, {"n", "a text long enough to be allocated"}};
  }
  const KLTValue values[] = {KLTValue(), KLTValue(3), KLTValue("a text"), KLTValue::object(), KLTValue::array(),
                             KLTValue{{"a", {1, {{"b", "c"}}}}, {"d", KLTValue::object()}}, aDate(), deep};
  for (KLTValue v : values) {
    SCOPED_TRACE(describe(v).substr(0, 60));
    klt::release(v);
    EXPECT_TRUE(v.is_null());
  }
}

}  // namespace
