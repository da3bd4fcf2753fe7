// A generator of event streams for the replay benchmarks: a document of N campaigns and a JSON
// Lines stream of M events that hit them, both made in memory and the same at every call.
//
// Campaign i listens, by turns, to an app event "evt-i" (with two attributes to match), a screen
// "screen-i" or a client event "cl-i"; each condition completes at every matching event (GTE 1)
// and the campaign may show 3 times in all, so a long stream keeps reaching capped campaigns
// (which the engine logs at every completion, as on a device). One event in ten is one that no
// campaign listens to, and one in 50 a presence event. Events are 250 ms apart from
// 2026-11-22T07:00Z; which campaign an event hits follows a fixed pseudo-random sequence.
#pragma once

#include <cstdint>
#include <string>

#include "platform/KLTValue.h"

namespace genevents {

inline constexpr int64_t kStartMillis = 1795330800000;  // 2026-11-22T07:00:00Z

inline KLTValue campaignDocument(int campaigns) {
  KLTValue configs = KLTValue::array();
  const KLTValue appStart{{"event_type", "app_start"}, {"details", {{"additional_info", KLTValue::object()}}}};
  for (int i = 0; i < campaigns; ++i) {
    const std::string n = std::to_string(i);
    KLTValue condition{{"time_bounds", {{"lower", 0}, {"upper", int64_t{4102444800000}}}},
                       {"count_config", {{"count", 1}, {"operator", "GTE"}}},
                       {"combine_operator", "AND"},
                       {"trigger", appStart}};
    switch (i % 3) {
      case 0:
        condition["event_type"] = "app_event";
        condition["details"] = {{"name", "evt-" + n}, {"additional_info", {{"plan", "gold"}, {"level", 3}}}};
        break;
      case 1:
        condition["event_type"] = "activity_event";
        condition["activity"] = "screen-" + n;
        condition["details"] = {{"name", "screen-" + n}, {"additional_info", KLTValue::object()}};
        break;
      default:
        condition["event_type"] = "client_event";
        condition["details"] = {{"name", "cl-" + n}, {"additional_info", KLTValue::object()}};
        break;
    }
    configs.push_back(KLTValue{
        {"_id", "gen-" + n},
        {"enabled", true},
        {"prio", i % 7},
        {"audience", {{"attributes", {{"user", KLTValue::array()}, {"session", KLTValue::array()}}}}},
        {"validity", {{"start_date", "2025-01-01T00:00:00Z"}, {"end_date", "2027-12-31T23:59:59Z"}}},
        {"frequency", {{"count", 3}, {"validity", "OVERALL"}}},
        {"meta", {{"type", "IN_APP"}}},
        {"ui", {{"display_type", "banner"}}},
        {"conditions", KLTValue::array({condition})}});
  }
  return KLTValue{{"configs", configs}};
}

inline std::string eventStream(int campaigns, int events) {
  std::string out;
  out.reserve(static_cast<std::size_t>(events) * 72);
  uint64_t state = 0x9E3779B97F4A7C15ull;
  for (int e = 0; e < events; ++e) {
    state = state * 6364136223846793005ull + 1442695040888963407ull;
    const auto pick = static_cast<int>((state >> 33) % static_cast<uint64_t>(campaigns));
    const std::string n = std::to_string(pick);
    out += "{\"t\":" + std::to_string(kStartMillis + int64_t{e} * 250) + ",";
    if (e % 50 == 49) {
      out += "\"type\":\"presence\"";
    } else if (e % 10 == 9) {
      out += "\"type\":\"app\",\"name\":\"unheard\",\"attributes\":{\"k\":1}";
    } else if (pick % 3 == 0) {
      out += "\"type\":\"app\",\"name\":\"evt-" + n + "\",\"attributes\":{\"plan\":\"gold\",\"level\":3}";
    } else if (pick % 3 == 1) {
      out += "\"type\":\"activity\",\"name\":\"screen-" + n + "\"";
    } else {
      out += "\"type\":\"client\",\"name\":\"cl-" + n + "\"";
    }
    out += "}\n";
  }
  return out;
}

}  // namespace genevents
