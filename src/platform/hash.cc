#include "platform/hash.h"

#include <algorithm>
#include <bit>

_Hash::_Hash(int size, int, int, float)
    : places_(std::bit_ceil(static_cast<size_t>(std::max(size, 3)) * 4 / 3)) {}

_Hash::~_Hash() = default;

uint32_t _Hash::hash(const void *key) const {
  const uint64_t word = reinterpret_cast<uintptr_t>(key);
  return static_cast<uint32_t>(word ^ (word >> 32));
}

int _Hash::keyCmp(const void *a, const void *b) const {
  return a == b ? 0 : 1;
}

int _Hash::dataCmp(const void *a, const void *b) const {
  return a == b ? 0 : 1;
}

// 0 marks a free place, so no key may have it.
uint32_t _Hash::storedHash(const void *key) const {
  return std::max(hash(key), uint32_t{1});
}

// The upper bits of a product with 2^32 over the golden ratio: ids that were handed out one after
// the other lie as far from each other as the places allow.
size_t _Hash::homeOf(uint32_t hash) const {
  const uint32_t product = hash * 0x9E3779B9u;
  return static_cast<size_t>((uint64_t{product} * places_.size()) >> 32);
}

// Where the key is, or the free place where it would be; there always is one, see insert. Comparing
// the hashes first spares most comparisons of strings.
size_t _Hash::placeOf(const void *key, uint32_t hash) const {
  size_t place = homeOf(hash);
  while (places_[place].hash_ != 0 &&
         (places_[place].hash_ != hash || keyCmp(places_[place].key_, key) != 0)) {
    place = next(place);
  }
  return place;
}

void _Hash::insert(void *key, void *data) {
  if ((size_ + 1) * 8 > places_.size() * 7) grow();  // fuller, probing has to walk too far
  const uint32_t keyHash = storedHash(key);
  _HashItem &item = places_[placeOf(key, keyHash)];
  if (item.hash_ == 0) ++size_;
  item.key_ = key;
  item.data_ = data;
  item.hash_ = keyHash;
}

_HashItem *_Hash::find(void *key) const {
  const _HashItem &item = places_[placeOf(key, storedHash(key))];
  return item.hash_ == 0 ? nullptr : const_cast<_HashItem *>(&item);
}

void _Hash::prefetch(const void *key) const {
  __builtin_prefetch(&places_[homeOf(storedHash(key))]);
}

void _Hash::remove(void *key) {
  size_t hole = placeOf(key, storedHash(key));
  if (places_[hole].hash_ == 0) return;
  // Later items of the run move into the hole, but never before their home place. A mark for
  // "removed" would be simpler, and would make every later search walk over it.
  for (size_t place = next(hole); places_[place].hash_ != 0; place = next(place)) {
    const size_t mask = places_.size() - 1;
    const size_t fromFirst = (place - homeOf(places_[place].hash_)) & mask;
    if (fromFirst < ((place - hole) & mask)) continue;
    places_[hole] = places_[place];
    hole = place;
  }
  places_[hole] = {};
  --size_;
}

// Moves the items by their stored hashes: no key is hashed or compared again.
void _Hash::grow() {
  std::vector<_HashItem> places(places_.size() * 2);
  places_.swap(places);
  for (const _HashItem &item : places) {
    if (item.hash_ == 0) continue;
    size_t place = homeOf(item.hash_);
    while (places_[place].hash_ != 0) place = next(place);
    places_[place] = item;
  }
}
