#include "maint/rewrite_plan.h"

#include <algorithm>
#include <array>
#include <bit>
#include <set>
#include <utility>
#include <vector>

#include "internal/object_walk.h"
#include "maint/run.h"
#include "records/value_table.h"
#include "store/name_table.h"

namespace {

// A name field's value goes to the name tables only if it is a name; anything else goes back to
// where it was read from.
const char *nameOf(const CachedValue *item) {
  return (item->field->flags & nameFieldFlag) != 0 ? singleString(item->value) : nullptr;
}

// Values that go to the same place in a table one after the other are stored that way, which is
// cheapest. They are planned in groups by the upper bits of that order, and each group is sorted
// when its turn comes: until then a value takes no more than a pointer.
struct Plan {
  std::vector<const CachedValue *> names;   // newest object first, in the order of its list
  std::vector<const CachedValue *> values;  // group after group, each in the order of the names
  std::vector<size_t> groupEnds;
  int groupShift = 0;                              // from an order to its group
  std::vector<std::pair<uint32_t, size_t>> group;  // the order and place of each value of one
  std::array<uint64_t, 3> fileSizes{};             // of the rebuilt tables as they were
  uint32_t overwritten = 0;                        // by a later value of the object
};
Plan plan;

constexpr int orderBits = 31;
// Small enough that sorting a group stays in the processor's cache; 2^20 groups take 8 MB.
constexpr size_t groupSize = 16;  // about

uint32_t orderOf(const CachedValue *item) {
  TableKey key;
  makeValueKey(&key, *item->objectId, item->field->fieldId);
  return _NQ_dbm_db_order(key.bytes, key.length);
}

size_t groupOf(const CachedValue *item) {
  return orderOf(item) >> plan.groupShift;
}

// How many of the values go to the same key as an earlier one, which then keeps only the later.
uint32_t countOverwritten(const std::vector<CachedValue *> &values) {
  const auto descends = [](const CachedValue *a, const CachedValue *b) {
    return a->field->fieldId >= b->field->fieldId;
  };
  if (std::adjacent_find(values.begin(), values.end(), descends) == values.end()) return 0;
  std::set<std::pair<uint32_t, bool>> keys;
  for (const CachedValue *item : values) {
    keys.emplace(item->field->fieldId, nameOf(item) != nullptr);
  }
  return static_cast<uint32_t>(values.size() - keys.size());
}

// Counts the values of each group, and notes the names.
void countValues() {
  forEachObject(ObjValCache, [](ObjCacheEntry *, const std::vector<CachedValue *> &values) {
    plan.overwritten += countOverwritten(values);
    for (const CachedValue *item : values) {
      if (nameOf(item) != nullptr) {
        plan.names.push_back(item);
      } else {
        ++plan.groupEnds[groupOf(item)];
      }
    }
  });
}

void groupValues() {
  const size_t largest = *std::max_element(plan.groupEnds.begin(), plan.groupEnds.end());
  size_t count = 0;
  for (size_t &group : plan.groupEnds) count += std::exchange(group, count);
  plan.values.resize(count);
  plan.group.reserve(largest);
  // Each group's start becomes its end.
  forEachObject(ObjValCache, [](ObjCacheEntry *, const std::vector<CachedValue *> &values) {
    for (const CachedValue *item : values) {
      if (nameOf(item) == nullptr) plan.values[plan.groupEnds[groupOf(item)]++] = item;
    }
  });
}

// Table order is random in memory, so what comes next is prefetched: a value's record first, half
// way there what the record points at.
void fetchAhead(size_t i) {
  constexpr size_t ahead = 64;
  if (i + ahead < plan.values.size()) {
    const CachedValue *item = plan.values[i + ahead];
    __builtin_prefetch(item);
    __builtin_prefetch(reinterpret_cast<const char *>(item) - sizeof(NQwFieldValue));
  }
  if (i + ahead / 2 < plan.values.size()) {
    const CachedValue *item = plan.values[i + ahead / 2];
    __builtin_prefetch(item->objectId);
    const char *text = singleString(item->value);
    if (text != nullptr) __builtin_prefetch(text);
  }
}

// Stores one group. Of two values with one key the later has the higher place, is stored last, and
// stays. Returns how many stores fail.
uint32_t storeGroup(ObjectDatabase *db, size_t start, size_t end) {
  plan.group.clear();
  for (size_t i = start; i < end; ++i) {
    fetchAhead(i);
    plan.group.emplace_back(orderOf(plan.values[i]), i);
  }
  std::sort(plan.group.begin(), plan.group.end());
  uint32_t failed = 0;
  for (const auto &[order, place] : plan.group) {
    const CachedValue *item = plan.values[place];
    if (putValueObject(db, *item->objectId, item->field->fieldId, item->value) < 0) ++failed;
  }
  return failed;
}

std::array<NQ_dbm_db *, 3> rebuiltTables(const ObjectDatabase *db) {
  return {db->objInfoDb, db->nameInfoDb, db->valueInfoDb};
}

}  // namespace

uint32_t planRewrite() {
  size_t values = 0;
  for (RecencyIter object(ObjValCache); object() != nullptr; object++) {
    values += static_cast<size_t>(object()->values->size());
  }
  const int groupBits = std::min(static_cast<int>(std::bit_width(values / groupSize)), 20);
  plan = {};
  plan.groupShift = orderBits - groupBits;
  plan.groupEnds.resize(size_t{1} << groupBits);
  countValues();
  groupValues();
  const auto tables = rebuiltTables(runDb);
  std::transform(tables.begin(), tables.end(), plan.fileSizes.begin(), _NQ_dbm_db_size);
  return plan.overwritten;
}

uint32_t storePlanned(ObjectDatabase *db) {
  const auto tables = rebuiltTables(db);
  for (size_t i = 0; i < tables.size(); ++i) _NQ_dbm_db_expect(tables[i], plan.fileSizes[i]);
  uint32_t lost = 0;
  for (const CachedValue *item : plan.names) {
    if (putNameObject(db, *item->objectId, item->field->fieldId, nameOf(item)) < 0) ++lost;
  }
  // These two have all their records; their mapped files would take memory for nothing.
  _NQ_dbm_db_stop_buffering(db->objInfoDb);
  _NQ_dbm_db_stop_buffering(db->nameInfoDb);
  size_t start = 0;
  for (const size_t end : plan.groupEnds) {
    lost += storeGroup(db, start, end);
    start = end;
  }
  return lost;
}
