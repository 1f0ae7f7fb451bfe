// Entering the values of whole scans into ObjValCache.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <vector>

#include "internal/caches.h"

// Does with many values what addObjectValue does with each, in another order of steps: values are
// appended as they come, and when all have come every object's list is put in order once. The
// result is the same, including every order that can be observed.
//
// Records come in hash order, so consecutive values belong to different objects. A value therefore
// waits a few turns between being added and being entered, while its object and its field are
// fetched from memory.
// Values are entered in the order in which they came.
class BulkLoad {
 public:
  // Notes the object of each value whose field has no definition.
  explicit BulkLoad(std::vector<uint32_t> *leftOut) : leftOut_(leftOut) {}
  BulkLoad(const BulkLoad &) = delete;
  BulkLoad &operator=(const BulkLoad &) = delete;

  // Makes the object the newest and enters the value (stored_values.h). Without a definition of the
  // field, or with a null item, the object is there all the same.
  void add(uint32_t objectId, uint32_t fieldId, CachedValue *item);

  // Enters what waits and puts the lists in order. Called once, after the last value.
  void finish();

 private:
  struct Waiting {
    uint32_t objectId;
    uint32_t fieldId;
    CachedValue *item;
    FieldCacheEntry *field;  // null while it is not known
    ObjCacheEntry *object;   // likewise
    bool isWaiting;
  };
  static constexpr size_t steps = 3;
  static constexpr size_t distance = 8;  // between two steps

  Waiting &before(size_t count) {
    return waiting_[(added_ + waiting_.size() - count) % waiting_.size()];
  }
  void enter(Waiting &waiting);

  std::vector<uint32_t> *leftOut_;
  std::array<Waiting, steps * distance> waiting_{};
  size_t added_ = 0;
};
