// The rule checks: comparison words, attribute and trigger matching, and version comparison.
#include "KLTContextEvaluator/KLTCEUtility.h"

#include <cstdint>
#include <limits>
#include <optional>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "platform/KLTBundle.h"

namespace {

KLTValue J(const std::string& text) { return KLTValue::parse(text); }

enum Fn { Value, Bool, String, AttrValue, Attributes, Array, EventAttributes, Dictionary };

// One row per case: the check, its operands as JSON texts ("null": missing), the word, the answer.
// Value/Bool/AttrValue take integers (bools as 0/1) where the check does.
struct Row {
  Fn fn;
  const char *a, *b, *op;
  bool expected;
};

bool run(const Row& r) {
  const KLTValue a = J(r.a), b = J(r.b), op = J(r.op);
  switch (r.fn) {
    case Value: return KLTCEUtility::checkValue(klt::integerValue(a), klt::integerValue(b), op);
    case Bool: return KLTCEUtility::checkBool(klt::boolValue(a), klt::boolValue(b), op);
    case String: return KLTCEUtility::checkString(a, b, op);
    case AttrValue: return KLTCEUtility::checkAttrValue(a, klt::integerValue(b), op);
    case Attributes: return KLTCEUtility::compareGivenAttributes(a, b);
    case Array: return KLTCEUtility::doesArray(a, b, op);
    case EventAttributes: return KLTCEUtility::doesEventAttributes(a, b);
    case Dictionary: return KLTCEUtility::doesDictionary(a, b);
  }
  return false;
}

TEST(KLTCEUtility, Checks) {
  const char* EQ = R"("EQ")";
  const char* NEQ = R"("NEQ")";
  const std::vector<Row> rows = {
      {Value, "3", "3", EQ, true},   {Value, "3", "4", EQ, false},  {Value, "3", "3", NEQ, false},
      {Value, "3", "4", NEQ, true},  {Value, "3", "3", R"("GT")", false}, {Value, "4", "3", R"("GT")", true},
      {Value, "3", "3", R"("GTE")", true}, {Value, "3", "4", R"("GTE")", false}, {Value, "3", "3", R"("LT")", false},
      {Value, "3", "4", R"("LT")", true}, {Value, "3", "3", R"("LTE")", true}, {Value, "4", "3", R"("LTE")", false},
      {Value, "-9223372036854775808", "9223372036854775807", R"("LT")", true},
      {Value, "3", "3", R"("eq")", false}, {Value, "3", "3", "null", false},
      {Bool, "1", "1", EQ, true},    {Bool, "1", "0", EQ, false},   {Bool, "1", "0", NEQ, true},
      {Bool, "0", "0", NEQ, false},  {Bool, "1", "1", R"("GTE")", false}, {Bool, "1", "1", "null", false},
      {String, R"("home")", R"("home")", EQ, true},  {String, R"("home")", R"("Home")", EQ, false},
      {String, R"("home")", R"("home")", NEQ, false}, {String, R"("home")", R"("Home")", NEQ, true},
      {String, R"("b")", R"("a")", R"("GT")", false}, {String, R"("5")", "5", NEQ, false},
      {String, R"("5")", R"(["5"])", EQ, true},     {String, R"("5")", "[5]", EQ, false},
      {String, R"("5")", "[5]", NEQ, true},         {String, R"("5")", R"(["5"])", NEQ, false},
      {String, R"("5")", "null", NEQ, false},
      {AttrValue, "-5.9", "-5", EQ, true},  {AttrValue, "-5.9", "-6", EQ, false}, {AttrValue, "true", "1", EQ, true},
      {AttrValue, "250", "100", R"("GT")", true}, {AttrValue, "99", "100", R"("GTE")", false},
      {AttrValue, R"("5")", "5", NEQ, false}, {AttrValue, "[5.0]", "5", EQ, true}, {AttrValue, "[5.0]", "5", NEQ, false},
      {AttrValue, R"(["5"])", "5", NEQ, true}, {AttrValue, "[5]", "5", R"("GT")", false}, {AttrValue, "null", "0", NEQ, false},
      // compareGivenAttributes(rule, host attributes)
      {Attributes, R"({"name":"c","value":["r","b"],"operator":"EQ"})", R"({"c":"r"})", "null", true},
      {Attributes, R"({"name":"c","value":["r","b"],"operator":"EQ"})", R"({"c":"g"})", "null", false},
      {Attributes, R"({"name":"c","value":["r"],"operator":"NEQ"})", R"({"c":"r"})", "null", false},
      {Attributes, R"({"name":"c","value":["r"],"operator":"NEQ"})", R"({"c":"b"})", "null", true},
      {Attributes, R"({"name":"size","value":["r"],"operator":"EQ"})", R"({"c":"r"})", "null", true},
      {Attributes, R"({"value":["r"],"operator":"EQ"})", R"({"c":"r"})", "null", true},
      {Attributes, R"({"name":"c","value":["b"],"operator":"EQ"})", "[]", "null", true},
      {Attributes, R"({"name":"c","value":["b"],"operator":"GT"})", R"({"c":"r"})", "null", true},
      {Attributes, R"({"name":"n","value":[3],"operator":"NEQ"})", R"({"n":3})", "null", false},
      {Attributes, R"({"name":"c","operator":"NEQ"})", R"({"c":"r"})", "null", true},
      {Attributes, R"({"name":"c","value":"r","operator":"EQ"})", R"({"c":"r"})", "null", false},
      {Attributes, R"({"name":"t","value":["a","c"],"operator":"EQ"})", R"({"t":["a","b","c"]})", "null", true},
      {Attributes, R"({"name":"d","value":["x"],"operator":"EQ"})", R"({"d":{"x":1}})", "null", true},
      // doesArray(host list, asked list, word)
      {Array, R"(["a","b"])", R"(["a","d"])", EQ, false}, {Array, R"(["a","b"])", R"(["d"])", NEQ, true},
      {Array, R"(["a","b"])", R"(["d","b"])", NEQ, false}, {Array, R"(["a"])", "null", EQ, true},
      {Array, R"(["a"])", R"("a")", EQ, false},           {Array, R"(["a"])", R"(["z"])", R"("LT")", true},
      // doesEventAttributes(event attributes, trigger data)
      {EventAttributes, R"({"x":1})", "null", "null", true},
      {EventAttributes, R"({"s":["m","home"]})", R"({"s":"home"})", "null", true},
      {EventAttributes, R"({"s":"Home"})", R"({"s":"home"})", "null", false},
      {EventAttributes, R"({"l":-3.9})", R"({"l":-3})", "null", true},
      {EventAttributes, R"({"l":"3"})", R"({"l":3})", "null", false},
      {EventAttributes, R"({"l":-3})", R"({"l":-3.7})", "null", true},
      {EventAttributes, R"({"l":[3.7]})", R"({"l":3.7})", "null", false},
      {EventAttributes, R"({"f":false})", R"({"f":true})", "null", false},
      {EventAttributes, "{}", R"({"p":{"t":"b","op":"EQ","val":true}})", "null", false},
      {EventAttributes, R"({"p":"0"})", R"({"p":{"t":"b","op":"NEQ","val":1}})", "null", true},
      {EventAttributes, R"({"a":99})", R"({"a":{"t":"n","op":"GTE","val":100}})", "null", false},
      {EventAttributes, R"({"a":250})", R"({"a":{"t":"l","op":"GT","val":100}})", "null", true},
      {EventAttributes, R"({"a":100})", R"({"a":{"t":"n","op":"EQ","val":"100"}})", "null", false},
      {EventAttributes, R"({"n":"bob"})", R"({"n":{"t":"s","op":"EQ","val":"al"}})", "null", false},
      {EventAttributes, R"({"d":1})", R"({"d":{"t":"ss","op":"EQ","val":2}})", "null", true},
      {EventAttributes, R"({"a":"x","b":2})", R"({"a":"x","b":3})", "null", false},
      {EventAttributes, "[]", R"({"a":"x"})", "null", false},
      // doesDictionary(event, trigger data): key order decides, a nested dictionary decides alone
      {Dictionary, R"({"k":"v"})", "null", "null", true},          {Dictionary, "{}", R"({"k":"v"})", "null", false},
      {Dictionary, R"({"k":null})", R"({"k":"v"})", "null", true},  {Dictionary, R"({"k":"V"})", R"({"k":"v"})", "null", false},
      {Dictionary, R"({"k":"5"})", R"({"k":5})", "null", false},    {Dictionary, R"({"k":5})", R"({"k":6})", "null", false},
      {Dictionary, R"({"k":5.0})", R"({"k":5.0})", "null", true},   {Dictionary, R"({"k":5})", R"({"k":5.0})", "null", false},
      {Dictionary, R"({"k":1})", R"({"k":true})", "null", false},   {Dictionary, R"({"k":true})", R"({"k":true})", "null", true},
      {Dictionary, R"({"i":[2,1]})", R"({"i":[1,2]})", "null", true}, {Dictionary, R"({"i":[1]})", R"({"i":[1,2]})", "null", false},
      {Dictionary, R"({"m":{"a":"1"},"t":"y"})", R"({"m":{"a":"1"},"t":"x"})", "null", true},
      {Dictionary, R"({"m":{"a":"1"},"t":"y"})", R"({"t":"x","m":{"a":"1"}})", "null", false},
      {Dictionary, R"({"m":{"n":{"k":"v"}}})", R"({"m":{"n":{"k":"w"}}})", "null", false},
      {Dictionary, R"({"m":"text"})", R"({"m":{"a":"1"}})", "null", false},
      {Dictionary, R"({"m":{"a":"1"},"t":"y"})", R"({"m":"text","t":"x"})", "null", false},  // passed over, not descended
      {Dictionary, "[]", R"({"k":"v"})", "null", false},
      {Dictionary, R"({"i":[1],"k":"v"})", R"({"i":"x","k":"v"})", "null", true},  // a listed attribute against a text: passed over
  };
  for (const Row& r : rows) {
    SCOPED_TRACE("check " + std::to_string(r.fn) + ": " + r.a + " , " + r.b + " , " + r.op);
    EXPECT_EQ(run(r), r.expected);
  }
  // Both time bounds are inclusive (times outside them: KLTRuntimeScenario_test).
  EXPECT_TRUE(KLTCEUtility::checkGivenTime(10, 10, 20) && KLTCEUtility::checkGivenTime(20, 10, 20));
  // Nested far deeper than a recursive descent could survive on a worker thread's stack.
  KLTValue a = KLTValue::object(), b = KLTValue::object();
  KLTValue *innerA = &a, *innerB = &b;
  for (int i = 0; i < 200000; ++i) {
    innerA = &((*innerA)["n"] = KLTValue::object());
    innerB = &((*innerB)["n"] = KLTValue::object());
  }
  (*innerB)["k"] = "w";
  EXPECT_FALSE(KLTCEUtility::doesDictionary(a, b));
}

TEST(KLTCEUtility, VersionUnderAllSixWords) {
  const auto previous = KLTBundle::shortVersionString();
  struct VersionRow {
    std::optional<std::string> app;
    const char* given;
    const char* answers;  // for EQ NEQ GT GTE LT LTE, 1 or 0
  };
  const std::vector<VersionRow> rows = {
      {"2", "2", "100101"},       {"1.5", "2.0", "011011"},   {"2.0", "1.5", "011110"},  {"10.2", "9.9", "011110"},
      {"1.0", "1.00", "010101"},  {"2", "", "011100"},        {"-1", "1", "010011"},     {"2.0", "2.0.1", "010000"},
      {"2.0", "1.0.1", "011100"}, {"2.0", "2.1.0", "010011"}, {std::nullopt, "1.0", "000000"},
  };
  const char* words[] = {"EQ", "NEQ", "GT", "GTE", "LT", "LTE"};
  for (const VersionRow& r : rows) {
    KLTBundle::setShortVersionString(r.app);
    for (int w = 0; w < 6; ++w) {
      SCOPED_TRACE("app " + r.app.value_or("(none)") + " " + words[w] + " given '" + r.given + "'");
      EXPECT_EQ(KLTCEUtility::checkGivenVersion(r.given, KLTValue(words[w])), r.answers[w] == '1');
    }
    EXPECT_FALSE(KLTCEUtility::checkGivenVersion(r.given, KLTValue("ge")));
  }
  KLTBundle::setShortVersionString(previous);
}

}  // namespace
