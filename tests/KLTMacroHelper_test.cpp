#include "KLTContextEvaluator/KLTMacroHelper.h"

#include <gtest/gtest.h>

#include <chrono>
#include <future>
#include <latch>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "KLTContextEvaluator/KLTContextEvaluator.h"
#include "testsupport/KLTTestHost.h"

namespace {

using namespace std::string_literals;

struct MacroCase {
  std::string input;
  std::string expected;
  const char* note;
};

class KLTMacroHelperTest : public ::testing::Test {
 protected:
  void SetUp() override {
    host_.controller().user()->setCustomInfo(KLTValue{
        {"name", "Ana"},
        {"plan", "basic+"},
        {"first name", "Zoë"},
        {" name ", "spaced"},
        {"empty", ""},
        {"a_b", "U"},
        {"later", "[user_target(t)]"},
        {"target", "T"},
        {"first", "F"},
        {"refers back", "[user_first(f)]"},
        {"bad", "\xFE\xFF"},
        {"prénom", "Zoë"},
        {"όνομα", "Ελένη"},
        {"名前", "花子"},
    });
    host_.controller().session()->setCustomInfo(KLTValue{{"plan", "pro"}, {"город", "Санкт-Петербург"}});
  }

  void expectCases(const std::vector<MacroCase>& cases) {
    for (const MacroCase& c : cases) {
      SCOPED_TRACE(std::string(c.note) + ": input \"" + c.input + "\"");
      EXPECT_EQ(helper_.applyMacro(c.input), c.expected);
    }
  }

  KLTTestHost host_{0};
  KLTMacroHelper helper_;
};

TEST_F(KLTMacroHelperTest, FillsFromUserOrSessionElseDefault) {
  expectCases({
      {"Hi [user_name(there)]!", "Hi Ana!", "user value"},
      {"Hi [user_nick(there)]!", "Hi there!", "missing key: default"},
      {"[user_empty(dflt)].", ".", "an empty value is still a value"},
      {"[session_plan(free)] and [user_plan(basic)]", "pro and basic+", "same key, separate sources"},
      {"[session_name(guest)]", "guest", "a user key is not a session key"},
      {"[user_first name(x)]", "Zoë", "blank inside the name"},
      {"[user_ name (x)]", "spaced", "blanks around the name are part of it"},
      {"[user_name (x)]", "x", "trailing blank makes another key"},
      {"[user_NAME(x)]", "x", "keys are case-sensitive"},
      {"[user_a_b(x)]", "U", "underscore is a word character"},
      {"[user_nick(dear friend)]", "dear friend", "blank inside the default"},
      {"[user_nick( x )]", " x ", "default kept with its blanks"},
      {"[user_nick(a)] [user_nick(b)]", "a b", "each placeholder brings its own default"},
      {"no placeholders [here] (at all)", "no placeholders [here] (at all)", "nothing to fill"},
  });
}

TEST_F(KLTMacroHelperTest, OnlyLowerCasePrefixesAreFilled) {
  expectCases({
      {"[User_name(x)]", "[User_name(x)]", "matched but not filled"},
      {"[USER_name(x)]", "[USER_name(x)]", "upper case"},
      {"[sEssion_plan(x)]", "[sEssion_plan(x)]", "mixed case session"},
      {"[User_name(x)] [user_name(x)]", "[User_name(x)] Ana", "skipped match does not stop the walk"},
      {"[ſession_plan(x)] [session_plan(x)]", "[ſession_plan(x)] pro", "long s folds to s: two-byte letter"},
  });
}

TEST_F(KLTMacroHelperTest, RefusedPlaceholdersAreLeftAlone) {
  expectCases({
      {"[user_name()]", "[user_name()]", "empty default"},
      {"[user_(x)]", "[user_(x)]", "empty name"},
      {"[user_e-mail(x)]", "[user_e-mail(x)]", "punctuation in the name"},
      {"[user_city(New York, NY)]", "[user_city(New York, NY)]", "punctuation in the default"},
      {"[user_name(x)", "[user_name(x)", "unclosed"},
      {"[usr_name(x)] [user name(x)]", "[usr_name(x)] [user name(x)]", "wrong prefix"},
      {"[user_a(b)(c)]", "[user_a(b)(c)]", "two defaults"},
      {"[user_🙂(x)]", "[user_🙂(x)]", "emoji is not a word character"},
      {"[user_[user_name(x)](c)]", "[user_Ana(c)]", "inner placeholder filled; the outcome is not rescanned"},
  });
}

TEST_F(KLTMacroHelperTest, ReplacesEveryOccurrenceOfTheMatchedText) {
  expectCases({
      {"[user_name(x)] & [user_name(x)]", "Ana & Ana", "placeholder that stands twice"},
      {"[user_later(x)] [user_target(t)]", "T T", "value holding a later placeholder is filled there too"},
      {"[user_first(f)] [user_refers back(r)]", "F [user_first(f)]", "value holding an earlier one stays"},
  });
}

// A value holding its own placeholder twice doubles every occurrence at each of the k matches:
// k * 2^k copies, kept exactly up to the bound, refused with one ERROR line past it.
TEST_F(KLTMacroHelperTest, SelfRepeatingValueFillsExactlyUpToTheBound) {
  const std::string p = "[user_n(x)]";
  host_.controller().user()->setCustomInfoValue("n", p + p);
  const auto times = [&](std::size_t k) {
    std::string s;
    for (std::size_t i = 0; i < k; ++i) s += p;
    return s;
  };
  for (const std::size_t k : {1u, 3u, 12u}) {  // 12 * 4096 copies: 540 KB, under the 1 MiB floor
    SCOPED_TRACE(k);
    EXPECT_EQ(helper_.applyMacro(times(k)), times(k << k));
  }
  host_.log().clear();
  EXPECT_EQ(helper_.applyMacro(times(22)), std::nullopt);
  ASSERT_EQ(host_.log().lines().size(), 1u);
  EXPECT_EQ(host_.log().lines()[0].rfind("<KLT ERROR> Filled text would pass 1048576 bytes", 0), 0u);
}

TEST_F(KLTMacroHelperTest, KeepsEveryScriptIntact) {
  host_.controller().session()->setCustomInfoValue("название", "Москва");
  expectCases({
      {"Bonjour [user_prénom(ami)] ☕", "Bonjour Zoë ☕", "accented Latin"},
      {"🙂🙂 Γειά [user_όνομα(φίλε)]!", "🙂🙂 Γειά Ελένη!", "Greek after emoji"},
      {"[session_город(Москва)] 🚀 [session_страна(Россия)]", "Санкт-Петербург 🚀 Россия", "Cyrillic value and default"},
      {"こんにちは[user_名前(友達)]さん", "こんにちは花子さん", "CJK without blanks around"},
      {"👨‍👩‍👧 [user_ник(друг)] 👍🏽", "👨‍👩‍👧 друг 👍🏽", "emoji sequences around a default"},
      {"[user_pre\u0301nom(x)]", "x", "decomposed accent is another key"},
  });
}

TEST_F(KLTMacroHelperTest, NonTextValues) {
  struct ValueCase {
    KLTValue value;
    std::string expected;
    const char* note;
  };
  const std::vector<ValueCase> cases = {
      {42, "<42>", "integer"},
      {-7, "<-7>", "negative integer"},
      {2.5, "<2.5>", "float"},
      {2.0, "<2>", "integral float"},
      {true, "<true>", "boolean true"},
      {false, "<false>", "boolean false"},
      {nullptr, "<dflt>", "null counts as missing"},
      {KLTValue::array({1}), "<dflt>", "list counts as missing"},
      {KLTValue{{"k", 1}}, "<dflt>", "dictionary counts as missing"},
  };
  for (const ValueCase& c : cases) {
    SCOPED_TRACE(c.note);
    host_.controller().user()->setCustomInfoValue("v", c.value);
    EXPECT_EQ(helper_.applyMacro("<[user_v(dflt)]>"), c.expected);
  }
  host_.controller().session()->setCustomInfo(KLTValue::array({"plan"}));
  EXPECT_EQ(helper_.applyMacro("[session_plan(free)]"), "free") << "custom info that is not a dictionary";
}

TEST_F(KLTMacroHelperTest, InputThatIsNotNonEmptyTextGivesNothing) {
  const std::vector<std::pair<KLTValue, const char*>> cases = {
      {KLTValue(), "null"}, {"", "empty text"}, {42, "number"}, {KLTValue::array({"[user_name(x)]"}), "list"}};
  for (const auto& [input, note] : cases) {
    SCOPED_TRACE(note);
    host_.log().clear();
    EXPECT_EQ(helper_.applyMacro(input), std::nullopt);
    EXPECT_EQ(host_.log().count("<KLT ERROR> Invalid string! -[KLTMacroHelper applyMacro:]:"), 1);
  }
}

TEST_F(KLTMacroHelperTest, InvalidUtf8ComesBackAsItWas) {
  expectCases({
      {"\xFF[user_name(x)]", "\xFF"
                             "Ana",
       "stray byte before"},
      {"[user_name(x)]\xE2\x82", "Ana\xE2\x82", "truncated sequence at the end"},
      {"\xF0\x9F\x99[user_name(x)]\xC0\xAF", "\xF0\x9F\x99"
                                             "Ana\xC0\xAF",
       "truncated emoji before, overlong after"},
      {"\x80\x80[session_plan(x)]\xBF", "\x80\x80pro\xBF", "lone continuation bytes"},
      {"[user_na\xFFme(x)]", "[user_na\xFFme(x)]", "invalid byte in the name"},
      {"[user_name(\xED\xA0\x80)]", "[user_name(\xED\xA0\x80)]", "encoded surrogate as default"},
      {"[user_bad(x)]!", "\xFE\xFF!", "invalid value inserted verbatim"},
      {"a\0[user_name(x)]\0"s, "a\0Ana\0"s, "embedded NUL bytes"},
  });
}

// Texts built from pieces whose filled form is known; ill-formed and multi-byte pieces sit right
// against the placeholders, so any byte offset that is off by one character shows up.
TEST_F(KLTMacroHelperTest, RandomMixOfPiecesFillsExactlyThePlaceholders) {
  struct Piece {
    std::string text;
    std::string filled;
  };
  const std::vector<Piece> pieces = {
      {"[user_name(x)]", "Ana"},
      {"[session_plan(free)]", "pro"},
      {"[user_όνομα(φίλε)]", "Ελένη"},
      {"[session_город(Москва)]", "Санкт-Петербург"},
      {"[user_nick(dear friend)]", "dear friend"},
      {"[User_name(x)]", "[User_name(x)]"},
      {"[user_e-mail(x)]", "[user_e-mail(x)]"},
      {"plain ", "plain "},
      {"é", "é"},
      {"花", "花"},
      {"🙂", "🙂"},
      {"\xE2\x82", "\xE2\x82"},
      {"\xF0\x9F", "\xF0\x9F"},
      {"\xFF", "\xFF"},
      {"\x80", "\x80"},
      {"\xED\xA0\x80", "\xED\xA0\x80"},
      {"\xC0\xAF", "\xC0\xAF"},
      {"(", "("},
  };
  std::mt19937 rng(20261122);
  std::uniform_int_distribution<std::size_t> pick(0, pieces.size() - 1);
  std::uniform_int_distribution<int> length(1, 24);
  for (int round = 0; round < 1500; ++round) {
    std::string input, expected;
    for (int n = length(rng); n > 0; --n) {
      const Piece& p = pieces[pick(rng)];
      input += p.text;
      expected += p.filled;
    }
    SCOPED_TRACE("round " + std::to_string(round) + ": " + input);
    ASSERT_EQ(helper_.applyMacro(input), expected);
  }
}

// The pattern is compiled at first use; callers racing to that first use all get it.
TEST(KLTMacroHelperThreads, FirstUseFromSeveralThreadsAtOnce) {
  KLTTestHost host(2);
  host.controller().user()->setCustomInfoValue("name", "Ana");
  KLTMacroHelper helper;
  constexpr int kThreads = 4;
  std::latch start(kThreads);
  std::vector<std::optional<std::string>> results(kThreads);
  std::vector<std::thread> threads;
  for (int i = 0; i < kThreads; ++i) {
    threads.emplace_back([&, i] {
      start.arrive_and_wait();
      results[i] = helper.applyMacro("Hi [user_name(there)]");
    });
  }
  for (auto& t : threads) t.join();
  for (const auto& r : results) EXPECT_EQ(r, "Hi Ana");
}

TEST(KLTMacroHelperEvaluator, ReplaceMacrosDoesNotWaitForTheSerialQueue) {
  KLTTestHost host(2);
  host.controller().user()->setCustomInfoValue("name", "Ana");
  KLTContextEvaluator& evaluator = KLTContextEvaluator::sharedInstance();

  std::promise<void> held;
  std::promise<void> release;
  std::shared_future<void> released = release.get_future().share();
  evaluator.ceOpsSerialQueue()->async([&held, released] {
    held.set_value();
    released.wait();
  });
  held.get_future().wait();

  // Run on another thread so that a replaceMacros that waited for the queue fails the test instead
  // of hanging it: the guard only elapses in that failure.
  auto reply = std::async(std::launch::async, [&evaluator] { return evaluator.replaceMacros("Hi [user_name(there)]"); });
  const bool returned = reply.wait_for(std::chrono::seconds(20)) == std::future_status::ready;
  release.set_value();
  EXPECT_TRUE(returned) << "replaceMacros waited for the serial queue";
  EXPECT_EQ(reply.get(), "Hi Ana");
  evaluator.ceOpsSerialQueue()->waitUntilIdle();
}

}  // namespace
