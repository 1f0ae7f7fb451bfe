#include "platform/hash.h"

#include <algorithm>
#include <bit>

_Hash::_Hash(int size, int, int, float)
    : chains_(std::bit_ceil(static_cast<size_t>(std::max(size, 1)))) {}

_Hash::~_Hash() {
  for (_HashItem *item : chains_) {
    while (item != nullptr) {
      _HashItem *next = item->next_;
      delete item;
      item = next;
    }
  }
}

uint32_t _Hash::hash(const void *key) const {
  // Ids are handed out one after the other; the multiplication spreads them over the chains.
  return static_cast<uint32_t>((reinterpret_cast<uintptr_t>(key) * 0x9E3779B97F4A7C15u) >> 32);
}

int _Hash::keyCmp(const void *a, const void *b) const {
  return a == b ? 0 : 1;
}

int _Hash::dataCmp(const void *a, const void *b) const {
  return a == b ? 0 : 1;
}

// The place that points at the key's item, or at the null that ends its chain.
_HashItem **_Hash::slotOf(void *key, uint32_t hash) {
  _HashItem **slot = &chains_[hash & (chains_.size() - 1)];
  while (*slot != nullptr && ((*slot)->hash_ != hash || keyCmp((*slot)->key_, key) != 0)) {
    slot = &(*slot)->next_;
  }
  return slot;
}

void _Hash::insert(void *key, void *data) {
  if (size_ >= chains_.size() && iterating_ == 0) grow();
  const uint32_t keyHash = hash(key);
  _HashItem **slot = slotOf(key, keyHash);
  if (*slot == nullptr) {
    *slot = new _HashItem;
    (*slot)->next_ = nullptr;
    (*slot)->hash_ = keyHash;
    ++size_;
  }
  (*slot)->key_ = key;
  (*slot)->data_ = data;
}

_HashItem *_Hash::find(void *key) const {
  return *const_cast<_Hash *>(this)->slotOf(key, hash(key));
}

void _Hash::remove(void *key) {
  _HashItem **slot = slotOf(key, hash(key));
  if (*slot == nullptr) return;
  _HashItem *item = *slot;
  *slot = item->next_;
  delete item;
  --size_;
}

void _Hash::clearIterating() {
  if (iterating_ > 0) --iterating_;
}

void _Hash::grow() {
  std::vector<_HashItem *> chains(chains_.size() * 2);
  for (_HashItem *item : chains_) {
    while (item != nullptr) {
      _HashItem *next = item->next_;
      _HashItem *&head = chains[item->hash_ & (chains.size() - 1)];
      item->next_ = head;
      head = item;
      item = next;
    }
  }
  chains_.swap(chains);
}

_HashIter::_HashIter(_Hash *table) : table_(table) {
  ++table_->iterating_;
  item_ = table_->chains_[0];
  skipEmptyChains();
}

_HashItem *_HashIter::operator++(int) {
  if (item_ != nullptr) item_ = item_->next_;
  skipEmptyChains();
  return item_;
}

void _HashIter::skipEmptyChains() {
  while (item_ == nullptr && chain_ + 1 < table_->chains_.size()) item_ = table_->chains_[++chain_];
}
