// gen_fleet: writes a synthetic fleet for `kltce fleet` on standard output, the same for the same
// seed: devices with varied profiles (app version, model, time zone, first session, country,
// plan, channel) and event streams of the kinds examples/campaigns.json listens to (screens Home,
// Checkout, Articles and Help, purchases, completed orders, article reads, presence, now and then
// a new session or a "shown" report), spread over a day from a random start.
//
//   gen_fleet [--devices N] [--events M] [--seed S] [--split DIR --every K]
//
// --split also writes, for every K-th device, DIR/<id>.profile.json and DIR/<id>.events.jsonl:
// that device alone, as `kltce run` reads it (the same lines, without "device").
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iostream>
#include <string>
#include <vector>

namespace {

struct Random {
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

constexpr int64_t kDayStart = 1795305600000;  // 2026-11-22T00:00:00Z

const char* const kVersions[] = {"1.9.0", "2.0", "2.4.1", "2.4.1", "3.0.0"};
const char* const kModels[] = {"iPhone14,2", "iPhone15,3", "Pixel 7", "SM-S911B"};
const char* const kZones[] = {"Europe/Paris", "Europe/Berlin", "America/New_York", "Asia/Tokyo", "+05:30"};
const char* const kCountries[] = {"FR", "DE", "DE", "US", "GB"};
const char* const kPlans[] = {"gold", "silver"};
const char* const kChannels[] = {"organic", "push", "ads"};
const char* const kScreens[] = {"Home", "Home", "Checkout", "Articles", "Help", "Settings"};

std::string profileKeys(Random& r) {
  return std::string("\"device_model\":\"") + r.pick(kModels) + "\",\"app_version\":\"" + r.pick(kVersions) +
         "\",\"first_session\":" + (r.below(5) == 0 ? "true" : "false") + ",\"time_zone\":\"" + r.pick(kZones) +
         "\",\"user\":{\"attributes\":{\"country\":\"" + r.pick(kCountries) + "\",\"plan\":\"" + r.pick(kPlans) +
         "\"},\"custom_info\":{\"first_name\":\"Sam\"}},\"session\":{\"attributes\":{\"channel\":\"" +
         r.pick(kChannels) + "\"},\"custom_info\":{\"city\":\"Lyon\"}}";
}

// One stream line's keys after "t".
std::string eventKeys(Random& r) {
  const uint64_t roll = r.below(100);
  if (roll < 40) return std::string("\"type\":\"activity\",\"name\":\"") + r.pick(kScreens) + "\"";
  if (roll < 52) return std::string("\"type\":\"app\",\"name\":\"purchase\",\"attributes\":{\"plan\":\"") + r.pick(kPlans) + "\"}";
  if (roll < 60) return "\"type\":\"app\",\"name\":\"order_completed\"";
  if (roll < 82) return "\"type\":\"client\",\"name\":\"article_read\",\"attributes\":{\"slug\":\"a" + std::to_string(r.below(50)) + "\"}";
  if (roll < 92) return "\"type\":\"presence\"";
  if (roll < 96) return std::string("\"action\":\"new_session\",\"attributes\":{\"channel\":\"") + r.pick(kChannels) + "\"}";
  return std::string("\"action\":\"shown\",\"id\":\"") + (r.below(2) ? "welcome_offer" : "tips_banner") + "\"";
}

bool number(const char* text, uint64_t& out) {
  char* end = nullptr;
  out = std::strtoull(text, &end, 10);
  return end && *end == '\0' && end != text;
}

}  // namespace

int main(int argc, char** argv) {
  uint64_t devices = 100, events = 10, seed = 1, every = 1;
  std::string split;
  for (int i = 1; i < argc; ++i) {
    const std::string a = argv[i];
    const bool hasValue = i + 1 < argc;
    if (a == "--split" && hasValue) {
      split = argv[++i];
    } else if (hasValue && ((a == "--devices" && number(argv[i + 1], devices)) || (a == "--events" && number(argv[i + 1], events)) ||
                            (a == "--seed" && number(argv[i + 1], seed)) || (a == "--every" && number(argv[i + 1], every)))) {
      ++i;
    } else {
      std::cerr << "usage: gen_fleet [--devices N] [--events M] [--seed S] [--split DIR --every K]\n";
      return 2;
    }
  }
  if (every == 0) every = 1;
  std::ios::sync_with_stdio(false);
  Random r{seed};
  std::string out;
  for (uint64_t d = 0; d < devices; ++d) {
    char id[32];
    std::snprintf(id, sizeof id, "d%07llu", static_cast<unsigned long long>(d));
    const std::string head = std::string("{\"device\":\"") + id + "\",";
    const std::string profile = profileKeys(r);
    out += head + "\"action\":\"profile\"," + profile + "}\n";
    const bool alone = !split.empty() && d % every == 0;
    std::string stream;
    int64_t t = kDayStart + static_cast<int64_t>(r.below(24 * 3600)) * 1000;
    for (uint64_t e = 0; e < events; ++e) {
      const std::string keys = "\"t\":" + std::to_string(t) + "," + eventKeys(r) + "}\n";
      out += head + keys;
      if (alone) stream += "{" + keys;
      t += static_cast<int64_t>(5 + r.below(120)) * 1000;
    }
    if (alone) {
      std::ofstream(split + "/" + id + ".profile.json") << "{" << profile << "}\n";
      std::ofstream(split + "/" + id + ".events.jsonl") << stream;
    }
    if (out.size() > (1 << 20)) {
      std::cout << out;
      out.clear();
    }
  }
  std::cout << out;
  return std::cout ? 0 : 1;
}
