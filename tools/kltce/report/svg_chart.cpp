#include "tools/kltce/report/svg_chart.h"

#include <algorithm>
#include <cmath>

#include "tools/kltce/report/html_page.h"

namespace kltce {

namespace {

constexpr int kBarLabelWidth = 184;  // the column of labels left of the bars
constexpr int kBarAreaWidth = 190;
constexpr int kBarRow = 20;
constexpr int kBarWidth = kBarLabelWidth + kBarAreaWidth + 66;  // room for the value after the bar
constexpr std::size_t kLabelChars = 30;  // longer labels are cut in the chart (the table has them whole)

std::string px(double v) { return std::to_string(std::lround(v)); }

void openSvg(std::string& out, std::string_view name, std::string_view title, int width, int height) {
  out += "<svg class=\"chart\" data-chart=\"";
  appendEscaped(out, name);
  out += "\" role=\"img\" aria-label=\"";
  appendEscaped(out, title);
  out += "\" width=" + std::to_string(width) + " height=" + std::to_string(height) + ">";
}

void text(std::string& out, double x, double y, std::string_view content, std::string_view anchor = {},
          std::string_view cls = {}) {
  out += "<text x=" + px(x) + " y=" + px(y);
  // Anchors are classes of the style sheet ("e": end, "m": middle), shorter than the attribute.
  const std::string classes = std::string(anchor) + (anchor.empty() || cls.empty() ? "" : " ") + std::string(cls);
  if (!classes.empty()) out += " class=\"" + classes + '"';
  out += '>';
  appendEscaped(out, content);
  out += "</text>";
}

std::string shortened(const std::string& label) {
  if (label.size() <= kLabelChars) return label;
  std::size_t cut = kLabelChars - 1;
  while (cut > 0 && (static_cast<unsigned char>(label[cut]) & 0xC0) == 0x80) --cut;  // not inside a UTF-8 sequence
  return label.substr(0, cut) + "\u2026";
}

// The smallest of 1, 2, 5, 10, 20, 50, ... that is at least `least`.
int64_t niceWidth(double least) {
  int64_t unit = 1;
  for (;;) {
    for (const int64_t m : {1, 2, 5}) {
      if (static_cast<double>(unit * m) >= least) return unit * m;
    }
    if (unit > INT64_MAX / 100) return unit * 10;
    unit *= 10;
  }
}

int64_t floorDiv(int64_t a, int64_t b) { return a / b - ((a % b != 0) && ((a < 0) != (b < 0)) ? 1 : 0); }

}  // namespace

void appendBarChart(std::string& out, std::string_view name, std::string_view title, const std::vector<Bar>& bars,
                    std::string_view empty) {
  const int height = bars.empty() ? 24 : static_cast<int>(bars.size()) * kBarRow + 4;
  openSvg(out, name, title, kBarWidth, height);
  if (bars.empty()) text(out, 4, 16, empty);
  double largest = 0;
  for (const Bar& b : bars) largest = std::max(largest, b.value);
  for (std::size_t i = 0; i < bars.size(); ++i) {
    const Bar& b = bars[i];
    const double top = 2 + static_cast<double>(i) * kBarRow;
    double width = largest > 0 ? b.value / largest * kBarAreaWidth : 0;
    if (b.value > 0) width = std::max(width, 1.0);
    text(out, kBarLabelWidth - 6, top + 13, shortened(b.label), "e");
    out += "<rect x=" + std::to_string(kBarLabelWidth) + " y=" + px(top + 2) + " width=" + px(width) +
           " height=14 class=\"bar b" + std::to_string(b.tone % 6) + "\"/>";
    text(out, kBarLabelWidth + width + 4, top + 13, b.valueText);
  }
  out += "</svg>";
}

std::vector<Bin> binCounts(const std::map<int64_t, uint64_t>& counts, std::size_t maxBins) {
  std::vector<Bin> bins;
  if (counts.empty() || maxBins == 0) return bins;
  // Values this far out come only from a summary written by hand; they share one bin rather than
  // overflow the arithmetic below.
  constexpr int64_t kFar = 1'000'000'000'000'000;
  if (counts.begin()->first < -kFar || counts.rbegin()->first > kFar) {
    Bin all{counts.begin()->first, counts.rbegin()->first, 0};
    for (const auto& [v, n] : counts) all.count += n;
    return {all};
  }
  const int64_t lo = counts.begin()->first, hi = counts.rbegin()->first + 1;
  int64_t width = niceWidth(static_cast<double>(hi - lo) / static_cast<double>(maxBins));
  int64_t start = floorDiv(lo, width) * width;
  // Aligning the start down can need one bin more than maxBins: widen until it fits.
  while (static_cast<std::size_t>((hi - start + width - 1) / width) > maxBins) {
    width = niceWidth(static_cast<double>(width) + 1);
    start = floorDiv(lo, width) * width;
  }
  for (const auto& [v, n] : counts) {
    const int64_t from = start + floorDiv(v - start, width) * width;
    if (bins.empty() || bins.back().from != from) bins.push_back({from, from + width, 0});
    bins.back().count += n;
  }
  return bins;
}

void appendHistogram(std::string& out, std::string_view name, std::string_view title, const std::vector<Bin>& bins,
                     const std::vector<Marker>& markers, std::string_view unit, std::string_view empty) {
  constexpr int kWidth = 440, kHeight = 140, kLeft = 40, kRight = 430, kTop = 30, kBase = 112;
  if (bins.empty()) {
    openSvg(out, name, title, kWidth, 24);
    text(out, 4, 16, empty);
    out += "</svg>";
    return;
  }
  openSvg(out, name, title, kWidth, kHeight);
  const double lo = static_cast<double>(bins.front().from), hi = static_cast<double>(bins.back().to);
  const double scale = (kRight - kLeft) / (hi - lo);
  uint64_t most = 0;
  for (const Bin& b : bins) most = std::max(most, b.count);
  out += "<path class=\"ax\" d=\"M" + std::to_string(kLeft) + ' ' + std::to_string(kTop) + "V" +
         std::to_string(kBase) + "H" + std::to_string(kRight) + "\"/>";
  text(out, kLeft - 4, kTop + 8, std::to_string(most), "e");
  text(out, kLeft - 4, kBase, "0", "e");
  text(out, kLeft, kBase + 14, std::to_string(bins.front().from) + ' ' + std::string(unit));
  text(out, kRight, kBase + 14, std::to_string(bins.back().to) + ' ' + std::string(unit), "e");
  for (const Bin& b : bins) {
    const double x = kLeft + (static_cast<double>(b.from) - lo) * scale;
    const double w = std::max(1.0, static_cast<double>(b.to - b.from) * scale - 1);
    const double h = std::max(1.0, static_cast<double>(b.count) / static_cast<double>(most) * (kBase - kTop));
    out += "<rect x=" + px(x) + " y=" + px(kBase - h) + " width=" + px(w) + " height=" + px(h) + " class=\"bar\"/>";
  }
  for (std::size_t i = 0; i < markers.size(); ++i) {
    const double x = kLeft + (static_cast<double>(markers[i].at) + 0.5 - lo) * scale;
    const double labelY = 11 + static_cast<double>(i % 2) * 12;
    out += "<path class=\"mk\" d=\"M" + px(x) + ' ' + px(labelY + 3) + "V" + std::to_string(kBase) + "\"/>";
    text(out, x + (x < (kLeft + kRight) / 2.0 ? 3 : -3), labelY, markers[i].label,
         x < (kLeft + kRight) / 2.0 ? "" : "e", "mk");
  }
  out += "</svg>";
}

void appendTimeline(std::string& out, std::string_view name, std::string_view title,
                    const std::vector<std::string>& lanes, double from, double to, std::string_view axis,
                    const std::vector<TimelineMark>& marks) {
  constexpr int kWidth = 760, kLeft = 170, kRight = 744, kLane = 18;
  const int base = static_cast<int>(lanes.size()) * kLane + 6;
  openSvg(out, name, title, kWidth, base + 30);
  const double span = to > from ? to - from : 1;
  const auto xOf = [&](double v) { return kLeft + (v - from) / span * (kRight - kLeft); };
  for (std::size_t i = 0; i < lanes.size(); ++i) {
    const double y = 4 + static_cast<double>(i) * kLane + kLane / 2.0;
    text(out, kLeft - 8, y + 4, shortened(lanes[i]), "e");
    out += "<path class=\"ax\" stroke-opacity=\".35\" d=\"M" + std::to_string(kLeft) + ' ' + px(y) + "H" +
           std::to_string(kRight) + "\"/>";
  }
  out += "<path class=\"ax\" d=\"M" + std::to_string(kLeft) + ' ' + std::to_string(base) + "H" +
         std::to_string(kRight) + "\"/>";
  // Ticks at whole multiples of 1, 2 or 5 times a power of ten, about five of them.
  const int64_t step = niceWidth(span / 5);
  for (int64_t v = static_cast<int64_t>(std::ceil(from / static_cast<double>(step))) * step;
       static_cast<double>(v) <= to; v += step) {
    const double x = xOf(static_cast<double>(v));
    out += "<path class=\"ax\" d=\"M" + px(x) + ' ' + std::to_string(base) + "v4\"/>";
    text(out, x, base + 15, std::to_string(v), "m");
  }
  text(out, (kLeft + kRight) / 2.0, base + 28, axis, "m");
  for (const TimelineMark& m : marks) {
    const double y = 4 + static_cast<double>(m.lane) * kLane + kLane / 2.0;
    out += "<circle cx=" + px(xOf(m.at)) + " cy=" + px(y) + " r=4 class=\"mark b" + std::to_string(m.tone % 6) +
           "\"><title>";
    appendEscaped(out, m.title);
    out += "</title></circle>";
  }
  out += "</svg>";
}

}  // namespace kltce
