#include "KLTContextEvaluator/KLTCEUtility.h"

#include <cstdint>
#include <limits>
#include <optional>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "platform/KLTBundle.h"

namespace {

// Cases are written as JSON texts; "null" stands for a missing value.
KLTValue J(const std::string& text) { return KLTValue::parse(text); }

constexpr int64_t kMin = std::numeric_limits<int64_t>::min();
constexpr int64_t kMax = std::numeric_limits<int64_t>::max();

TEST(KLTCEUtility, CheckValueAppliesEachWordToObservedThenConfigured) {
  struct Row {
    int64_t a, b;
    const char* op;
    bool expected;
  };
  const std::vector<Row> rows = {
      {3, 3, R"("EQ")", true},   {3, 3, R"("NEQ")", false}, {3, 3, R"("GT")", false},
      {3, 3, R"("GTE")", true},  {3, 3, R"("LT")", false},  {3, 3, R"("LTE")", true},
      {4, 3, R"("GT")", true},   {3, 4, R"("GT")", false},  {4, 3, R"("LT")", false},
      {3, 4, R"("LT")", true},   {4, 3, R"("GTE")", true},  {3, 4, R"("LTE")", true},
      {-1, 1, R"("LT")", true},  {-1, 1, R"("GT")", false}, {kMin, kMax, R"("LT")", true},
      {kMax, kMin, R"("GT")", true},
      // Words match exactly and case-sensitively; anything else is false even where a == b.
      {3, 3, R"("eq")", false},  {3, 3, R"(" EQ")", false},  {3, 3, "null", false},
  };
  for (const Row& r : rows) {
    SCOPED_TRACE(std::to_string(r.a) + " " + r.op + " " + std::to_string(r.b));
    EXPECT_EQ(KLTCEUtility::checkValue(r.a, r.b, J(r.op)), r.expected);
  }
}

TEST(KLTCEUtility, CheckBoolKnowsOnlyEqualityWords) {
  struct Row {
    bool a, b;
    const char* op;
    bool expected;
  };
  const std::vector<Row> rows = {
      {true, true, R"("EQ")", true},    {true, false, R"("EQ")", false}, {true, false, R"("NEQ")", true},
      {false, false, R"("NEQ")", false}, {true, false, R"("GT")", false}, {false, true, R"("LTE")", false},
      {true, true, R"("GTE")", false},  {true, true, R"("eq")", false},  {true, true, "null", false},
  };
  for (const Row& r : rows) {
    SCOPED_TRACE(std::string(r.a ? "true " : "false ") + r.op + (r.b ? " true" : " false"));
    EXPECT_EQ(KLTCEUtility::checkBool(r.a, r.b, J(r.op)), r.expected);
  }
}

TEST(KLTCEUtility, CheckStringDecidesByKindOfActualValue) {
  struct Row {
    const char* s;
    const char* v;
    const char* op;
    bool expected;
    const char* note;
  };
  const std::vector<Row> rows = {
      {R"("home")", R"("home")", R"("EQ")", true, "equal texts"},
      {R"("home")", R"("home")", R"("NEQ")", false, "equal texts"},
      {R"("home")", R"("Home")", R"("EQ")", false, "case matters"},
      {R"("home")", R"("Home")", R"("NEQ")", true, "case matters"},
      {R"("b")", R"("a")", R"("GT")", false, "no ordering of texts"},
      {R"("5")", "5", R"("EQ")", false, "a number is neither equal"},
      {R"("5")", "5", R"("NEQ")", false, "nor different"},
      {R"("5")", "true", R"("NEQ")", false, "booleans are numbers"},
      {R"("5")", R"(["5"])", R"("EQ")", true, "list holding the text"},
      {R"("5")", R"(["5"])", R"("NEQ")", false, "list holding the text"},
      {R"("5")", "[5]", R"("EQ")", false, "list holding the number"},
      {R"("5")", "[5]", R"("NEQ")", true, "list holding the number"},
      {R"("5")", "[]", R"("EQ")", false, "empty list"},
      {R"("5")", "[]", R"("NEQ")", true, "empty list"},
      {R"("5")", R"(["5"])", R"("GT")", false, "list with an ordering word"},
      {R"("5")", "null", R"("EQ")", false, "missing"},
      {R"("5")", "null", R"("NEQ")", false, "missing"},
      {R"("5")", R"({"5":"5"})", R"("NEQ")", false, "dictionary"},
      {"5", R"("5")", R"("EQ")", false, "expected number never equals a text"},
      {R"("x")", R"("x")", "null", false, "no operator"},
  };
  for (const Row& r : rows) {
    SCOPED_TRACE(std::string(r.s) + " vs " + r.v + " " + r.op + ": " + r.note);
    EXPECT_EQ(KLTCEUtility::checkString(J(r.s), J(r.v), J(r.op)), r.expected);
  }
}

TEST(KLTCEUtility, CheckAttrValueReadsNumbersAndListsOnly) {
  struct Row {
    const char* v;
    int64_t g;
    const char* op;
    bool expected;
    const char* note;
  };
  const std::vector<Row> rows = {
      {"5.9", 5, R"("EQ")", true, "truncated toward zero"},
      {"-5.9", -5, R"("EQ")", true, "truncated toward zero, negative"},
      {"-5.9", -6, R"("EQ")", false, "not floored"},
      {"true", 1, R"("EQ")", true, "boolean reads 1"},
      {"250", 100, R"("GT")", true, "observed value first"},
      {"99", 100, R"("GTE")", false, "observed value first"},
      {"-3", 2, R"("LT")", true, "signed"},
      {"1e30", kMax, R"("EQ")", true, "huge float clamps"},
      {R"("5")", 5, R"("EQ")", false, "text is not a number"},
      {R"("5")", 5, R"("NEQ")", false, "text is not a number"},
      {"[5.0]", 5, R"("EQ")", true, "membership by value"},
      {"[5.0]", 5, R"("NEQ")", false, "membership by value"},
      {"[true]", 1, R"("EQ")", true, "true is 1 in a list"},
      {R"(["5"])", 5, R"("EQ")", false, "text 5 is not the number 5"},
      {R"(["5"])", 5, R"("NEQ")", true, "text 5 is not the number 5"},
      {"[5.5]", 5, R"("EQ")", false, "list members are not truncated"},
      {"[9]", 5, R"("GT")", false, "list with an ordering word"},
      {"null", 0, R"("EQ")", false, "missing"},
      {"null", 0, R"("NEQ")", false, "missing"},
      {R"({"a":1})", 1, R"("EQ")", false, "dictionary"},
      {"5", 5, R"("eq")", false, "word case"},
  };
  for (const Row& r : rows) {
    SCOPED_TRACE(std::string(r.v) + " " + r.op + " " + std::to_string(r.g) + ": " + r.note);
    EXPECT_EQ(KLTCEUtility::checkAttrValue(J(r.v), r.g, J(r.op)), r.expected);
  }
}

TEST(KLTCEUtility, EvaluateConditionStatusCombinesWithExactWords) {
  struct Row {
    bool x, y;
    const char* op;
    bool expected;
  };
  const std::vector<Row> rows = {
      {true, true, R"("AND")", true},  {true, false, R"("AND")", false}, {false, true, R"("AND")", false},
      {false, false, R"("OR")", false}, {true, false, R"("OR")", true},   {false, true, R"("OR")", true},
      {true, true, R"("XOR")", false}, {true, true, R"("and")", false},  {true, true, R"("or")", false},
      {true, true, R"("AND ")", false}, {true, true, "null", false},
  };
  for (const Row& r : rows) {
    SCOPED_TRACE(std::string(r.x ? "true " : "false ") + r.op + (r.y ? " true" : " false"));
    EXPECT_EQ(KLTCEUtility::evaluateConditionStatus(r.x, r.y, J(r.op)), r.expected);
  }
}

TEST(KLTCEUtility, CheckGivenTimeHasInclusiveBounds) {
  struct Row {
    int64_t t, lower, upper;
    bool expected;
  };
  const std::vector<Row> rows = {
      {10, 10, 20, true}, {20, 10, 20, true},  {9, 10, 20, false},  {21, 10, 20, false},
      {15, 20, 10, false}, {20, 20, 10, false}, {-5, -10, -1, true}, {kMin, kMin, kMax, true},
  };
  for (const Row& r : rows) {
    SCOPED_TRACE(std::to_string(r.lower) + " <= " + std::to_string(r.t) + " <= " + std::to_string(r.upper));
    EXPECT_EQ(KLTCEUtility::checkGivenTime(r.t, r.lower, r.upper), r.expected);
  }
}

TEST(KLTCEUtility, CompareGivenAttributesAgainstHostAttributes) {
  struct Row {
    const char* rule;
    const char* existing;
    bool expected;
    const char* note;
  };
  const std::vector<Row> rows = {
      {R"({"name":"color","value":["red","blue"],"operator":"EQ"})", R"({"color":"red"})", true, "in the list"},
      {R"({"name":"color","value":["red","blue"],"operator":"EQ"})", R"({"color":"green"})", false, "not in it"},
      {R"({"name":"color","value":["red","blue"],"operator":"NEQ"})", R"({"color":"red"})", false, "in the list"},
      {R"({"name":"color","value":["Red"],"operator":"EQ"})", R"({"color":"red"})", false, "case matters"},
      {R"({"name":"size","value":["red"],"operator":"EQ"})", R"({"color":"red"})", true, "unknown name"},
      {R"({"value":["red"],"operator":"EQ"})", R"({"color":"red"})", true, "no name"},
      {R"({"name":"color","value":["blue"],"operator":"EQ"})", "[]", true, "host attributes not a dictionary"},
      {R"({"name":"color","value":["blue"],"operator":"GT"})", R"({"color":"red"})", true, "unknown word holds"},
      {R"({"name":"color","value":["blue"]})", R"({"color":"red"})", true, "no word holds"},
      {R"({"name":"n","value":["blue"],"operator":"GT"})", R"({"n":3})", true, "unknown word, number"},
      {R"({"name":"color","operator":"EQ"})", R"({"color":"red"})", false, "value missing"},
      {R"({"name":"color","operator":"NEQ"})", R"({"color":"red"})", true, "value missing"},
      {R"({"name":"color","value":"red","operator":"EQ"})", R"({"color":"red"})", false, "value not a list"},
      {R"({"name":"color","value":"red","operator":"NEQ"})", R"({"color":"blue"})", false, "value not a list"},
      {R"({"name":"n","value":[5.0],"operator":"EQ"})", R"({"n":5})", true, "5 equals 5.0"},
      {R"({"name":"n","value":["5"],"operator":"EQ"})", R"({"n":5})", false, "5 is not the text 5"},
      {R"({"name":"n","value":["5"],"operator":"NEQ"})", R"({"n":5})", true, "5 is not the text 5"},
      {R"({"name":"n","value":[1],"operator":"EQ"})", R"({"n":true})", true, "booleans are numbers"},
      {R"({"name":"tags","value":["a","c"],"operator":"EQ"})", R"({"tags":["a","b","c"]})", true, "all in"},
      {R"({"name":"tags","value":["a","d"],"operator":"EQ"})", R"({"tags":["a","b","c"]})", false, "d missing"},
      {R"({"name":"tags","value":["d"],"operator":"NEQ"})", R"({"tags":["a","b","c"]})", true, "none in"},
      {R"({"name":"tags","value":["d","b"],"operator":"NEQ"})", R"({"tags":["a","b","c"]})", false, "b in"},
      {R"({"name":"tags","value":["z"],"operator":"LT"})", R"({"tags":["a","b","c"]})", true, "list, unknown word"},
      {R"({"name":"tags","value":"a","operator":"EQ"})", R"({"tags":["a"]})", false, "list, value not a list"},
      {R"({"name":"d","value":["x"],"operator":"EQ"})", R"({"d":{"x":1}})", true, "host dictionary"},
      {R"({"name":"d","value":["x"],"operator":"EQ"})", R"({"d":null})", true, "host null"},
  };
  for (const Row& r : rows) {
    SCOPED_TRACE(std::string(r.rule) + " against " + r.existing + ": " + r.note);
    EXPECT_EQ(KLTCEUtility::compareGivenAttributes(J(r.rule), J(r.existing)), r.expected);
  }
}

TEST(KLTCEUtility, DoesArrayTestsInclusionOrExclusion) {
  struct Row {
    const char* a;
    const char* b;
    const char* op;
    bool expected;
  };
  const std::vector<Row> rows = {
      {R"(["a","b","c"])", R"(["a","c"])", R"("EQ")", true},
      {R"(["a","b","c"])", R"(["a","d"])", R"("EQ")", false},
      {R"(["a","b","c"])", R"(["d"])", R"("NEQ")", true},
      {R"(["a","b","c"])", R"(["d","b"])", R"("NEQ")", false},
      {R"(["a"])", "[]", R"("EQ")", true},
      {R"(["a"])", "[]", R"("NEQ")", true},
      {R"(["a"])", "null", R"("EQ")", true},
      {"null", R"(["a"])", R"("EQ")", false},
      {"null", R"(["a"])", R"("NEQ")", true},
      {"[1, 2]", "[2.0]", R"("EQ")", true},
      {R"(["1"])", "[1]", R"("EQ")", false},
      {R"(["a"])", R"(["z"])", R"("GT")", true},
      {R"(["a"])", R"(["z"])", "null", true},
      {R"(["a"])", R"(["z"])", R"("eq")", true},
  };
  for (const Row& r : rows) {
    SCOPED_TRACE(std::string(r.a) + " " + r.op + " " + r.b);
    EXPECT_EQ(KLTCEUtility::doesArray(J(r.a), J(r.b), J(r.op)), r.expected);
  }
}

TEST(KLTCEUtility, DoesEventAttributesAppliesPlainValuesAndTypedRules) {
  struct Row {
    const char* event;
    const char* data;
    bool expected;
    const char* note;
  };
  const std::vector<Row> rows = {
      {R"({"x":1})", "{}", true, "no data"},
      {R"({"x":1})", "null", true, "missing data"},
      {R"({"screen":"home"})", R"({"screen":"home"})", true, "equal text"},
      {R"({"screen":["menu","home"]})", R"({"screen":"home"})", true, "list holding the text"},
      {R"({"screen":"Home"})", R"({"screen":"home"})", false, "case matters"},
      {"{}", R"({"screen":"home"})", false, "no screen"},
      {R"({"screen":0})", R"({"screen":"home"})", false, "number 0"},
      {R"({"level":3.9})", R"({"level":3})", true, "event side truncated"},
      {R"({"level":-3.9})", R"({"level":-3})", true, "event side truncated toward zero"},
      {R"({"level":"3"})", R"({"level":3})", false, "text 3"},
      {R"({"level":3})", R"({"level":3.7})", true, "data side truncated"},
      {R"({"level":-3})", R"({"level":-3.7})", true, "data side truncated toward zero"},
      {R"({"level":[3]})", R"({"level":3.7})", true, "list holding the truncated data"},
      {R"({"level":[3.7]})", R"({"level":3.7})", false, "list members are not truncated"},
      {R"({"flag":true})", R"({"flag":true})", true, "boolean data is the number 1"},
      {R"({"flag":1})", R"({"flag":true})", true, "boolean data is the number 1"},
      {R"({"flag":1.5})", R"({"flag":true})", true, "boolean data is the number 1"},
      {R"({"flag":false})", R"({"flag":true})", false, ""},
      {R"({"flag":"true"})", R"({"flag":true})", false, "text true"},
      {"{}", R"({"flag":true})", false, "missing flag"},
      {"{}", R"({"paid":{"t":"b","op":"EQ","val":false}})", true, "missing reads false"},
      {"{}", R"({"paid":{"t":"b","op":"GT","val":false}})", false, "booleans have no ordering"},
      {R"({"paid":"yes"})", R"({"paid":{"t":"b","op":"EQ","val":"T"}})", true, "truth of texts"},
      {R"({"paid":"0"})", R"({"paid":{"t":"b","op":"NEQ","val":1}})", true, "truth of texts"},
      {R"({"amount":100})", R"({"amount":{"t":"n","op":"GTE","val":100}})", true, ""},
      {R"({"amount":99})", R"({"amount":{"t":"n","op":"GTE","val":100}})", false, ""},
      {"{}", R"({"amount":{"t":"n","op":"GTE","val":100}})", false, "missing amount"},
      {R"({"amount":250})", R"({"amount":{"t":"l","op":"GT","val":100}})", true, "l as n"},
      {R"({"amount":99})", R"({"amount":{"t":"l","op":"GT","val":100}})", false, "event value first"},
      {R"({"amount":-5})", R"({"amount":{"t":"l","op":"LT","val":2}})", true, "signed"},
      {R"({"amount":[100]})", R"({"amount":{"t":"n","op":"EQ","val":100.9}})", true, "val truncated"},
      {R"({"amount":100})", R"({"amount":{"t":"n","op":"EQ","val":"100"}})", false, "val not a number"},
      {R"({"amount":100})", R"({"amount":{"t":"n","op":"XX","val":100}})", false, "unknown word fails"},
      {R"({"name":"bob"})", R"({"name":{"t":"s","op":"EQ","val":"bob"}})", true, ""},
      {R"({"name":"bob"})", R"({"name":{"t":"s","op":"NEQ","val":"al"}})", true, ""},
      {R"({"name":"bob"})", R"({"name":{"t":"s","op":"GT","val":"al"}})", false, "ordering of texts fails"},
      {"{}", R"({"name":{"t":"s","op":"NEQ","val":"al"}})", false, "missing is not different"},
      {R"({"d":1})", R"({"d":{"t":"d","op":"EQ","val":2}})", true, "unknown type ignored"},
      {R"({"d":1})", R"({"d":{"t":"S","op":"EQ","val":2}})", true, "type letters are case-sensitive"},
      {R"({"d":1})", R"({"d":{"op":"EQ","val":2}})", true, "no type ignored"},
      {R"({"d":1})", R"({"d":[2]})", true, "list data ignored"},
      {R"({"a":"x","b":2})", R"({"a":"x","b":3})", false, "every key must pass"},
      {R"({"a":"x","b":3})", R"({"a":"x","b":3})", true, "every key passes"},
      {"[]", R"({"a":"x"})", false, "event attributes not a dictionary"},
  };
  for (const Row& r : rows) {
    SCOPED_TRACE(std::string(r.event) + " against " + r.data + ": " + r.note);
    EXPECT_EQ(KLTCEUtility::doesEventAttributes(J(r.event), J(r.data)), r.expected);
  }
}

TEST(KLTCEUtility, DoesDictionaryMatchesTriggerDataInKeyOrder) {
  struct Row {
    const char* a;
    const char* b;
    bool expected;
    const char* note;
  };
  const std::vector<Row> rows = {
      {R"({"k":"v"})", "{}", true, "no data"},
      {R"({"k":"v"})", "null", true, "missing data"},
      {"{}", R"({"k":"v"})", false, "key missing"},
      {R"({"k":null})", R"({"k":"v"})", true, "present null is passed over"},
      {R"({"k":"v"})", R"({"k":"v"})", true, "equal text"},
      {R"({"k":"V"})", R"({"k":"v"})", false, "case matters"},
      {R"({"k":"5"})", R"({"k":5})", false, "text against number"},
      {R"({"k":["v"]})", R"({"k":"v"})", true, "list against text is passed over"},
      {R"({"k":5})", R"({"k":5})", true, "same integer"},
      {R"({"k":5})", R"({"k":5.0})", false, "integer against floating"},
      {R"({"k":1})", R"({"k":true})", false, "integer against boolean"},
      {R"({"k":true})", R"({"k":true})", true, "same boolean"},
      {R"({"k":5})", R"({"k":"5"})", false, "number against text"},
      {R"({"ids":[2,1,3]})", R"({"ids":[1,2]})", true, "all listed"},
      {R"({"ids":[1]})", R"({"ids":[1,2]})", false, "one missing"},
      {R"({"m":{"a":"1"}})", R"({"m":{"a":"1"}})", true, "nested"},
      {R"({"m":{"a":"2"}})", R"({"m":{"a":"1"}})", false, "nested"},
      {R"({"meta":{"a":"1"},"title":"y"})", R"({"meta":{"a":"1"},"title":"x"})", true,
       "nested first: title never looked at"},
      {R"({"meta":{"a":"1"},"title":"y"})", R"({"title":"x","meta":{"a":"1"}})", false, "title first decides"},
      {R"({"ids":[1],"title":"y"})", R"({"ids":[1],"title":"x"})", true, "list first: title never looked at"},
      {R"({"ids":[1],"title":"y"})", R"({"ids":[1],"title":"x","zz":"q"})", true, "later missing key unseen"},
      {R"({"m":{"n":{"k":"v"}}})", R"({"m":{"n":{"k":"w"}}})", false, "two levels"},
      {R"({"m":"text"})", R"({"m":{"a":"1"}})", false, "text against dictionary"},
      {R"({"m":{"a":"1"}})", R"({"m":"x"})", true, "dictionary against text is passed over"},
      {"[]", R"({"k":"v"})", false, "event not a dictionary"},
  };
  for (const Row& r : rows) {
    SCOPED_TRACE(std::string(r.a) + " against " + r.b + ": " + r.note);
    EXPECT_EQ(KLTCEUtility::doesDictionary(J(r.a), J(r.b)), r.expected);
  }
}

TEST(KLTCEUtility, DoesDictionaryCopesWithDeepNesting) {
  // Nested far deeper than a recursive descent could survive on a worker thread's stack.
  KLTValue a = KLTValue::object();
  KLTValue b = KLTValue::object();
  KLTValue* innerA = &a;
  KLTValue* innerB = &b;
  for (int i = 0; i < 200000; ++i) {
    innerA = &((*innerA)["n"] = KLTValue::object());
    innerB = &((*innerB)["n"] = KLTValue::object());
  }
  (*innerA)["k"] = "v";
  (*innerB)["k"] = "v";
  EXPECT_TRUE(KLTCEUtility::doesDictionary(a, b));
  (*innerB)["k"] = "w";
  EXPECT_FALSE(KLTCEUtility::doesDictionary(a, b));
}

// Sets the application's version for one test and restores the previous one afterwards.
class KLTCEUtilityVersion : public ::testing::Test {
 protected:
  void SetUp() override { previous_ = KLTBundle::shortVersionString(); }
  void TearDown() override { KLTBundle::setShortVersionString(previous_); }

 private:
  std::optional<std::string> previous_;
};

TEST_F(KLTCEUtilityVersion, WorkedTableUnderAllSixWords) {
  struct Row {
    const char* app;
    const char* given;
    bool eq, neq, gt, gte, lt, lte;
  };
  const std::vector<Row> rows = {
      {"2", "2", true, false, false, true, false, true},
      {"1.5", "2.0", false, true, true, false, true, true},
      {"2.0", "1.5", false, true, true, true, true, false},
      {"10.2", "9.9", false, true, true, true, true, false},
      {"2.0.1", "2.0", false, true, false, true, false, true},
      {"1.0", "1.00", false, true, false, true, false, true},
      {"1.2-beta", "1.2", false, true, false, true, false, true},
      {"2", "", false, true, true, true, false, false},
      {"3", "3", true, false, false, true, false, true},
      {"3.0", "3", false, true, false, true, false, true},
      {"01", "1", false, true, false, true, false, true},
      {"2.x", "2.0", false, true, false, true, false, true},
      {"1..2", "1..2", true, false, false, true, false, true},
      {"-1", "1", false, true, false, false, true, true},
      {"99999999999", "2147483647", false, true, false, true, false, true},
  };
  const char* words[] = {"EQ", "NEQ", "GT", "GTE", "LT", "LTE"};
  for (const Row& r : rows) {
    KLTBundle::setShortVersionString(r.app);
    const bool expected[] = {r.eq, r.neq, r.gt, r.gte, r.lt, r.lte};
    for (int w = 0; w < 6; ++w) {
      SCOPED_TRACE(std::string("app ") + r.app + " " + words[w] + " given '" + r.given + "'");
      EXPECT_EQ(KLTCEUtility::checkGivenVersion(r.given, KLTValue(words[w])), expected[w]);
    }
  }
}

TEST_F(KLTCEUtilityVersion, ScanPastApplicationVersionAndOddCases) {
  struct Row {
    std::optional<std::string> app;
    const char* given;
    const char* op;
    bool expected;
    const char* note;
  };
  const std::vector<Row> rows = {
      {"2.0", "2.0.1", R"("GTE")", false, "reads past the application's version"},
      {"2.0", "2.0.1", R"("LTE")", false, "reads past the application's version"},
      {"2.0", "1.0.1", R"("GT")", true, "decided before the end"},
      {"2.0", "2.1.0", R"("LT")", true, "decided before the end"},
      {"2.0", "2.0.1", R"("EQ")", false, "counts differ"},
      {"2.0", "2.0.1", R"("NEQ")", true, "counts differ"},
      {"2.0", "2.0", R"("ge")", false, "unknown word"},
      {"2.0", "2.0", R"("Gt")", false, "unknown word"},
      {"2.0", "2.0", R"("==")", false, "unknown word"},
      {"2.0", "2.0", "null", false, "no word"},
      {std::nullopt, "1.0", R"("NEQ")", false, "no application version"},
      {std::nullopt, "1.0", R"("LTE")", false, "no application version"},
  };
  for (const Row& r : rows) {
    KLTBundle::setShortVersionString(r.app);
    SCOPED_TRACE(r.app.value_or("(none)") + " " + r.op + " " + r.given + ": " + r.note);
    EXPECT_EQ(KLTCEUtility::checkGivenVersion(r.given, J(r.op)), r.expected);
  }
}

TEST_F(KLTCEUtilityVersion, ReadsTheApplicationVersionOnEveryCall) {
  KLTBundle::setShortVersionString("1.0");
  EXPECT_TRUE(KLTCEUtility::checkGivenVersion("1.0", KLTValue("EQ")));
  KLTBundle::setShortVersionString("1.1");
  EXPECT_FALSE(KLTCEUtility::checkGivenVersion("1.0", KLTValue("EQ")));
}

}  // namespace
