// `kltce fleet --html FILE`: a fleet's summary as one self-contained HTML page for the people who
// decide whether a campaign document ships.
//
// The page is made from the FleetSummary alone, so the report of merged parts is the report of
// one run. It holds a header (the document's name and SHA-256, the fleet's size, when and by which
// tool version), an overview table with a link per campaign, and per campaign a section with three
// charts, each beside the table of its numbers: the funnel (devices seen, admitted, reached, with
// displays and displays per reached device), why not (rejections by admission step and the "why
// not" outcome kinds of the devices not reached, largest first), and the time to first display (a
// histogram of the summary's exact counts, median and 90th percentile marked).
//
// Table cells carry `data-k`, the summary key they show ("admitted", "rejected.version",
// "why_not.count_short", "first_display_seconds.median"; the overview's in its column heads), and
// the histogram's rows class "bin" and the head "FROM–TO s" (seconds FROM to before TO), so
// that a checker can hold the page against `kltce fleet --format json`. The output is kept lean
// (about 4 KB a campaign): a report of a thousand campaigns stays under 5 MB.
//
// Pure function; safe from any thread.
#pragma once

#include <string>

#include "tools/kltce/fleet/fleet_summary.h"

namespace kltce {

// What the header says beyond the summary's own figures.
struct FleetReportFacts {
  std::string document;      // the document's file name ("" when not known)
  std::string documentHash;  // its SHA-256 ("" when not known)
  std::string whenLabel;     // "run at", "merged at"
  std::string when;          // ISO 8601 UTC
  std::string toolVersion;
};

std::string fleetReportHtml(const FleetSummary& summary, const FleetReportFacts& facts);

}  // namespace kltce
