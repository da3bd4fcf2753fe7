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
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iostream>
#include <string>
#include <vector>

#include "examples/fleet/fleet_gen.h"

namespace {

// Digits only: strtoull would take "-1" for 2^64 - 1, and a number past 2^64 - 1 for that one.
bool number(const char* text, uint64_t& out) {
  if (*text < '0' || *text > '9') return false;
  char* end = nullptr;
  errno = 0;
  out = std::strtoull(text, &end, 10);
  return end && *end == '\0' && errno == 0;
}

}  // namespace

int main(int argc, char** argv) {
  uint64_t devices = 100, events = 10, seed = 1, every = 1;
  std::string dir;
  for (int i = 1; i < argc; ++i) {
    const std::string a = argv[i];
    const bool hasValue = i + 1 < argc;
    if (a == "--split" && hasValue) {
      dir = argv[++i];
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
  fleetgen::FleetRandom r{seed};
  std::string out;
  for (uint64_t d = 0; d < devices; ++d) {
    std::pair<std::string, std::string> alone;
    const bool split = !dir.empty() && d % every == 0;
    fleetgen::appendDevice(r, d, events, out, split ? &alone : nullptr);
    if (split) {
      char id[32];
      std::snprintf(id, sizeof id, "d%07llu", static_cast<unsigned long long>(d));
      std::ofstream(dir + "/" + id + ".profile.json") << alone.first;
      std::ofstream(dir + "/" + id + ".events.jsonl") << alone.second;
    }
    if (out.size() > (1 << 20)) {
      std::cout << out;
      out.clear();
    }
  }
  std::cout << out;
  return std::cout ? 0 : 1;
}
