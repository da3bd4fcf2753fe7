#include "tools/kltce/cli/fleet_report_command.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <optional>
#include <sstream>
#include <utility>

#include "tools/kltce/input/json_text.h"
#include "tools/kltce/replay/replay.h"
#include "tools/kltce/report/fleet_compare_html.h"
#include "tools/kltce/report/fleet_html.h"
#include "tools/kltce/report/report_facts.h"

namespace kltce {

int runFleetWithHtml(FleetCommand command, bool merge, const std::string& html, const std::string& toolVersion,
                     std::ostream& out, std::ostream& err) {
  const auto fail = [&](const std::string& message) {
    err << "kltce: fleet: --html: " << message << '\n';
    return kExitUsage;
  };
  FleetReportFacts facts;
  facts.whenLabel = merge ? "merged at" : "run at";
  facts.when = reportTimeText(reportMoment());
  facts.toolVersion = toolVersion;
  // The documents named in the header: the new one, and the old one of a comparison.
  DocumentFacts document, old;
  for (auto [path, into] : {std::pair{&command.document, &document}, std::pair{&command.compare, &old}}) {
    if (path->empty()) continue;
    std::string error;
    if (const auto read = documentFacts(*path, error)) {
      *into = *read;
    } else if (merge) {
      return fail(error);  // without merge, the command itself names an unreadable document
    }
  }
  facts.document = document.name;
  facts.documentHash = document.sha256;
  std::ofstream file(html, std::ios::out | std::ios::trunc | std::ios::binary);
  if (!file) return fail("cannot write '" + html + "': " + std::strerror(errno));

  const std::string format = command.format;
  command.format = "json";
  std::ostringstream json;
  const int code = merge ? runFleetMerge(command, json, err) : runFleetCommand(command, json, err);
  if (code != kExitOk) {
    out << json.str();
    file.close();
    std::remove(html.c_str());
    return code;
  }
  const std::string text = json.str();
  JsonResult parsed = parseJson(text);
  std::string error;
  // The JSON says whether it is a comparison's: a merge is one when its parts are.
  std::optional<FleetSummary> summary;
  std::optional<FleetComparison> comparison;
  if (parsed.ok() && FleetComparison::isComparisonJson(parsed.value)) {
    comparison = FleetComparison::fromJson(parsed.value, error);
  } else if (parsed.ok()) {
    summary = FleetSummary::fromJson(parsed.value, error);
  }
  if (!summary && !comparison) {
    err << "kltce: fleet: --html: the summary does not read back: " << (parsed.ok() ? error : parsed.error) << '\n';
    return kExitFailed;
  }
  file << (comparison ? fleetComparisonReportHtml(*comparison, facts, old.name, old.sha256) : fleetReportHtml(*summary, facts));
  file.close();
  if (!file) {
    err << "kltce: fleet: --html: writing '" << html << "' failed\n";
    return kExitFailed;
  }
  if (format == "json") {
    out << text;
  } else if (comparison) {
    comparison->writeTable(out);
  } else {
    summary->writeTable(out);
  }
  out.flush();
  return kExitOk;
}

}  // namespace kltce
