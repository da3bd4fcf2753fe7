// `kltce fleet --compare OLD --html FILE`: a comparison (fleet_comparison.h) as one self-contained
// HTML page, the old document's figures beside the new one's, for the people who decide whether a
// changed campaign document ships.
//
// The page is made from the comparison's JSON (FleetComparison::toJson()), so its numbers are the
// ones `--format json` prints, and the report of merged parts is the report of one run. It holds a
// header (both documents' names and SHA-256, the fleet's size, when and by which tool version), an
// overview with a row and a link per campaign and its status (added, removed, edited, unchanged),
// and per campaign a section marked with its status with three figures, each a chart beside its
// table: old and new (devices seen, admitted, reached, displays, median and 90th percentile of the
// seconds to the first display, with the change), why not (rejections by admission step and the
// "why not" kinds, old and new, largest first), and the devices whose outcome changed, by
// "old -> new" pair, most first.
//
// Table cells carry `data-k`, the JSON key they show below the campaign: "reached.old",
// "why_not.count_short.difference", "outcome_changes.count_short -> fired", "status" (the
// overview's in its column heads), except the sums the page adds: "not_reached.<side>" (devices
// less reached) and "changed" (the devices of every outcome change). A change reads "+3", "-3",
// "0", or "-" where a side has no value. In the charts grey is the old document, colour the new.
//
// Pure function; safe from any thread.
#pragma once

#include <string>

#include "tools/kltce/fleet/fleet_comparison.h"
#include "tools/kltce/report/fleet_html.h"

namespace kltce {

// facts: as a fleet report's, of the new document; oldDocument, oldDocumentHash: the old one's
// name and SHA-256 ("" when not known).
std::string fleetComparisonReportHtml(const FleetComparison& comparison, const FleetReportFacts& facts,
                                      const std::string& oldDocument, const std::string& oldDocumentHash);

}  // namespace kltce
