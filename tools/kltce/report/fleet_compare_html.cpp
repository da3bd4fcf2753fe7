#include "tools/kltce/report/fleet_compare_html.h"

#include <algorithm>
#include <map>
#include <utility>
#include <vector>

#include "tools/kltce/report/html_page.h"
#include "tools/kltce/report/html_table.h"
#include "tools/kltce/report/svg_chart.h"

namespace kltce {

namespace {

// The tones of the charts: the old document grey, the new in the colour of what the bar counts.
constexpr int kOldTone = 5;
constexpr int kNewTone = 0;
constexpr int kRejectedTone = 3;
constexpr int kWhyNotTone = 2;
constexpr int kChangeTone = 4;

constexpr const char* kStatuses[] = {"added", "removed", "edited", "unchanged", "not_in_documents"};

const KLTValue& at(const KLTValue& json, const char* key) { return klt::valueForKey(json, key); }

std::optional<int64_t> numberOf(const KLTValue& v) {
  if (v.is_number_integer()) return v.get<int64_t>();
  return std::nullopt;
}

std::string valueText(const KLTValue& v) {
  const auto n = numberOf(v);
  return n ? std::to_string(*n) : "-";
}

std::string changeText(const KLTValue& v) {
  const auto n = numberOf(v);
  if (!n) return "-";
  return (*n > 0 ? "+" : "") + std::to_string(*n);
}

// A count for a bar's length; a side without a value draws none.
double barValue(const KLTValue& v) { return static_cast<double>(std::max<int64_t>(0, numberOf(v).value_or(0))); }

// A figure {"old", "new", "difference"} as three cells keyed KEY.old, KEY.new, KEY.difference.
std::vector<Cell> figureCells(const std::string& key, const KLTValue& figure) {
  return {{key + ".old", valueText(at(figure, "old"))},
          {key + ".new", valueText(at(figure, "new"))},
          {key + ".difference", changeText(at(figure, "difference"))}};
}

// A figure made of two counts, for the sums the JSON does not hold.
KLTValue figureOf(int64_t before, int64_t after) {
  KLTValue out = KLTValue::object();
  out["old"] = before;
  out["new"] = after;
  out["difference"] = after - before;
  return out;
}

int64_t side(const KLTValue& campaign, const char* figure, const char* which) {
  return numberOf(at(at(campaign, figure), which)).value_or(0);
}

// "label (old)": a long label is cut before its side, which the chart would cut off (it keeps
// labels of up to 30 bytes).
std::string sideLabel(const std::string& label, const std::string& which) {
  constexpr std::size_t kChartBytes = 30;
  const std::string suffix = " (" + which + ")";
  const std::string_view ellipsis = "\u2026";
  if (label.size() + suffix.size() <= kChartBytes) return label + suffix;
  std::size_t cut = kChartBytes - suffix.size() - ellipsis.size();
  while (cut > 0 && (static_cast<unsigned char>(label[cut]) & 0xC0) == 0x80) --cut;  // not inside a UTF-8 sequence
  return label.substr(0, cut) + std::string(ellipsis) + suffix;
}

// A bar for each side of a figure: "label (old)" grey, "label (new)" in `tone`.
void addPair(std::vector<Bar>& bars, const std::string& label, const KLTValue& figure, int tone) {
  bars.push_back({sideLabel(label, "old"), barValue(at(figure, "old")), valueText(at(figure, "old")), kOldTone});
  bars.push_back({sideLabel(label, "new"), barValue(at(figure, "new")), valueText(at(figure, "new")), tone});
}

// The outcome changes of a campaign, the most devices first (ties in the pairs' order).
std::vector<std::pair<std::string, uint64_t>> changesOf(const KLTValue& campaign) {
  std::vector<std::pair<std::string, uint64_t>> out;
  for (const auto& [pair, n] : at(campaign, "outcome_changes").items()) {
    out.emplace_back(pair, n.is_number_unsigned() ? n.get<uint64_t>() : 0);
  }
  std::stable_sort(out.begin(), out.end(), [](const auto& a, const auto& b) { return a.second > b.second; });
  return out;
}

uint64_t changedDevices(const KLTValue& campaign) {
  uint64_t sum = 0;
  for (const auto& [pair, n] : changesOf(campaign)) sum += n;
  return sum;
}

void appendOldAndNew(std::string& out, const std::string& id, const KLTValue& c) {
  const KLTValue& first = at(c, "first_display_seconds");
  std::vector<Bar> bars;
  addPair(bars, "devices seen", at(c, "devices"), kNewTone);
  addPair(bars, "admitted", at(c, "admitted"), kNewTone);
  addPair(bars, "reached", at(c, "reached"), kNewTone);
  appendFigureStart(out, "Old and new");
  appendBarChart(out, "funnel", id + ": funnel, old and new", bars, "no device");
  appendTableStart(out, "figures", {"old", "new", "change"});
  appendRow(out, "devices seen", figureCells("devices", at(c, "devices")));
  appendRow(out, "admitted", figureCells("admitted", at(c, "admitted")));
  appendRow(out, "reached", figureCells("reached", at(c, "reached")));
  appendRow(out, "displays", figureCells("displays", at(c, "displays")));
  appendRow(out, "first display, median (s)", figureCells("first_display_seconds.median", at(first, "median")));
  appendRow(out, "first display, p90 (s)", figureCells("first_display_seconds.p90", at(first, "p90")));
  appendFigureEnd(out);
}

void appendWhyNot(std::string& out, const std::string& id, const KLTValue& c) {
  struct Reason {
    std::string label, key;
    const KLTValue* figure;
    int tone;
  };
  std::vector<Reason> reasons;
  // The rejections by step take the place of the outcome kind "rejected", which sums them.
  for (const auto& [step, f] : at(c, "rejected").items()) reasons.push_back({"rejected by " + step, "rejected." + step, &f, kRejectedTone});
  for (const auto& [kind, f] : at(c, "why_not").items()) {
    if (kind != "rejected") reasons.push_back({kind, "why_not." + kind, &f, kWhyNotTone});
  }
  const auto largest = [](const Reason& r) {
    return std::max(numberOf(at(*r.figure, "old")).value_or(0), numberOf(at(*r.figure, "new")).value_or(0));
  };
  std::stable_sort(reasons.begin(), reasons.end(), [&](const Reason& a, const Reason& b) { return largest(a) > largest(b); });
  std::vector<Bar> bars;
  for (const Reason& r : reasons) addPair(bars, r.label, *r.figure, r.tone);
  appendFigureStart(out, "Why not, old and new");
  appendBarChart(out, "why-not", id + ": why not, old and new", bars, "every device was reached, with either document");
  appendTableStart(out, "why-not", {"old", "new", "change"});
  for (const Reason& r : reasons) appendRow(out, r.label, figureCells(r.key, *r.figure));
  appendRow(out, "not reached",
            figureCells("not_reached", figureOf(side(c, "devices", "old") - side(c, "reached", "old"),
                                                side(c, "devices", "new") - side(c, "reached", "new"))));
  if (const KLTValue& rejected = at(at(c, "why_not"), "rejected"); !rejected.is_null()) {
    appendRow(out, "of which rejected", figureCells("why_not.rejected", rejected));
  }
  appendFigureEnd(out);
}

void appendOutcomeChanges(std::string& out, const std::string& id, const KLTValue& c) {
  const auto changes = changesOf(c);
  std::vector<Bar> bars;
  for (const auto& [pair, n] : changes) bars.push_back({pair, static_cast<double>(n), std::to_string(n), kChangeTone});
  appendFigureStart(out, "Outcome changes, old -> new");
  appendBarChart(out, "outcome-changes", id + ": outcome changes", bars, "no device's outcome changed");
  appendTableStart(out, "outcome-changes", {"devices"});
  for (const auto& [pair, n] : changes) appendRow(out, pair, {{"outcome_changes." + pair, std::to_string(n)}});
  appendRow(out, "outcome changed", {{"changed", std::to_string(changedDevices(c))}});
  appendFigureEnd(out);
}

// What changed for a person at a glance: reach and displays old -> new (one side's alone for a
// campaign of one document), and the outcome changes' pairs.
void appendGist(std::string& out, const std::string& status, const KLTValue& c) {
  const auto figure = [&](const char* name, const char* which) { return valueText(at(at(c, name), which)); };
  const auto arrow = [&](const char* name) {
    return figure(name, "old") + " -> " + figure(name, "new") + " (" + changeText(at(at(c, name), "difference")) + ")";
  };
  std::string text;
  if (status == "added" || status == "removed") {
    const char* which = status == "added" ? "new" : "old";
    text = status + (status == "added" ? ", in the new document only: reached " : ", in the old document only: reached ") +
           figure("reached", which) + " of " + figure("devices", which) + " devices, " + figure("displays", which) + " displays";
  } else {
    text = "reached " + arrow("reached") + " devices, displays " + arrow("displays");
  }
  const auto changes = changesOf(c);
  if (changes.empty()) {
    text += "; no device's outcome changed";
  } else {
    const uint64_t changed = changedDevices(c);
    text += "; outcome changed on " + std::to_string(changed) + (changed == 1 ? " device: " : " devices: ");
    for (std::size_t i = 0; i < changes.size(); ++i) {
      text += (i ? ", " : "") + changes[i].first + ' ' + std::to_string(changes[i].second);
    }
  }
  out += "<p>";
  appendEscaped(out, text);
  out += "</p>";
}

void appendOverview(std::string& out, const KLTValue& campaigns) {
  // The JSON key of each column is in its head (data-k), once for all rows.
  out += "<table class=\"num\" data-table=\"overview\"><caption>Campaigns, old -> new</caption><thead><tr>"
         "<th>campaign</th><th data-k=\"status\">status</th>"
         "<th data-k=\"reached.old\">reached old</th><th data-k=\"reached.new\">reached new</th>"
         "<th data-k=\"reached.difference\">change</th>"
         "<th data-k=\"displays.old\">displays old</th><th data-k=\"displays.new\">displays new</th>"
         "<th data-k=\"displays.difference\">change</th>"
         "<th data-k=\"first_display_seconds.median.old\">first median old (s)</th>"
         "<th data-k=\"first_display_seconds.median.new\">first median new (s)</th>"
         "<th data-k=\"changed\">outcome changed</th></tr></thead><tbody>";
  for (const auto& [id, c] : campaigns.items()) {
    const std::string status = at(c, "status").is_string() ? at(c, "status").get<std::string>() : "";
    const KLTValue& median = at(at(c, "first_display_seconds"), "median");
    out += "<tr data-campaign=\"";
    appendEscaped(out, id);
    out += "\"><th><a href=\"#" + anchorOf(id) + "\">";
    appendEscaped(out, id);
    out += "</a></th><td><span class=\"st s-";
    appendEscaped(out, status);
    out += "\">";
    appendEscaped(out, status);
    out += "</span></td>";
    const std::string cells[] = {valueText(at(at(c, "reached"), "old")),  valueText(at(at(c, "reached"), "new")),
                                 changeText(at(at(c, "reached"), "difference")), valueText(at(at(c, "displays"), "old")),
                                 valueText(at(at(c, "displays"), "new")), changeText(at(at(c, "displays"), "difference")),
                                 valueText(at(median, "old")),             valueText(at(median, "new")),
                                 std::to_string(changedDevices(c))};
    for (const std::string& cell : cells) out += "<td>" + cell + "</td>";  // numbers and "-": nothing to escape
    out += "</tr>";
  }
  out += "</tbody></table>\n";
}

std::string statusCounts(const KLTValue& campaigns) {
  std::map<std::string, std::size_t> byStatus;
  for (const auto& [id, c] : campaigns.items()) {
    if (at(c, "status").is_string()) ++byStatus[at(c, "status").get<std::string>()];
  }
  std::string text = std::to_string(campaigns.size());
  const char* separator = ": ";
  for (const char* status : kStatuses) {
    if (byStatus[status] == 0) continue;
    text += separator + std::to_string(byStatus[status]) + ' ' +
            (status == std::string_view("not_in_documents") ? "in neither document" : status);
    separator = ", ";
  }
  return text;
}

}  // namespace

std::string fleetComparisonReportHtml(const FleetComparison& comparison, const FleetReportFacts& facts,
                                      const std::string& oldDocument, const std::string& oldDocumentHash) {
  const KLTValue json = comparison.toJson();
  const KLTValue& campaigns = at(json, "campaigns");
  std::string out;
  out.reserve(4096 + campaigns.size() * 6144);
  const std::string name = facts.document.empty() ? "new" : facts.document;
  const std::string oldName = oldDocument.empty() ? "old" : oldDocument;
  appendPageStart(out, "kltce fleet --compare: " + oldName + " -> " + name);
  appendHeader(out, "Comparison report: " + oldName + " -> " + name,
               {{"new document", facts.document.empty() ? "(not given)" : facts.document, ""},
                {"its SHA-256", facts.documentHash.empty() ? "-" : facts.documentHash, ""},
                {"old document", oldDocument.empty() ? "(not given)" : oldDocument, ""},
                {"its SHA-256", oldDocumentHash.empty() ? "-" : oldDocumentHash, ""},
                {"devices", valueText(at(json, "devices")), "devices"},
                {"events", valueText(at(json, "events")), "events"},
                {"campaigns", statusCounts(campaigns), ""},
                {facts.whenLabel, facts.when, ""},
                {"tool", facts.toolVersion, ""}});
  appendOverview(out, campaigns);
  out += "<main>\n<p class=\"lg\">Each device replayed with both documents. In the charts, grey bars are the old "
         "document's, coloured ones the new one's.</p>\n";
  for (const auto& [id, c] : campaigns.items()) {
    const std::string status = at(c, "status").is_string() ? at(c, "status").get<std::string>() : "";
    appendCampaignSectionStart(out, id, status);
    appendGist(out, status, c);
    out += "<div class=\"figs\">";
    appendOldAndNew(out, id, c);
    appendWhyNot(out, id, c);
    appendOutcomeChanges(out, id, c);
    out += "</div></section>\n";
  }
  out += "</main>\n";
  appendPageEnd(out);
  return out;
}

}  // namespace kltce
