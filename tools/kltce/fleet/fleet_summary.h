// FleetSummary: what `kltce fleet` found, per campaign, over the devices it replayed, kept as sums
// that add up: the summary of two disjoint sets of devices merged equals the summary of their
// union, exactly and whatever the split, so shards, worker processes and MPI ranks merge into the
// same bytes as one run.
//
// Per campaign (by _id): devices whose replay met it, devices that admitted it, rejections by the
// admission step that failed, devices reached (one display or more), displays in all, the time
// from a device's first stream line to its first display as exact counts per whole second (from
// which the median and 90th percentile are read, nearest rank), and for devices not reached the
// count of each "why not" (the explain summary's outcome kinds).
//
// JSON form (toJson(), fromJson(); the output of `kltce fleet --format json` and the input of
// `kltce fleet merge`): objects with sorted keys, the derived figures (displays per reached
// device, median, p90) written beside the sums and recomputed on reading.
//
// Not thread-safe: one owner.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <ostream>
#include <string>
#include <vector>

#include "platform/KLTValue.h"
#include "tools/kltce/replay/explain.h"

namespace kltce {

struct CampaignTally {
  uint64_t devices = 0;
  uint64_t admitted = 0;
  std::map<std::string, uint64_t> rejected;          // admission step -> devices
  uint64_t reached = 0;
  uint64_t displays = 0;
  std::map<int64_t, uint64_t> firstDisplaySeconds;   // whole seconds -> devices
  std::map<std::string, uint64_t> whyNot;            // outcome kind name -> devices not reached

  // The value at rank ceil(q * n) of the first-display times (q in (0, 1]); nothing when none.
  std::optional<int64_t> firstDisplayQuantile(double q) const;
};

// One campaign's result on one device: its outcome, and the display events the replay wrote for it.
struct DeviceCampaign {
  CampaignOutcome outcome;
  uint64_t displays = 0;
  std::optional<int64_t> firstDisplayMillis;  // from the device's first stream line
};

class FleetSummary {
 public:
  // Adds one device's results. lines/events/badLines: what its replay read.
  void addDevice(const std::vector<DeviceCampaign>& campaigns, uint64_t lines, uint64_t events, uint64_t badLines);
  void merge(const FleetSummary& other);
  // merge(), unless a sum would pass 2^64 - 1: then false, error set, and this is unchanged.
  bool mergeChecked(const FleetSummary& other, std::string& error);

  KLTValue toJson() const;
  // Reads toJson()'s form; nothing, with error set, when a field is missing or of the wrong kind, or
  // when the counts do not add up (a campaign met, admitted or reaching more devices than it met,
  // or met by more devices than the summary holds).
  static std::optional<FleetSummary> fromJson(const KLTValue& json, std::string& error);
  // A table for people: one row per campaign, then the rejections and "why not"s of each.
  void writeTable(std::ostream& out) const;

  uint64_t devices() const { return devices_; }
  uint64_t events() const { return events_; }
  const std::map<std::string, CampaignTally>& campaigns() const { return campaigns_; }

 private:
  template <typename Add>
  void mergeWith(const FleetSummary& other, Add add);

  uint64_t devices_ = 0, lines_ = 0, events_ = 0, badLines_ = 0;
  std::map<std::string, CampaignTally> campaigns_;
};

}  // namespace kltce
