// FleetIdentity: what a fleet summary is a summary of, so that `kltce fleet merge` adds up only
// parts of one run: the campaign document, the fleet file, the options that change outcomes, and
// which shards of which split the part covers; of a comparison (`--compare OLD`), the old document
// too, so that comparisons merge only with comparisons of the same two documents.
//
// JSON form (the "part" object of `kltce fleet --format json`):
//   {"document": "<16 hex digits>", "fleet": {"size": 123, "ends": "<16 hex>"},
//    "state": null | "<16 hex>", "auto_shown": false, "split": 3, "shards": [0, 2]}
// document: the 64-bit FNV-1a hash of the document as compact JSON (so formatting does not count);
// compare: only in a comparison's part, right after "document": the old document's hash, alike;
// fleet: the file's size and the hash of its first and last 64 KiB, not its path, so that shards
// run from other folders or machines, or fed through a pipe (FleetEndsTap), still merge; state: the
// hash of the --state counters every device started from; split and shards: N of --shard I/N and
// the I covered, in increasing order. A part that covers every shard of its split is the whole
// fleet: it reads split 1, shards [0], like a run without --shard.
//
// Not thread-safe: plain values.
#pragma once

#include <cstdint>
#include <istream>
#include <optional>
#include <string>
#include <vector>

#include "platform/KLTSharedMap.h"
#include "platform/KLTValue.h"

namespace kltce {

struct FleetIdentity {
  std::string document;
  std::optional<std::string> compare;  // a comparison's: the old document's hash
  uint64_t fleetSize = 0;
  std::string fleetEnds;
  std::optional<std::string> state;
  bool autoShown = false;
  uint64_t split = 1;
  std::vector<uint64_t> shards{0};

  KLTValue toJson() const;
  // Nothing, with error set, when json is not this form.
  static std::optional<FleetIdentity> fromJson(const KLTValue& json, std::string& error);

  // Adds other's shards to these; false, with error saying why (another document or old document,
  // a comparison with a plain summary, another fleet or options, another split, a shard twice),
  // when the two are not parts of one run.
  bool add(const FleetIdentity& other, std::string& error);
  // Every shard of the split: the whole fleet, which reads split 1, shards [0].
  void normalize();
};

// Reads a stream through, keeping its size and its first and last 64 KiB: the identity of a fleet
// that is not a regular file (a pipe), which cannot be read twice.
class FleetEndsTap final : public std::streambuf {
 public:
  explicit FleetEndsTap(std::streambuf& source) : source_(source) {}
  // Sets identity's fleet size and ends from what was read so far (the whole stream, once read).
  void into(FleetIdentity& identity) const;

 protected:
  int_type underflow() override;

 private:
  std::streambuf& source_;
  std::string buffer_ = std::string(64 * 1024, '\0');
  std::string head_, tail_;  // the first bytes; the last ones, as a ring from tailAt_
  std::size_t tailAt_ = 0;
  uint64_t size_ = 0;
};

// The hash that names a campaign document in an identity: FNV-1a of its compact JSON, in hex.
std::string fleetDocumentHash(const KLTValue& document);

// The identity of a run of `document` over the fleet file at `fleet` with these options.
FleetIdentity fleetIdentity(const KLTValue& document, const std::string& fleet,
                            const std::optional<KLTSharedMap>& counters, bool autoShown, uint64_t shardIndex,
                            uint64_t shardCount);

}  // namespace kltce
