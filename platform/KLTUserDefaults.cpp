#include "platform/KLTUserDefaults.h"

#include <sys/stat.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <fstream>
#include <system_error>

#include "platform/KLTLog.h"
#include "platform/KLTStoreCoding.h"
#include "platform/KLTStoreDatabase.h"

namespace {

constexpr const char* kMethod = "-[KLTUserDefaults load]";
// The first bytes of a store file of the earlier snapshot-and-journal format.
constexpr std::string_view kSnapshotMagic = "KLTSNAP1";

std::filesystem::path withSuffix(const std::filesystem::path& path, std::string_view suffix) {
  std::filesystem::path p = path;
  p += std::string(suffix);
  return p;
}

// Renames path to the first free "<path>.<suffix>[-N]"; nothing when that fails.
std::optional<std::filesystem::path> moveAside(const std::filesystem::path& path, std::string_view suffix) {
  for (int i = 0; i < 1000; ++i) {
    std::string name = path.string() + "." + std::string(suffix);
    if (i) name += "-" + std::to_string(i);
    struct stat st {};
    if (::stat(name.c_str(), &st) == 0) continue;
    if (std::rename(path.c_str(), name.c_str()) == 0) return std::filesystem::path(name);
    return std::nullopt;
  }
  return std::nullopt;
}

bool startsWith(const std::filesystem::path& path, std::string_view magic) {
  std::ifstream in(path, std::ios::binary);
  std::string head(magic.size(), '\0');
  return in.read(head.data(), static_cast<std::streamsize>(head.size())) && head == magic;
}

}  // namespace

KLTUserDefaults::KLTUserDefaults(std::filesystem::path path, std::shared_ptr<KLTStoreFaults> faults, KLTStoreAccess access)
    : path_(std::move(path)), faults_(faults ? std::move(faults) : std::make_shared<KLTStoreFaults>()),
      readOnly_(access == KLTStoreAccess::ReadOnly) {
  if (path_.empty()) return;
  std::error_code ec;
  if (path_.has_parent_path() && !readOnly_) std::filesystem::create_directories(path_.parent_path(), ec);
  if (!refuseOtherThanFile()) load();
}

KLTUserDefaults::~KLTUserDefaults() = default;

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

KLTSeam<KLTUserDefaults>& KLTUserDefaults::seam() {
  static KLTSeam<KLTUserDefaults> seam([] { return std::make_shared<KLTUserDefaults>(defaultLocation()); });
  return seam;
}

std::shared_ptr<KLTUserDefaults> KLTUserDefaults::standardUserDefaults() { return seam().current(); }

std::shared_ptr<KLTUserDefaults> KLTUserDefaults::setStandardUserDefaults(std::shared_ptr<KLTUserDefaults> store) {
  return seam().replaceDefault(std::move(store));
}

void KLTUserDefaults::load() {
  std::string why;
  bool damaged = true;  // false: trouble of the machine, which leaves the file as it is
  if (startsWith(path_, kSnapshotMagic)) {
    why = "it is in the earlier snapshot format, whose counters are not carried over";
  } else if (openAndRead(why, damaged)) {
    return;
  }
  if (!damaged || readOnly_) return refuse(why, damaged);
  db_.reset();
  const auto aside = moveAside(path_, "unreadable");
  // The write-ahead log belongs to the file moved aside; the old format's journal to the snapshot.
  for (const char* companion : {"-wal", ".journal"}) {
    if (auto moved = moveAside(withSuffix(path_, companion), "unreadable")) (void)moved;
  }
  std::error_code ec;
  std::filesystem::remove(withSuffix(path_, "-shm"), ec);
  KLT_LOG_ERROR(kMethod, "Unreadable user defaults store " + path_.string() + " (" + why + ") moved aside to " +
                             (aside ? aside->string() : std::string("(nowhere: move failed)")) + "; starting empty");
  std::string again;
  db_ = KLTStoreDatabase::open(path_, false, faults_->busyWaitMillis(), again, damaged);
  if (db_ && !db_->setUp(again, damaged)) db_.reset();
  if (!db_) unusable_ = "cannot start a new store at " + path_.string() + ": " + again;
}

bool KLTUserDefaults::openAndRead(std::string& why, bool& damaged) {
  db_ = KLTStoreDatabase::open(path_, readOnly_, faults_->busyWaitMillis(), why, damaged);
  if (!db_ || !readInto(current_, why, damaged) || (!readOnly_ && !db_->setUp(why, damaged))) {
    current_.clear();
    return false;
  }
  persisted_ = current_;
  for (const auto& s : current_) nextPosition_ = std::max(nextPosition_, s.position + 1);
  if (readOnly_) db_.reset();  // everything is read; a read-only store never goes back to the file
  return true;
}

bool KLTUserDefaults::refuseOtherThanFile() {
  // Opening a pipe or a device would wait for a writer, or read what is no store, for good.
  struct stat st {};
  if (::stat(path_.c_str(), &st) != 0 || S_ISREG(st.st_mode)) return false;
  refuse(S_ISDIR(st.st_mode) ? "it is a folder" : "it is not a regular file", false);
  return true;
}

void KLTUserDefaults::refuse(const std::string& why, bool damaged) {
  db_.reset();
  unusable_ = (damaged ? "the store " + path_.string() + " is damaged (" + why + ")"
                       : "cannot use the store " + path_.string() + " (" + why + ")") +
              "; it is left as it is";
}

bool KLTUserDefaults::readInto(std::vector<Slot>& slots, std::string& why, bool& damaged) {
  const auto onRow = [&](std::string_view key, int64_t position, std::optional<std::string_view> text) {
    Slot slot{std::string(key), position, !text.has_value(), KLTValue(), KLTSharedMap()};
    if (text) {
      auto value = klt::decodeStoredValue(*text);
      if (!value) return false;
      slot.value = std::move(*value);
    }
    slots.push_back(std::move(slot));
    return true;
  };
  Slot* last = nullptr;
  const auto onEntry = [&](std::string_view key, std::string_view entry, int64_t position, std::string_view text) {
    if (!last || last->key != key) {
      auto it = std::find_if(slots.begin(), slots.end(), [&](const Slot& s) { return s.key == key; });
      // Entries without a dictionary row belong to nothing the store shows; they are dropped at the
      // next write of that key.
      if (it == slots.end() || !it->isMap) return true;
      last = &*it;
    }
    auto value = klt::decodeStoredValue(text);
    if (!value) return false;
    last->map.setAt(std::string(entry), static_cast<uint64_t>(position), std::make_shared<const KLTValue>(std::move(*value)));
    return true;
  };
  return db_->readAll(onRow, onEntry, why, damaged);
}

const KLTUserDefaults::Slot* KLTUserDefaults::find(std::string_view key) const {
  auto it = std::find_if(current_.begin(), current_.end(), [&](const Slot& s) { return s.key == key; });
  return it == current_.end() ? nullptr : &*it;
}

KLTValue KLTUserDefaults::objectForKey(std::string_view key) const {
  std::lock_guard lock(mutex_);
  const Slot* s = find(key);
  if (!s) return KLTValue();
  return s->isMap ? s->map.toDictionary() : s->value;
}

std::optional<KLTSharedMap> KLTUserDefaults::sharedDictionaryForKey(std::string_view key) const {
  std::lock_guard lock(mutex_);
  const Slot* s = find(key);
  if (!s || !s->isMap) return std::nullopt;
  return s->map;
}

void KLTUserDefaults::put(Slot slot) {
  auto it = std::find_if(current_.begin(), current_.end(), [&](const Slot& s) { return s.key == slot.key; });
  if (it != current_.end()) {
    slot.position = it->position;
    *it = std::move(slot);
  } else {
    slot.position = nextPosition_++;
    current_.push_back(std::move(slot));
  }
}

void KLTUserDefaults::setObject(KLTValue value, std::string_view key) {
  Slot slot{std::string(key), 0, value.is_object(), KLTValue(), KLTSharedMap()};
  if (slot.isMap) {
    slot.map = KLTSharedMap::fromDictionary(value);
  } else {
    slot.value = std::move(value);
  }
  std::lock_guard lock(mutex_);
  put(std::move(slot));
}

void KLTUserDefaults::setSharedDictionary(KLTSharedMap map, std::string_view key) {
  std::lock_guard lock(mutex_);
  put(Slot{std::string(key), 0, true, KLTValue(), std::move(map)});
}

void KLTUserDefaults::removeObjectForKey(std::string_view key) {
  std::lock_guard lock(mutex_);
  current_.erase(std::remove_if(current_.begin(), current_.end(), [&](const Slot& s) { return s.key == key; }),
                 current_.end());
}

bool KLTUserDefaults::synchronize() {
  std::lock_guard lock(mutex_);
  if (path_.empty()) {
    persisted_ = current_;
    return true;
  }
  if (!db_) return false;
  try {
    if (!db_->begin()) return false;
    if (write() && !faults_->takeWriteFailure() && db_->commit()) {
      persisted_ = current_;
      return true;
    }
  } catch (const std::exception&) {
    // An allocation failure while encoding: the transaction is abandoned below.
  }
  db_->rollback();
  return false;
}

bool KLTUserDefaults::write() {
  const auto findIn = [](const std::vector<Slot>& slots, const std::string& key) -> const Slot* {
    auto it = std::find_if(slots.begin(), slots.end(), [&](const Slot& s) { return s.key == key; });
    return it == slots.end() ? nullptr : &*it;
  };
  const auto putEntry = [&](const std::string& key, const KLTSharedMap::Entry& e) {
    const auto text = klt::encodeStoredValue(*e.value);
    return text && db_->putEntry(key, e.key, static_cast<int64_t>(e.position), *text);
  };
  for (const Slot& old : persisted_) {
    if (!findIn(current_, old.key) && !db_->removeValue(old.key)) return false;
  }
  for (const Slot& slot : current_) {
    const Slot* old = findIn(persisted_, slot.key);
    if (old && old->position == slot.position && old->isMap == slot.isMap) {
      if (!slot.isMap) {
        if (old->value == slot.value) continue;
      } else {
        // Only the entries that differ from the file's, found without walking what both share.
        bool ok = true;
        KLTSharedMap::diff(old->map, slot.map, [&](const KLTSharedMap::Entry* before, const KLTSharedMap::Entry* after) {
          if (!ok) return;
          ok = after ? putEntry(slot.key, *after) : db_->removeEntry(slot.key, before->key);
        });
        if (!ok) return false;
        continue;
      }
    }
    std::optional<std::string> text;
    if (!slot.isMap && !(text = klt::encodeStoredValue(slot.value))) return false;
    if (!db_->putValue(slot.key, slot.position, text)) return false;
    if (old && old->isMap && !db_->removeEntries(slot.key)) return false;
    if (slot.isMap) {
      for (const auto* e : slot.map.orderedEntries()) {
        if (!putEntry(slot.key, *e)) return false;
      }
    }
  }
  return true;
}
