// The frame of kltce's HTML reports: text escaped for HTML, the page's head with its style sheet
// inline, and the header's list of facts. A report is one file that opens without a network: no
// script, no font, no image is fetched; the charts are SVG written into the page (svg_chart.h).
//
// Pure functions writing to the string they are given; safe from any thread.
#pragma once

#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace kltce {

// Appends text with &, <, >, " and ' escaped, fit for element content and quoted attributes.
void appendEscaped(std::string& out, std::string_view text);
std::string escaped(std::string_view text);

// Appends "<!DOCTYPE html>...<body>": the title (escaped) and the reports' style sheet.
void appendPageStart(std::string& out, std::string_view title);
// Appends "</body></html>".
void appendPageEnd(std::string& out);

// A fact of the header: its name and its text, and the summary key it shows (empty: none), which
// a checker compares with the summary's JSON.
struct HeaderFact {
  std::string name;
  std::string text;
  std::string key;
};
// Appends "<header><h1>heading</h1><dl>...</dl></header>".
void appendHeader(std::string& out, std::string_view heading, const std::vector<HeaderFact>& facts);

// An id usable in a URL fragment and an attribute for a campaign's _id (which may hold anything):
// "c-" and the id's bytes, those outside [A-Za-z0-9_-] written as ".XX" in hex.
std::string anchorOf(std::string_view id);

}  // namespace kltce
