// Small builders of campaign documents for scenario tests, benchmarks and tools.
#pragma once

#include <string>

#include "platform/KLTValue.h"

namespace kltfixture {

// Epoch milliseconds far in the past and far in the future: time bounds that always hold.
inline constexpr int64_t kAlways = 0;
inline constexpr int64_t kForever = 4102444800000;  // 2100-01-01

inline KLTValue appStartTrigger() {
  return KLTValue{{"event_type", "app_start"}, {"details", {{"additional_info", KLTValue::object()}}}};
}

// A condition on an event of the given type ("app_event", "client_event", "activity_event").
inline KLTValue eventCondition(const std::string& type, const std::string& name, const std::string& op, int64_t count,
                               const KLTValue& combine = "AND", KLTValue trigger = appStartTrigger(),
                               KLTValue attributes = KLTValue::object()) {
  KLTValue c{{"event_type", type},
             {"activity", name},
             {"details", {{"name", name}, {"additional_info", std::move(attributes)}}},
             {"time_bounds", {{"lower", kAlways}, {"upper", kForever}}},
             {"count_config", {{"count", count}, {"operator", op}}},
             {"trigger", std::move(trigger)}};
  if (!combine.is_null()) c["combine_operator"] = combine;
  return c;
}

// A timer condition ("idle_time" or "activity_time") of `millis` milliseconds.
inline KLTValue timerCondition(const std::string& type, const KLTValue& millis, KLTValue trigger = appStartTrigger()) {
  return KLTValue{{"event_type", type},
                  {"details", {{"name", type}, {"additional_info", {{"time", millis}}}}},
                  {"combine_operator", "AND"},
                  {"trigger", std::move(trigger)}};
}

// An admitted campaign (enabled, open audience, valid through 2025-2027) of the given display type.
inline KLTValue campaign(const std::string& id, KLTValue conditions, const std::string& type = "IN_APP") {
  return KLTValue{{"_id", id},
                  {"enabled", true},
                  {"audience", {{"attributes", {{"user", KLTValue::array()}, {"session", KLTValue::array()}}}}},
                  {"validity", {{"start_date", "2025-01-01T00:00:00Z"}, {"end_date", "2027-12-31T23:59:59Z"}}},
                  {"meta", {{"type", type}}},
                  {"ui", {{"display_type", "banner"}}},
                  {"conditions", std::move(conditions)}};
}

inline KLTValue document(std::initializer_list<KLTValue> configs) {
  KLTValue list = KLTValue::array();
  for (const auto& c : configs) list.push_back(c);
  return KLTValue{{"configs", std::move(list)}};
}

}  // namespace kltfixture
