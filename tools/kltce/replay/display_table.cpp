#include "tools/kltce/replay/display_table.h"

#include <iomanip>
#include <sstream>

#include "tools/kltce/input/json_text.h"

namespace kltce {

namespace {

// Column widths: a time with offset is 25 characters, the longest class name 14.
constexpr int kLineWidth = 5;
constexpr int kTimeWidth = 25;
constexpr int kClassWidth = 14;
constexpr int kIdWidth = 16;

}  // namespace

void writeDisplayRow(std::ostream& out, const KLTValue& display, bool& started) {
  if (!started) {
    out << std::setw(kLineWidth) << "LINE" << "  " << std::left << std::setw(kTimeWidth) << "TIME" << "  "
        << std::setw(kClassWidth) << "CLASS" << "  " << std::setw(kIdWidth) << "ID" << "  INFO" << std::right << '\n';
    started = true;
  }
  // The id has its own column; the rest of the info follows as JSON.
  KLTValue info = klt::valueForKey(display, "info");
  const std::string id = klt::textForm(klt::valueForKey(info, "id"));
  if (info.is_object()) info.erase("id");
  std::ostringstream row;
  row << std::setw(kLineWidth) << klt::textForm(klt::valueForKey(display, "line")) << "  " << std::left
      << std::setw(kTimeWidth) << klt::textForm(klt::valueForKey(display, "time")) << "  " << std::setw(kClassWidth)
      << klt::textForm(klt::valueForKey(display, "class")) << "  " << std::setw(kIdWidth) << id << "  "
      << (info.empty() ? "" : compactJson(info));
  std::string text = row.str();
  text.erase(text.find_last_not_of(' ') + 1);  // no padding after the last column
  out << text << '\n';
}

}  // namespace kltce
