// KLTUserDefaults: the persistent property-list store (string keys to KLTValue trees, dates kept
// as dates) behind the frequency counters.
//
// Durability: every successful synchronize() makes the whole current map durable against the
// process being killed at any instant; reading the store back gives exactly the last synchronized
// map, never a mix of two. The store is a snapshot file plus a journal beside it ("<path>.journal"):
// synchronize() appends one checksummed record holding what changed since the last one (for a
// dictionary value, only its changed entries), so that its cost follows the size of the change,
// not of the map. When the journal grows past twice the snapshot (and past 64 KB), or when a change
// cannot be replayed in the same key order (a key removed and set again), the map is compacted into
// a new snapshot written to a temporary file and renamed over the old one. Reopening gives the map
// with its keys in the order it was synchronized. A record cut off by a crash fails its
// checksum and is dropped on the next load, with everything after it.
//
// A snapshot that cannot be read (wrong format, bad checksum, I/O error) is moved aside with an
// ERROR log line and the store starts empty. One process owns a store file at a time.
//
// Thread-safety: all operations may be called from any thread; they are serialised internally.
#pragma once

#include <cstdint>
#include <filesystem>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>

#include "platform/KLTStoreFiles.h"
#include "platform/KLTValue.h"

class KLTUserDefaults {
 public:
  // A store persisted at path (its folder is created when missing). An empty path gives a store
  // that lives in memory only; its synchronize() always succeeds.
  explicit KLTUserDefaults(std::filesystem::path path, std::shared_ptr<KLTStoreFiles> files = nullptr);
  KLTUserDefaults(const KLTUserDefaults&) = delete;
  KLTUserDefaults& operator=(const KLTUserDefaults&) = delete;
  ~KLTUserDefaults();

  // The process-wide store. Unless the embedding code set one, it is created at first use at the
  // per-user default location (see defaultLocation()).
  static std::shared_ptr<KLTUserDefaults> standardUserDefaults();
  // Replaces the process-wide store; nullptr makes the next standardUserDefaults() create the
  // default one again. Returns the previous store.
  static std::shared_ptr<KLTUserDefaults> setStandardUserDefaults(std::shared_ptr<KLTUserDefaults> store);
  // $KLTCE_STATE_DIR, else $XDG_STATE_HOME/kltce, else $HOME/.local/state/kltce, followed by
  // "user-defaults.kltstore"; empty (memory only) when none of these is set.
  static std::filesystem::path defaultLocation();

  // A copy of the value under key; null when absent.
  KLTValue objectForKey(std::string_view key) const;
  void setObject(KLTValue value, std::string_view key);
  void removeObjectForKey(std::string_view key);

  // Makes the present map durable. Returns false when the write failed; the in-memory map keeps the
  // new values either way, and the next synchronize() tries again.
  bool synchronize();

  const std::filesystem::path& path() const { return path_; }
  std::filesystem::path journalPath() const;

 private:
  void load();
  bool appendChanges();
  bool compact();

  const std::filesystem::path path_;
  const std::shared_ptr<KLTStoreFiles> files_;
  mutable std::mutex mutex_;
  KLTValue current_;    // dictionary: key -> value, as the callers see it
  KLTValue persisted_;  // dictionary: what the files hold
  uint64_t generation_ = 0;
  std::uintmax_t snapshotSize_ = 0;
  std::uintmax_t journalSize_ = 0;
  bool journalValid_ = false;  // the journal file exists, is ours and ends in a whole record
};
