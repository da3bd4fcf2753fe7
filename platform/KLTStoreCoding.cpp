#include "platform/KLTStoreCoding.h"

#include <chrono>
#include <cmath>
#include <exception>

#include "platform/KLTValueReader.h"

namespace klt {
namespace {

constexpr const char* kDateTag = "$date";
constexpr const char* kDictTag = "$dict";
constexpr const char* kDoubleTag = "$double";

bool looksTagged(const KLTValue& v) {
  return v.is_object() && v.size() == 1 && (v.contains(kDateTag) || v.contains(kDictTag) || v.contains(kDoubleTag));
}

KLTValue tagged(const KLTValue& v) {
  if (auto date = dateValue(v)) {
    return KLTValue{{kDateTag, std::chrono::duration_cast<std::chrono::microseconds>(date->time_since_epoch()).count()}};
  }
  if (v.is_number_float() && !std::isfinite(v.get<double>())) {
    const double d = v.get<double>();
    return KLTValue{{kDoubleTag, std::isnan(d) ? "nan" : (d > 0 ? "inf" : "-inf")}};
  }
  if (v.is_array()) {
    KLTValue out = KLTValue::array();
    for (const auto& e : v) out.push_back(tagged(e));
    return out;
  }
  if (v.is_object()) {
    KLTValue out = KLTValue::object();
    for (auto it = v.begin(); it != v.end(); ++it) out[it.key()] = tagged(it.value());
    if (looksTagged(v)) return KLTValue{{kDictTag, std::move(out)}};
    return out;
  }
  return v;
}

KLTValue untagged(const KLTValue& v);

KLTValue untaggedEntries(const KLTValue& v) {
  KLTValue out = KLTValue::object();
  for (auto it = v.begin(); it != v.end(); ++it) out[it.key()] = untagged(it.value());
  return out;
}

KLTValue untagged(const KLTValue& v) {
  if (v.is_array()) {
    KLTValue out = KLTValue::array();
    for (const auto& e : v) out.push_back(untagged(e));
    return out;
  }
  if (!v.is_object()) return v;
  if (looksTagged(v)) {
    // Plain iterators: a structured binding over items() would outlive the proxy it points into.
    const auto first = v.begin();
    const std::string& tag = first.key();
    const KLTValue& inner = first.value();
    if (tag == kDateTag && inner.is_number_integer()) {
      return makeDate(KLTTimePoint(std::chrono::duration_cast<KLTTimePoint::duration>(
          std::chrono::microseconds(inner.get<int64_t>()))));
    }
    if (tag == kDictTag && inner.is_object()) return untaggedEntries(inner);
    if (tag == kDoubleTag && inner.is_string()) {
      const auto& s = inner.get_ref<const std::string&>();
      return s == "nan" ? std::nan("") : (s == "inf" ? HUGE_VAL : -HUGE_VAL);
    }
  }
  return untaggedEntries(v);
}

}  // namespace

std::optional<std::string> encodeStoredValue(const KLTValue& value) {
  try {
    return tagged(value).dump();
  } catch (const std::exception&) {
    return std::nullopt;  // a string that is not UTF-8
  }
}

std::optional<KLTValue> decodeStoredValue(std::string_view text) {
  // Through the one reader of outside data, so that a stored value obeys the same nesting limit.
  KLTValueRead read = readJsonText(text);
  if (!read.ok()) return std::nullopt;
  return untagged(read.value);
}

}  // namespace klt
