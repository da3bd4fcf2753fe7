// The charts of kltce's HTML reports, written as inline SVG: horizontal bars (a funnel, the "why
// not"s), a histogram with marked values, and a timeline of marks in lanes. Sizes are fixed in
// pixels, coordinates whole and written without quotes (as HTML allows; an unquoted value never
// ends an element, whose "/>" would join it), and bars carry no tooltip (the table beside the chart
// has the numbers): a report of a thousand campaigns stays a few megabytes and needs no script.
//
// Every chart is `<svg class="chart" data-chart=NAME role="img" aria-label=TITLE>`; its data marks
// carry class "bar" (rect) or "mark" (circle), one per datum, in the order given, so a checker can
// hold them against the table beside the chart. A chart without data still has its size and says
// so in a line of text.
//
// Pure functions appending to the string they are given; safe from any thread.
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <string>
#include <string_view>
#include <vector>

namespace kltce {

struct Bar {
  std::string label;
  double value = 0;
  std::string valueText;  // written after the bar
  int tone = 0;           // colour 0..5
};
// One bar per row, in the order given, scaled to the largest value; a value above 0 is at least
// one pixel wide. empty: the line shown when there is no bar.
void appendBarChart(std::string& out, std::string_view name, std::string_view title, const std::vector<Bar>& bars,
                    std::string_view empty);

// A bin of a histogram: [from, to) and how many fall in it.
struct Bin {
  int64_t from = 0;
  int64_t to = 0;
  uint64_t count = 0;
};
// Bins of equal width (1, 2 or 5 times a power of ten) over the counted values, at most maxBins of
// them, the first starting at a multiple of the width; only bins holding a count are returned.
std::vector<Bin> binCounts(const std::map<int64_t, uint64_t>& counts, std::size_t maxBins);

struct Marker {
  std::string label;  // "median 689 s"
  int64_t at = 0;     // a value inside the bins' range
};
// A bar per bin (only those given), on an axis from the first bin's start to the last one's end
// labelled in `unit`; each marker a dashed vertical line with its label.
void appendHistogram(std::string& out, std::string_view name, std::string_view title, const std::vector<Bin>& bins,
                     const std::vector<Marker>& markers, std::string_view unit, std::string_view empty);

struct TimelineMark {
  std::size_t lane = 0;
  double at = 0;      // on the axis from..to
  int tone = 0;       // colour 0..5
  std::string title;  // the tooltip
};
// A lane per name, an axis from `from` to `to` labelled `axis`, and a circle per mark.
void appendTimeline(std::string& out, std::string_view name, std::string_view title,
                    const std::vector<std::string>& lanes, double from, double to, std::string_view axis,
                    const std::vector<TimelineMark>& marks);

}  // namespace kltce
