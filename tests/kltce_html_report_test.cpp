// The HTML reports' making, without a browser: histogram bins, what a fleet report and a replay's
// report hold and escape, the trace passed through to --trace's file, the document's digest, and
// `fleet merge --html` printing what it prints without --html. What the fleet and comparison pages
// show is held against their JSON in a browser (tests/browser/), which also plants faults in them.
#include <filesystem>
#include <fstream>
#include <sstream>

#include <gtest/gtest.h>

#include <unistd.h>

#include "tools/kltce/cli/explain_report_command.h"
#include "tools/kltce/cli/fleet_report_command.h"
#include "tools/kltce/input/json_text.h"
#include "tools/kltce/report/explain_html.h"
#include "tools/kltce/report/file_digest.h"
#include "tools/kltce/report/fleet_compare_html.h"
#include "tools/kltce/report/fleet_html.h"
#include "tools/kltce/report/svg_chart.h"

namespace {

namespace fs = std::filesystem;
using kltce::Bin;

std::size_t occurrences(const std::string& text, const std::string& what) {
  std::size_t n = 0;
  for (std::size_t at = text.find(what); at != std::string::npos; at = text.find(what, at + 1)) ++n;
  return n;
}

std::string binsText(const std::vector<Bin>& bins) {
  std::string out;
  for (const Bin& b : bins) out += "[" + std::to_string(b.from) + "," + std::to_string(b.to) + ")=" + std::to_string(b.count) + " ";
  return out;
}

TEST(HtmlReport, BinsAreNiceAlignedAndKeepEveryCount) {
  struct Row {
    const char* note;
    std::map<int64_t, uint64_t> counts;
    std::size_t maxBins;
    const char* bins;
  };
  const Row rows[] = {
      {"none", {}, 10, ""},
      {"one value: a bin of one second", {{5, 1}}, 10, "[5,6)=1 "},
      {"width 10 over 0..99", {{0, 1}, {99, 1}}, 10, "[0,10)=1 [90,100)=1 "},
      {"width 100 over the shipped survey's spread", {{90, 1}, {689, 1}, {1060, 1}}, 12, "[0,100)=1 [600,700)=1 [1000,1100)=1 "},
      {"aligning down would need 11 bins: widened", {{95, 1}, {194, 1}}, 10, "[80,100)=1 [180,200)=1 "},
      {"ten bins of 100 do not reach 1061: 200 wide", {{90, 1}, {689, 1}, {1060, 1}}, 10, "[0,200)=1 [600,800)=1 [1000,1200)=1 "},
      {"counts add up within a bin", {{120, 3}, {182, 1}, {199, 2}}, 1, "[100,200)=6 "},
      {"negative seconds floor toward minus infinity", {{-5, 2}, {4, 1}}, 10, "[-5,-4)=2 [4,5)=1 "},
      {"far values share one bin", {{-2'000'000'000'000'000, 1}, {3, 1}}, 10, "[-2000000000000000,3)=2 "},
  };
  for (const Row& r : rows) {
    EXPECT_EQ(binsText(kltce::binCounts(r.counts, r.maxBins)), r.bins) << r.note;
  }
}

TEST(HtmlReport, BinsStayWithinTheirNumber) {
  std::map<int64_t, uint64_t> counts;
  for (int64_t s = 3; s < 3600; s += 7) counts[s] = static_cast<uint64_t>(s % 5 + 1);
  uint64_t total = 0;
  for (const auto& [s, n] : counts) total += n;
  for (const std::size_t maxBins : {1u, 2u, 3u, 7u, 10u, 16u, 100u}) {
    const auto bins = kltce::binCounts(counts, maxBins);
    uint64_t binned = 0;
    for (const Bin& b : bins) {
      binned += b.count;
      EXPECT_EQ((b.to - b.from) % (bins.front().to - bins.front().from), 0) << maxBins;
    }
    EXPECT_LE((bins.back().to - bins.front().from) / (bins.front().to - bins.front().from), static_cast<int64_t>(maxBins));
    EXPECT_EQ(binned, total) << maxBins;
  }
}


kltce::FleetSummary summaryOf(const char* json) {
  const kltce::JsonResult parsed = kltce::parseJson(json);
  std::string error;
  auto summary = kltce::FleetSummary::fromJson(parsed.value, error);
  EXPECT_TRUE(summary) << error;
  return summary.value_or(kltce::FleetSummary{});
}

TEST(HtmlReport, FleetReportShowsEveryNumberEscapedAndLargestReasonFirst) {
  const auto summary = summaryOf(R"({"devices":60,"lines":900,"events":826,"bad_lines":0,"campaigns":{
    "<b>&\"x'":{"devices":60,"admitted":28,"rejected":{"user_attributes":18,"version":14},"reached":8,"displays":10,
      "first_display_seconds":{"counts":{"400":2,"747":1,"967":1}},"why_not":{"count_short":17,"outside_window":3,"rejected":32}},
    "quiet":{"devices":60,"admitted":60,"rejected":{},"reached":0,"displays":0,
      "first_display_seconds":{"counts":{}},"why_not":{"never_armed":60}}}})");
  const std::string html = kltce::fleetReportHtml(summary, {"docs/<c>.json", "abc123", "run at", "2026-11-25T10:00:00Z", "kltce 1.0"});

  EXPECT_EQ(html.find("<b>"), std::string::npos);
  EXPECT_NE(html.find("data-campaign=\"&lt;b&gt;&amp;&quot;x&#39;\""), std::string::npos);
  EXPECT_NE(html.find("id=\"c-.3cb.3e.26.22x.27\""), std::string::npos);
  EXPECT_NE(html.find("Fleet report: docs/&lt;c&gt;.json"), std::string::npos);
  EXPECT_NE(html.find("<dd data-k=\"devices\">60</dd>"), std::string::npos);
  EXPECT_EQ(occurrences(html, "<section "), 2u);
  EXPECT_EQ(occurrences(html, "class=\"chart\""), 6u);
  const char* cells[] = {
      "data-k=\"admitted\">28<", "data-k=\"reached\">8<", "data-k=\"displays\">10<",
      "data-k=\"displays_per_reached\">1.25<", "data-k=\"rejected.version\">14<",
      "data-k=\"rejected.user_attributes\">18<", "data-k=\"why_not.count_short\">17<",
      "data-k=\"why_not.rejected\">32<", "data-k=\"not_reached\">52<",
      "data-k=\"first_display_seconds.median\">400<", "data-k=\"first_display_seconds.p90\">967<",
      "<tr class=\"bin\"><th>400\u2013500 s</th><td>2</td>", "<tr class=\"bin\"><th>900\u20131000 s</th><td>1</td>",
      "data-k=\"why_not.never_armed\">60<", "data-k=\"first_display_seconds.median\">-<", "no display",
  };
  for (const char* cell : cells) EXPECT_NE(html.find(cell), std::string::npos) << cell;
  // Largest first: 18, 17, 14, 3; the outcome "rejected" is shown by its steps, not as a bar.
  const std::size_t a = html.find(">rejected by user_attributes<"), b = html.find(">count_short<"),
                    c = html.find(">rejected by version<"), d = html.find(">outside_window<");
  EXPECT_TRUE(a < b && b < c && c < d) << a << ' ' << b << ' ' << c << ' ' << d;
  EXPECT_EQ(html.find(">rejected</text>"), std::string::npos);
  // Nothing is fetched: no script, no reference out of the page.
  EXPECT_EQ(html.find("<script"), std::string::npos);
  for (const char* fetch : {"http:", "https:", "src=", "href=\"/", "url("}) EXPECT_EQ(html.find(fetch), std::string::npos) << fetch;
}

std::string record(int seq, const char* kind, const char* campaign, int line, const char* extra = "") {
  return "{\"seq\":" + std::to_string(seq) + ",\"kind\":\"" + kind + "\",\"campaign\":\"" + campaign + "\"" + extra +
         ",\"values\":{\"x\":1},\"line\":" + std::to_string(line) + ",\"time\":\"2026-11-22T09:00:00Z\"}\n";
}

TEST(HtmlReport, ReplayReportPutsWhyNotFirstAndOneMarkPerRecord) {
  std::string trace = record(1, "admitted", "shown", 0) + "not json\n" + "{\"seq\":9}\n" +
                      record(2, "admitted", "short", 0) + record(3, "event_counted", "short", 4, ",\"condition\":0") +
                      record(4, "dispatched", "shown", 5);
  std::vector<kltce::CampaignOutcome> outcomes(2);
  outcomes[0].campaign = "shown";
  outcomes[0].kind = kltce::OutcomeKind::Fired;
  outcomes[0].text = "fired 1 time (line 5)";
  outcomes[1].campaign = "short";
  outcomes[1].kind = kltce::OutcomeKind::CountShort;
  outcomes[1].text = "0 of 1 condition held; 'buy' counted 1 of 2 (GTE)";
  const std::string html = kltce::explainReportHtml(trace, outcomes, {"d.json", "ff", "p.json", "e.jsonl", "now", "kltce"});

  EXPECT_NE(html.find("<p class=\"fired\" data-outcome=\"fired\">fired 1 time (line 5)</p>"), std::string::npos);
  EXPECT_NE(html.find("<p class=\"why\" data-outcome=\"count_short\">why not: 0 of 1 condition held; &#39;buy&#39;"),
            std::string::npos);
  EXPECT_LT(html.find("data-outcome=\"count_short\""), html.find("<tr data-seq=\"3\">"));
  EXPECT_EQ(occurrences(html, "<tr data-seq="), 4u);
  EXPECT_EQ(occurrences(html, "class=\"mark "), 4u);
  EXPECT_NE(html.find(">condition 0</text>"), std::string::npos);
  EXPECT_EQ(html.find("data-seq=\"9\""), std::string::npos);

  // Past kMaxRecords a campaign's records are counted, not drawn.
  std::string many;
  for (std::size_t i = 0; i < kltce::kMaxRecords + 3; ++i) many += record(static_cast<int>(i + 1), "event_counted", "short", 1);
  const std::string big = kltce::explainReportHtml(many, {outcomes[1]}, {});
  EXPECT_EQ(occurrences(big, "class=\"mark "), kltce::kMaxRecords);
  EXPECT_NE(big.find("3 more decisions"), std::string::npos);
}

TEST(HtmlReport, ReportTracePassesEveryByteOn) {
  std::ostringstream file;
  kltce::ReportTrace trace(&file);
  trace << "{\"seq\":1}\n" << 'x' << std::string(70000, 'y') << std::flush;
  EXPECT_EQ(trace.text(), file.str());
  EXPECT_EQ(trace.text().size(), 10u + 1u + 70000u);
  kltce::ReportTrace alone(nullptr);
  alone << "kept";
  EXPECT_EQ(alone.text(), "kept");
}

TEST(HtmlReport, DocumentDigestIsSha256OfItsBytes) {
  const fs::path file = fs::temp_directory_path() / "kltce_html_digest.txt";
  std::ofstream(file, std::ios::binary) << "abc";
  std::string error;
  EXPECT_EQ(kltce::sha256OfFile(file.string(), error), "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad");
  fs::remove(file);
  EXPECT_FALSE(kltce::sha256OfFile(file.string(), error));
  EXPECT_NE(error.find("cannot read"), std::string::npos) << error;
}

TEST(HtmlReport, MergeWithHtmlPrintsWhatItPrintsWithout) {
  const std::string summary = std::string(KLTCE_SOURCE_DIR) + "/examples/fleet/summary.json";
  const fs::path html = fs::temp_directory_path() / "kltce_html_merge.html";
  for (const char* format : {"table", "json"}) {
    kltce::FleetCommand command;
    command.format = format;
    command.mergeFiles = {summary};
    std::ostringstream plain, withHtml, err;
    ASSERT_EQ(kltce::runFleetMerge(command, plain, err), 0) << err.str();
    ASSERT_EQ(kltce::runFleetWithHtml(command, true, html.string(), "kltce", withHtml, err), 0) << err.str();
    EXPECT_EQ(withHtml.str(), plain.str()) << format;
    std::ifstream in(html);
    const std::string page((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    EXPECT_NE(page.find("<dd data-k=\"devices\">60</dd>"), std::string::npos);
    EXPECT_NE(page.find("data-k=\"why_not.count_short\">23<"), std::string::npos);
  }
  fs::remove(html);

  kltce::FleetCommand command;
  command.mergeFiles = {summary};
  std::ostringstream out, err;
  EXPECT_EQ(kltce::runFleetWithHtml(command, true, "/nonexistent/dir/r.html", "kltce", out, err), 2);
  EXPECT_EQ(out.str(), "");
  EXPECT_NE(err.str().find("kltce: fleet: --html: cannot write '/nonexistent/dir/r.html'"), std::string::npos) << err.str();
  // A part that cannot be merged leaves no report behind.
  command.mergeFiles = {std::string(KLTCE_SOURCE_DIR) + "/examples/campaigns.json"};
  EXPECT_EQ(kltce::runFleetWithHtml(command, true, html.string(), "kltce", out, err), 2);
  EXPECT_FALSE(fs::exists(html));
}

}  // namespace
