#include "platform/KLTKeyIndex.h"

#include <algorithm>

namespace klt {

KLTKeyIndex::KLTKeyIndex(const KLTValue& dictionary) : dictionary_(dictionary.is_object()) {
  if (!dictionary_) return;
  const auto& entries = dictionary.get_ref<const KLTValue::object_t&>();
  size_ = entries.size();
  if (size_ <= kInline) {
    std::size_t i = 0;
    for (const auto& [key, value] : entries) inline_[i++] = {keyHash(key), &key, &value};
    return;
  }
  sorted_.reserve(size_);
  for (const auto& [key, value] : entries) sorted_.push_back({keyHash(key), &key, &value});
  std::sort(sorted_.begin(), sorted_.end(), [](const Entry& a, const Entry& b) { return a.hash < b.hash; });
}

const KLTValue* KLTKeyIndex::find(const HashedKey& key) const {
  // Most events carry a handful of attributes: a straight pass over their hashes beats a search.
  if (size_ <= kInline) {
    for (std::size_t i = 0; i < size_; ++i) {
      if (inline_[i].hash == key.hash && *inline_[i].key == key.text) return inline_[i].value;
    }
    return nullptr;
  }
  auto it = std::lower_bound(sorted_.begin(), sorted_.end(), key.hash, [](const Entry& e, uint64_t h) { return e.hash < h; });
  for (; it != sorted_.end() && it->hash == key.hash; ++it) {
    if (*it->key == key.text) return it->value;
  }
  return nullptr;
}

}  // namespace klt
