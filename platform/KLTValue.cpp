#include "platform/KLTValue.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <cstring>
#include <limits>

namespace klt {
namespace {

// Subtype that marks a binary value as a date: 8 bytes, big-endian signed nanoseconds since epoch.
// A date is 8 big-endian bytes under one of two subtypes: nanoseconds since 1970 for instants that
// fit them (every store written so far holds these), microseconds for the instants before 1678 or
// after 2261 that nanoseconds cannot count.
constexpr std::uint8_t kDateSubtype = 0x44;
constexpr std::uint8_t kWideDateSubtype = 0x45;

const KLTValue& nullValue() {
  static const KLTValue kNull;
  return kNull;
}

constexpr std::string_view kSpaces = " \t\n\r\f\v";
constexpr std::string_view kDigits = "0123456789";
// Far beyond any decimal position a text can hold, and far from overflowing when one is added.
constexpr int64_t kExponentCap = 1'000'000'000'000'000'000;

// Drops the leading characters of text that are in set.
void skipAll(std::string_view& text, std::string_view set) {
  text.remove_prefix(std::min(text.find_first_not_of(set), text.size()));
}

// Drops c when text starts with it, and answers whether it did.
bool skipOne(std::string_view& text, char c) {
  if (!text.starts_with(c)) return false;
  text.remove_prefix(1);
  return true;
}

// Takes the leading run of decimal digits off text and answers it.
std::string_view takeDigits(std::string_view& text) {
  const std::string_view digits = text.substr(0, text.find_first_not_of(kDigits));
  text.remove_prefix(digits.size());
  return digits;
}

// Truncates toward zero and clamps to [lo, hi]; NaN reads 0.
template <typename Int>
Int clampDouble(double d) {
  if (std::isnan(d)) return 0;
  constexpr double lo = static_cast<double>(std::numeric_limits<Int>::min());
  // 2^63 (or 2^31) is exactly representable; anything at or above it overflows.
  constexpr double hiExclusive = -lo;
  if (d <= lo) return std::numeric_limits<Int>::min();
  if (d >= hiExclusive) return std::numeric_limits<Int>::max();
  return static_cast<Int>(std::trunc(d));
}

// from_chars reports a decimal number beyond the double range as out of range whether it is too
// large or too small; the decimal exponent of its first significant digit tells which.
// number is the non-empty text from_chars consumed: minus sign, digits, fraction, exponent.
bool decimalOverflows(std::string_view number) {
  skipOne(number, '-');
  std::string_view integer = takeDigits(number);
  std::string_view fraction = skipOne(number, '.') ? takeDigits(number) : std::string_view();
  skipAll(integer, "0");
  const std::size_t fractionZeros = std::min(fraction.find_first_not_of('0'), fraction.size());
  // "123" stands at 3, "0.5" at 0, "0.005" at -2.
  const int64_t position = !integer.empty() ? static_cast<int64_t>(integer.size()) : -static_cast<int64_t>(fractionZeros);
  int64_t exponent = 0;
  if (skipOne(number, 'e') || skipOne(number, 'E')) {
    skipOne(number, '+');
    const char* end = number.data() + number.size();
    // An exponent beyond 64 bits outweighs any position a text can hold.
    if (std::from_chars(number.data(), end, exponent).ec != std::errc()) {
      exponent = number.starts_with('-') ? -kExponentCap : kExponentCap;
    }
  }
  return position + exponent > 0;
}

}  // namespace

bool isList(const KLTValue& v) { return v.is_array(); }
bool isString(const KLTValue& v) { return v.is_string(); }
bool isDictionary(const KLTValue& v) { return v.is_object(); }
bool isNumber(const KLTValue& v) { return v.is_number() || v.is_boolean(); }
bool isDate(const KLTValue& v) {
  return v.is_binary() && v.get_binary().has_subtype() &&
         (v.get_binary().subtype() == kDateSubtype || v.get_binary().subtype() == kWideDateSubtype) &&
         v.get_binary().size() == 8;
}

int64_t parseInteger(std::string_view text) {
  skipAll(text, kSpaces);
  // from_chars reads a minus sign but not a plus: a plus is dropped, and a minus after it reads 0.
  if (skipOne(text, '+') && text.starts_with('-')) return 0;
  int64_t out = 0;
  if (std::from_chars(text.data(), text.data() + text.size(), out).ec == std::errc::result_out_of_range) {
    return text.starts_with('-') ? std::numeric_limits<int64_t>::min() : std::numeric_limits<int64_t>::max();
  }
  return out;
}

int32_t parseInt32(std::string_view text) {
  const int64_t v = parseInteger(text);
  if (v < std::numeric_limits<int32_t>::min()) return std::numeric_limits<int32_t>::min();
  if (v > std::numeric_limits<int32_t>::max()) return std::numeric_limits<int32_t>::max();
  return static_cast<int32_t>(v);
}

int64_t integerValue(const KLTValue& v) {
  switch (v.type()) {
    case KLTValue::value_t::boolean:
      return v.get<bool>() ? 1 : 0;
    case KLTValue::value_t::number_integer:
      return v.get<int64_t>();
    case KLTValue::value_t::number_unsigned: {
      const auto u = v.get<uint64_t>();
      return u > static_cast<uint64_t>(std::numeric_limits<int64_t>::max()) ? std::numeric_limits<int64_t>::max()
                                                                             : static_cast<int64_t>(u);
    }
    case KLTValue::value_t::number_float:
      return clampDouble<int64_t>(v.get<double>());
    case KLTValue::value_t::string:
      return parseInteger(v.get_ref<const std::string&>());
    default:
      return 0;
  }
}

int32_t int32Value(const KLTValue& v) {
  if (v.is_number_float()) return clampDouble<int32_t>(v.get<double>());
  const int64_t i = integerValue(v);
  if (i < std::numeric_limits<int32_t>::min()) return std::numeric_limits<int32_t>::min();
  if (i > std::numeric_limits<int32_t>::max()) return std::numeric_limits<int32_t>::max();
  return static_cast<int32_t>(i);
}

double doubleValue(const KLTValue& v) {
  switch (v.type()) {
    case KLTValue::value_t::boolean:
      return v.get<bool>() ? 1.0 : 0.0;
    case KLTValue::value_t::number_integer:
      return static_cast<double>(v.get<int64_t>());
    case KLTValue::value_t::number_unsigned:
      return static_cast<double>(v.get<uint64_t>());
    case KLTValue::value_t::number_float:
      return v.get<double>();
    case KLTValue::value_t::string: {
      std::string_view s = v.get_ref<const std::string&>();
      skipAll(s, kSpaces);
      if (skipOne(s, '+') && s.starts_with('-')) return 0.0;  // one sign only
      double out = 0.0;
      const auto res = std::from_chars(s.data(), s.data() + s.size(), out, std::chars_format::general);
      if (res.ec == std::errc::result_out_of_range) {
        const std::string_view number(s.data(), static_cast<std::size_t>(res.ptr - s.data()));
        const double magnitude = decimalOverflows(number) ? std::numeric_limits<double>::infinity() : 0.0;
        return s.starts_with('-') ? -magnitude : magnitude;
      }
      return res.ec == std::errc() ? out : 0.0;
    }
    default:
      return 0.0;
  }
}

bool boolValue(const KLTValue& v) {
  if (v.is_boolean()) return v.get<bool>();
  if (v.is_number_integer()) return v.get<int64_t>() != 0;  // covers unsigned too
  if (v.is_number_float()) return v.get<double>() != 0.0;
  if (!v.is_string()) return false;
  std::string_view s = v.get_ref<const std::string&>();
  skipAll(s, kSpaces);
  if (!skipOne(s, '+')) skipOne(s, '-');
  skipAll(s, "0");
  // Yes, true, or a number that does not start with zero.
  return s.find_first_of("YyTt123456789") == 0;
}

namespace {

bool numbersEqual(const KLTValue& a, const KLTValue& b) {
  const bool aFloat = a.is_number_float(), bFloat = b.is_number_float();
  if (!aFloat && !bFloat) {
    // Both integral (boolean, signed or unsigned): compare without losing precision.
    const bool aU = a.is_number_unsigned(), bU = b.is_number_unsigned();
    if (aU && bU) return a.get<uint64_t>() == b.get<uint64_t>();
    if (aU || bU) {
      const KLTValue& u = aU ? a : b;
      const int64_t s = integerValue(aU ? b : a);
      return s >= 0 && static_cast<uint64_t>(s) == u.get<uint64_t>();
    }
    return integerValue(a) == integerValue(b);
  }
  if (aFloat && bFloat) return a.get<double>() == b.get<double>();
  const double f = aFloat ? a.get<double>() : b.get<double>();
  const KLTValue& i = aFloat ? b : a;
  if (std::isnan(f) || std::trunc(f) != f) return false;
  if (i.is_number_unsigned()) {
    return f >= 0 && f < 18446744073709551616.0 && static_cast<uint64_t>(f) == i.get<uint64_t>();
  }
  return f >= -9223372036854775808.0 && f < 9223372036854775808.0 && static_cast<int64_t>(f) == integerValue(i);
}

}  // namespace

bool isEqual(const KLTValue& a, const KLTValue& b) {
  // A date equals only a date of the same instant, whichever of the two encodings each one uses.
  const bool aIsDate = isDate(a);
  if (aIsDate != isDate(b)) return false;
  if (aIsDate) return dateValue(a) == dateValue(b);
  // A number and a non-number differ in type, which the check below answers.
  if (isNumber(a) && isNumber(b)) return numbersEqual(a, b);
  if (a.type() != b.type()) return false;
  switch (a.type()) {
    case KLTValue::value_t::null:
      return true;
    case KLTValue::value_t::string:
      return a.get_ref<const std::string&>() == b.get_ref<const std::string&>();
    case KLTValue::value_t::array:
      return std::equal(a.begin(), a.end(), b.begin(), b.end(), [](const KLTValue& x, const KLTValue& y) { return isEqual(x, y); });
    case KLTValue::value_t::object: {
      if (a.size() != b.size()) return false;
      for (auto it = a.begin(); it != a.end(); ++it) {
        auto other = b.find(it.key());
        if (other == b.end() || !isEqual(it.value(), *other)) return false;
      }
      return true;
    }
    default:
      return a == b;
  }
}

bool listContains(const KLTValue& list, const KLTValue& value) {
  if (!list.is_array()) return false;
  for (const auto& element : list) {
    if (isEqual(element, value)) return true;
  }
  return false;
}

std::string textForm(const KLTValue& v) {
  switch (v.type()) {
    case KLTValue::value_t::null:
      return "(null)";
    case KLTValue::value_t::string:
      return v.get<std::string>();
    case KLTValue::value_t::boolean:
      return v.get<bool>() ? "true" : "false";
    case KLTValue::value_t::number_integer:
      return std::to_string(v.get<int64_t>());
    case KLTValue::value_t::number_unsigned:
      return std::to_string(v.get<uint64_t>());
    case KLTValue::value_t::number_float: {
      const double d = v.get<double>();
      if (std::isnan(d)) return "nan";
      if (std::isinf(d)) return std::signbit(d) ? "-inf" : "inf";
      char buf[64];
      std::to_chars_result res{};
      if (std::trunc(d) == d && std::fabs(d) < 1e21) {
        res = std::to_chars(buf, buf + sizeof buf, d, std::chars_format::fixed, 0);
      } else {
        res = std::to_chars(buf, buf + sizeof buf, d);
      }
      std::string out(buf, res.ptr);
      return out == "-0" ? "0" : out;
    }
    case KLTValue::value_t::binary:
      if (auto t = dateValue(v)) return formatDate(*t);
      return v.dump(-1, ' ', false, KLTValue::error_handler_t::replace);
    default:
      return v.dump(-1, ' ', false, KLTValue::error_handler_t::replace);
  }
}

namespace {

// Empties v's lists and dictionaries from the deepest up, as far down as kEmptiedDepth: any deeper
// is left to the library's own way, which is correct at any depth.
void empty(KLTValue& v, std::size_t depth) {
  constexpr std::size_t kEmptiedDepth = 64;
  if (depth == kEmptiedDepth) return;
  if (auto* object = v.get_ptr<KLTValue::object_t*>()) {
    for (auto& member : *object) empty(member.second, depth + 1);
    object->clear();
  } else if (auto* array = v.get_ptr<KLTValue::array_t*>()) {
    for (auto& item : *array) empty(item, depth + 1);
    array->clear();
  }
}

}  // namespace

void release(KLTValue& v) {
  empty(v, 0);
  v = nullptr;
}

const KLTValue& valueForKey(const KLTValue& dict, std::string_view key) {
  if (!dict.is_object()) return nullValue();
  auto it = dict.find(key);
  return it == dict.end() ? nullValue() : *it;
}

bool isText(const KLTValue& v, std::string_view text) {
  return v.is_string() && v.get_ref<const std::string&>() == text;
}

const std::string* stringPtr(const KLTValue& v) { return v.is_string() ? v.get_ptr<const std::string*>() : nullptr; }

KLTValue makeDate(KLTTimePoint t) {
  const int64_t us = t.time_since_epoch().count();
  // Nanoseconds when they fit in 64 bits (about 292 years either side of 1970), else microseconds.
  int64_t ns = 0;
  const bool narrow = !__builtin_mul_overflow(us, int64_t{1000}, &ns);
  const uint64_t u = static_cast<uint64_t>(narrow ? ns : us);
  std::vector<std::uint8_t> bytes(8);
  for (int i = 0; i < 8; ++i) bytes[i] = static_cast<std::uint8_t>(u >> (56 - 8 * i));
  return KLTValue::binary(std::move(bytes), narrow ? kDateSubtype : kWideDateSubtype);
}

std::optional<KLTTimePoint> dateValue(const KLTValue& v) {
  if (!isDate(v)) return std::nullopt;
  const auto& bytes = v.get_binary();
  uint64_t u = 0;
  for (int i = 0; i < 8; ++i) u = (u << 8) | bytes[i];
  const auto count = static_cast<int64_t>(u);
  if (bytes.subtype() == kWideDateSubtype) return KLTTimePoint(std::chrono::microseconds(count));
  // Nanoseconds round toward the earlier microsecond, as the instant they were made from was.
  return std::chrono::floor<std::chrono::microseconds>(KLTTimePoint() + std::chrono::nanoseconds(count));
}

std::string formatDate(KLTTimePoint t) {
  using namespace std::chrono;
  const auto day = floor<days>(t);
  const year_month_day ymd{day};
  const hh_mm_ss hms{floor<seconds>(t - day)};
  char buf[64];
  std::snprintf(buf, sizeof buf, "%04d-%02u-%02u %02lld:%02lld:%02lld +0000", static_cast<int>(ymd.year()),
                static_cast<unsigned>(ymd.month()), static_cast<unsigned>(ymd.day()),
                static_cast<long long>(hms.hours().count()), static_cast<long long>(hms.minutes().count()),
                static_cast<long long>(hms.seconds().count()));
  return buf;
}

}  // namespace klt
