#include "tools/kltce/fleet/fleet_comparison.h"

#include <algorithm>
#include <iomanip>
#include <set>
#include <sstream>

namespace kltce {

namespace {

// The status of a campaign met on the devices but in neither document (a stream's own "parse").
constexpr const char* kNotInDocuments = "not_in_documents";

const CampaignTally& tallyOf(const FleetSummary& summary, const std::string& id) {
  static const CampaignTally kNone;
  const auto it = summary.campaigns().find(id);
  return it == summary.campaigns().end() ? kNone : it->second;
}

uint64_t countOf(const std::map<std::string, uint64_t>& counts, const std::string& key) {
  const auto it = counts.find(key);
  return it == counts.end() ? 0 : it->second;
}

std::optional<int64_t> difference(std::optional<int64_t> before, std::optional<int64_t> after) {
  if (!before || !after) return std::nullopt;
  return *after - *before;
}

KLTValue figure(std::optional<int64_t> before, std::optional<int64_t> after) {
  const auto orNull = [](std::optional<int64_t> v) { return v ? KLTValue(*v) : KLTValue(); };
  KLTValue out = KLTValue::object();
  out["old"] = orNull(before);
  out["new"] = orNull(after);
  out["difference"] = orNull(difference(before, after));
  return out;
}

KLTValue figure(uint64_t before, uint64_t after) {
  return figure(std::optional<int64_t>(static_cast<int64_t>(before)), std::optional<int64_t>(static_cast<int64_t>(after)));
}

std::set<std::string> keysOf(const std::map<std::string, uint64_t>& a, const std::map<std::string, uint64_t>& b) {
  std::set<std::string> keys;
  for (const auto& [k, n] : a) keys.insert(k);
  for (const auto& [k, n] : b) keys.insert(k);
  return keys;
}

// One figure of a row: "-" when absent, with a unit.
std::string shown(std::optional<int64_t> v, const char* unit = "") {
  return v ? std::to_string(*v) + unit : "-";
}

std::string signedShown(std::optional<int64_t> v, const char* unit = "") {
  if (!v) return "-";
  return (*v > 0 ? "+" : "") + std::to_string(*v) + unit;
}

}  // namespace

std::string_view outcomeName(const DeviceCampaign* campaign) {
  return campaign ? outcomeKindName(campaign->outcome.kind) : kAbsentOutcome;
}

std::vector<OutcomeChange> outcomeChanges(const std::vector<DeviceCampaign>& before,
                                          const std::vector<DeviceCampaign>& after) {
  std::map<std::string, OutcomeChange> byId;
  for (const DeviceCampaign& c : before) byId[c.outcome.campaign].before = &c;
  for (const DeviceCampaign& c : after) byId[c.outcome.campaign].after = &c;
  std::vector<OutcomeChange> out;
  for (auto& [id, change] : byId) {
    if (outcomeName(change.before) == outcomeName(change.after)) continue;
    change.campaign = id;
    out.push_back(change);
  }
  return out;
}

FleetComparison::FleetComparison(const std::vector<CampaignDiff>& campaigns) {
  for (const CampaignDiff& c : campaigns) statuses_[c.id] = std::string(campaignStatusName(c.status));
}

void FleetComparison::addDevice(const std::vector<DeviceCampaign>& before, const std::vector<DeviceCampaign>& after,
                                uint64_t lines, uint64_t events, uint64_t badLines) {
  before_.addDevice(before, lines, events, badLines);
  after_.addDevice(after, lines, events, badLines);
  for (const OutcomeChange& c : outcomeChanges(before, after)) {
    ++changes_[c.campaign][std::string(outcomeName(c.before)) + " -> " + std::string(outcomeName(c.after))];
  }
}

bool FleetComparison::merge(const FleetComparison& other, std::string& error) {
  if (statuses_ != other.statuses_) {
    error = "the comparisons are of other documents: their campaigns' statuses (added, removed, edited, unchanged) differ";
    return false;
  }
  before_.merge(other.before_);
  after_.merge(other.after_);
  for (const auto& [id, pairs] : other.changes_) {
    for (const auto& [pair, n] : pairs) changes_[id][pair] += n;
  }
  return true;
}

std::vector<std::string> FleetComparison::campaignIds() const {
  std::set<std::string> ids;
  for (const auto& [id, s] : statuses_) ids.insert(id);
  for (const auto& [id, t] : before_.campaigns()) ids.insert(id);
  for (const auto& [id, t] : after_.campaigns()) ids.insert(id);
  return {ids.begin(), ids.end()};
}

std::string FleetComparison::statusOf(const std::string& id) const {
  const auto it = statuses_.find(id);
  return it == statuses_.end() ? kNotInDocuments : it->second;
}

KLTValue FleetComparison::toJson() const {
  KLTValue campaigns = KLTValue::object();
  for (const std::string& id : campaignIds()) {
    const CampaignTally &o = tallyOf(before_, id), &n = tallyOf(after_, id);
    KLTValue c = KLTValue::object();
    c["status"] = statusOf(id);
    c["devices"] = figure(o.devices, n.devices);
    c["admitted"] = figure(o.admitted, n.admitted);
    c["reached"] = figure(o.reached, n.reached);
    c["displays"] = figure(o.displays, n.displays);
    KLTValue first = KLTValue::object();
    first["median"] = figure(o.firstDisplayQuantile(0.5), n.firstDisplayQuantile(0.5));
    first["p90"] = figure(o.firstDisplayQuantile(0.9), n.firstDisplayQuantile(0.9));
    c["first_display_seconds"] = std::move(first);
    KLTValue rejected = KLTValue::object();
    for (const std::string& step : keysOf(o.rejected, n.rejected)) {
      rejected[step] = figure(countOf(o.rejected, step), countOf(n.rejected, step));
    }
    c["rejected"] = std::move(rejected);
    KLTValue whyNot = KLTValue::object();
    for (const std::string& kind : keysOf(o.whyNot, n.whyNot)) {
      whyNot[kind] = figure(countOf(o.whyNot, kind), countOf(n.whyNot, kind));
    }
    c["why_not"] = std::move(whyNot);
    KLTValue changes = KLTValue::object();
    if (const auto it = changes_.find(id); it != changes_.end()) {
      for (const auto& [pair, count] : it->second) changes[pair] = count;
    }
    c["outcome_changes"] = std::move(changes);
    campaigns[id] = std::move(c);
  }
  KLTValue after = after_.toJson();
  KLTValue out = KLTValue::object();
  for (const char* total : {"devices", "lines", "events", "bad_lines"}) out[total] = after[total];
  out["campaigns"] = std::move(campaigns);
  out["old"] = before_.toJson();
  out["new"] = std::move(after);
  return out;
}

bool FleetComparison::isComparisonJson(const KLTValue& json) {
  return json.is_object() && json.contains("old") && json.contains("new");
}

std::optional<FleetComparison> FleetComparison::fromJson(const KLTValue& json, std::string& error) {
  if (!isComparisonJson(json)) {
    error = "not a comparison (the JSON of `kltce fleet --compare`): it must hold \"old\" and \"new\"";
    return std::nullopt;
  }
  FleetComparison c;
  for (auto [key, into] : {std::pair{"old", &c.before_}, std::pair{"new", &c.after_}}) {
    auto summary = FleetSummary::fromJson(json[key], error);
    if (!summary) {
      error = std::string("\"") + key + "\": " + error;
      return std::nullopt;
    }
    *into = std::move(*summary);
  }
  if (c.before_.devices() != c.after_.devices() || c.before_.events() != c.after_.events()) {
    error = "\"old\" and \"new\" are not of the same devices";
    return std::nullopt;
  }
  const KLTValue& campaigns = klt::valueForKey(json, "campaigns");
  if (!campaigns.is_object()) {
    error = "\"campaigns\" must be an object";
    return std::nullopt;
  }
  for (const auto& [id, campaign] : campaigns.items()) {
    const std::string where = "campaign \"" + id + "\": ";
    const std::string* status = klt::stringPtr(klt::valueForKey(campaign, "status"));
    const KLTValue& changes = klt::valueForKey(campaign, "outcome_changes");
    if (!status || !changes.is_object()) {
      error = where + "needs \"status\" (text) and \"outcome_changes\" (an object of counts)";
      return std::nullopt;
    }
    if (*status != kNotInDocuments) c.statuses_[id] = *status;
    for (const auto& [pair, n] : changes.items()) {
      if (!n.is_number_unsigned() || pair.find(" -> ") == std::string::npos) {
        error = where + "\"outcome_changes\" must map \"old -> new\" to counts";
        return std::nullopt;
      }
      c.changes_[id][pair] = n.get<uint64_t>();
    }
  }
  return c;
}

void FleetComparison::writeTable(std::ostream& out) const {
  const KLTValue after = after_.toJson();
  const uint64_t badLines = after["bad_lines"].get<uint64_t>();
  out << after_.devices() << (after_.devices() == 1 ? " device, " : " devices, ") << after_.events() << " events, "
      << after["lines"].get<uint64_t>() << " lines";
  if (badLines > 0) out << " (" << badLines << " skipped)";
  out << ", each replayed with the old document and the new\n";
  std::map<std::string, std::size_t> byStatus;
  const std::vector<std::string> ids = campaignIds();
  for (const std::string& id : ids) ++byStatus[statusOf(id)];
  out << "campaigns:";
  const char* separator = " ";
  for (const char* status : {"added", "removed", "edited", "unchanged", kNotInDocuments}) {
    if (byStatus[status] == 0) continue;
    out << separator << byStatus[status] << ' ' << (status == std::string(kNotInDocuments) ? "in neither document" : status);
    separator = ", ";
  }
  out << '\n';

  struct Row {
    std::string name;
    std::optional<int64_t> before, after;
    const char* unit = "";
  };
  for (const std::string& id : ids) {
    const CampaignTally &o = tallyOf(before_, id), &n = tallyOf(after_, id);
    const auto count = [](uint64_t v) { return std::optional<int64_t>(static_cast<int64_t>(v)); };
    std::vector<Row> rows = {
        {"devices", count(o.devices), count(n.devices)},
        {"admitted", count(o.admitted), count(n.admitted)},
        {"reached", count(o.reached), count(n.reached)},
        {"displays", count(o.displays), count(n.displays)},
        {"first display median", o.firstDisplayQuantile(0.5), n.firstDisplayQuantile(0.5), "s"},
        {"first display p90", o.firstDisplayQuantile(0.9), n.firstDisplayQuantile(0.9), "s"},
    };
    for (const std::string& step : keysOf(o.rejected, n.rejected)) {
      rows.push_back({"rejected by " + step, count(countOf(o.rejected, step)), count(countOf(n.rejected, step))});
    }
    for (const std::string& kind : keysOf(o.whyNot, n.whyNot)) {
      rows.push_back({"not reached: " + kind, count(countOf(o.whyNot, kind)), count(countOf(n.whyNot, kind))});
    }
    std::size_t width = 0;
    for (const Row& r : rows) width = std::max(width, r.name.size());
    const std::string title = id + " (" + statusOf(id) + ")";
    width = std::max(width + 2, title.size());
    out << '\n' << title << std::string(width - title.size(), ' ') << std::setw(9) << "old" << std::setw(9) << "new"
        << std::setw(9) << "change" << '\n';
    for (const Row& r : rows) {
      out << "  " << r.name << std::string(width - 2 - r.name.size(), ' ') << std::setw(9) << shown(r.before, r.unit)
          << std::setw(9) << shown(r.after, r.unit) << std::setw(9) << signedShown(difference(r.before, r.after), r.unit)
          << '\n';
    }
    std::vector<std::pair<std::string, uint64_t>> changes;
    uint64_t changed = 0;
    if (const auto it = changes_.find(id); it != changes_.end()) {
      for (const auto& [pair, devices] : it->second) {
        changes.emplace_back(pair, devices);
        changed += devices;
      }
    }
    std::stable_sort(changes.begin(), changes.end(), [](const auto& a, const auto& b) { return a.second > b.second; });
    if (changes.empty()) {
      out << "  no device's outcome changed\n";
      continue;
    }
    out << "  outcome changed on " << changed << (changed == 1 ? " device: " : " devices: ");
    for (std::size_t i = 0; i < changes.size(); ++i) out << (i ? ", " : "") << changes[i].first << ' ' << changes[i].second;
    out << '\n';
  }
}

}  // namespace kltce
