// The pieces a fleet report and a comparison report are both made of, written into the page
// (html_page.h): a campaign's section, a figure (a chart beside the table of its numbers), and the
// table's rows, whose cells carry `data-k`, the JSON key they show, so that a checker can hold the
// page against the command's JSON.
//
// Pure functions appending to the string they are given; safe from any thread.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace kltce {

// One cell of a row: its text and the JSON key it shows (empty: none).
struct Cell {
  std::string key;
  std::string text;
};
// "<tr><th>name</th><td data-k=key>text</td>...</tr>".
void appendRow(std::string& out, std::string_view name, const std::vector<Cell>& cells);

// "<figure><figcaption>caption</figcaption><div class=row>": the chart goes next, then the table.
void appendFigureStart(std::string& out, std::string_view caption);
// The figure's table up to its body: named by data-table (the figure's caption names it for a
// person; a report of a thousand campaigns has thousands of them), a blank head over the rows'
// names, then `heads`.
void appendTableStart(std::string& out, std::string_view name, const std::vector<std::string_view>& heads);
// Closes the table and the figure.
void appendFigureEnd(std::string& out);

// "<section id=ANCHOR data-campaign=ID><h2>ID</h2>": a campaign's section (anchorOf(id), the
// overview's link). A status (a comparison's "added", "removed", ...) adds data-status and a
// badge of class "st s-STATUS" after the name.
void appendCampaignSectionStart(std::string& out, std::string_view id, std::string_view status = {});

// "12.5%" of part in whole, "-" of nothing.
std::string percentText(uint64_t part, uint64_t whole);
// Whole seconds, "-" for none.
std::string secondsText(std::optional<int64_t> seconds);

}  // namespace kltce
