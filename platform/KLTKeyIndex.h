// KLTKeyIndex: the entries of one dictionary looked up by key through a hash computed once per key,
// so that many rules asking one dictionary for their keys cost a hash probe each instead of a scan
// of its entries (an event's attributes are asked by every condition and trigger it reaches).
// Up to kInline entries are held in the index itself, so indexing a small dictionary allocates
// nothing.
//
// The index points into the dictionary it was built from: the dictionary must outlive it and stay
// unchanged. Immutable once built; may be read from any thread.
#pragma once

#include <array>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "platform/KLTValue.h"

namespace klt {

// The hash under which the index files a key; a rule computes its key's once, when it is built.
constexpr uint64_t keyHash(std::string_view key) {
  uint64_t h = 14695981039346656037ull;  // 64-bit FNV-1a: short keys, no setup
  for (const char c : key) {
    h ^= static_cast<unsigned char>(c);
    h *= 1099511628211ull;
  }
  return h;
}

// A key with its hash, as a rule keeps it.
struct HashedKey {
  std::string text;
  uint64_t hash = 0;
  explicit HashedKey(std::string key = {}) : text(std::move(key)), hash(keyHash(text)) {}
};

class KLTKeyIndex {
 public:
  static constexpr std::size_t kInline = 8;

  // Indexes a dictionary; any other value gives an index of nothing (isDictionary() false).
  explicit KLTKeyIndex(const KLTValue& dictionary);

  // The value under key, or nullptr when the dictionary has no such key.
  const KLTValue* find(const HashedKey& key) const;
  bool isDictionary() const { return dictionary_; }

 private:
  struct Entry {
    uint64_t hash;
    const std::string* key;
    const KLTValue* value;
  };
  std::array<Entry, kInline> inline_{};  // a small dictionary's entries, in its order
  std::size_t size_ = 0;
  std::vector<Entry> sorted_;  // a larger one's, sorted by hash
  bool dictionary_ = false;
};

}  // namespace klt
