// The synthetic fleet of examples/fleet/gen_fleet.cpp, as functions the generator and the fleet
// benchmarks share: devices with varied profiles and streams of the events examples/campaigns.json
// listens to, the same for the same seed. Header only; no state but the caller's FleetRandom.
#pragma once

#include <cstdint>
#include <cstdio>
#include <string>
#include <utility>

namespace fleetgen {

struct FleetRandom {
  uint64_t state;
  uint64_t next() {  // splitmix64
    uint64_t z = (state += 0x9E3779B97F4A7C15ull);
    z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9ull;
    z = (z ^ (z >> 27)) * 0x94D049BB133111EBull;
    return z ^ (z >> 31);
  }
  uint64_t below(uint64_t n) { return next() % n; }
  template <typename T, std::size_t N>
  const T& pick(const T (&items)[N]) { return items[below(N)]; }
};

inline constexpr int64_t kDayStart = 1795305600000;  // 2026-11-22T00:00:00Z

inline const char* const kVersions[] = {"1.9.0", "2.0", "2.4.1", "2.4.1", "3.0.0"};
inline const char* const kModels[] = {"iPhone14,2", "iPhone15,3", "Pixel 7", "SM-S911B"};
inline const char* const kZones[] = {"Europe/Paris", "Europe/Berlin", "America/New_York", "Asia/Tokyo", "+05:30"};
inline const char* const kCountries[] = {"FR", "DE", "DE", "US", "GB"};
inline const char* const kPlans[] = {"gold", "silver"};
inline const char* const kChannels[] = {"organic", "push", "ads"};
inline const char* const kScreens[] = {"Home", "Home", "Checkout", "Articles", "Help", "Settings"};

inline std::string profileKeys(FleetRandom& r) {
  return std::string("\"device_model\":\"") + r.pick(kModels) + "\",\"app_version\":\"" + r.pick(kVersions) +
         "\",\"first_session\":" + (r.below(5) == 0 ? "true" : "false") + ",\"time_zone\":\"" + r.pick(kZones) +
         "\",\"user\":{\"attributes\":{\"country\":\"" + r.pick(kCountries) + "\",\"plan\":\"" + r.pick(kPlans) +
         "\"},\"custom_info\":{\"first_name\":\"Sam\"}},\"session\":{\"attributes\":{\"channel\":\"" +
         r.pick(kChannels) + "\"},\"custom_info\":{\"city\":\"Lyon\"}}";
}

// One stream line's keys after "t".
inline std::string eventKeys(FleetRandom& r) {
  const uint64_t roll = r.below(100);
  if (roll < 40) return std::string("\"type\":\"activity\",\"name\":\"") + r.pick(kScreens) + "\"";
  if (roll < 52) return std::string("\"type\":\"app\",\"name\":\"purchase\",\"attributes\":{\"plan\":\"") + r.pick(kPlans) + "\"}";
  if (roll < 60) return "\"type\":\"app\",\"name\":\"order_completed\"";
  if (roll < 82) return "\"type\":\"client\",\"name\":\"article_read\",\"attributes\":{\"slug\":\"a" + std::to_string(r.below(50)) + "\"}";
  if (roll < 92) return "\"type\":\"presence\"";
  if (roll < 96) return std::string("\"action\":\"new_session\",\"attributes\":{\"channel\":\"") + r.pick(kChannels) + "\"}";
  return std::string("\"action\":\"shown\",\"id\":\"") + (r.below(2) ? "welcome_offer" : "tips_banner") + "\"";
}

// Appends device number `index`'s lines (its profile line, then `events` stream lines) to out.
// alone: when given, receives the device's profile ("{...}\n") and stream without "device".
inline void appendDevice(FleetRandom& r, uint64_t index, uint64_t events, std::string& out,
                         std::pair<std::string, std::string>* alone = nullptr) {
  char id[32];
  std::snprintf(id, sizeof id, "d%07llu", static_cast<unsigned long long>(index));
  const std::string head = std::string("{\"device\":\"") + id + "\",";
  const std::string profile = profileKeys(r);
  out += head + "\"action\":\"profile\"," + profile + "}\n";
  if (alone) alone->first = "{" + profile + "}\n";
  int64_t t = kDayStart + static_cast<int64_t>(r.below(24 * 3600)) * 1000;
  for (uint64_t e = 0; e < events; ++e) {
    const std::string keys = "\"t\":" + std::to_string(t) + "," + eventKeys(r) + "}\n";
    out += head + keys;
    if (alone) alone->second += "{" + keys;
    t += static_cast<int64_t>(5 + r.below(120)) * 1000;
  }
}

}  // namespace fleetgen
