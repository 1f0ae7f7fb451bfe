// Keys whose deletion from a table is held back, in the order in which they came, and a hash index
// over them. Takes about 20 bytes a key besides its characters.
#pragma once

#include <cstdint>
#include <cstring>
#include <string>
#include <string_view>
#include <vector>

class HeldDeletions {
 public:
  // The hash spreads well over its lower bits; equal keys have equal ones.
  using Hash = uint32_t (*)(std::string_view key);
  explicit HeldDeletions(Hash hash) : hash_(hash) {}

  bool empty() const { return count_ == 0; }

  void add(std::string_view key) {
    if (contains(key)) return;
    if (2 * (count_ + 1) > slots_.size()) grow();  // at most half full, so that probing stays short
    const uint64_t start = bytes_.size();
    const auto length = static_cast<uint32_t>(key.size());
    bytes_.append(reinterpret_cast<const char *>(&length), sizeof length);
    bytes_.append(key);
    ++count_;
    slots_[freeSlot(key)] = start + 1;
  }

  bool contains(std::string_view key) const {
    if (slots_.empty()) return false;
    for (size_t slot = homeOf(key); slots_[slot] != 0; slot = next(slot)) {
      if (keyAt(slots_[slot] - 1) == key) return true;
    }
    return false;
  }

  // All of them. They last as long as this does.
  std::vector<std::string_view> keys() const {
    std::vector<std::string_view> all;
    all.reserve(count_);
    for (uint64_t at = 0; at < bytes_.size(); at += sizeof(uint32_t) + all.back().size()) {
      all.push_back(keyAt(at));
    }
    return all;
  }

 private:
  std::string_view keyAt(uint64_t start) const {
    uint32_t length = 0;
    memcpy(&length, &bytes_[start], sizeof length);
    return {&bytes_[start + sizeof length], length};
  }
  size_t homeOf(std::string_view key) const { return hash_(key) & (slots_.size() - 1); }
  size_t next(size_t slot) const { return (slot + 1) & (slots_.size() - 1); }
  size_t freeSlot(std::string_view key) const {
    size_t slot = homeOf(key);
    while (slots_[slot] != 0) slot = next(slot);
    return slot;
  }
  void grow() {
    constexpr size_t smallest = 64;
    slots_.assign(slots_.empty() ? smallest : 2 * slots_.size(), 0);
    for (uint64_t at = 0; at < bytes_.size();) {
      const std::string_view key = keyAt(at);
      slots_[freeSlot(key)] = at + 1;
      at += sizeof(uint32_t) + key.size();
    }
  }

  Hash hash_;
  size_t count_ = 0;
  std::string bytes_;            // each key after its length
  std::vector<uint64_t> slots_;  // a power of two of them: start of a key in bytes_ + 1; 0 is free
};
