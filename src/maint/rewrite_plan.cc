#include "maint/rewrite_plan.h"

#include <algorithm>
#include <array>
#include <bit>
#include <memory>
#include <new>
#include <set>
#include <utility>
#include <vector>

#include "internal/object_walk.h"
#include "maint/proof.h"
#include "maint/run.h"
#include "platform/arena.h"
#include "records/value_table.h"
#include "store/name_table.h"

namespace {

// A name field's value goes to the name tables only if it is a name; anything else goes back to
// where it was read from.
const char *nameOf(const CachedValue *item) {
  return (item->field->flags & nameFieldFlag) != 0 ? singleString(item->value) : nullptr;
}

// Values whose places in the table follow each other are stored one after the other, which is
// cheapest. They are planned in groups by the upper bits of that order, each a chain of blocks, and
// a group is sorted when its turn comes: until then a value takes little more than a pointer.
struct Block {
  Block *older;
  std::array<const CachedValue *, 15> values;
};

struct Group {
  Block *newest = nullptr;
  uint32_t count = 0;  // of its values; only the newest block may have room left
};

using Values = std::vector<const CachedValue *>;

struct Plan {
  Values names;  // newest object first, in the order of its list
  std::vector<Group> groups;
  int groupShift = 0;  // from an order to its group
  std::unique_ptr<Arena> blocks;
  std::array<Values, 3> next;                       // the groups that are stored next
  std::vector<std::pair<uint32_t, size_t>> sorted;  // order and place of each value of one
  std::array<uint64_t, tableCount> fileSizes{};     // of the rebuilt tables as they were
  uint32_t overwritten = 0;                         // by a later value of the object
};
Plan plan;

constexpr int orderBits = 31;
constexpr size_t groupSize = 64;  // about; three groups fit into the nearest cache

uint32_t orderOf(const CachedValue *item) {
  TableKey key;
  makeValueKey(&key, *item->objectId, item->field->fieldId);
  return _NQ_dbm_db_order(key.bytes, key.length);
}

void addToGroup(const CachedValue *item) {
  Group &group = plan.groups[orderOf(item) >> plan.groupShift];
  const size_t place = group.count++ % Block().values.size();
  if (place == 0) group.newest = new (plan.blocks->take(sizeof(Block))) Block{group.newest, {}};
  group.newest->values[place] = item;
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

void addObject(const std::vector<CachedValue *> &values) {
  constexpr size_t ahead = 8;  // an object of many fields has definitions all over the memory
  plan.overwritten += countOverwritten(values);
  for (size_t i = 0; i < values.size(); ++i) {
    if (i + ahead < values.size()) __builtin_prefetch(values[i + ahead]->field);
    if (nameOf(values[i]) != nullptr) {
      plan.names.push_back(values[i]);
    } else {
      addToGroup(values[i]);
    }
  }
}

// Storing must not take memory any more.
void reserveForStoring() {
  size_t largest = 0;
  for (const Group &group : plan.groups) largest = std::max<size_t>(largest, group.count);
  for (Values &values : plan.next) values.reserve(largest);
  plan.sorted.reserve(largest);
}

// The order is random in memory, so that a group's values are fetched two groups ahead, and what
// they point at one group ahead.
void fetchValues(const Group &group, Values &values) {
  values.resize(group.count);
  size_t place = group.count;
  for (const Block *block = group.newest; block != nullptr; block = block->older) {
    do {
      const CachedValue *item = block->values[--place % block->values.size()];
      values[place] = item;
      __builtin_prefetch(item);
      __builtin_prefetch(reinterpret_cast<const char *>(item) - sizeof(NQwFieldValue));
    } while (place % block->values.size() != 0);
  }
}

void fetchParts(const Values &values) {
  for (const CachedValue *item : values) {
    __builtin_prefetch(item->objectId);
    const char *text = singleString(item->value);
    if (text != nullptr) __builtin_prefetch(text);
  }
}

// Of two values with one key the later has the higher place, is stored last, and stays. Returns how
// many stores fail.
uint32_t storeValues(ObjectDatabase *db, const Values &values) {
  plan.sorted.clear();
  for (size_t i = 0; i < values.size(); ++i) plan.sorted.emplace_back(orderOf(values[i]), i);
  std::sort(plan.sorted.begin(), plan.sorted.end());
  uint32_t failed = 0;
  for (const auto &[order, place] : plan.sorted) {
    const CachedValue *item = values[place];
    if (putValueObject(db, *item->objectId, item->field->fieldId, item->value) < 0) ++failed;
  }
  return failed;
}

}  // namespace

uint32_t planRewrite() {
  size_t values = 0;
  for (RecencyIter object(ObjValCache); object() != nullptr; object++) {
    values += static_cast<size_t>(object()->values->size());
  }
  const int groupBits = std::min(static_cast<int>(std::bit_width(values / groupSize)), 20);
  plan = {};
  plan.blocks = std::make_unique<Arena>();
  plan.groupShift = orderBits - groupBits;
  plan.groups.resize((size_t{1} << groupBits) + 2);  // two without values push the last ones out
  forEachObject(ObjValCache,
                [](ObjCacheEntry *, const std::vector<CachedValue *> &all) { addObject(all); });
  reserveForStoring();
  for (const size_t table : rebuiltTables) {
    plan.fileSizes[table] = _NQ_dbm_db_size(tableOf(runDb, table));
  }
  return plan.overwritten;
}

uint32_t storePlanned(ObjectDatabase *db) {
  for (const size_t table : rebuiltTables) {
    _NQ_dbm_db_expect(tableOf(db, table), plan.fileSizes[table]);
  }
  uint32_t lost = 0;
  for (const CachedValue *item : plan.names) {
    if (putNameObject(db, *item->objectId, item->field->fieldId, nameOf(item)) < 0) ++lost;
  }
  // These two have all their records; their mapped files would take memory for nothing.
  _NQ_dbm_db_stop_buffering(db->objInfoDb);
  _NQ_dbm_db_stop_buffering(db->nameInfoDb);
  for (size_t step = 0; step < plan.groups.size(); ++step) {
    auto &[newest, between, oldest] = plan.next;
    std::swap(oldest, between);
    std::swap(between, newest);
    fetchValues(plan.groups[step], newest);
    fetchParts(between);
    lost += storeValues(db, oldest);
    // The places of the first half of the order are parts of the file that nothing else goes to.
    if (step == plan.groups.size() / 2) _NQ_dbm_db_release_pages(db->valueInfoDb);
  }
  return lost;
}
