// KLTUserDefaults: the persistent property-list store (string keys to KLTValue trees, dates kept
// as dates) behind the frequency counters.
//
// A dictionary value is held as a KLTSharedMap: readers can take it as a shared copy in O(1)
// (sharedDictionaryForKey) and hand back a changed copy (setSharedDictionary) at the cost of what
// changed. The store lives in one SQLite file (layout in KLTStoreDatabase.h), a dictionary value
// stored entry by entry; synchronize() writes, in one transaction, only the top-level values and
// dictionary entries that differ from what the file holds.
//
// Durability: every successful synchronize() is durable against the process being killed at any
// instant; reading the store back gives exactly the last synchronized map, keys in the order they
// were set, never a mix of two.
//
// A file that cannot be opened as a store because of what it holds (SQLite reports it corrupt or
// not a database, a value that does not read back, a file of the earlier snapshot format) is moved
// aside ("<path>.unreadable") with one ERROR line and the store starts empty. Any other failure to
// open or read it (busy or locked by another program, disk full, read-only, I/O error, no
// permission) leaves the file as it is: the store then holds nothing, never writes (synchronize()
// returns false) and unusable() says why, so that the caller can stop before counting on it.
//
// A read-only store (KLTStoreAccess::ReadOnly) never writes, creates or moves anything: a damaged
// file is reported through unusable() like any other failure, and synchronize() always fails.
//
// One process writes a store file at a time (platform/KLTStoreLock.h lets a caller make sure).
//
// Thread-safety: all operations may be called from any thread; they are serialised internally.
#pragma once

#include <cstdint>
#include <filesystem>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/KLTSeam.h"
#include "platform/KLTSharedMap.h"
#include "platform/KLTStoreFaults.h"
#include "platform/KLTValue.h"

class KLTStoreDatabase;

enum class KLTStoreAccess { ReadWrite, ReadOnly };

class KLTUserDefaults {
 public:
  // A store persisted at path (its folder is created when missing). An empty path gives a store
  // that lives in memory only; its synchronize() always succeeds. faults lets a test fail writes.
  explicit KLTUserDefaults(std::filesystem::path path, std::shared_ptr<KLTStoreFaults> faults = nullptr,
                           KLTStoreAccess access = KLTStoreAccess::ReadWrite);
  KLTUserDefaults(const KLTUserDefaults&) = delete;
  KLTUserDefaults& operator=(const KLTUserDefaults&) = delete;
  ~KLTUserDefaults();

  // The store in effect on the calling thread: the one an engine instance bound there, else the
  // process-wide store. Unless the embedding code set one, that is created at first use at the
  // per-user default location (see defaultLocation()).
  static std::shared_ptr<KLTUserDefaults> standardUserDefaults();
  // Replaces the process-wide store; nullptr makes the next standardUserDefaults() create the
  // default one again. Returns the previous store.
  static std::shared_ptr<KLTUserDefaults> setStandardUserDefaults(std::shared_ptr<KLTUserDefaults> store);
  // The seam behind standardUserDefaults(): an engine instance binds its own store on the thread
  // that runs its tasks.
  static KLTSeam<KLTUserDefaults>& seam();
  // $KLTCE_STATE_DIR, else $XDG_STATE_HOME/kltce, else $HOME/.local/state/kltce, followed by
  // "user-defaults.kltstore"; empty (memory only) when none of these is set.
  static std::filesystem::path defaultLocation();

  // A copy of the value under key; null when absent.
  KLTValue objectForKey(std::string_view key) const;
  // The dictionary under key as a shared copy (O(1)); nothing when key is absent or holds
  // something else.
  std::optional<KLTSharedMap> sharedDictionaryForKey(std::string_view key) const;
  // An existing key keeps its place; a new key goes last.
  void setObject(KLTValue value, std::string_view key);
  void setSharedDictionary(KLTSharedMap map, std::string_view key);
  void removeObjectForKey(std::string_view key);

  // Makes the present map durable. Returns false when the write failed; the in-memory map keeps the
  // new values either way, and the next synchronize() tries again.
  bool synchronize();

  const std::filesystem::path& path() const { return path_; }
  // Why the file could not be used, left as it was (empty when the store is usable): one line.
  const std::string& unusable() const { return unusable_; }

  // A top-level value: a dictionary as a shared map, anything else as a plain value.
  struct Slot {
    std::string key;
    int64_t position = 0;
    bool isMap = false;
    KLTValue value;
    KLTSharedMap map;
  };

 private:
  void load();
  bool openAndRead(std::string& why, bool& damaged);
  bool refuseOtherThanFile();
  void refuse(const std::string& why, bool damaged);
  bool readInto(std::vector<Slot>& slots, std::string& why, bool& damaged);
  bool write();
  void put(Slot slot);
  const Slot* find(std::string_view key) const;

  const std::filesystem::path path_;
  const std::shared_ptr<KLTStoreFaults> faults_;
  const bool readOnly_;
  std::string unusable_;
  mutable std::mutex mutex_;
  std::unique_ptr<KLTStoreDatabase> db_;
  std::vector<Slot> current_;    // as the callers see it, in order
  std::vector<Slot> persisted_;  // what the file holds
  int64_t nextPosition_ = 0;
};
