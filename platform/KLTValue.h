// KLTValue: the value model of every document, attribute set, custom info and persisted record.
//
// A KLTValue is a JSON-like tree (null, boolean, integer, floating number, string, list, dictionary
// with string keys in insertion order). Dictionaries keep the order of their keys, which is the
// order in which matching visits them.
//
// The free functions below are the lenient readings that all rule code uses instead of the JSON
// library's own getters (which throw, or are undefined for out-of-range floats). None of them
// throws or crashes, whatever the value holds.
//
// Dates (the persisted `day` of a counter record) are a kind of their own: a tagged binary value
// made by makeDate(). A date fails every other kind test and is never equal to a number or a string.
//
// Thread-safety: the functions are pure; a value may be read from several threads at once as long
// as nobody writes it.
#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include <nlohmann/json.hpp>

using KLTValue = nlohmann::ordered_json;

// UTC instants throughout the system, to the microsecond. Counting microseconds in 64 bits spans
// about 292,000 years either side of 1970, so every instant a date text can write (years 0001 to
// 9999), and any sum of such an instant and a timer interval that saturates at max(), is held
// without overflow; the system clock's own nanoseconds would stop at the years 1678 and 2262.
using KLTTimePoint = std::chrono::time_point<std::chrono::system_clock, std::chrono::microseconds>;

namespace klt {

// --- Kind tests -----------------------------------------------------------------------------
bool isList(const KLTValue& v);
bool isString(const KLTValue& v);
bool isDictionary(const KLTValue& v);
// True for integers, floating numbers AND booleans (a boolean reads as 1 or 0).
bool isNumber(const KLTValue& v);
bool isDate(const KLTValue& v);

// --- Readings -------------------------------------------------------------------------------
// Signed 64-bit reading: booleans 1/0; floats truncated toward zero (NaN 0, out of range clamped);
// numeric text read like a C integer parse (leading white space, optional sign, digits up to the
// first other character; none: 0; overflow clamped); anything else 0.
int64_t integerValue(const KLTValue& v);
// The same reading clamped to the signed 32-bit range.
int32_t int32Value(const KLTValue& v);
// Floating reading: the number, or numeric text (leading white space, optional sign); else 0.
double doubleValue(const KLTValue& v);
// Truth: numbers non-zero; text whose first character after white space, an optional sign and
// leading zeros is Y, y, T, t or a digit 1-9; anything else false.
bool boolValue(const KLTValue& v);

// The C integer parse of a text, as integerValue applies it (clamped to 64 bits).
int64_t parseInteger(std::string_view text);
// The same, clamped to 32 bits (the reading of "HH:MM" pieces and version components).
int32_t parseInt32(std::string_view text);

// --- Equality -------------------------------------------------------------------------------
// Object equality as list membership uses it: strings by exact bytes; numbers by numeric value
// (5 equals 5.0, true equals 1); a string never equals a number; dates by instant; lists and
// dictionaries element by element. Null equals only null.
bool isEqual(const KLTValue& a, const KLTValue& b);
// Whether the list contains an element equal to value. A non-list contains nothing.
bool listContains(const KLTValue& list, const KLTValue& value);

// --- Text form ("%@") -----------------------------------------------------------------------
// Strings as they stand; integers in decimal; floats in the shortest form that reads back the same
// (integral ones without a fraction: 2.0 gives 2); booleans true/false; null "(null)"; dates as
// "YYYY-MM-DD HH:MM:SS +0000"; lists and dictionaries as compact JSON (invalid UTF-8 replaced).
std::string textForm(const KLTValue& v);

// --- Access ---------------------------------------------------------------------------------
// The value under key when dict is a dictionary holding it; a null value otherwise. Never inserts.
const KLTValue& valueForKey(const KLTValue& dict, std::string_view key);
// Whether v is a string equal to text (exact bytes). The test every operator and type word uses.
bool isText(const KLTValue& v, std::string_view text);
// The string when v is one; nullptr otherwise. The pointer lives as long as v is unchanged.
const std::string* stringPtr(const KLTValue& v);
// Frees what v holds, leaving it null. The values v holds go first, from the deepest up: the
// JSON library frees a list or dictionary that still holds values through a stack it allocates
// for the purpose, which empty ones spare. For values made and freed at a high rate.
void release(KLTValue& v);

// --- Dates ----------------------------------------------------------------------------------
KLTValue makeDate(KLTTimePoint t);
// The instant of a date value; nothing for any other kind.
std::optional<KLTTimePoint> dateValue(const KLTValue& v);
// "YYYY-MM-DD HH:MM:SS +0000" of an instant.
std::string formatDate(KLTTimePoint t);

}  // namespace klt
