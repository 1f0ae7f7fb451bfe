#include "maint/rewrite_plan.h"

#include <algorithm>
#include <vector>

#include "internal/caches.h"
#include "records/value_table.h"
#include "store/name_table.h"

namespace {

// A name field's value goes to the name tables only if it is a name; anything else goes back to
// where it was read from.
const char *nameOf(const CachedValue *item) {
  return (item->field->flags & nameFieldFlag) != 0 ? singleString(item->value) : nullptr;
}

// Whether an earlier value of the object goes to the same key, which then keeps only the later one.
bool overwrites(const ObjCacheEntry *object, const CachedValue *item) {
  for (FieldValIter earlier(object->values); earlier() != item; earlier++) {
    if (earlier()->field == item->field &&
        (nameOf(earlier()) != nullptr) == (nameOf(item) != nullptr)) {
      return true;
    }
  }
  return false;
}

struct PlannedValue {
  uint32_t order;
  const CachedValue *item;
};

struct Plan {
  std::vector<const CachedValue *> names;  // newest object first, in the order of its list
  std::vector<PlannedValue> values;        // in the cheapest order; of one key the later is behind
  uint32_t overwritten = 0;                // by a later value of the object
};
Plan plan;

void planObject(const ObjCacheEntry *object) {
  uint32_t highestField = 0;
  for (FieldValIter item(object->values); item() != nullptr; item++) {
    // Values ascend by field; only one that does not can share its field with an earlier one.
    const uint32_t fieldId = item()->field->fieldId;
    if (fieldId <= highestField && overwrites(object, item())) ++plan.overwritten;
    highestField = std::max(highestField, fieldId);
    if (nameOf(item()) != nullptr) {
      plan.names.push_back(item());
    } else {
      TableKey key;
      makeValueKey(&key, *object->objectId, fieldId);
      plan.values.push_back({_NQ_dbm_db_order(key.bytes, key.length), item()});
    }
  }
}

}  // namespace

void planRewrite() {
  size_t values = 0;
  for (RecencyIter object(ObjValCache); object() != nullptr; object++) {
    values += static_cast<size_t>(object()->values->size());
  }
  plan = {};
  plan.values.reserve(values);
  for (RecencyIter object(ObjValCache); object() != nullptr; object++) planObject(object());
  std::stable_sort(plan.values.begin(), plan.values.end(),
                   [](const PlannedValue &a, const PlannedValue &b) { return a.order < b.order; });
}

uint32_t storePlanned(ObjectDatabase *db) {
  uint32_t lost = plan.overwritten;
  for (const CachedValue *item : plan.names) {
    if (putNameObject(db, *item->objectId, item->field->fieldId, nameOf(item)) < 0) ++lost;
  }
  // The order is none that the memory knows: what comes next is fetched ahead.
  constexpr size_t ahead = 16;
  const size_t count = plan.values.size();
  for (size_t i = 0; i < count; ++i) {
    if (i + ahead < count) __builtin_prefetch(plan.values[i + ahead].item);
    if (i + ahead / 2 < count) __builtin_prefetch(plan.values[i + ahead / 2].item->value);
    const CachedValue *item = plan.values[i].item;
    if (putValueObject(db, *item->objectId, item->field->fieldId, item->value) < 0) ++lost;
  }
  return lost;
}
