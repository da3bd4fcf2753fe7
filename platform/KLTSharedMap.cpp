#include "platform/KLTSharedMap.h"

#include <algorithm>
#include <bit>

// A node is a leaf (entries sharing one full hash: nearly always one) or a branch (up to 16
// children, indexed by four bits of the hash at its depth, present ones listed in bitmap order).
struct KLTSharedMap::Node {
  uint64_t hash = 0;
  std::vector<Entry> entries;
  uint32_t bitmap = 0;
  std::vector<std::shared_ptr<const Node>> children;
  bool isLeaf() const { return !entries.empty(); }
};

namespace {

using Entry = KLTSharedMap::Entry;
using Node = KLTSharedMap::Node;
using NodePtr = std::shared_ptr<const Node>;

// Sixteen-way branches: every change copies the branches on its path, and every frequency cap keeps
// its own changed path for as long as it lives, so narrower branches hold less per cap than 32-way
// ones, for one more level on a lookup.
constexpr unsigned kBits = 4;
constexpr uint32_t kSlots = 1u << kBits;

uint64_t hashOf(std::string_view key) { return std::hash<std::string_view>{}(key); }
uint32_t slotOf(uint64_t hash, unsigned shift) { return static_cast<uint32_t>((hash >> shift) & (kSlots - 1u)); }
std::size_t indexOf(uint32_t bitmap, uint32_t slot) {
  return static_cast<std::size_t>(std::popcount(bitmap & ((1u << slot) - 1u)));
}

NodePtr makeLeaf(uint64_t hash, Entry entry) {
  auto leaf = std::make_shared<Node>();
  leaf->hash = hash;
  leaf->entries.push_back(std::move(entry));
  return leaf;
}

// A branch holding two leaves of different hashes, as deep as their hashes agree.
NodePtr join(NodePtr a, NodePtr b, unsigned shift) {
  auto branch = std::make_shared<Node>();
  const uint32_t sa = slotOf(a->hash, shift);
  const uint32_t sb = slotOf(b->hash, shift);
  if (sa == sb) {
    branch->bitmap = 1u << sa;
    branch->children.push_back(join(std::move(a), std::move(b), shift + kBits));
  } else {
    branch->bitmap = (1u << sa) | (1u << sb);
    if (sa > sb) std::swap(a, b);
    branch->children.push_back(std::move(a));
    branch->children.push_back(std::move(b));
  }
  return branch;
}

// The node with entry set; `added` tells whether the key was new.
NodePtr insert(const NodePtr& node, unsigned shift, uint64_t hash, Entry entry, bool& added) {
  if (!node) {
    added = true;
    return makeLeaf(hash, std::move(entry));
  }
  if (node->isLeaf()) {
    if (node->hash != hash) {
      added = true;
      return join(node, makeLeaf(hash, std::move(entry)), shift);
    }
    auto leaf = std::make_shared<Node>(*node);
    auto it = std::find_if(leaf->entries.begin(), leaf->entries.end(), [&](const Entry& e) { return e.key == entry.key; });
    if (it == leaf->entries.end()) {
      added = true;
      leaf->entries.push_back(std::move(entry));
    } else {
      *it = std::move(entry);
    }
    return leaf;
  }
  const uint32_t slot = slotOf(hash, shift);
  const std::size_t at = indexOf(node->bitmap, slot);
  auto branch = std::make_shared<Node>(*node);
  if (node->bitmap & (1u << slot)) {
    branch->children[at] = insert(node->children[at], shift + kBits, hash, std::move(entry), added);
  } else {
    added = true;
    branch->bitmap |= 1u << slot;
    branch->children.insert(branch->children.begin() + static_cast<std::ptrdiff_t>(at), makeLeaf(hash, std::move(entry)));
  }
  return branch;
}

// The node without key (null when nothing is left); the same node when key is absent.
NodePtr remove(const NodePtr& node, unsigned shift, uint64_t hash, std::string_view key, bool& removed) {
  if (!node) return node;
  if (node->isLeaf()) {
    if (node->hash != hash) return node;
    auto it = std::find_if(node->entries.begin(), node->entries.end(), [&](const Entry& e) { return e.key == key; });
    if (it == node->entries.end()) return node;
    removed = true;
    if (node->entries.size() == 1) return nullptr;
    auto leaf = std::make_shared<Node>(*node);
    leaf->entries.erase(leaf->entries.begin() + (it - node->entries.begin()));
    return leaf;
  }
  const uint32_t slot = slotOf(hash, shift);
  if (!(node->bitmap & (1u << slot))) return node;
  const std::size_t at = indexOf(node->bitmap, slot);
  NodePtr child = remove(node->children[at], shift + kBits, hash, key, removed);
  if (child == node->children[at]) return node;
  auto branch = std::make_shared<Node>(*node);
  if (child) {
    branch->children[at] = std::move(child);
  } else {
    branch->bitmap &= ~(1u << slot);
    branch->children.erase(branch->children.begin() + static_cast<std::ptrdiff_t>(at));
    if (branch->children.empty()) return nullptr;
  }
  // A branch left with one leaf is that leaf: lookups and diffs stay as short as before.
  if (branch->children.size() == 1 && branch->children[0]->isLeaf()) return branch->children[0];
  return branch;
}

void collect(const Node* node, std::vector<const Entry*>& out) {
  if (!node) return;
  for (const auto& e : node->entries) out.push_back(&e);
  for (const auto& c : node->children) collect(c.get(), out);
}

using Visit = std::function<void(const Entry*, const Entry*)>;

bool sameEntry(const Entry& a, const Entry& b) {
  return a.position == b.position && (a.value == b.value || *a.value == *b.value);
}

void diffNodes(const Node* a, const Node* b, unsigned shift, const Visit& visit) {
  if (a == b) return;
  if (!a || !b || (a->isLeaf() && b->isLeaf())) {
    std::vector<const Entry*> before, after;
    collect(a, before);
    collect(b, after);
    for (const Entry* x : before) {
      auto it = std::find_if(after.begin(), after.end(), [&](const Entry* y) { return y && y->key == x->key; });
      if (it == after.end()) {
        visit(x, nullptr);
      } else {
        if (!sameEntry(*x, **it)) visit(x, *it);
        *it = nullptr;
      }
    }
    for (const Entry* y : after) {
      if (y) visit(nullptr, y);
    }
    return;
  }
  // A leaf facing a branch is compared as if it sat one level down, in its own slot.
  const auto childAt = [shift](const Node* n, uint32_t slot) -> const Node* {
    if (n->isLeaf()) return slotOf(n->hash, shift) == slot ? n : nullptr;
    return (n->bitmap & (1u << slot)) ? n->children[indexOf(n->bitmap, slot)].get() : nullptr;
  };
  const auto mapOf = [shift](const Node* n) { return n->isLeaf() ? 1u << slotOf(n->hash, shift) : n->bitmap; };
  const uint32_t slots = mapOf(a) | mapOf(b);
  for (uint32_t slot = 0; slot < kSlots; ++slot) {
    if (slots & (1u << slot)) diffNodes(childAt(a, slot), childAt(b, slot), shift + kBits, visit);
  }
}

}  // namespace

KLTSharedMap KLTSharedMap::fromDictionary(const KLTValue& dictionary) {
  KLTSharedMap map;
  if (!dictionary.is_object()) return map;
  for (auto it = dictionary.begin(); it != dictionary.end(); ++it) map.set(it.key(), it.value());
  return map;
}

const KLTSharedMap::Entry* KLTSharedMap::findEntry(std::string_view key) const {
  const uint64_t hash = hashOf(key);
  const Node* node = root_.get();
  for (unsigned shift = 0; node && !node->isLeaf(); shift += kBits) {
    const uint32_t slot = slotOf(hash, shift);
    node = (node->bitmap & (1u << slot)) ? node->children[indexOf(node->bitmap, slot)].get() : nullptr;
  }
  if (!node || node->hash != hash) return nullptr;
  for (const auto& e : node->entries) {
    if (e.key == key) return &e;
  }
  return nullptr;
}

const KLTValue* KLTSharedMap::find(std::string_view key) const {
  const Entry* e = findEntry(key);
  return e ? e->value.get() : nullptr;
}

void KLTSharedMap::set(const std::string& key, KLTValue value) {
  const Entry* existing = findEntry(key);
  setAt(key, existing ? existing->position : nextPosition_, std::make_shared<const KLTValue>(std::move(value)));
}

void KLTSharedMap::setAt(const std::string& key, uint64_t position, std::shared_ptr<const KLTValue> value) {
  bool added = false;
  root_ = insert(root_, 0, hashOf(key), Entry{key, position, std::move(value)}, added);
  if (added) ++size_;
  nextPosition_ = std::max(nextPosition_, position + 1);
}

void KLTSharedMap::erase(std::string_view key) {
  bool removed = false;
  root_ = remove(root_, 0, hashOf(key), key, removed);
  if (removed) --size_;
}

std::vector<const KLTSharedMap::Entry*> KLTSharedMap::orderedEntries() const {
  std::vector<const Entry*> out;
  out.reserve(size_);
  collect(root_.get(), out);
  std::sort(out.begin(), out.end(), [](const Entry* a, const Entry* b) { return a->position < b->position; });
  return out;
}

KLTValue KLTSharedMap::toDictionary() const {
  KLTValue out = KLTValue::object();
  // Keys are unique here, so they are appended without the dictionary's linear key search.
  auto& entries = static_cast<KLTValue::object_t::Container&>(out.get_ref<KLTValue::object_t&>());
  entries.reserve(size_);
  for (const Entry* e : orderedEntries()) entries.emplace_back(e->key, *e->value);
  return out;
}

void KLTSharedMap::diff(const KLTSharedMap& before, const KLTSharedMap& after, const Visit& visit) {
  diffNodes(before.root_.get(), after.root_.get(), 0, visit);
}
