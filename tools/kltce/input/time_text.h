// Instants and time zones as the kltce tool reads and writes them.
//
// Pure functions; safe from any thread.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "platform/KLTClock.h"
#include "platform/KLTValue.h"

namespace kltce {

// The instant a stream line or option gives: ISO 8601 text in the host's date format
// ("2026-11-22T09:00:00Z", "...+01:00", fractional seconds allowed) or a number of milliseconds
// since the Unix epoch. Nothing for any other value (a boolean, unreadable text, a number of
// milliseconds outside the years 0001 to 9999).
std::optional<KLTTimePoint> readInstant(const KLTValue& value);
// The instant a number of milliseconds since the epoch gives; nothing outside the years 0001 to 9999.
std::optional<KLTTimePoint> instantOfMillis(int64_t millis);

// The instant as ISO 8601 local time in the zone, with its offset: "2026-11-22T10:00:30+01:00",
// "2026-11-22T09:00:30.250Z" (milliseconds only when there are any; "Z" for a zero offset).
std::string formatInstant(KLTTimePoint t, const KLTTimeZone& zone);

// A zone from an IANA name ("Europe/Paris", "UTC") or a fixed offset "+HH:MM" / "-HH:MM";
// nullptr when the text is neither.
std::shared_ptr<const KLTTimeZone> zoneFromText(const std::string& text);

}  // namespace kltce
