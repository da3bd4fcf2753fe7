// `kltce run --explain --html FILE`: one device's replay as one self-contained HTML page: per
// campaign, its outcome (for a campaign that did not fire, its "why not" line first), a timeline
// of its decisions over the stream's lines in lanes (admission; each condition: trigger fired,
// armed, counted, timer ended; the fold; the daily window and the cap; dispatches and counted
// displays), and the table of those decisions with the values each compared.
//
// The page is made from the decision records' JSON lines, exactly what `--trace FILE` writes (one
// object per line: seq, kind, campaign, condition, values, line, time), and the outcomes of the
// explanation; nothing else of the engine is read. A line that is not such a record is skipped.
// Timeline marks (class "mark") and table rows (`data-seq`) correspond one to one, at most
// kMaxRecords per campaign (the page says how many more the trace holds).
//
// Pure function; safe from any thread.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

#include "tools/kltce/replay/explain.h"

namespace kltce {

struct ExplainReportFacts {
  std::string document, documentHash, profile, events;
  std::string when;  // ISO 8601 UTC
  std::string toolVersion;
};

inline constexpr std::size_t kMaxRecords = 2000;

std::string explainReportHtml(std::string_view traceLines, const std::vector<CampaignOutcome>& outcomes,
                              const ExplainReportFacts& facts);

}  // namespace kltce
