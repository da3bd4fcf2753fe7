#include "tools/kltce/fleet/fleet_summary.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <iomanip>
#include <sstream>
#include <type_traits>

namespace kltce {

namespace {

// A time in whole seconds: whole seconds are counted, truncated toward zero, so that the counts
// merge exactly.
int64_t wholeSeconds(int64_t millis) { return millis / 1000; }

template <typename Key, typename Add>
void addCounts(std::map<Key, uint64_t>& into, const std::map<Key, uint64_t>& from, Add add) {
  for (const auto& [key, n] : from) add(into[key], n);
}

// An object of a map's entries, in its order. Its keys are distinct, so each is put at the end
// without the object's search for it, which would cost the square of their number.
template <typename Key>
KLTValue countsObject(const std::map<Key, uint64_t>& counts) {
  KLTValue out = KLTValue::object();
  auto& fields = out.get_ref<KLTValue::object_t&>();
  fields.reserve(counts.size());
  for (const auto& [key, n] : counts) {
    if constexpr (std::is_same_v<Key, std::string>) {
      fields.emplace_back(key, n);
    } else {
      fields.emplace_back(std::to_string(key), n);
    }
  }
  return out;
}

// Reads the field as a count (a whole number of 0 or more); false, error set, otherwise.
bool readCount(const KLTValue& object, const char* key, uint64_t& out, std::string& error, const std::string& where) {
  const auto it = object.find(key);
  if (it == object.end() || !it->is_number_unsigned()) {
    error = where + "\"" + key + "\" must be a count (a whole number of 0 or more)";
    return false;
  }
  out = it->get<uint64_t>();
  return true;
}

bool readCounts(const KLTValue& object, const char* key, std::map<std::string, uint64_t>& out, std::string& error,
                const std::string& where) {
  const auto it = object.find(key);
  if (it == object.end() || !it->is_object()) {
    error = where + "\"" + key + "\" must be an object of counts";
    return false;
  }
  for (const auto& [name, v] : it->items()) {
    uint64_t n = 0;
    if (!readCount(*it, name.c_str(), n, error, where + key + ".")) return false;
    out[name] = n;
  }
  return true;
}

std::string secondsText(std::optional<int64_t> seconds) {
  if (!seconds) return "-";
  return std::to_string(*seconds) + "s";
}

std::string countsText(const std::map<std::string, uint64_t>& counts) {
  std::string out;
  for (const auto& [key, n] : counts) out += (out.empty() ? "" : ", ") + key + " " + std::to_string(n);
  return out;
}

}  // namespace

std::optional<int64_t> CampaignTally::firstDisplayQuantile(double q) const {
  uint64_t total = 0;
  for (const auto& [s, n] : firstDisplaySeconds) total += n;
  if (total == 0) return std::nullopt;
  const auto rank = std::max<uint64_t>(1, static_cast<uint64_t>(std::ceil(q * static_cast<double>(total))));
  uint64_t seen = 0;
  for (const auto& [s, n] : firstDisplaySeconds) {
    seen += n;
    if (seen >= rank) return s;
  }
  return firstDisplaySeconds.rbegin()->first;
}

void FleetSummary::addDevice(const std::vector<DeviceCampaign>& campaigns, uint64_t lines, uint64_t events,
                             uint64_t badLines) {
  ++devices_;
  lines_ += lines;
  events_ += events;
  badLines_ += badLines;
  for (const DeviceCampaign& c : campaigns) {
    CampaignTally& t = campaigns_[c.outcome.campaign];
    ++t.devices;
    const OutcomeKind kind = c.outcome.kind;
    if (kind == OutcomeKind::Rejected) ++t.rejected[c.outcome.reason.empty() ? "unknown" : c.outcome.reason];
    if (kind != OutcomeKind::Rejected && kind != OutcomeKind::NotParsed) ++t.admitted;
    t.displays += c.displays;
    if (c.displays > 0) {
      ++t.reached;
      if (c.firstDisplayMillis) ++t.firstDisplaySeconds[wholeSeconds(*c.firstDisplayMillis)];
    } else {
      ++t.whyNot[std::string(outcomeKindName(kind))];
    }
  }
}

template <typename Add>
void FleetSummary::mergeWith(const FleetSummary& other, Add add) {
  add(devices_, other.devices_);
  add(lines_, other.lines_);
  add(events_, other.events_);
  add(badLines_, other.badLines_);
  for (const auto& [id, o] : other.campaigns_) {
    CampaignTally& t = campaigns_[id];
    add(t.devices, o.devices);
    add(t.admitted, o.admitted);
    addCounts(t.rejected, o.rejected, add);
    add(t.reached, o.reached);
    add(t.displays, o.displays);
    addCounts(t.firstDisplaySeconds, o.firstDisplaySeconds, add);
    addCounts(t.whyNot, o.whyNot, add);
  }
}

void FleetSummary::merge(const FleetSummary& other) {
  mergeWith(other, [](uint64_t& into, uint64_t n) { into += n; });
}

bool FleetSummary::mergeChecked(const FleetSummary& other, std::string& error) {
  FleetSummary sum = *this;
  bool wrapped = false;
  sum.mergeWith(other, [&](uint64_t& into, uint64_t n) { wrapped = __builtin_add_overflow(into, n, &into) || wrapped; });
  if (wrapped) {
    error = "its counts added to the others' would pass 18446744073709551615";
    return false;
  }
  *this = std::move(sum);
  return true;
}

KLTValue FleetSummary::toJson() const {
  KLTValue campaigns = KLTValue::object();
  for (const auto& [id, t] : campaigns_) {
    KLTValue counts = countsObject(t.firstDisplaySeconds);  // seconds (as text, in numeric order) -> devices
    KLTValue first = KLTValue::object();
    const auto median = t.firstDisplayQuantile(0.5), p90 = t.firstDisplayQuantile(0.9);
    first["median"] = median ? KLTValue(*median) : KLTValue();
    first["p90"] = p90 ? KLTValue(*p90) : KLTValue();
    first["counts"] = std::move(counts);
    KLTValue c = KLTValue::object();
    c["devices"] = t.devices;
    c["admitted"] = t.admitted;
    c["rejected"] = countsObject(t.rejected);
    c["reached"] = t.reached;
    c["displays"] = t.displays;
    c["displays_per_reached"] = t.reached == 0 ? 0.0 : static_cast<double>(t.displays) / static_cast<double>(t.reached);
    c["first_display_seconds"] = std::move(first);
    c["why_not"] = countsObject(t.whyNot);
    campaigns[id] = std::move(c);
  }
  KLTValue out = KLTValue::object();
  out["devices"] = devices_;
  out["lines"] = lines_;
  out["events"] = events_;
  out["bad_lines"] = badLines_;
  out["campaigns"] = std::move(campaigns);
  return out;
}

std::optional<FleetSummary> FleetSummary::fromJson(const KLTValue& json, std::string& error) {
  FleetSummary s;
  if (!json.is_object()) {
    error = "a fleet summary must be a JSON object";
    return std::nullopt;
  }
  if (!readCount(json, "devices", s.devices_, error, "") || !readCount(json, "lines", s.lines_, error, "") ||
      !readCount(json, "events", s.events_, error, "") || !readCount(json, "bad_lines", s.badLines_, error, "")) {
    return std::nullopt;
  }
  const auto campaigns = json.find("campaigns");
  if (campaigns == json.end() || !campaigns->is_object()) {
    error = "\"campaigns\" must be an object";
    return std::nullopt;
  }
  for (const auto& [id, c] : campaigns->items()) {
    const std::string where = "campaign \"" + id + "\": ";
    if (!c.is_object()) {
      error = where + "must be an object";
      return std::nullopt;
    }
    CampaignTally t;
    if (!readCount(c, "devices", t.devices, error, where) || !readCount(c, "admitted", t.admitted, error, where) ||
        !readCount(c, "reached", t.reached, error, where) || !readCount(c, "displays", t.displays, error, where) ||
        !readCounts(c, "rejected", t.rejected, error, where) || !readCounts(c, "why_not", t.whyNot, error, where)) {
      return std::nullopt;
    }
    const KLTValue& counts = klt::valueForKey(klt::valueForKey(c, "first_display_seconds"), "counts");
    if (!counts.is_object()) {
      error = where + "\"first_display_seconds\" must hold \"counts\": {seconds: devices}";
      return std::nullopt;
    }
    for (const auto& [seconds, n] : counts.items()) {
      int64_t value = 0;
      const auto [end, ec] = std::from_chars(seconds.data(), seconds.data() + seconds.size(), value);
      if (ec != std::errc() || end != seconds.data() + seconds.size() || !n.is_number_unsigned()) {
        error = where + "\"first_display_seconds\".\"counts\" must map whole seconds to counts";
        return std::nullopt;
      }
      t.firstDisplaySeconds[value] += n.get<uint64_t>();
    }
    if (t.devices > s.devices_ || t.admitted > t.devices || t.reached > t.devices || t.reached > t.displays) {
      error = where + "the counts do not add up (devices " + std::to_string(t.devices) + " of " +
              std::to_string(s.devices_) + ", admitted " + std::to_string(t.admitted) + ", reached " +
              std::to_string(t.reached) + ", displays " + std::to_string(t.displays) + ")";
      return std::nullopt;
    }
    s.campaigns_[id] = std::move(t);
  }
  return s;
}

void FleetSummary::writeTable(std::ostream& out) const {
  out << devices_ << (devices_ == 1 ? " device, " : " devices, ") << events_ << " events, " << lines_ << " lines";
  if (badLines_ > 0) out << " (" << badLines_ << " skipped)";
  out << '\n';
  if (campaigns_.empty()) return;
  std::size_t width = 8;
  for (const auto& [id, t] : campaigns_) width = std::max(width, id.size());
  const auto row = [&](const std::vector<std::string>& cells) {
    out << cells[0] << std::string(width - cells[0].size(), ' ');
    for (std::size_t i = 1; i < cells.size(); ++i) out << "  " << std::setw(i == 6 ? 11 : 9) << cells[i];
    out << '\n';
  };
  out << '\n';
  row({"campaign", "devices", "admitted", "rejected", "reached", "displays", "per reached", "first med", "first p90"});
  for (const auto& [id, t] : campaigns_) {
    uint64_t rejected = 0;
    for (const auto& [step, n] : t.rejected) rejected += n;
    std::ostringstream per;
    per << std::fixed << std::setprecision(2)
        << (t.reached == 0 ? 0.0 : static_cast<double>(t.displays) / static_cast<double>(t.reached));
    row({id, std::to_string(t.devices), std::to_string(t.admitted), std::to_string(rejected), std::to_string(t.reached),
         std::to_string(t.displays), per.str(), secondsText(t.firstDisplayQuantile(0.5)),
         secondsText(t.firstDisplayQuantile(0.9))});
  }
  out << '\n';
  for (const auto& [id, t] : campaigns_) {
    if (!t.rejected.empty()) out << id << ": rejected by " << countsText(t.rejected) << '\n';
    if (!t.whyNot.empty()) out << id << ": not reached: " << countsText(t.whyNot) << '\n';
  }
}

}  // namespace kltce
