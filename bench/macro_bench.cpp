// Placeholder filling on a message of about 2 KB holding 10 placeholders, against a baseline that
// only finds the placeholders with the same compiled pattern. The gap between the two is the cost
// of the lookups and replacements on top of the scan.
#include <benchmark/benchmark.h>

#include <memory>
#include <string>

#include "KLTContextEvaluator/KLTMacroHelper.h"
#include "platform/KLTRegex.h"
#include "testsupport/KLTTestHost.h"

namespace {

constexpr const char* kPattern = R"(\[(session|user)_[\w\s]+\([\w\s]+\)\])";

// About 2 KB: prose in several scripts with ten placeholders spread through it, some filled from
// the user, some from the session, some falling back to their default.
std::string message() {
  const char* placeholders[] = {
      "[user_first name(friend)]", "[session_city(your city)]", "[user_plan(basic)]",   "[user_nick(pal)]",
      "[session_plan(free)]",      "[user_points(0)]",          "[user_όνομα(φίλε)]",   "[session_country(Earth)]",
      "[user_first name(friend)]", "[user_missing(default)]",
  };
  const std::string filler =
      "Thanks for staying with us this season, we have prepared offers for you. Grüße aus München, "
      "приветствуем вас, 欢迎光临 🙂 and a few more words to make the text long enough to matter. ";
  std::string text;
  for (const char* p : placeholders) {
    text += filler;
    text += p;
    text += ' ';
  }
  while (text.size() < 2048) text += "More plain words follow here. ";
  return text;
}

struct Fixture {
  KLTTestHost host{2};
  std::string text = message();
  Fixture() {
    host.controller().user()->setCustomInfo(
        KLTValue{{"first name", "Zoë"}, {"plan", "gold"}, {"nick", "Z"}, {"points", 1250}, {"όνομα", "Ελένη"}});
    host.controller().session()->setCustomInfo(KLTValue{{"city", "Lyon"}, {"plan", "trial"}, {"country", "France"}});
  }
};

void BM_ApplyMacro(benchmark::State& state) {
  Fixture f;
  KLTMacroHelper helper;
  const KLTValue input = f.text;
  helper.applyMacro(input);  // compile the pattern outside the timed loop
  for (auto _ : state) {
    auto out = helper.applyMacro(input);
    benchmark::DoNotOptimize(out);
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * static_cast<int64_t>(f.text.size()));
  state.counters["bytes"] = static_cast<double>(f.text.size());
}
BENCHMARK(BM_ApplyMacro);

void BM_ScanOnlyBaseline(benchmark::State& state) {
  Fixture f;
  std::unique_ptr<KLTRegex> re = KLTRegex::compile(kPattern, KLTRegex::kCaseInsensitive);
  if (!re) {
    state.SkipWithError("pattern did not compile");
    return;
  }
  for (auto _ : state) {
    auto found = re->matches(f.text);
    benchmark::DoNotOptimize(found);
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * static_cast<int64_t>(f.text.size()));
  state.counters["matches"] = static_cast<double>(re->matches(f.text).size());
}
BENCHMARK(BM_ScanOnlyBaseline);

}  // namespace
