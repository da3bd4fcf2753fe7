#include "tools/kltce/report/html_table.h"

#include <cstdio>

#include "tools/kltce/report/html_page.h"

namespace kltce {

void appendRow(std::string& out, std::string_view name, const std::vector<Cell>& cells) {
  out += "<tr><th>";
  appendEscaped(out, name);
  out += "</th>";
  for (const Cell& cell : cells) {
    out += "<td";
    if (!cell.key.empty()) {
      out += " data-k=\"";
      appendEscaped(out, cell.key);
      out += '"';
    }
    out += '>';
    appendEscaped(out, cell.text);
    out += "</td>";
  }
  out += "</tr>";
}

void appendFigureStart(std::string& out, std::string_view caption) {
  out += "<figure><figcaption>";
  appendEscaped(out, caption);
  out += "</figcaption><div class=\"row\">";
}

void appendTableStart(std::string& out, std::string_view name, const std::vector<std::string_view>& heads) {
  out += "<table class=\"num\" data-table=\"";
  appendEscaped(out, name);
  out += "\"><thead><tr><th></th>";
  for (const std::string_view head : heads) {
    out += "<th>";
    appendEscaped(out, head);
    out += "</th>";
  }
  out += "</tr></thead><tbody>";
}

void appendFigureEnd(std::string& out) { out += "</tbody></table></div></figure>"; }

void appendCampaignSectionStart(std::string& out, std::string_view id, std::string_view status) {
  out += "<section id=\"" + anchorOf(id) + "\" data-campaign=\"";
  appendEscaped(out, id);
  if (!status.empty()) {
    out += "\" data-status=\"";
    appendEscaped(out, status);
  }
  out += "\"><h2>";
  appendEscaped(out, id);
  if (!status.empty()) {
    out += " <span class=\"st s-";
    appendEscaped(out, status);
    out += "\">";
    appendEscaped(out, status);
    out += "</span>";
  }
  out += "</h2>";
}

std::string percentText(uint64_t part, uint64_t whole) {
  if (whole == 0) return "-";
  char buffer[32];
  std::snprintf(buffer, sizeof buffer, "%.1f%%", 100.0 * static_cast<double>(part) / static_cast<double>(whole));
  return buffer;
}

std::string secondsText(std::optional<int64_t> seconds) { return seconds ? std::to_string(*seconds) : "-"; }

}  // namespace kltce
