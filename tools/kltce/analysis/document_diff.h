// What changed between two campaign documents, an old one and a new one, campaign by campaign:
// campaigns are matched by their text _id; a campaign only the new document has is added, one only
// the old has is removed, one in both is edited when its JSON differs and unchanged otherwise.
// The changes of an edited campaign are listed value by value, each at its JSON Pointer within
// the campaign ("/frequency/count"), with the old and the new value: objects are compared key by
// key, lists element by element at the same index (an element past the other list's end is
// added or removed whole), anything else as a whole.
//
// A campaign without a text _id cannot be matched and is left out (`kltce check` reports it).
// When an _id repeats, its first campaign is the one compared.
//
// Pure; safe from any thread. Any value is accepted (a document without a "configs" list has no
// campaigns).
#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/KLTValue.h"

namespace kltce {

enum class CampaignStatus { Added, Removed, Edited, Unchanged };
// "added", "removed", "edited" or "unchanged".
std::string_view campaignStatusName(CampaignStatus status);

struct ValueChange {
  std::string path;                   // JSON Pointer within the campaign
  std::optional<KLTValue> before;     // nothing: absent from the old campaign
  std::optional<KLTValue> after;      // nothing: absent from the new campaign
};

struct CampaignDiff {
  std::string id;
  CampaignStatus status = CampaignStatus::Unchanged;
  std::optional<std::size_t> oldIndex, newIndex;  // in each document's configs
  std::vector<ValueChange> changes;               // Edited only, in the new campaign's key order
};

// Every campaign of either document, sorted by _id.
std::vector<CampaignDiff> diffDocuments(const KLTValue& before, const KLTValue& after);

// The value changes that turn `before` into `after`, their paths under `path`.
std::vector<ValueChange> diffValues(const KLTValue& before, const KLTValue& after, const std::string& path = "");

}  // namespace kltce
