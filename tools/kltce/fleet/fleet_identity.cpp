#include "tools/kltce/fleet/fleet_identity.h"

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <fstream>

#include "tools/kltce/fleet/fleet.h"

namespace kltce {

namespace {

constexpr uint64_t kEndBytes = 64 * 1024;

std::string hex(uint64_t h) {
  char text[17];
  std::snprintf(text, sizeof text, "%016llx", static_cast<unsigned long long>(h));
  return text;
}

std::string hashOf(const KLTValue& v) { return hex(fleetDeviceHash(v.dump(-1, ' ', false, KLTValue::error_handler_t::replace))); }

bool isHex(const KLTValue& v) {
  return v.is_string() && v.get_ref<const std::string&>().size() == 16 &&
         v.get_ref<const std::string&>().find_first_not_of("0123456789abcdef") == std::string::npos;
}

}  // namespace

std::string fleetDocumentHash(const KLTValue& document) { return hashOf(document); }

FleetIdentity fleetIdentity(const KLTValue& document, const std::string& fleet,
                            const std::optional<KLTSharedMap>& counters, bool autoShown, uint64_t shardIndex,
                            uint64_t shardCount) {
  FleetIdentity id;
  id.document = hashOf(document);
  std::error_code ec;
  if (std::filesystem::is_regular_file(fleet, ec)) {
    id.fleetSize = std::filesystem::file_size(fleet, ec);
    std::ifstream in(fleet, std::ios::binary);
    std::string ends(static_cast<std::size_t>(std::min(id.fleetSize, 2 * kEndBytes)), '\0');
    const uint64_t head = std::min(id.fleetSize, kEndBytes);
    in.read(ends.data(), static_cast<std::streamsize>(head));
    in.seekg(static_cast<std::streamoff>(id.fleetSize - (ends.size() - head)));
    in.read(ends.data() + head, static_cast<std::streamsize>(ends.size() - head));
    id.fleetEnds = hex(fleetDeviceHash(ends));
  }
  if (counters) id.state = hashOf(counters->toDictionary());
  id.autoShown = autoShown;
  id.split = shardCount;
  id.shards = {shardIndex};
  id.normalize();
  return id;
}

void FleetIdentity::normalize() {
  if (shards.size() != split) return;
  split = 1;
  shards = {0};
}

FleetEndsTap::int_type FleetEndsTap::underflow() {
  const auto got = static_cast<std::size_t>(std::max<std::streamsize>(0, source_.sgetn(buffer_.data(), static_cast<std::streamsize>(buffer_.size()))));
  if (got == 0) return traits_type::eof();
  size_ += got;
  std::string_view data(buffer_.data(), got);
  const std::size_t toHead = std::min<std::size_t>(kEndBytes - head_.size(), data.size());
  head_.append(data.substr(0, toHead));
  // The ring of the last bytes: filled first, then overwritten from tailAt_ on.
  for (char c : data) {
    if (tail_.size() < kEndBytes) {
      tail_.push_back(c);
    } else {
      tail_[tailAt_] = c;
      tailAt_ = (tailAt_ + 1) % kEndBytes;
    }
  }
  setg(buffer_.data(), buffer_.data(), buffer_.data() + got);
  return traits_type::to_int_type(buffer_[0]);
}

void FleetEndsTap::into(FleetIdentity& identity) const {
  identity.fleetSize = size_;
  // As fleetIdentity() reads a file: its first 64 KiB, then its last bytes not among them.
  const std::string last = tail_.substr(tailAt_) + tail_.substr(0, tailAt_);
  const uint64_t more = std::min<uint64_t>(size_ - head_.size(), kEndBytes);
  identity.fleetEnds = hex(fleetDeviceHash(head_ + last.substr(last.size() - static_cast<std::size_t>(more))));
}

KLTValue FleetIdentity::toJson() const {
  KLTValue out = KLTValue::object();
  out["document"] = document;
  if (compare) out["compare"] = *compare;
  out["fleet"] = KLTValue{{"size", fleetSize}, {"ends", fleetEnds}};
  out["state"] = state ? KLTValue(*state) : KLTValue();
  out["auto_shown"] = autoShown;
  out["split"] = split;
  out["shards"] = shards;
  return out;
}

std::optional<FleetIdentity> FleetIdentity::fromJson(const KLTValue& json, std::string& error) {
  const auto field = [&](const char* key) -> const KLTValue& { return klt::valueForKey(json, key); };
  const KLTValue& fleet = field("fleet");
  const KLTValue& state = field("state");
  const KLTValue& shards = field("shards");
  FleetIdentity id;
  if (!json.is_object() || !isHex(field("document")) ||
      !klt::valueForKey(fleet, "size").is_number_unsigned() || !klt::valueForKey(fleet, "ends").is_string() ||
      !(state.is_null() || isHex(state)) || (json.contains("compare") && !isHex(field("compare"))) ||
      !field("auto_shown").is_boolean() || !field("split").is_number_unsigned() ||
      field("split").get<uint64_t>() == 0 || !shards.is_array() || shards.empty()) {
    error = "\"part\" must say which run and shards it holds (document, fleet, state, auto_shown, split, shards)";
    return std::nullopt;
  }
  id.document = field("document").get<std::string>();
  if (json.contains("compare")) id.compare = field("compare").get<std::string>();
  id.fleetSize = fleet["size"].get<uint64_t>();
  id.fleetEnds = fleet["ends"].get<std::string>();
  if (!state.is_null()) id.state = state.get<std::string>();
  id.autoShown = field("auto_shown").get<bool>();
  id.split = field("split").get<uint64_t>();
  id.shards.clear();
  for (const auto& s : shards) {
    if (!s.is_number_unsigned() || s.get<uint64_t>() >= id.split || (!id.shards.empty() && s.get<uint64_t>() <= id.shards.back())) {
      error = "\"part\".\"shards\" must list shards below \"split\" in increasing order";
      return std::nullopt;
    }
    id.shards.push_back(s.get<uint64_t>());
  }
  return id;
}

bool FleetIdentity::add(const FleetIdentity& other, std::string& error) {
  if (other.compare.has_value() != compare.has_value()) {
    error = other.compare ? "it is a comparison (of --compare), the parts before it plain summaries: the two do not merge"
                          : "it is a plain summary, the parts before it comparisons (of --compare): the two do not merge";
  } else if (other.document != document) {
    error = "it is of another campaign document (document " + other.document + ", not " + document + ")";
  } else if (other.compare != compare) {
    error = "it compares with another old document (--compare: document " + *other.compare + ", not " + *compare + ")";
  } else if (other.fleetSize != fleetSize || other.fleetEnds != fleetEnds) {
    error = "it is of another fleet file (" + std::to_string(other.fleetSize) + " bytes, not " +
            std::to_string(fleetSize) + ", or other contents)";
  } else if (other.state != state || other.autoShown != autoShown) {
    error = "it was run with other options (--state or --auto-shown differ)";
  } else if (other.split != split) {
    error = "it is of another split (shards of " + std::to_string(other.split) + ", not of " + std::to_string(split) +
            "; a whole run counts as a split of 1)";
  } else {
    std::vector<uint64_t> both;
    std::set_intersection(shards.begin(), shards.end(), other.shards.begin(), other.shards.end(),
                          std::back_inserter(both));
    if (!both.empty()) {
      const bool repeat = both.size() == other.shards.size();
      error = (repeat ? "it repeats a part already merged (shard " : "it overlaps a part already merged (shard ") +
              std::to_string(both.front()) + "/" + std::to_string(split) + ")";
    } else {
      std::vector<uint64_t> all;
      std::merge(shards.begin(), shards.end(), other.shards.begin(), other.shards.end(), std::back_inserter(all));
      shards = std::move(all);
      return true;
    }
  }
  return false;
}

}  // namespace kltce
