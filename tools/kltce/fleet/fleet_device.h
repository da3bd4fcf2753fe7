// What a plain fleet run and a comparison of two documents share: one device's replay as a fleet
// replays it (fresh counters or a copy of the given ones, the clock at its first line, its displays
// timed from it, on an engine of its own whose log is dropped), and the walk over the fleet's
// readers (the whole stream, or the ranges the workers take).
#pragma once

#include <cstdint>
#include <functional>
#include <istream>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/KLTLog.h"
#include "platform/KLTSharedMap.h"
#include "tools/kltce/fleet/fleet.h"
#include "tools/kltce/fleet/fleet_input.h"
#include "tools/kltce/replay/replay.h"

namespace kltce {

// A CSV field: as it stands, or quoted when it holds a comma, a quote or an end of line.
std::string csvField(std::string_view text);

// One replay of a device with one document. exitCode is not kExitOk when the fleet must stop
// there, error then saying why (the device named).
struct DeviceRun {
  ReplayResult replay;
  std::vector<DeviceCampaign> campaigns;
  int exitCode = kExitOk;
  std::string error;
};

// Replays the device's lines with the options (their profile set) on an engine of its own, its log
// lines dropped. Any thread: devices replayed on different threads are independent.
DeviceRun replayFleetDevice(ReplayOptions options, const std::optional<KLTSharedMap>& counters, const std::string& device,
                            LineSource& lines);

// Records why the fleet stopped; returns false, for `return stopFleet(...)` in a device loop.
bool stopFleet(FleetResult& result, int code, std::string error, std::size_t line);

// Hands replayDevices a reader of the whole stream, or (options.nextRange set) one per range, until
// it answers false or the ranges end; an error's line is then numbered as in the whole stream.
void replayFleetReaders(const FleetOptions& options, std::istream& fleet, FleetResult& result,
                        const std::function<bool(FleetReader&)>& replayDevices);

}  // namespace kltce
