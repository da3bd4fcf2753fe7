#include "tools/kltce/report/html_page.h"

namespace kltce {

namespace {

// One style sheet for both reports. Sections skip rendering while off screen, which keeps a
// report of a thousand campaigns quick to open; their size is reserved so the scroll bar is true.
constexpr std::string_view kStyle = R"(
:root{font-family:system-ui,sans-serif;color:#1d2430;background:#fff;font-size:14px}
body{margin:0 24px 40px}
header{border-bottom:2px solid #1d2430;margin-bottom:12px}
h1{font-size:22px;margin:16px 0 8px}
h2{font-size:17px;margin:0 0 6px}
header dl{display:grid;grid-template-columns:max-content auto;gap:2px 12px;margin:0 0 12px}
header dt{color:#56607a}header dd{margin:0}
code{font-size:12px}
section{border-top:1px solid #d5dae3;padding:12px 0;content-visibility:auto;contain-intrinsic-size:auto 420px}
.figs{display:flex;flex-wrap:wrap;gap:8px 28px}
figure{margin:0}.row{display:flex;gap:12px;align-items:flex-start}
figcaption{font-weight:600;margin-bottom:4px}
table{border-collapse:collapse;font-size:12px}
caption{text-align:left;font-weight:600;padding-bottom:2px}
th,td{padding:1px 8px 1px 0;text-align:left;vertical-align:top}
td.n,table.num td{text-align:right;font-variant-numeric:tabular-nums}
text.e{text-anchor:end}text.m{text-anchor:middle}
thead th{border-bottom:1px solid #b9c0cc}
svg text{font-size:11px;fill:#1d2430}
svg .ax{stroke:#8d96a8;fill:none}svg .mk{stroke:#c0392b;stroke-dasharray:4 3;fill:none}tbody th{font-weight:normal}svg text.mk{fill:#c0392b;stroke:none}
.bar,.b0{fill:#3d6fb6}.b1{fill:#5a9e6f}.b2{fill:#e0a030}.b3{fill:#c0392b}.b4{fill:#8e6cc0}.b5{fill:#7d8799}
.why{background:#fdf0e8;border-left:4px solid #e0a030;padding:4px 8px;margin:4px 0 8px}
.fired{background:#eaf5ee;border-left:4px solid #5a9e6f;padding:4px 8px;margin:4px 0 8px}
.vals{font-family:ui-monospace,monospace;font-size:11px;word-break:break-all;max-width:720px}
.lg{font-size:11px;color:#56607a;margin:0 0 6px}
.st{font-size:11px;font-weight:600;padding:1px 6px;border-radius:3px;background:#eef0f4;color:#56607a}
h2 .st{margin-left:8px;vertical-align:middle}.s-added{background:#eaf5ee;color:#2f6b41}.s-removed{background:#fbe9e7;color:#a23325}.s-edited{background:#fdf0e8;color:#8a5a12}
)";

}  // namespace

void appendEscaped(std::string& out, std::string_view text) {
  for (const char ch : text) {
    switch (ch) {
      case '&': out += "&amp;"; break;
      case '<': out += "&lt;"; break;
      case '>': out += "&gt;"; break;
      case '"': out += "&quot;"; break;
      case '\'': out += "&#39;"; break;
      default: out += ch;
    }
  }
}

std::string escaped(std::string_view text) {
  std::string out;
  appendEscaped(out, text);
  return out;
}

void appendPageStart(std::string& out, std::string_view title) {
  out += "<!DOCTYPE html>\n<html lang=\"en\"><head><meta charset=\"utf-8\">"
         "<meta name=\"viewport\" content=\"width=device-width,initial-scale=1\">"
         // Nothing may be fetched: the page says so itself, so a browser refuses any request.
         "<meta http-equiv=\"Content-Security-Policy\" content=\"default-src 'none'; style-src 'unsafe-inline'; img-src data:\">"
         "<title>";
  appendEscaped(out, title);
  out += "</title><style>";
  out += kStyle;
  out += "</style></head><body>\n";
}

void appendPageEnd(std::string& out) { out += "</body></html>\n"; }

void appendHeader(std::string& out, std::string_view heading, const std::vector<HeaderFact>& facts) {
  out += "<header><h1>";
  appendEscaped(out, heading);
  out += "</h1><dl>";
  for (const HeaderFact& f : facts) {
    out += "<dt>";
    appendEscaped(out, f.name);
    out += "</dt><dd";
    if (!f.key.empty()) {
      out += " data-k=\"";
      appendEscaped(out, f.key);
      out += '"';
    }
    out += '>';
    appendEscaped(out, f.text);
    out += "</dd>";
  }
  out += "</dl></header>\n";
}

std::string anchorOf(std::string_view id) {
  static constexpr char kHex[] = "0123456789abcdef";
  std::string out = "c-";
  for (const char ch : id) {
    const auto c = static_cast<unsigned char>(ch);
    if ((c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '_' || c == '-') {
      out += ch;
    } else {
      out += '.';
      out += kHex[c >> 4];
      out += kHex[c & 15];
    }
  }
  return out;
}

}  // namespace kltce
