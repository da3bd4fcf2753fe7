#include "platform/KLTUserDefaults.h"

#include <zlib.h>

#include <cstdlib>
#include <exception>
#include <system_error>
#include <unordered_map>
#include <unordered_set>

#include "platform/KLTLog.h"
#include "platform/KLTValueReader.h"

namespace {

constexpr std::string_view kSnapshotMagic = "KLTSNAP1";
constexpr std::string_view kJournalMagic = "KLTJRNL1";
constexpr std::size_t kHeaderSize = 16;  // magic + 64-bit generation
// The journal is compacted once it outgrows twice the snapshot, and never below this floor, so that
// compaction stays rare for small maps while opening the store replays at most a few snapshots' worth.
constexpr std::uintmax_t kMinCompactionThreshold = 64 * 1024;
constexpr const char* kMethod = "-[KLTUserDefaults load]";

// Journal operations, the first element of each operation array.
enum Op : int { kPut = 0, kRemove = 1, kPutEntry = 2, kRemoveEntry = 3 };

void putU32(std::string& out, uint32_t v) {
  for (int i = 3; i >= 0; --i) out.push_back(static_cast<char>((v >> (8 * i)) & 0xff));
}
void putU64(std::string& out, uint64_t v) {
  for (int i = 7; i >= 0; --i) out.push_back(static_cast<char>((v >> (8 * i)) & 0xff));
}
uint64_t getUInt(std::string_view s, std::size_t at, int bytes) {
  uint64_t v = 0;
  for (int i = 0; i < bytes; ++i) v = (v << 8) | static_cast<unsigned char>(s[at + i]);
  return v;
}
uint32_t checksum(std::string_view data) {
  return static_cast<uint32_t>(::crc32(0L, reinterpret_cast<const Bytef*>(data.data()), static_cast<uInt>(data.size())));
}

// A framed record: length, checksum, payload.
std::string frame(std::string_view payload) {
  std::string out;
  out.reserve(payload.size() + 8);
  putU32(out, static_cast<uint32_t>(payload.size()));
  putU32(out, checksum(payload));
  out.append(payload);
  return out;
}

// Reads the framed record at `at`; false when it is cut off or its checksum fails.
bool readFrame(std::string_view data, std::size_t& at, std::string_view& payload) {
  if (data.size() - at < 8) return false;
  const auto length = static_cast<std::size_t>(getUInt(data, at, 4));
  const auto sum = static_cast<uint32_t>(getUInt(data, at + 4, 4));
  if (data.size() - at - 8 < length) return false;
  payload = data.substr(at + 8, length);
  if (checksum(payload) != sum) return false;
  at += 8 + length;
  return true;
}

std::string header(std::string_view magic, uint64_t generation) {
  std::string out(magic);
  putU64(out, generation);
  return out;
}

std::string encode(const KLTValue& v) {
  const auto bytes = KLTValue::to_cbor(v);
  return std::string(bytes.begin(), bytes.end());
}

// Decodes CBOR through the one reader of stored values, so that the store holds to the same
// nesting limit as every other input; binary subtypes (dates) survive through the stored tags.
// Null, with ok false, on malformed input and on a value nested past the limit. A damaged or
// hostile file must never take the process down: the reader neither throws nor recurses deeper
// than the limit, and a file it refuses is moved aside by load() like any other unreadable one
// (a journal record it refuses ends the replay of the journal there, as a torn record does).
// The limit itself, and why it bounds every recursion over values, is in KLTValueReader.h.
KLTValue decode(std::string_view payload, bool& ok) {
  klt::KLTValueRead read = klt::readCbor(payload);
  ok = read.ok();
  return std::move(read.value);
}

void applyOp(KLTValue& map, const KLTValue& op) {
  if (!op.is_array() || op.empty() || !op[0].is_number_integer() || op.size() < 2 || !op[1].is_string()) return;
  const auto& key = op[1].get_ref<const std::string&>();
  switch (op[0].get<int>()) {
    case kPut:
      if (op.size() >= 3) map[key] = op[2];
      break;
    case kRemove:
      map.erase(key);
      break;
    case kPutEntry:
      if (op.size() >= 4 && op[2].is_string()) {
        KLTValue& slot = map[key];
        if (!slot.is_object()) slot = KLTValue::object();
        slot[op[2].get_ref<const std::string&>()] = op[3];
      }
      break;
    case kRemoveEntry:
      if (op.size() >= 3 && op[2].is_string()) {
        auto it = map.find(key);
        if (it != map.end() && it->is_object()) it->erase(op[2].get_ref<const std::string&>());
      }
      break;
    default:
      break;
  }
}

// Appends to ops what turns dictionary `old` into dictionary `cur`: whole values at the top level
// (outerKey null), except that a dictionary held under the same key on both sides is diffed one level
// down, entry by entry (outerKey names it), so that changing one record of a large map writes one
// record. Returns false when replaying the operations would not reproduce cur's key order (a key
// removed and added again, or keys reordered): the caller then writes a whole snapshot instead.
//
// Both sides nearly always list their common keys in the same order, so they are walked side by
// side; only when they part does it index the keys, since ordered dictionaries look keys up linearly.
bool diffDictionary(const KLTValue& old, const KLTValue& cur, const std::string* outerKey, KLTValue& ops) {
  const auto put = [&](const std::string& key, const KLTValue& value) {
    if (outerKey) {
      ops.push_back(KLTValue::array({kPutEntry, *outerKey, key, value}));
    } else {
      ops.push_back(KLTValue::array({kPut, key, value}));
    }
  };
  const auto changed = [&](const std::string& key, const KLTValue& before, const KLTValue& after) {
    // Two dictionaries are compared entry by entry below, not first as a whole: that would walk a
    // large map twice.
    if (!outerKey && before.is_object() && after.is_object()) {
      const std::size_t mark = ops.size();
      if (diffDictionary(before, after, &key, ops)) return;
      // Entries reordered: writing the whole value keeps its order.
      ops.erase(ops.begin() + static_cast<std::ptrdiff_t>(mark), ops.end());
    } else if (before == after) {
      return;
    }
    put(key, after);
  };

  auto o = old.begin();
  auto c = cur.begin();
  for (; o != old.end() && c != cur.end() && o.key() == c.key(); ++o, ++c) {
    changed(c.key(), o.value(), c.value());
  }
  if (o == old.end()) {
    // Only additions remain; replay appends them in this same order.
    for (; c != cur.end(); ++c) put(c.key(), c.value());
    return true;
  }

  // Key -> (position, value) of the old keys not yet matched.
  std::unordered_map<std::string_view, std::pair<std::size_t, const KLTValue*>> oldIndex;
  std::size_t position = 0;
  for (auto it = o; it != old.end(); ++it) oldIndex.emplace(it.key(), std::make_pair(position++, &it.value()));
  std::unordered_set<std::string_view> curKeys;
  bool added = false;
  std::size_t lastCommon = 0;
  bool anyCommon = false;
  bool inOrder = true;
  for (; c != cur.end(); ++c) {
    curKeys.insert(c.key());
    const auto found = oldIndex.find(c.key());
    if (found == oldIndex.end()) {
      added = true;
      put(c.key(), c.value());
      continue;
    }
    // Replay keeps common keys where they were and appends new ones: cur must list them that way.
    if (added || (anyCommon && found->second.first < lastCommon)) inOrder = false;
    lastCommon = found->second.first;
    anyCommon = true;
    changed(c.key(), *found->second.second, c.value());
  }
  for (; o != old.end(); ++o) {
    if (curKeys.count(o.key()) != 0) continue;
    if (outerKey) {
      ops.push_back(KLTValue::array({kRemoveEntry, *outerKey, o.key()}));
    } else {
      ops.push_back(KLTValue::array({kRemove, o.key()}));
    }
  }
  return inOrder;
}

std::mutex& standardMutex() {
  static std::mutex m;
  return m;
}
std::shared_ptr<KLTUserDefaults>& standardSlot() {
  static std::shared_ptr<KLTUserDefaults> slot;
  return slot;
}

}  // namespace

KLTUserDefaults::KLTUserDefaults(std::filesystem::path path, std::shared_ptr<KLTStoreFiles> files)
    : path_(std::move(path)),
      files_(files ? std::move(files) : std::make_shared<KLTPosixStoreFiles>()),
      current_(KLTValue::object()),
      persisted_(KLTValue::object()) {
  if (path_.empty()) return;
  std::error_code ec;
  if (path_.has_parent_path()) std::filesystem::create_directories(path_.parent_path(), ec);
  load();
}

KLTUserDefaults::~KLTUserDefaults() = default;

std::filesystem::path KLTUserDefaults::journalPath() const {
  std::filesystem::path j = path_;
  j += ".journal";
  return j;
}

std::filesystem::path KLTUserDefaults::defaultLocation() {
  std::filesystem::path dir;
  if (const char* s = std::getenv("KLTCE_STATE_DIR"); s && *s) {
    dir = s;
  } else if (const char* x = std::getenv("XDG_STATE_HOME"); x && *x) {
    dir = std::filesystem::path(x) / "kltce";
  } else if (const char* h = std::getenv("HOME"); h && *h) {
    dir = std::filesystem::path(h) / ".local" / "state" / "kltce";
  } else {
    return {};
  }
  return dir / "user-defaults.kltstore";
}

std::shared_ptr<KLTUserDefaults> KLTUserDefaults::standardUserDefaults() {
  std::lock_guard lock(standardMutex());
  if (!standardSlot()) standardSlot() = std::make_shared<KLTUserDefaults>(defaultLocation());
  return standardSlot();
}

std::shared_ptr<KLTUserDefaults> KLTUserDefaults::setStandardUserDefaults(std::shared_ptr<KLTUserDefaults> store) {
  std::lock_guard lock(standardMutex());
  standardSlot().swap(store);
  return store;
}

void KLTUserDefaults::load() {
  std::string snapshot;
  const auto status = files_->read(path_, snapshot);
  bool unreadable = status == KLTStoreFiles::ReadStatus::Failed;
  KLTValue map = KLTValue::object();
  uint64_t generation = 0;
  if (status == KLTStoreFiles::ReadStatus::Ok) {
    std::size_t at = kHeaderSize;
    std::string_view payload;
    bool ok = snapshot.size() >= kHeaderSize && std::string_view(snapshot).substr(0, 8) == kSnapshotMagic &&
              readFrame(snapshot, at, payload) && at == snapshot.size();
    if (ok) {
      generation = getUInt(snapshot, 8, 8);
      map = decode(payload, ok);
      ok = ok && map.is_object();
    }
    unreadable = !ok;
  }
  if (unreadable) {
    const auto aside = files_->moveAside(path_, "unreadable");
    files_->moveAside(journalPath(), "unreadable");
    KLT_LOG_ERROR(kMethod, "Unreadable user defaults store " + path_.string() + " moved aside to " +
                               (aside ? aside->string() : std::string("(nowhere: move failed)")) +
                               "; starting empty");
    map = KLTValue::object();
    generation = 0;
    snapshot.clear();
  }
  snapshotSize_ = snapshot.size();
  generation_ = generation;

  // Replay the journal written on top of this snapshot; stop at the first record that is cut off.
  std::string journal;
  journalValid_ = false;
  journalSize_ = 0;
  if (files_->read(journalPath(), journal) == KLTStoreFiles::ReadStatus::Ok && journal.size() >= kHeaderSize &&
      std::string_view(journal).substr(0, 8) == kJournalMagic && getUInt(journal, 8, 8) == generation_) {
    std::size_t at = kHeaderSize;
    std::string_view payload;
    std::size_t good = at;
    while (readFrame(journal, at, payload)) {
      bool ok = false;
      const KLTValue ops = decode(payload, ok);
      if (!ok || !ops.is_array()) break;
      for (const auto& op : ops) applyOp(map, op);
      good = at;
    }
    journalSize_ = good;
    // Drop a torn tail now, so that later records are not appended behind it.
    journalValid_ = good == journal.size() || files_->truncate(journalPath(), good);
  }
  current_ = map;
  persisted_ = std::move(map);
}

KLTValue KLTUserDefaults::objectForKey(std::string_view key) const {
  std::lock_guard lock(mutex_);
  return klt::valueForKey(current_, key);
}

void KLTUserDefaults::setObject(KLTValue value, std::string_view key) {
  std::lock_guard lock(mutex_);
  current_[std::string(key)] = std::move(value);
}

void KLTUserDefaults::removeObjectForKey(std::string_view key) {
  std::lock_guard lock(mutex_);
  current_.erase(std::string(key));
}

bool KLTUserDefaults::synchronize() {
  std::lock_guard lock(mutex_);
  if (path_.empty()) {
    persisted_ = current_;
    return true;
  }
  try {
    const std::uintmax_t threshold = std::max(kMinCompactionThreshold, 2 * snapshotSize_);
    if (!journalValid_ || journalSize_ > threshold) return compact();
    return appendChanges();
  } catch (const std::exception&) {
    return false;  // an allocation failure while encoding: nothing was written
  }
}

bool KLTUserDefaults::appendChanges() {
  KLTValue ops = KLTValue::array();
  if (!diffDictionary(persisted_, current_, nullptr, ops)) return compact();
  if (ops.empty()) return true;
  const std::string record = frame(encode(ops));
  if (!files_->append(journalPath(), record)) {
    // Part of the record may be on disk; cut it off, or rewrite everything on the next call.
    journalValid_ = files_->truncate(journalPath(), journalSize_);
    return false;
  }
  journalSize_ += record.size();
  // Replaying the operations gives current_ (diffDictionary vouched for the key order), at the cost
  // of the change rather than of a copy of the whole map.
  for (const auto& op : ops) applyOp(persisted_, op);
  return true;
}

bool KLTUserDefaults::compact() {
  const uint64_t next = generation_ + 1;
  std::string snapshot = header(kSnapshotMagic, next) + frame(encode(current_));
  if (!files_->replace(path_, snapshot)) return false;
  // From here the snapshot holds everything; a journal of the old generation is ignored on load.
  generation_ = next;
  snapshotSize_ = snapshot.size();
  persisted_ = current_;
  const std::string journal = header(kJournalMagic, next);
  journalValid_ = files_->replace(journalPath(), journal);
  journalSize_ = journal.size();
  return true;
}
