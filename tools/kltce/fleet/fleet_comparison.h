// FleetComparison: what `kltce fleet --compare OLD.json` found: the same devices replayed with an
// old and a new campaign document. It keeps the fleet summary of each (fleet_summary.h), each
// campaign's status between the documents (document_diff.h: added, removed, edited, unchanged),
// and per campaign the number of devices whose outcome changed, by (old outcome -> new outcome)
// pair: "count_short -> fired". An outcome is the explain summary's kind ("fired", "rejected",
// "cap_blocked", ...), or "absent" on a device whose replay of that document never met the
// campaign (it is not in that document).
//
// Like FleetSummary, it holds sums: the comparison of two disjoint sets of devices merged equals
// the comparison of their union, exactly, so shards and worker processes merge into the bytes of
// one run. Two comparisons merge only when their campaigns have the same statuses (the same two
// documents, as far as statuses can tell).
//
// JSON form (toJson(), fromJson(); `kltce fleet --compare --format json` and the input of `kltce
// fleet merge`): the totals; per campaign its status, each figure as {"old", "new", "difference"}
// and "outcome_changes"; then "old" and "new", the two summaries whole (the command adds "part",
// its run's identity, fleet_identity.h). Only the summaries, the statuses and the outcome changes
// are read back; every other figure is recomputed from them.
//
// Not thread-safe: one owner.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <ostream>
#include <string>
#include <string_view>
#include <vector>

#include "platform/KLTValue.h"
#include "tools/kltce/analysis/document_diff.h"
#include "tools/kltce/fleet/fleet_summary.h"

namespace kltce {

// The outcome of a campaign absent from a device's replay.
inline constexpr std::string_view kAbsentOutcome = "absent";

// One campaign of one device whose outcome differs between the documents; a side is nullptr
// where the campaign is absent.
struct OutcomeChange {
  std::string campaign;
  const DeviceCampaign* before = nullptr;
  const DeviceCampaign* after = nullptr;
};
// The campaigns of one device whose outcome kind differs between its two replays, by campaign.
std::vector<OutcomeChange> outcomeChanges(const std::vector<DeviceCampaign>& before,
                                          const std::vector<DeviceCampaign>& after);
// "fired", ..., or "absent" for nullptr.
std::string_view outcomeName(const DeviceCampaign* campaign);

class FleetComparison {
 public:
  FleetComparison() = default;
  // Every campaign of the two documents, with its status.
  explicit FleetComparison(const std::vector<CampaignDiff>& campaigns);

  // Adds one device: its campaigns replayed with the old document and with the new one.
  void addDevice(const std::vector<DeviceCampaign>& before, const std::vector<DeviceCampaign>& after, uint64_t lines,
                 uint64_t events, uint64_t badLines);
  // False, error set and nothing added, when other compares campaigns of other statuses.
  bool merge(const FleetComparison& other, std::string& error);

  KLTValue toJson() const;
  // Reads toJson()'s form; nothing, with error set, when it is not one.
  static std::optional<FleetComparison> fromJson(const KLTValue& json, std::string& error);
  // Whether the JSON is a comparison's rather than a plain summary's (it holds "old" and "new").
  static bool isComparisonJson(const KLTValue& json);
  // For people: the totals, then per campaign its figures old, new and the difference, and its
  // outcome changes, the most frequent first.
  void writeTable(std::ostream& out) const;

  const FleetSummary& before() const { return before_; }
  const FleetSummary& after() const { return after_; }
  const std::map<std::string, std::string>& statuses() const { return statuses_; }
  // campaign -> "old -> new" -> devices
  const std::map<std::string, std::map<std::string, uint64_t>>& changes() const { return changes_; }

 private:
  std::vector<std::string> campaignIds() const;
  std::string statusOf(const std::string& id) const;

  FleetSummary before_, after_;
  std::map<std::string, std::string> statuses_;  // campaign -> campaignStatusName()
  std::map<std::string, std::map<std::string, uint64_t>> changes_;
};

}  // namespace kltce
