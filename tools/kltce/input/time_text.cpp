#include "tools/kltce/input/time_text.h"

#include <chrono>
#include <cstdio>

#include "host/KLTUtilities.h"

namespace kltce {

namespace {

// Epoch milliseconds of the instants a date text can write: 0001-01-01T00:00:00Z to
// 9999-12-31T23:59:59.999Z. Anything beyond is refused rather than moved to a year nobody wrote.
constexpr int64_t kMinEpochMillis = -62'135'596'800'000;
constexpr int64_t kMaxEpochMillis = 253'402'300'799'999;

bool isDigit(char c) { return c >= '0' && c <= '9'; }

}  // namespace

std::optional<KLTTimePoint> readInstant(const KLTValue& value) {
  if (value.is_string()) return KLTUtilities::dateFromKLTDateString(value);
  if (!value.is_number()) return std::nullopt;  // booleans are not instants here
  if (value.is_number_float()) {
    const double d = value.get<double>();
    // Checked before any conversion to an integer: NaN and values past the range fail here.
    if (!(d >= static_cast<double>(kMinEpochMillis) && d <= static_cast<double>(kMaxEpochMillis))) return std::nullopt;
  }
  return instantOfMillis(klt::integerValue(value));  // unsigned values past int64 clamp, then fail
}

std::optional<KLTTimePoint> instantOfMillis(int64_t millis) {
  if (millis > kMaxEpochMillis || millis < kMinEpochMillis) return std::nullopt;
  return KLTTimePoint(std::chrono::milliseconds(millis));
}

std::string formatInstant(KLTTimePoint t, const KLTTimeZone& zone) {
  using namespace std::chrono;
  const int offset = zone.offsetMinutesAt(t);
  const auto local = time_point_cast<milliseconds>(t) + minutes(offset);
  const auto day = floor<days>(local);
  const year_month_day ymd{day};
  const hh_mm_ss hms{local - day};
  char buf[64];
  int n = std::snprintf(buf, sizeof buf, "%04d-%02u-%02uT%02d:%02d:%02d", static_cast<int>(ymd.year()),
                        static_cast<unsigned>(ymd.month()), static_cast<unsigned>(ymd.day()),
                        static_cast<int>(hms.hours().count()), static_cast<int>(hms.minutes().count()),
                        static_cast<int>(hms.seconds().count()));
  std::string out(buf, static_cast<std::size_t>(n));
  if (const auto ms = hms.subseconds().count(); ms != 0) {
    n = std::snprintf(buf, sizeof buf, ".%03d", static_cast<int>(ms));
    out.append(buf, static_cast<std::size_t>(n));
  }
  if (offset == 0) {
    out += 'Z';
  } else {
    const int a = offset < 0 ? -offset : offset;
    n = std::snprintf(buf, sizeof buf, "%c%02d:%02d", offset < 0 ? '-' : '+', a / 60, a % 60);
    out.append(buf, static_cast<std::size_t>(n));
  }
  return out;
}

std::shared_ptr<const KLTTimeZone> zoneFromText(const std::string& text) {
  if (text.size() == 6 && (text[0] == '+' || text[0] == '-') && isDigit(text[1]) && isDigit(text[2]) &&
      text[3] == ':' && isDigit(text[4]) && isDigit(text[5])) {
    const int hours = (text[1] - '0') * 10 + (text[2] - '0');
    const int mins = (text[4] - '0') * 10 + (text[5] - '0');
    if (hours > 18 || mins > 59) return nullptr;
    const int total = hours * 60 + mins;
    return KLTTimeZone::fixedOffset(text[0] == '-' ? -total : total);
  }
  if (text.empty()) return nullptr;
  // A fleet names the same few zones in a million profiles, and opening one is costly; a zone only
  // answers questions, so one opened on this thread serves every profile that names it.
  thread_local std::vector<std::pair<std::string, std::shared_ptr<const KLTTimeZone>>> opened;
  for (const auto& [name, zone] : opened) {
    if (name == text) return zone;
  }
  auto zone = KLTTimeZone::named(text);
  if (zone && opened.size() < 64) opened.emplace_back(text, zone);
  return zone;
}

}  // namespace kltce
