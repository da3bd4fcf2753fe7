#include "host/KLTUtilities.h"

#include "host/KLTDeviceFacts.h"

#include <sys/utsname.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <mutex>
#include <sstream>
#include <string>

#include <date/date.h>

namespace {

bool allDigits(std::string_view s, std::size_t at, std::size_t n) {
  if (at + n > s.size()) return false;
  for (std::size_t i = at; i < at + n; ++i) {
    if (s[i] < '0' || s[i] > '9') return false;
  }
  return true;
}

int twoDigits(std::string_view s, std::size_t at) { return (s[at] - '0') * 10 + (s[at + 1] - '0'); }

}  // namespace

std::string KLTUtilities::deviceName() { return KLTDeviceFacts::seam().current()->deviceName(); }

void KLTUtilities::setDeviceName(std::string name) { KLTDeviceFacts::seam().current()->setDeviceName(std::move(name)); }

bool KLTUtilities::isFirstSession() { return KLTDeviceFacts::seam().current()->isFirstSession(); }

void KLTUtilities::setFirstSession(bool first) { KLTDeviceFacts::seam().current()->setFirstSession(first); }

namespace {

std::optional<KLTTimePoint> readDate(std::string_view s);

}  // namespace

std::optional<KLTTimePoint> KLTUtilities::dateFromKLTDateString(const KLTValue& text) {
  const std::string* p = klt::stringPtr(text);
  if (!p) return std::nullopt;
  // A document's few validity dates are read again at every parse of it (a fleet parses one per
  // device), and the calendar's reading is costly: the last texts read on this thread are kept.
  struct Read {
    std::string text;
    std::optional<KLTTimePoint> date;
  };
  thread_local std::array<Read, 8> recent;
  thread_local std::size_t next = 0;
  for (const Read& r : recent) {
    if (!r.text.empty() && r.text == *p) return r.date;
  }
  Read& slot = recent[next++ % recent.size()];
  slot.text = *p;
  slot.date = readDate(*p);
  return slot.date;
}

namespace {

std::optional<KLTTimePoint> readDate(std::string_view s) {
  // The shape is ours to hold: every field at its place and of its full width ("2026-1-2" and
  // two-digit years are not dates here, though the date library's own reading would take them).
  if (s.size() < 19 || !allDigits(s, 0, 4) || s[4] != '-' || !allDigits(s, 5, 2) || s[7] != '-' ||
      !allDigits(s, 8, 2) || (s[10] != 'T' && s[10] != 't') || !allDigits(s, 11, 2) || s[13] != ':' ||
      !allDigits(s, 14, 2) || s[16] != ':' || !allDigits(s, 17, 2)) {
    return std::nullopt;
  }
  std::string civil(s.substr(0, 19));
  civil[10] = 'T';
  std::size_t at = 19;
  if (at < s.size() && s[at] == '.') {
    const std::size_t start = ++at;
    while (at < s.size() && s[at] >= '0' && s[at] <= '9') ++at;
    if (at == start) return std::nullopt;
    // Instants count microseconds: further digits are dropped, rounding toward the earlier instant.
    civil += '.';
    civil.append(s.substr(start, std::min<std::size_t>(at - start, 6)));
  }
  std::chrono::minutes offset{0};
  if (at < s.size() && (s[at] == 'Z' || s[at] == 'z')) {
    ++at;
  } else if (at < s.size() && (s[at] == '+' || s[at] == '-')) {
    const bool negative = s[at] == '-';
    if (!allDigits(s, at + 1, 2) || twoDigits(s, at + 1) > 23) return std::nullopt;
    std::size_t next = at + 3;
    if (next < s.size() && s[next] == ':') ++next;
    if (!allDigits(s, next, 2) || twoDigits(s, next) > 59) return std::nullopt;
    offset = std::chrono::minutes(twoDigits(s, at + 1) * 60 + twoDigits(s, next));
    if (negative) offset = -offset;
    at = next + 2;
  } else {
    return std::nullopt;  // a local time without an offset names no single instant
  }
  if (at != s.size()) return std::nullopt;
  // The calendar is the date library's: it refuses February 30, hour 24, second 60 and the like,
  // and counts the days of every year from 0001 to 9999.
  std::istringstream in(civil);
  date::sys_time<std::chrono::microseconds> local;
  in >> date::parse("%Y-%m-%dT%H:%M:%S", local);
  if (in.fail() || in.peek() != std::char_traits<char>::eof()) return std::nullopt;
  return KLTTimePoint(local.time_since_epoch()) - offset;
}

}  // namespace

bool KLTUtilities::isNonEmptyString(const KLTValue& value) {
  const std::string* p = klt::stringPtr(value);
  return p && !p->empty();
}
