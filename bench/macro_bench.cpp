// Placeholder filling on a message of about 2 KB holding 10 placeholders, against baselines that
// only find the placeholders with the same pattern: KLTRegex::matches(), and a bare ICU scan over
// UTF-16 (the text converted in the loop, and converted once beforehand). The gap is the cost of
// the lookups and replacements (and of the wrapper) on top of the scan.
#include <benchmark/benchmark.h>

#include <memory>
#include <string>

#include "KLTContextEvaluator/KLTMacroHelper.h"
#include <unicode/uregex.h>
#include <unicode/ustring.h>

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

// The bare scan: one ICU matcher made beforehand, over UTF-16 text. With convert, each iteration
// first converts the UTF-8 message into a reused buffer, as any scan of a UTF-8 text must.
void BareIcuScan(benchmark::State& state, bool convert) {
  Fixture f;
  UErrorCode status = U_ZERO_ERROR;
  URegularExpression* re = uregex_openC(kPattern, UREGEX_CASE_INSENSITIVE, nullptr, &status);
  std::u16string text(f.text.size(), u'\0');
  const auto toUtf16 = [&] {
    int32_t length = 0;
    UErrorCode s = U_ZERO_ERROR;
    u_strFromUTF8WithSub(text.data(), static_cast<int32_t>(text.size()), &length, f.text.data(),
                         static_cast<int32_t>(f.text.size()), 0xFFFD, nullptr, &s);
    return length;
  };
  int32_t length = toUtf16();
  int matches = 0;
  for (auto _ : state) {
    if (convert) length = toUtf16();
    uregex_setText(re, reinterpret_cast<const UChar*>(text.data()), length, &status);
    matches = 0;
    while (uregex_findNext(re, &status)) {
      benchmark::DoNotOptimize(uregex_start(re, 0, &status));
      ++matches;
    }
  }
  if (U_FAILURE(status)) state.SkipWithError(u_errorName(status));
  uregex_close(re);
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * static_cast<int64_t>(f.text.size()));
  state.counters["matches"] = matches;
}
void BM_BareIcuUtf16Scan_Converting(benchmark::State& state) { BareIcuScan(state, true); }
void BM_BareIcuUtf16Scan_Preconverted(benchmark::State& state) { BareIcuScan(state, false); }
BENCHMARK(BM_BareIcuUtf16Scan_Converting);
BENCHMARK(BM_BareIcuUtf16Scan_Preconverted);

}  // namespace
