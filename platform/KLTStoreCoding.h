// KLTStoreCoding: the text form of the values the user-defaults store keeps, one JSON document per
// stored value, readable with any SQLite shell.
//
// JSON has no dates, and dates must come back as dates: a date is written as {"$date": <integer
// microseconds since 1970-01-01 UTC>}. So that no stored dictionary can be mistaken for a date, a
// dictionary whose only key is "$date" or "$dict" is written wrapped as {"$dict": {...}}. Floating
// numbers that JSON cannot hold (infinities, NaN) are written as {"$double": "inf" | "-inf" | "nan"}.
//
// Thread-safety: pure functions.
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "platform/KLTValue.h"

namespace klt {

// The stored text of a value. Nothing when the value cannot be written (a string that is not UTF-8).
std::optional<std::string> encodeStoredValue(const KLTValue& value);
// The value of a stored text: the one place where the store reads values back. Nothing when the
// text is not a stored value.
std::optional<KLTValue> decodeStoredValue(std::string_view text);

}  // namespace klt
