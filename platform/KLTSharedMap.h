// KLTSharedMap: a dictionary (string keys in insertion order -> KLTValue) whose copies share their
// structure, so that copying one costs O(1) and changing a copy costs O(log n) without touching the
// others. It is how every frequency cap holds "its own copy of the whole counter map" at the cost
// of what that copy changes, and how the store tells which entries a synchronize must write.
//
// Inside it is a hash-array-mapped trie of immutable nodes held by shared pointers: a change copies
// only the nodes on the path to the changed entry. Each entry carries a position; iteration order
// is by position, and a new key takes one past the largest position the map ever gave out, so the
// order is the one an insertion-ordered dictionary would show after the same operations.
//
// Thread-safety: a KLTSharedMap object is not synchronised, but the nodes it shares are never
// written after construction, so distinct copies may be used from distinct threads at once.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "platform/KLTValue.h"

class KLTSharedMap {
 public:
  struct Entry {
    std::string key;
    uint64_t position = 0;
    std::shared_ptr<const KLTValue> value;
  };
  struct Node;

  KLTSharedMap() = default;
  // The entries of a dictionary, in its order; an empty map for any other value.
  static KLTSharedMap fromDictionary(const KLTValue& dictionary);

  // The value under key, or nullptr. Valid until this map is changed or destroyed.
  const KLTValue* find(std::string_view key) const;
  const Entry* findEntry(std::string_view key) const;
  // Sets key's value; an existing key keeps its place, a new one goes last.
  void set(const std::string& key, KLTValue value);
  // Sets key with a given position (as read back from storage); later new keys go after it.
  void setAt(const std::string& key, uint64_t position, std::shared_ptr<const KLTValue> value);
  void erase(std::string_view key);

  std::size_t size() const { return size_; }
  bool empty() const { return size_ == 0; }
  // Whether both maps are the very same version (a cheap test, not an equality).
  bool sameVersion(const KLTSharedMap& other) const { return root_ == other.root_; }

  // The entries in order.
  std::vector<const Entry*> orderedEntries() const;
  // The map as a dictionary, in order.
  KLTValue toDictionary() const;

  // Calls visit(before, after) for every key whose entry differs between the two maps: `before` is
  // null for a key only in `after`, `after` null for a key only in `before`. Entries differ when
  // their positions or values differ. Subtrees that both maps share are skipped, so the cost
  // follows what changed between them, not their size. Keys are visited in no particular order.
  static void diff(const KLTSharedMap& before, const KLTSharedMap& after,
                   const std::function<void(const Entry* before, const Entry* after)>& visit);

 private:
  std::shared_ptr<const Node> root_;
  std::size_t size_ = 0;
  uint64_t nextPosition_ = 0;
};
