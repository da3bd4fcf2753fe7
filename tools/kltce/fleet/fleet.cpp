#include "tools/kltce/fleet/fleet.h"

#include <charconv>

#include "tools/kltce/fleet/fleet_compare.h"
#include "tools/kltce/fleet/fleet_device.h"
#include "tools/kltce/fleet/fleet_input.h"
#include "tools/kltce/replay/explain.h"
#include "tools/kltce/replay/replay.h"

namespace kltce {

uint64_t fleetDeviceHash(std::string_view id) {
  uint64_t h = 14695981039346656037ull;
  for (unsigned char c : id) {
    h ^= c;
    h *= 1099511628211ull;
  }
  return h;
}

bool fleetSelects(uint64_t hash, FleetPart shard) { return hash % shard.count == shard.index; }

std::optional<FleetPart> parseFleetPart(std::string_view text) {
  const std::size_t slash = text.find('/');
  if (slash == std::string_view::npos) return std::nullopt;
  FleetPart p;
  const auto read = [](std::string_view digits, uint64_t& out) {
    const auto [end, ec] = std::from_chars(digits.data(), digits.data() + digits.size(), out);
    return ec == std::errc() && end == digits.data() + digits.size() && !digits.empty();
  };
  if (!read(text.substr(0, slash), p.index) || !read(text.substr(slash + 1), p.count)) return std::nullopt;
  if (p.count == 0 || p.index >= p.count) return std::nullopt;
  return p;
}

std::optional<FleetRange> FleetPieces::range(std::istream& in, std::size_t piece) const {
  const auto begin = fleetRangeStart(in, at(piece), at(piece + 1));
  if (!begin) return std::nullopt;
  for (std::size_t later = piece + 1; later < count; ++later) {
    if (const auto end = fleetRangeStart(in, at(later), at(later + 1))) return FleetRange{*begin, *end};
  }
  if (in.bad()) return std::nullopt;
  return FleetRange{*begin, size};
}

FleetResult replayFleet(const FleetOptions& options, std::istream& fleet) {
  if (options.compareWith) return replayFleetCompared(options, fleet);
  FleetResult result;
  ReplayOptions base;
  base.document = std::make_shared<const KLTValue>(options.document);
  base.compiled = KLTCEDocument::compile(base.document);  // compiled once, shared by every device's parse
  base.autoShown = options.autoShown;
  base.logLevel = 4;  // no DEBUG or ERROR line is even made; INFO lines go to the dropped log
  const auto wanted = [&](std::string_view id) { return fleetSelects(fleetDeviceHash(id), options.shard); };
  // Replays the devices of one reader; false when it stopped.
  const auto replayDevices = [&](FleetReader& reader) {
    while (reader.nextDevice(wanted)) {
      const std::string device = reader.device();
      ReplayOptions o = base;
      o.profile = reader.profile();
      DeviceRun run = replayFleetDevice(std::move(o), options.counters, device, reader.lines());
      if (!reader.ok()) return stopFleet(result, kExitUsage, reader.error(), reader.errorLine());
      if (run.exitCode != kExitOk) return stopFleet(result, run.exitCode, run.error, reader.profileLine());
      if (std::ostream* rows = options.csv) {
        for (const DeviceCampaign& c : run.campaigns) {
          *rows << csvField(device) << ',' << csvField(c.outcome.campaign) << ',' << outcomeKindName(c.outcome.kind) << ','
                << csvField(c.outcome.reason) << ',' << c.displays << ','
                << (c.firstDisplayMillis ? std::to_string(*c.firstDisplayMillis) : std::string()) << ','
                << csvField(c.outcome.text) << '\n';
        }
      }
      const ReplayResult& r = run.replay;
      result.summary.addDevice(run.campaigns, r.lines, r.events, r.badLines);
      if (options.onDevice) options.onDevice(result.summary.devices(), result.summary.events());
    }
    if (!reader.ok()) return stopFleet(result, kExitUsage, reader.error(), reader.errorLine());
    if (fleet.bad()) return stopFleet(result, kExitFailed, "reading the fleet failed", 0);
    return true;
  };
  replayFleetReaders(options, fleet, result, replayDevices);
  return result;
}

}  // namespace kltce
