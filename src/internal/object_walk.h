// Walking over all objects with their values.
#pragma once

#include <array>
#include <cstddef>
#include <utility>
#include <vector>

#include "internal/caches.h"

// Calls visit(object, values) for every object, newest first, with its values in the order of its
// list, in a vector that it may change. Following a single list waits for memory at every value, so
// several are followed side by side. No object may be removed or made the newest meanwhile.
template <typename Visit>
void forEachObject(const ObjTable *table, Visit visit) {
  struct Lane {
    ObjCacheEntry *object;
    std::vector<CachedValue *> values;
  };
  std::array<Lane, 16> lanes;  // about as many fetches as a processor has under way at a time
  for (RecencyIter walk(table); walk() != nullptr;) {
    size_t used = 0;
    std::vector<std::pair<Lane *, FieldValIter>> underWay;
    for (; used < lanes.size() && walk() != nullptr; walk++) {
      Lane &lane = lanes[used++];
      lane.object = walk();
      lane.values.clear();
      underWay.emplace_back(&lane, FieldValIter(walk()->values));
      __builtin_prefetch(underWay.back().second());
    }
    while (!underWay.empty()) {
      for (auto &[lane, value] : underWay) {
        if (value() == nullptr) continue;
        lane->values.push_back(value());
        __builtin_prefetch(value++);
      }
      std::erase_if(underWay, [](const auto &way) { return way.second() == nullptr; });
    }
    for (size_t i = 0; i < used; ++i) visit(lanes[i].object, lanes[i].values);
  }
}
