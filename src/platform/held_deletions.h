// Keys whose deletion from a table is held back, in the order in which they came. A key takes 4
// bytes beside its own. The first look for one makes an index of 8 to 16 bytes a key; a table whose
// keys are deleted and never looked for has none.
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

  bool empty() const { return bytes_.empty(); }

  void add(std::string_view key) {
    const size_t start = bytes_.size();
    const auto length = static_cast<uint32_t>(key.size());
    bytes_.append(reinterpret_cast<const char *>(&length), sizeof length);
    bytes_.append(key);
    bytes_.append(spaceOf(start) - (bytes_.size() - start), '\0');
    ++count_;
    if (!slots_.empty()) enter(start);
  }

  bool contains(std::string_view key) {
    if (bytes_.empty()) return false;
    if (slots_.empty()) makeIndex();
    return slots_[slotOf(key)] != 0;
  }

  // All of them, each as often as it came. They last until the next call of add.
  std::vector<std::string_view> keys() const {
    std::vector<std::string_view> all;
    all.reserve(count_);
    for (size_t at = 0; at < bytes_.size(); at += spaceOf(at)) all.push_back(keyAt(at));
    return all;
  }

 private:
  static constexpr size_t step = 4;  // bytes; each key starts at a multiple

  std::string_view keyAt(size_t start) const {
    uint32_t length = 0;
    memcpy(&length, &bytes_[start], sizeof length);
    return {&bytes_[start + sizeof length], length};
  }
  size_t spaceOf(size_t start) const {
    return (sizeof(uint32_t) + keyAt(start).size() + step - 1) / step * step;
  }
  // Where the key is, or the free slot where it would be.
  size_t slotOf(std::string_view key) const {
    const size_t mask = slots_.size() - 1;
    size_t slot = hash_(key) & mask;
    while (slots_[slot] != 0 && keyAt((slots_[slot] - 1) * step) != key) slot = (slot + 1) & mask;
    return slot;
  }
  void enter(size_t start) {
    if (2 * count_ > slots_.size()) {
      makeIndex();
    } else {
      slots_[slotOf(keyAt(start))] = static_cast<uint32_t>(start / step + 1);
    }
  }
  void makeIndex() {
    size_t size = 64;
    while (size < 2 * count_) size *= 2;
    slots_.assign(size, 0);
    for (size_t at = 0; at < bytes_.size(); at += spaceOf(at)) {
      slots_[slotOf(keyAt(at))] = static_cast<uint32_t>(at / step + 1);
    }
  }

  Hash hash_;
  size_t count_ = 0;
  std::string bytes_;            // each key after its length
  std::vector<uint32_t> slots_;  // a power of two of them: start of a key in steps + 1; 0 is free
};
