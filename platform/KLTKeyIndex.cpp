#include "platform/KLTKeyIndex.h"

#include <algorithm>

namespace klt {

KLTKeyIndex::KLTKeyIndex(const KLTValue& dictionary) : dictionary_(dictionary.is_object()) {
  if (!dictionary_) return;
  const auto& entries = dictionary.get_ref<const KLTValue::object_t&>();
  entries_.reserve(entries.size());
  for (const auto& [key, value] : entries) entries_.push_back({keyHash(key), &key, &value});
  std::sort(entries_.begin(), entries_.end(), [](const Entry& a, const Entry& b) { return a.hash < b.hash; });
}

const KLTValue* KLTKeyIndex::find(const HashedKey& key) const {
  // Most events carry a handful of attributes: a straight pass over the hashes beats a search.
  if (entries_.size() <= 8) {
    for (const Entry& e : entries_) {
      if (e.hash == key.hash && *e.key == key.text) return e.value;
    }
    return nullptr;
  }
  auto it = std::lower_bound(entries_.begin(), entries_.end(), key.hash,
                             [](const Entry& e, uint64_t h) { return e.hash < h; });
  for (; it != entries_.end() && it->hash == key.hash; ++it) {
    if (*it->key == key.text) return it->value;
  }
  return nullptr;
}

}  // namespace klt
