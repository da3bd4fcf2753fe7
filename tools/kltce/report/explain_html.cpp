#include "tools/kltce/report/explain_html.h"

#include <algorithm>
#include <map>

#include "tools/kltce/input/json_text.h"
#include "tools/kltce/report/html_page.h"
#include "tools/kltce/report/svg_chart.h"

namespace kltce {

namespace {

struct Record {
  KLTValue json;
  int64_t line = 0;
  int64_t condition = -1;
  std::string kind;
};

// The lanes of a timeline, top to bottom; conditions take the lanes after kLaneConditions.
enum Lane : std::size_t { kLaneAdmission, kLaneFold, kLaneRefused, kLaneDisplay, kLaneConditions };

// What the colours of the marks mean (toneOf()).
constexpr std::string_view kLegend =
    "<p class=\"lg\"><svg width=10 height=10><circle cx=5 cy=5 r=4 class=\"b1\"/></svg> admitted, count reached, "
    "fold true, dispatched <svg width=10 height=10><circle cx=5 cy=5 r=4 class=\"b0\"/></svg> counted "
    "<svg width=10 height=10><circle cx=5 cy=5 r=4 class=\"b4\"/></svg> trigger fired, armed, timer ended "
    "<svg width=10 height=10><circle cx=5 cy=5 r=4 class=\"b2\"/></svg> outside the window "
    "<svg width=10 height=10><circle cx=5 cy=5 r=4 class=\"b3\"/></svg> rejected, cap blocked "
    "<svg width=10 height=10><circle cx=5 cy=5 r=4 class=\"b5\"/></svg> built, fold false, display counted</p>";

std::size_t laneOf(const Record& r) {
  if (r.kind == "fold_evaluated") return kLaneFold;
  if (r.kind == "window_closed" || r.kind == "cap_blocked") return kLaneRefused;
  if (r.kind == "dispatched" || r.kind == "display_counted") return kLaneDisplay;
  if (r.condition >= 0) return kLaneConditions + static_cast<std::size_t>(r.condition);
  return kLaneAdmission;
}

const KLTValue& valueAt(const KLTValue& v, const char* key) { return klt::valueForKey(v, key); }

int toneOf(const Record& r) {
  const KLTValue& values = valueAt(r.json, "values");
  if (r.kind == "admitted" || r.kind == "dispatched") return 1;
  if (r.kind == "rejected" || r.kind == "cap_blocked") return 3;
  if (r.kind == "window_closed") return 2;
  if (r.kind == "trigger_fired" || r.kind == "condition_armed" || r.kind == "timer_ended") return 4;
  if (r.kind == "event_counted") return klt::boolValue(valueAt(values, "completed")) ? 1 : 0;
  if (r.kind == "fold_evaluated") return klt::boolValue(valueAt(values, "result")) ? 1 : 5;
  return 5;
}

// "key=value key=value": text as it is, anything else as compact JSON.
std::string valuesText(const KLTValue& values) {
  if (!values.is_object()) return values.is_null() ? "" : compactJson(values);
  std::string out;
  for (const auto& [key, v] : values.items()) {
    if (!out.empty()) out += "  ";
    out += key + '=' + (v.is_string() ? v.get<std::string>() : compactJson(v));
  }
  return out;
}

std::string conditionName(const std::vector<Record>& records, int64_t index) {
  for (const Record& r : records) {
    if (r.kind != "item_built") continue;
    const KLTValue& conditions = valueAt(valueAt(r.json, "values"), "conditions");
    if (conditions.is_array() && index < static_cast<int64_t>(conditions.size())) {
      const KLTValue& name = valueAt(conditions[static_cast<std::size_t>(index)], "name");
      if (!name.is_null()) return klt::textForm(name);
    }
  }
  return {};
}

void appendCampaign(std::string& out, const CampaignOutcome& outcome, const std::vector<Record>& records,
                    int64_t lastLine) {
  const std::string& id = outcome.campaign;
  const std::string kind(outcomeKindName(outcome.kind));
  out += "<section id=\"" + anchorOf(id) + "\" data-campaign=\"";
  appendEscaped(out, id);
  out += "\"><h2>";
  appendEscaped(out, id);
  out += "</h2><p class=\"" + std::string(outcome.kind == OutcomeKind::Fired ? "fired" : "why") +
         "\" data-outcome=\"" + kind + "\">";
  appendEscaped(out, (outcome.kind == OutcomeKind::Fired ? "" : "why not: ") + outcome.text);
  out += "</p>";

  const std::size_t shown = std::min(records.size(), kMaxRecords);
  int64_t conditions = 0;
  for (std::size_t i = 0; i < shown; ++i) conditions = std::max(conditions, records[i].condition + 1);
  std::vector<std::string> names = {"admission", "fold", "window, cap", "display"};
  for (int64_t c = 0; c < conditions; ++c) {
    const std::string name = conditionName(records, c);
    names.push_back("condition " + std::to_string(c) + (name.empty() ? "" : " (" + name + ")"));
  }
  // Only the lanes that hold a mark, in their order.
  std::vector<bool> used(names.size(), false);
  for (std::size_t i = 0; i < shown; ++i) used[laneOf(records[i])] = true;
  used[kLaneAdmission] = true;
  std::vector<std::size_t> order = {kLaneAdmission};
  for (std::size_t lane = kLaneConditions; lane < names.size(); ++lane) order.push_back(lane);
  order.insert(order.end(), {kLaneFold, kLaneRefused, kLaneDisplay});
  std::vector<std::size_t> row(names.size());
  std::vector<std::string> lanes;
  for (const std::size_t lane : order) {
    if (!used[lane]) continue;
    row[lane] = lanes.size();
    lanes.push_back(names[lane]);
  }
  std::vector<TimelineMark> marks;
  marks.reserve(shown);
  for (std::size_t i = 0; i < shown; ++i) {
    const Record& r = records[i];
    marks.push_back({row[laneOf(r)], static_cast<double>(r.line), toneOf(r),
                     "line " + std::to_string(r.line) + ": " + r.kind + ' ' + valuesText(valueAt(r.json, "values"))});
  }
  out += "<figure data-fig=\"timeline\"><figcaption>Timeline</figcaption>";
  appendTimeline(out, "timeline", id + ": the engine's decisions over the stream's lines", lanes, 0,
                 static_cast<double>(std::max<int64_t>(lastLine, 1)), "stream line", marks);
  out += kLegend;
  out += "</figure><table data-table=\"decisions\"><caption>Decisions (" + std::to_string(records.size()) +
         ")</caption><thead><tr><th scope=\"col\">seq</th><th scope=\"col\">line</th><th scope=\"col\">time</th>"
         "<th scope=\"col\">decision</th><th scope=\"col\">condition</th><th scope=\"col\">values</th></tr></thead><tbody>";
  for (std::size_t i = 0; i < shown; ++i) {
    const Record& r = records[i];
    const std::string seq = klt::textForm(valueAt(r.json, "seq"));
    out += "<tr data-seq=\"";
    appendEscaped(out, seq);
    out += "\"><td class=\"n\">";
    appendEscaped(out, seq);
    out += "</td><td class=\"n\">" + std::to_string(r.line) + "</td><td>";
    appendEscaped(out, klt::textForm(valueAt(r.json, "time")));
    out += "</td><td>";
    appendEscaped(out, r.kind);
    out += "</td><td class=\"n\">" + (r.condition >= 0 ? std::to_string(r.condition) : std::string()) +
           "</td><td class=\"vals\">";
    appendEscaped(out, valuesText(valueAt(r.json, "values")));
    out += "</td></tr>";
  }
  out += "</tbody></table>";
  if (records.size() > shown) {
    out += "<p>" + std::to_string(records.size() - shown) + " more decisions (--trace FILE lists them all)</p>";
  }
  out += "</section>\n";
}

}  // namespace

std::string explainReportHtml(std::string_view traceLines, const std::vector<CampaignOutcome>& outcomes,
                              const ExplainReportFacts& facts) {
  std::map<std::string, std::vector<Record>> byCampaign;
  int64_t lastLine = 0;
  while (!traceLines.empty()) {
    const std::size_t end = std::min(traceLines.find('\n'), traceLines.size());
    const std::string_view text = traceLines.substr(0, end);
    traceLines.remove_prefix(std::min(end + 1, traceLines.size()));
    JsonResult parsed = parseJson(text);
    if (!parsed.ok() || !parsed.value.is_object() || !valueAt(parsed.value, "campaign").is_string()) continue;
    Record r;
    r.line = klt::integerValue(valueAt(parsed.value, "line"));
    const KLTValue& condition = valueAt(parsed.value, "condition");
    r.condition = condition.is_number_integer() ? std::max<int64_t>(-1, condition.get<int64_t>()) : -1;
    r.kind = klt::textForm(valueAt(parsed.value, "kind"));
    lastLine = std::max(lastLine, r.line);
    const std::string campaign = parsed.value["campaign"].get<std::string>();
    r.json = std::move(parsed.value);
    byCampaign[campaign].push_back(std::move(r));
  }

  std::string out;
  const std::string name = facts.document.empty() ? "replay" : facts.document;
  appendPageStart(out, "kltce run --explain: " + name);
  appendHeader(out, "One device's replay: " + name,
               {{"document", facts.document, ""},
                {"SHA-256", facts.documentHash.empty() ? "-" : facts.documentHash, ""},
                {"profile", facts.profile, ""},
                {"events", facts.events, ""},
                {"campaigns", std::to_string(outcomes.size()), "campaigns"},
                {"run at", facts.when, ""},
                {"tool", facts.toolVersion, ""}});
  out += "<table data-table=\"outcomes\"><caption>Outcomes</caption><thead><tr><th scope=\"col\">campaign</th>"
         "<th scope=\"col\">outcome</th><th scope=\"col\">what it reached</th></tr></thead><tbody>";
  for (const CampaignOutcome& o : outcomes) {
    out += "<tr data-campaign=\"";
    appendEscaped(out, o.campaign);
    out += "\"><th scope=\"row\"><a href=\"#" + anchorOf(o.campaign) + "\">";
    appendEscaped(out, o.campaign);
    out += "</a></th><td>" + std::string(outcomeKindName(o.kind)) + "</td><td>";
    appendEscaped(out, o.text);
    out += "</td></tr>";
  }
  out += "</tbody></table>\n<main>\n";
  static const std::vector<Record> kNone;
  for (const CampaignOutcome& o : outcomes) {
    const auto it = byCampaign.find(o.campaign);
    appendCampaign(out, o, it == byCampaign.end() ? kNone : it->second, lastLine);
  }
  out += "</main>\n";
  appendPageEnd(out);
  return out;
}

}  // namespace kltce
