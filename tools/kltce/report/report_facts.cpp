#include "tools/kltce/report/report_facts.h"

#include <charconv>
#include <cstdlib>
#include <cstring>

#include "tools/kltce/input/time_text.h"
#include "tools/kltce/report/file_digest.h"

namespace kltce {

KLTTimePoint reportMoment() {
  if (const char* fixed = std::getenv("SOURCE_DATE_EPOCH")) {
    int64_t seconds = 0;
    const char* end = fixed + std::strlen(fixed);
    const auto [stop, ec] = std::from_chars(fixed, end, seconds);
    if (ec == std::errc() && stop == end && seconds >= 0 && seconds < 253402300800) {  // before year 10000
      if (const auto t = instantOfMillis(seconds * 1000)) return *t;
    }
  }
  return KLTClock::current()->now();
}

std::string reportTimeText(KLTTimePoint t) {
  const auto utc = KLTTimeZone::fixedOffset(0);
  return formatInstant(std::chrono::time_point_cast<std::chrono::seconds>(t), *utc);
}

std::optional<DocumentFacts> documentFacts(const std::string& path, std::string& error) {
  auto digest = sha256OfFile(path, error);
  if (!digest) return std::nullopt;
  return DocumentFacts{path, std::move(*digest)};
}

}  // namespace kltce
