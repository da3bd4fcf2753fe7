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
    bool list, string, dict, number, date;
  };
  const std::vector<Row> rows = {
      {KLTValue(), false, false, false, false, false},
      {KLTValue(true), false, false, false, true, false},
      {KLTValue(false), false, false, false, true, false},
      {KLTValue(5), false, false, false, true, false},
      {KLTValue(uint64_t{1} << 63), false, false, false, true, false},
      {KLTValue(2.5), false, false, false, true, false},
      {KLTValue("5"), false, true, false, false, false},
      {KLTValue::array({1, 2}), true, false, false, false, false},
      {KLTValue::object(), false, false, true, false, false},
      {aDate(), false, false, false, false, true},
      // A binary value that is not a date (other subtype) is no date.
      {KLTValue::binary({1, 2, 3, 4, 5, 6, 7, 8}, 0x10), false, false, false, false, false},
  };
  for (const auto& r : rows) {
    SCOPED_TRACE(describe(r.value));
    EXPECT_EQ(klt::isList(r.value), r.list);
    EXPECT_EQ(klt::isString(r.value), r.string);
    EXPECT_EQ(klt::isDictionary(r.value), r.dict);
    EXPECT_EQ(klt::isNumber(r.value), r.number);
    EXPECT_EQ(klt::isDate(r.value), r.date);
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
      {KLTValue(42), 42, 42, "plain integer"},
      {KLTValue(-42), -42, -42, "negative integer"},
      {KLTValue(true), 1, 1, "true reads 1"},
      {KLTValue(false), 0, 0, "false reads 0"},
      {KLTValue(2.9), 2, 2, "float truncates toward zero"},
      {KLTValue(-2.9), -2, -2, "negative float truncates toward zero"},
      {KLTValue(kNaN), 0, 0, "NaN reads 0"},
      {KLTValue(kInf), kI64Max, kI32Max, "+inf clamps"},
      {KLTValue(-kInf), kI64Min, kI32Min, "-inf clamps"},
      {KLTValue(1e19), kI64Max, kI32Max, "float above INT64_MAX clamps"},
      {KLTValue(-1e19), kI64Min, kI32Min, "float below INT64_MIN clamps"},
      {KLTValue(9223372036854775808.0), kI64Max, kI32Max, "2^63 as float is out of range"},
      {KLTValue(-9223372036854775808.0), kI64Min, kI32Min, "-2^63 as float is exactly INT64_MIN"},
      {KLTValue(3e9), 3'000'000'000, kI32Max, "float in 64-bit but not 32-bit range"},
      {KLTValue(-3e9), -3'000'000'000, kI32Min, "negative float beyond 32 bits"},
      {KLTValue(2147483647.9), 2147483647, kI32Max, "just under 2^31 truncates to INT32_MAX"},
      {KLTValue(int64_t{5'000'000'000}), 5'000'000'000, kI32Max, "integer beyond 32 bits clamps in int32"},
      {KLTValue(int64_t{-5'000'000'000}), -5'000'000'000, kI32Min, "negative integer beyond 32 bits"},
      {KLTValue(kI64Max), kI64Max, kI32Max, "INT64_MAX"},
      {KLTValue(kI64Min), kI64Min, kI32Min, "INT64_MIN"},
      {KLTValue(uint64_t{1} << 63), kI64Max, kI32Max, "unsigned 2^63 clamps"},
      {KLTValue(std::numeric_limits<uint64_t>::max()), kI64Max, kI32Max, "unsigned max clamps"},
      {KLTValue(uint64_t{7}), 7, 7, "small unsigned"},
      {KLTValue("42"), 42, 42, "numeric text"},
      {KLTValue(" -12abc"), -12, -12, "white space, sign, digits up to the first other character"},
      {KLTValue("\t\n+7"), 7, 7, "plus sign"},
      {KLTValue("abc"), 0, 0, "no digits"},
      {KLTValue(""), 0, 0, "empty text"},
      {KLTValue("-"), 0, 0, "sign alone"},
      {KLTValue("+-3"), 0, 0, "two signs"},
      {KLTValue("- 3"), 0, 0, "white space after the sign"},
      {KLTValue("3.9"), 3, 3, "text stops at the point"},
      {KLTValue("007"), 7, 7, "leading zeros"},
      {KLTValue("9223372036854775807"), kI64Max, kI32Max, "INT64_MAX as text"},
      {KLTValue("9223372036854775808"), kI64Max, kI32Max, "one above INT64_MAX as text clamps"},
      {KLTValue("-9223372036854775808"), kI64Min, kI32Min, "INT64_MIN as text"},
      {KLTValue("-9223372036854775809"), kI64Min, kI32Min, "one below INT64_MIN as text clamps"},
      {KLTValue("99999999999999999999999999x"), kI64Max, kI32Max, "long digit run clamps"},
      {KLTValue("2147483648"), 2147483648, kI32Max, "2^31 as text clamps in int32"},
      {KLTValue("-2147483649"), -2147483649, kI32Min, "below INT32_MIN as text"},
      {KLTValue(), 0, 0, "null"},
      {KLTValue::array({5}), 0, 0, "list"},
      {KLTValue::object({{"a", 5}}), 0, 0, "dictionary"},
      {aDate(), 0, 0, "date"},
  };
  for (const auto& r : rows) {
    SCOPED_TRACE(std::string(r.note) + ": " + describe(r.value));
    EXPECT_EQ(klt::integerValue(r.value), r.i64);
    EXPECT_EQ(klt::int32Value(r.value), r.i32);
    if (klt::isString(r.value)) {
      EXPECT_EQ(klt::parseInteger(r.value.get<std::string>()), r.i64);
      EXPECT_EQ(klt::parseInt32(r.value.get<std::string>()), r.i32);
    }
  }
}

TEST(KLTValue, DoubleReading) {
  struct Row {
    KLTValue value;
    double expected;
    const char* note;
  };
  const std::vector<Row> rows = {
      {KLTValue(2.5), 2.5, "float"},
      {KLTValue(-7), -7.0, "integer"},
      {KLTValue(std::numeric_limits<uint64_t>::max()), 18446744073709551615.0, "unsigned max"},
      {KLTValue(true), 1.0, "true"},
      {KLTValue(false), 0.0, "false"},
      {KLTValue("3.25"), 3.25, "numeric text"},
      {KLTValue("  -1.5e2xyz"), -150.0, "white space, exponent, trailing text"},
      {KLTValue("+4"), 4.0, "plus sign"},
      {KLTValue("abc"), 0.0, "not a number"},
      {KLTValue(""), 0.0, "empty"},
      {KLTValue("1e400"), kInf, "overflow reads +inf"},
      {KLTValue("-1e400"), -kInf, "negative overflow reads -inf"},
      {KLTValue("1e-400"), 0.0, "underflow reads 0, not inf"},
      {KLTValue("-1e-400"), 0.0, "negative underflow reads 0"},
      {KLTValue("123456789.5e-340"), 0.0, "many integer digits, still underflow"},
      {KLTValue("0.0001e400"), kInf, "leading fraction zeros, still overflow"},
      {KLTValue("1.8e308"), kInf, "just above the largest double"},
      {KLTValue("1e-310"), 1e-310, "subnormal reads as it is"},
      {KLTValue("+-3"), 0.0, "two signs"},
      {KLTValue(), 0.0, "null"},
      {KLTValue::array({1.5}), 0.0, "list"},
      {aDate(), 0.0, "date"},
  };
  for (const auto& r : rows) {
    SCOPED_TRACE(std::string(r.note) + ": " + describe(r.value));
    EXPECT_EQ(klt::doubleValue(r.value), r.expected);
  }
  EXPECT_TRUE(std::isnan(klt::doubleValue(KLTValue(kNaN))));
}

TEST(KLTValue, TruthReading) {
  struct Row {
    KLTValue value;
    bool expected;
    const char* note;
  };
  const std::vector<Row> rows = {
      {KLTValue("Y"), true, "Y"},
      {KLTValue("yes"), true, "y..."},
      {KLTValue("t"), true, "t"},
      {KLTValue("True"), true, "T..."},
      {KLTValue("0001"), true, "leading zeros then 1"},
      {KLTValue("-5"), true, "sign then digit"},
      {KLTValue("  +9"), true, "white space and sign"},
      {KLTValue(" 0"), false, "zero after white space"},
      {KLTValue("000"), false, "only zeros"},
      {KLTValue("no"), false, "n"},
      {KLTValue("false"), false, "f"},
      {KLTValue(""), false, "empty"},
      {KLTValue("x1"), false, "other first character"},
      {KLTValue("0.5"), false, "point after the zeros"},
      {KLTValue(1), true, "integer 1"},
      {KLTValue(-3), true, "negative integer"},
      {KLTValue(0), false, "integer 0"},
      {KLTValue(uint64_t{1} << 63), true, "large unsigned"},
      {KLTValue(0.25), true, "fraction"},
      {KLTValue(0.0), false, "zero float"},
      {KLTValue(-0.0), false, "negative zero"},
      {KLTValue(kNaN), true, "NaN is not zero"},
      {KLTValue(true), true, "true"},
      {KLTValue(false), false, "false"},
      {KLTValue(), false, "null"},
      {KLTValue::array({1}), false, "list"},
      {KLTValue::object({{"a", 1}}), false, "dictionary"},
      {aDate(), false, "date"},
  };
  for (const auto& r : rows) {
    SCOPED_TRACE(std::string(r.note) + ": " + describe(r.value));
    EXPECT_EQ(klt::boolValue(r.value), r.expected);
  }
}

TEST(KLTValue, EqualityAndListMembership) {
  const KLTValue twoTo53Plus1 = int64_t{9007199254740993};
  struct Row {
    KLTValue a, b;
    bool equal;
    const char* note;
  };
  const std::vector<Row> rows = {
      {5, 5.0, true, "integer equals integral float"},
      {5, 5.5, false, "integer vs fraction"},
      {true, 1, true, "true equals 1"},
      {false, 0.0, true, "false equals 0.0"},
      {true, 2, false, "true is not 2"},
      {"5", 5, false, "a string never equals a number"},
      {"true", true, false, "a string never equals a boolean"},
      {"abc", "abc", true, "same bytes"},
      {"abc", "ABC", false, "case-sensitive"},
      {KLTValue(), KLTValue(), true, "null equals null"},
      {KLTValue(), 0, false, "null is not 0"},
      {KLTValue(), "", false, "null is not the empty string"},
      {uint64_t{5}, int64_t{5}, true, "unsigned vs signed, same value"},
      {std::numeric_limits<uint64_t>::max(), int64_t{-1}, false, "UINT64_MAX vs -1"},
      {uint64_t{1} << 63, kI64Max, false, "2^63 vs INT64_MAX"},
      {uint64_t{1} << 63, 9223372036854775808.0, true, "2^63 unsigned vs 2^63 float"},
      {twoTo53Plus1, 9007199254740992.0, false, "2^53+1 vs 2^53 as double: exact comparison"},
      {int64_t{9007199254740992}, 9007199254740992.0, true, "2^53 vs 2^53 as double"},
      {kI64Max, 9223372036854775808.0, false, "INT64_MAX vs 2^63 float"},
      {0, kNaN, false, "NaN equals nothing"},
      {KLTValue::array({1, "a", KLTValue::array({2.0})}), KLTValue::array({1.0, "a", KLTValue::array({2})}), true,
       "nested lists by element"},
      {KLTValue::array({1, 2}), KLTValue::array({2, 1}), false, "list order counts"},
      {KLTValue::array({1}), KLTValue::array({1, 1}), false, "list length counts"},
      {KLTValue::object({{"a", 1}, {"b", KLTValue::object({{"c", true}})}}),
       KLTValue::object({{"b", KLTValue::object({{"c", 1}})}, {"a", 1.0}}), true, "dictionaries ignore key order"},
      {KLTValue::object({{"a", 1}}), KLTValue::object({{"a", 1}, {"b", 2}}), false, "extra key"},
      {KLTValue::object({{"a", 1}}), KLTValue::object({{"b", 1}}), false, "other key"},
      {KLTValue::array(), KLTValue::object(), false, "empty list vs empty dictionary"},
      {aDate(), aDate(), true, "same date"},
      {aDate(), klt::makeDate(KLTTimePoint(std::chrono::seconds(1))), false, "other date"},
      {aDate(), 1'795'860'000, false, "a date is never a number"},
  };
  for (const auto& r : rows) {
    SCOPED_TRACE(std::string(r.note) + ": " + describe(r.a) + " vs " + describe(r.b));
    EXPECT_EQ(klt::isEqual(r.a, r.b), r.equal);
    EXPECT_EQ(klt::isEqual(r.b, r.a), r.equal) << "isEqual must be symmetric";
    EXPECT_EQ(klt::listContains(KLTValue::array({"other", r.a}), r.b), r.equal);
  }
  EXPECT_FALSE(klt::listContains(KLTValue("5"), "5")) << "a non-list contains nothing";
  EXPECT_FALSE(klt::listContains(KLTValue::object({{"5", 5}}), 5)) << "a dictionary is not a list";
  EXPECT_FALSE(klt::listContains(KLTValue::array(), KLTValue()));
}

TEST(KLTValue, TextForm) {
  struct Row {
    KLTValue value;
    std::string expected;
    const char* note;
  };
  const std::vector<Row> rows = {
      {"as it stands", "as it stands", "string"},
      {"", "", "empty string"},
      {42, "42", "integer"},
      {kI64Min, "-9223372036854775808", "INT64_MIN"},
      {std::numeric_limits<uint64_t>::max(), "18446744073709551615", "unsigned max"},
      {2.0, "2", "integral float without fraction"},
      {-3.0, "-3", "negative integral float"},
      {0.1, "0.1", "shortest form that reads back"},
      {1.0 / 3.0, "0.3333333333333333", "shortest round-trip of 1/3"},
      {-0.0, "0", "negative zero"},
      {1e300, "1e+300", "huge float"},
      {1e20, "100000000000000000000", "large integral float"},
      {true, "true", "true"},
      {false, "false", "false"},
      {KLTValue(), "(null)", "null"},
      {KLTValue::array({1, "a", 2.5, KLTValue()}), R"([1,"a",2.5,null])", "list as compact JSON"},
      {KLTValue::object({{"b", 1}, {"a", KLTValue::array({true})}}), R"({"b":1,"a":[true]})",
       "dictionary as compact JSON in insertion order"},
      {aDate(), "2026-11-28 10:00:00 +0000", "date"},
  };
  for (const auto& r : rows) {
    SCOPED_TRACE(std::string(r.note) + ": " + describe(r.value));
    EXPECT_EQ(klt::textForm(r.value), r.expected);
  }
}

TEST(KLTValue, TextFormOfInvalidUtf8InsideADictionaryDoesNotThrow) {
  const KLTValue dict = KLTValue::object({{"k", std::string("a\xff"
                                                            "b")}});
  std::string text;
  EXPECT_NO_THROW(text = klt::textForm(dict));
  EXPECT_EQ(text.rfind("{\"k\":\"a", 0), 0u) << text;
  EXPECT_NE(text.find("b\"}"), std::string::npos) << text;
  // A bare string is handed back byte for byte.
  EXPECT_EQ(klt::textForm(KLTValue(std::string("a\xff"
                                               "b"))),
            std::string("a\xff"
                        "b"));
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
    const KLTValue d = klt::makeDate(t);
    ASSERT_TRUE(klt::isDate(d));
    ASSERT_TRUE(klt::dateValue(d).has_value());
    EXPECT_EQ(*klt::dateValue(d), t);
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

TEST(KLTValue, ValueForKeyNeverInserts) {
  const KLTValue dict = KLTValue::object({{"a", 1}});
  EXPECT_EQ(klt::valueForKey(dict, "a"), KLTValue(1));
  EXPECT_TRUE(klt::valueForKey(dict, "missing").is_null());
  EXPECT_EQ(dict.size(), 1u);
  EXPECT_TRUE(klt::valueForKey(KLTValue::array({1}), "a").is_null());
  EXPECT_TRUE(klt::valueForKey(KLTValue("a"), "a").is_null());
  EXPECT_EQ(klt::stringPtr(KLTValue(5)), nullptr);
  ASSERT_NE(klt::stringPtr(KLTValue("x")), nullptr);
}

}  // namespace
