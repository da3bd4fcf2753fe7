// Placeholders "[user_key(default)]" and "[session_key(default)]" filled from the current user's
// and session's custom info, every script and stray byte kept as it was.
#include "KLTContextEvaluator/KLTMacroHelper.h"

#include <gtest/gtest.h>

#include <chrono>
#include <future>
#include <string>
#include <vector>

#include "KLTContextEvaluator/KLTContextEvaluator.h"
#include "testsupport/KLTTestHost.h"

namespace {

using namespace std::string_literals;

TEST(KLTMacroHelper, FillsPlaceholders) {
  KLTTestHost host(0);
  host.controller().user()->setCustomInfo(KLTValue{{"name", "Ana"},       {"plan", "basic+"},    {" name ", "spaced"},
                                                   {"empty", ""},         {"n", 42},             {"list", {1}},
                                                   {"later", "[user_target(t)]"}, {"target", "T"}, {"first", "F"}, {"back", "[user_first(f)]"}, {"bad", "\xFE\xFF"}});
  host.controller().session()->setCustomInfo(KLTValue{{"plan", "pro"}, {"город", "Санкт-Петербург"}});
  struct Row {
    std::string input, expected;
    const char* note;
  };
  const std::vector<Row> rows = {
      {"Hi [user_name(there)]!", "Hi Ana!", "user value"},
      {"Hi [user_nick(dear friend)]!", "Hi dear friend!", "missing key: default, blanks kept"},
      {"[user_empty(dflt)].", ".", "an empty value is still a value"},
      {"[session_plan(free)] and [user_plan(basic)]", "pro and basic+", "same key, separate sources"},
      {"[user_ name (x)] [user_NAME(x)]", "spaced x", "blanks belong to the name; keys are case-sensitive"},
      {"<[user_n(d)]> <[user_list(d)]>", "<42> <d>", "numbers in their text form; a list counts as missing"},
      {"[User_name(x)] [user_name(x)]", "[User_name(x)] Ana", "upper-case prefix matched but not filled"},
      {"[ſession_plan(x)] [session_plan(x)]", "[ſession_plan(x)] pro", "long s folds to s: two-byte letter"},
      {"[user_name()] [user_(x)] [user_e-mail(x)] [user_a(b)(c)]", "[user_name()] [user_(x)] [user_e-mail(x)] [user_a(b)(c)]",
       "refused placeholders"},
      {"[user_[user_name(x)](c)]", "[user_Ana(c)]", "inner placeholder filled; the outcome is not rescanned"},
      {"[user_later(x)] [User_target(t)] [user_target(t)]", "T [User_target(t)] T",
       "value holding a later placeholder is filled there too; one not filled stays"},
      {"[user_first(f)] [user_back(r)]", "F [user_first(f)]", "value holding an earlier one stays"},
      {"[user_[user_name(x)]b(c)] [user_Anab(c)]", "c c", "a value completing a later placeholder around it"},
      {"[user_name(x)] [user_n(d)] [user_name(x)]", "Ana 42 Ana", "a placeholder written twice"},
      {"[session_город(Москва)] 🚀 [session_страна(Россия)]", "Санкт-Петербург 🚀 Россия", "Cyrillic value and default around an emoji"},
      {"\xF0\x9F\x99[user_name(x)]\xC0\xAF", "\xF0\x9F\x99" "Ana\xC0\xAF", "truncated emoji before, overlong after"},
      {"[user_bad(x)]!", "\xFE\xFF!", "invalid value inserted verbatim"},
      {"a\0[user_name(x)]\0"s, "a\0Ana\0"s, "embedded NUL bytes"},
  };
  KLTMacroHelper helper;
  for (const Row& r : rows) {
    SCOPED_TRACE(std::string(r.note) + ": input \"" + r.input + "\"");
    EXPECT_EQ(helper.applyMacro(r.input), r.expected);
  }
  for (const KLTValue& input : {KLTValue(), KLTValue(""), KLTValue(42)}) {
    SCOPED_TRACE(input.dump());
    host.log().clear();
    EXPECT_EQ(helper.applyMacro(input), std::nullopt);
    EXPECT_EQ(host.log().count("<KLT ERROR> Invalid string! -[KLTMacroHelper applyMacro:]:"), 1);
  }
}

// A value holding its own placeholder twice doubles every occurrence at each of the k matches:
// k * 2^k copies, kept exactly up to the bound, refused with one ERROR line past it.
TEST(KLTMacroHelper, SelfRepeatingValueFillsExactlyUpToTheBound) {
  KLTTestHost host(2);
  const std::string p = "[user_n(x)]";
  host.controller().user()->setCustomInfoValue("n", p + p);
  const auto times = [&](std::size_t k) {
    std::string s;
    for (std::size_t i = 0; i < k; ++i) s += p;
    return s;
  };
  KLTMacroHelper helper;
  for (const std::size_t k : {1u, 3u, 12u}) {  // 12 * 4096 copies: 540 KB, under the 1 MiB floor
    SCOPED_TRACE(k);
    EXPECT_EQ(helper.applyMacro(times(k)), times(k << k));
  }
  host.log().clear();
  EXPECT_EQ(helper.applyMacro(times(22)), std::nullopt);
  ASSERT_EQ(host.log().lines().size(), 1u);
  EXPECT_EQ(host.log().lines()[0].rfind("<KLT ERROR> Filled text would pass 1048576 bytes", 0), 0u);
  // A fill of exactly the bound is kept; one byte more, in the value or in the text after it, is not.
  // Likewise for a value that begins with its own placeholder (filled turn by turn).
  constexpr std::size_t kBound = std::size_t{1} << 20;
  const struct {
    std::size_t valueSize;
    const char* text;
    bool kept;
    bool repeats;
  } rows[] = {{kBound, "[user_big(x)]", true, false},      {kBound + 1, "[user_big(x)]", false, false},
              {kBound - 2, "[user_big(x)]tail", false, false}, {kBound, "[user_big(x)]", true, true},
              {kBound - 4, "[user_big(x)]tail", true, true},   {kBound - 3, "[user_big(x)]tail", false, true}};
  for (const auto& row : rows) {
    SCOPED_TRACE(std::to_string(row.valueSize) + " " + row.text + (row.repeats ? " repeating" : ""));
    const std::string head = row.repeats ? "[user_big(x)]" : "";
    host.controller().user()->setCustomInfoValue("big", head + std::string(row.valueSize - head.size(), 'a'));
    EXPECT_EQ(helper.applyMacro(row.text).has_value(), row.kept);
  }
}

TEST(KLTMacroHelper, ReplaceMacrosDoesNotWaitForTheSerialQueue) {
  KLTTestHost host(2);
  host.controller().user()->setCustomInfoValue("name", "Ana");
  KLTContextEvaluator& evaluator = KLTContextEvaluator::sharedInstance();
  std::promise<void> held, release;
  std::shared_future<void> released = release.get_future().share();
  evaluator.ceOpsSerialQueue()->async([&held, released] {
    held.set_value();
    released.wait();
  });
  held.get_future().wait();
  // On another thread, so that a replaceMacros that waited for the queue fails instead of hanging.
  auto reply = std::async(std::launch::async, [&evaluator] { return evaluator.replaceMacros("Hi [user_name(there)]"); });
  const bool returned = reply.wait_for(std::chrono::seconds(20)) == std::future_status::ready;
  release.set_value();
  EXPECT_TRUE(returned) << "replaceMacros waited for the serial queue";
  EXPECT_EQ(reply.get(), "Hi Ana");
  evaluator.ceOpsSerialQueue()->waitUntilIdle();
}

}  // namespace
