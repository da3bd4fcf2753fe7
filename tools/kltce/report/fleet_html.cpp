#include "tools/kltce/report/fleet_html.h"

#include <algorithm>
#include <cstdio>

#include "tools/kltce/report/html_page.h"
#include "tools/kltce/report/html_table.h"
#include "tools/kltce/report/svg_chart.h"

namespace kltce {

namespace {

constexpr std::size_t kHistogramBins = 10;

std::string fixed2(double v) {
  char buffer[32];
  std::snprintf(buffer, sizeof buffer, "%.2f", v);
  return buffer;
}

double perReached(const CampaignTally& t) {
  return t.reached == 0 ? 0.0 : static_cast<double>(t.displays) / static_cast<double>(t.reached);
}

void row(std::string& out, std::string_view name, std::string_view key, std::string value) {
  appendRow(out, name, {{std::string(key), std::move(value)}});
}

void appendFunnel(std::string& out, const std::string& id, const CampaignTally& t) {
  appendFigureStart(out, "Funnel");
  appendBarChart(out, "funnel", id + ": funnel",
                 {{"devices seen", static_cast<double>(t.devices), std::to_string(t.devices), 5},
                  {"admitted", static_cast<double>(t.admitted), std::to_string(t.admitted), 0},
                  {"reached", static_cast<double>(t.reached), std::to_string(t.reached), 1}},
                 "no device");
  appendTableStart(out, "funnel", {"devices"});
  row(out, "devices seen", "devices", std::to_string(t.devices));
  row(out, "admitted", "admitted", std::to_string(t.admitted));
  row(out, "reached", "reached", std::to_string(t.reached));
  row(out, "displays", "displays", std::to_string(t.displays));
  row(out, "displays per reached device", "displays_per_reached", fixed2(perReached(t)));
  appendFigureEnd(out);
}

void appendWhyNot(std::string& out, const std::string& id, const CampaignTally& t) {
  struct Reason {
    std::string label, key;
    uint64_t count;
    int tone;
  };
  std::vector<Reason> reasons;
  // The rejections by step take the place of the outcome kind "rejected", which sums them.
  for (const auto& [step, n] : t.rejected) reasons.push_back({"rejected by " + step, "rejected." + step, n, 3});
  for (const auto& [kind, n] : t.whyNot) {
    if (kind != "rejected") reasons.push_back({kind, "why_not." + kind, n, 2});
  }
  std::stable_sort(reasons.begin(), reasons.end(), [](const Reason& a, const Reason& b) { return a.count > b.count; });
  std::vector<Bar> bars;
  for (const Reason& r : reasons) bars.push_back({r.label, static_cast<double>(r.count), std::to_string(r.count), r.tone});
  const uint64_t notReached = t.devices >= t.reached ? t.devices - t.reached : 0;
  appendFigureStart(out, "Why not");
  appendBarChart(out, "why-not", id + ": why not", bars,
                 "every device was reached");
  appendTableStart(out, "why-not", {"devices"});
  for (const Reason& r : reasons) row(out, r.label, r.key, std::to_string(r.count));
  row(out, "not reached", "not_reached", std::to_string(notReached));
  if (const auto it = t.whyNot.find("rejected"); it != t.whyNot.end()) {
    row(out, "of which rejected", "why_not.rejected", std::to_string(it->second));
  }
  appendFigureEnd(out);
}

void appendFirstDisplay(std::string& out, const std::string& id, const CampaignTally& t) {
  const auto median = t.firstDisplayQuantile(0.5), p90 = t.firstDisplayQuantile(0.9);
  const std::vector<Bin> bins = binCounts(t.firstDisplaySeconds, kHistogramBins);
  std::vector<Marker> markers;
  if (median) markers.push_back({"median " + std::to_string(*median) + " s", *median});
  if (p90) markers.push_back({"p90 " + std::to_string(*p90) + " s", *p90});
  appendFigureStart(out, "Time to first display");
  appendHistogram(out, "first-display", id + ": time to first display", bins,
                  markers, "s", "no display");
  appendTableStart(out, "first-display", {"devices"});
  for (const Bin& b : bins) {
    out += "<tr class=\"bin\"><th>" + std::to_string(b.from) + "\u2013" + std::to_string(b.to) + " s</th><td>" +
           std::to_string(b.count) + "</td></tr>";
  }
  row(out, "median (s)", "first_display_seconds.median", secondsText(median));
  row(out, "90th percentile (s)", "first_display_seconds.p90", secondsText(p90));
  appendFigureEnd(out);
}

void appendOverview(std::string& out, const FleetSummary& summary) {
  // The summary key of each column is in its head (data-k), once for all rows.
  out += "<table class=\"num\" data-table=\"overview\"><caption>Campaigns</caption><thead><tr><th>campaign</th>"
         "<th data-k=\"devices\">devices</th><th data-k=\"admitted\">admitted</th><th data-k=\"reached\">reached</th>"
         "<th>reached of seen</th><th data-k=\"displays\">displays</th>"
         "<th data-k=\"first_display_seconds.median\">first median (s)</th>"
         "<th data-k=\"first_display_seconds.p90\">first p90 (s)</th></tr></thead><tbody>";
  for (const auto& [id, t] : summary.campaigns()) {
    out += "<tr data-campaign=\"";
    appendEscaped(out, id);
    out += "\"><th><a href=\"#" + anchorOf(id) + "\">";
    appendEscaped(out, id);
    out += "</a></th><td>" + std::to_string(t.devices) + "</td><td>" + std::to_string(t.admitted) + "</td><td>" +
           std::to_string(t.reached) + "</td><td>" + percentText(t.reached, t.devices) + "</td><td>" +
           std::to_string(t.displays) + "</td><td>" + secondsText(t.firstDisplayQuantile(0.5)) + "</td><td>" +
           secondsText(t.firstDisplayQuantile(0.9)) + "</td></tr>";
  }
  out += "</tbody></table>\n";
}

}  // namespace

std::string fleetReportHtml(const FleetSummary& summary, const FleetReportFacts& facts) {
  std::string out;
  out.reserve(4096 + summary.campaigns().size() * 4096);
  const std::string name = facts.document.empty() ? "fleet" : facts.document;
  appendPageStart(out, "kltce fleet: " + name);
  appendHeader(out, "Fleet report: " + name,
               {{"document", facts.document.empty() ? "(not given)" : facts.document, ""},
                {"SHA-256", facts.documentHash.empty() ? "-" : facts.documentHash, ""},
                {"devices", std::to_string(summary.devices()), "devices"},
                {"events", std::to_string(summary.events()), "events"},
                {"campaigns", std::to_string(summary.campaigns().size()), ""},
                {facts.whenLabel, facts.when, ""},
                {"tool", facts.toolVersion, ""}});
  appendOverview(out, summary);
  out += "<main>\n";
  for (const auto& [id, t] : summary.campaigns()) {
    appendCampaignSectionStart(out, id);
    out += "<p>reached " + std::to_string(t.reached) + " of " + std::to_string(t.devices) + " devices (" +
           percentText(t.reached, t.devices) + "), " + std::to_string(t.displays) + " displays</p><div class=\"figs\">";
    appendFunnel(out, id, t);
    appendWhyNot(out, id, t);
    appendFirstDisplay(out, id, t);
    out += "</div></section>\n";
  }
  out += "</main>\n";
  appendPageEnd(out);
  return out;
}

}  // namespace kltce
