#include "host/KLTUtilities.h"

#include <sys/utsname.h>

#include <chrono>
#include <mutex>

namespace {

std::mutex& deviceMutex() {
  static std::mutex m;
  return m;
}

std::string& deviceNameSlot() {
  static std::string name = [] {
    struct utsname u {};
    return ::uname(&u) == 0 ? std::string(u.machine) : std::string("unknown");
  }();
  return name;
}

bool& firstSessionSlot() {
  static bool first = false;
  return first;
}

bool digits(std::string_view s, std::size_t at, std::size_t n, int& out) {
  if (at + n > s.size()) return false;
  out = 0;
  for (std::size_t i = at; i < at + n; ++i) {
    if (s[i] < '0' || s[i] > '9') return false;
    out = out * 10 + (s[i] - '0');
  }
  return true;
}

}  // namespace

std::string KLTUtilities::deviceName() {
  std::lock_guard lock(deviceMutex());
  return deviceNameSlot();
}

void KLTUtilities::setDeviceName(std::string name) {
  std::lock_guard lock(deviceMutex());
  deviceNameSlot() = std::move(name);
}

bool KLTUtilities::isFirstSession() {
  std::lock_guard lock(deviceMutex());
  return firstSessionSlot();
}

void KLTUtilities::setFirstSession(bool first) {
  std::lock_guard lock(deviceMutex());
  firstSessionSlot() = first;
}

std::optional<KLTTimePoint> KLTUtilities::dateFromKLTDateString(const KLTValue& text) {
  const std::string* p = klt::stringPtr(text);
  if (!p) return std::nullopt;
  const std::string_view s = *p;
  int y, mo, d, h, mi, sec;
  if (!digits(s, 0, 4, y) || s.size() < 19 || s[4] != '-' || !digits(s, 5, 2, mo) || s[7] != '-' ||
      !digits(s, 8, 2, d) || (s[10] != 'T' && s[10] != 't') || !digits(s, 11, 2, h) || s[13] != ':' ||
      !digits(s, 14, 2, mi) || s[16] != ':' || !digits(s, 17, 2, sec)) {
    return std::nullopt;
  }
  using namespace std::chrono;
  const year_month_day ymd{year(y), month(static_cast<unsigned>(mo)), day(static_cast<unsigned>(d))};
  if (!ymd.ok() || h > 23 || mi > 59 || sec > 59) return std::nullopt;
  std::size_t at = 19;
  nanoseconds fraction{0};
  if (at < s.size() && s[at] == '.') {
    ++at;
    const std::size_t start = at;
    int64_t scale = 100000000;
    while (at < s.size() && s[at] >= '0' && s[at] <= '9') {
      fraction += nanoseconds((s[at] - '0') * scale);
      scale /= 10;
      ++at;
    }
    if (at == start) return std::nullopt;
  }
  minutes offset{0};
  if (at < s.size() && (s[at] == 'Z' || s[at] == 'z')) {
    ++at;
  } else if (at < s.size() && (s[at] == '+' || s[at] == '-')) {
    const bool negative = s[at] == '-';
    int oh, om;
    if (!digits(s, at + 1, 2, oh) || oh > 23) return std::nullopt;
    std::size_t next = at + 3;
    if (next < s.size() && s[next] == ':') ++next;
    if (!digits(s, next, 2, om) || om > 59) return std::nullopt;
    offset = minutes(oh * 60 + om);
    if (negative) offset = -offset;
    at = next + 2;
  } else {
    return std::nullopt;  // a local time without an offset names no single instant
  }
  if (at != s.size()) return std::nullopt;
  const auto local = sys_days(ymd) + hours(h) + minutes(mi) + seconds(sec) + fraction;
  return time_point_cast<KLTTimePoint::duration>(local - offset);
}

bool KLTUtilities::isNonEmptyString(const KLTValue& value) {
  const std::string* p = klt::stringPtr(value);
  return p && !p->empty();
}
