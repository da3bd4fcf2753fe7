#include "tools/kltce/analysis/document_diff.h"

#include <algorithm>
#include <map>

#include "tools/kltce/analysis/schema_check.h"

namespace kltce {

namespace {

void diffInto(const KLTValue& before, const KLTValue& after, const std::string& path, std::vector<ValueChange>& out) {
  if (before.is_object() && after.is_object()) {
    for (auto it = after.begin(); it != after.end(); ++it) {
      const std::string at = path + "/" + pointerSegment(it.key());
      const auto old = before.find(it.key());
      if (old == before.end()) {
        out.push_back({at, std::nullopt, it.value()});
      } else {
        diffInto(*old, it.value(), at, out);
      }
    }
    for (auto it = before.begin(); it != before.end(); ++it) {
      if (!after.contains(it.key())) out.push_back({path + "/" + pointerSegment(it.key()), it.value(), std::nullopt});
    }
    return;
  }
  if (before.is_array() && after.is_array()) {
    const std::size_t common = std::min(before.size(), after.size());
    for (std::size_t i = 0; i < common; ++i) diffInto(before[i], after[i], path + "/" + std::to_string(i), out);
    for (std::size_t i = common; i < after.size(); ++i) out.push_back({path + "/" + std::to_string(i), std::nullopt, after[i]});
    for (std::size_t i = common; i < before.size(); ++i) out.push_back({path + "/" + std::to_string(i), before[i], std::nullopt});
    return;
  }
  if (before != after) out.push_back({path, before, after});
}

// The index of each text _id's first campaign.
std::map<std::string, std::size_t> campaignsById(const KLTValue& document) {
  std::map<std::string, std::size_t> out;
  const KLTValue& configs = klt::valueForKey(document, "configs");
  if (!configs.is_array()) return out;
  for (std::size_t i = 0; i < configs.size(); ++i) {
    if (const std::string* id = klt::stringPtr(klt::valueForKey(configs[i], "_id"))) out.emplace(*id, i);
  }
  return out;
}

}  // namespace

std::string_view campaignStatusName(CampaignStatus status) {
  switch (status) {
    case CampaignStatus::Added:
      return "added";
    case CampaignStatus::Removed:
      return "removed";
    case CampaignStatus::Edited:
      return "edited";
    case CampaignStatus::Unchanged:
      break;
  }
  return "unchanged";
}

std::vector<ValueChange> diffValues(const KLTValue& before, const KLTValue& after, const std::string& path) {
  std::vector<ValueChange> out;
  diffInto(before, after, path, out);
  return out;
}

std::vector<CampaignDiff> diffDocuments(const KLTValue& before, const KLTValue& after) {
  const auto olds = campaignsById(before), news = campaignsById(after);
  std::map<std::string, CampaignDiff> byId;
  for (const auto& [id, i] : olds) {
    CampaignDiff& d = byId[id];
    d.id = id;
    d.oldIndex = i;
    d.status = CampaignStatus::Removed;
  }
  for (const auto& [id, i] : news) {
    CampaignDiff& d = byId[id];
    d.id = id;
    d.newIndex = i;
    if (!d.oldIndex) {
      d.status = CampaignStatus::Added;
      continue;
    }
    d.changes = diffValues(before["configs"][*d.oldIndex], after["configs"][i]);
    d.status = d.changes.empty() ? CampaignStatus::Unchanged : CampaignStatus::Edited;
  }
  std::vector<CampaignDiff> out;
  out.reserve(byId.size());
  for (auto& [id, d] : byId) out.push_back(std::move(d));
  return out;
}

}  // namespace kltce
