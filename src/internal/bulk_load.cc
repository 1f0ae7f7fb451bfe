#include "internal/bulk_load.h"

#include <algorithm>
#include <unordered_set>
#include <utility>
#include <vector>

#include "internal/object_walk.h"

namespace {

// A value and its place in the list: it follows all values with a smaller place, and those with the
// same place that came before it.
struct Placed {
  uint32_t place;
  CachedValue *value;
};

void sortByPlace(std::vector<Placed> &values) {
  const auto isBefore = [](const Placed &a, const Placed &b) { return a.place < b.place; };
  std::stable_sort(values.begin(), values.end(), isBefore);
}

bool hasSecondValues(const std::vector<Placed> &sorted) {
  return std::adjacent_find(sorted.begin(), sorted.end(), [](const Placed &a, const Placed &b) {
           return a.place == b.place;
         }) != sorted.end();
}

// As insertByFieldId does one by one: a field's first value stands where its id belongs, and a
// second one at the end of the list as it was when that value came. So its place is after the
// highest field until then, and before every higher one that came later.
void placeSecondValues(const std::vector<CachedValue *> &asTheyCame, std::vector<Placed> &values) {
  std::unordered_set<uint32_t> seen;
  uint32_t highest = 0;
  values.clear();
  for (CachedValue *value : asTheyCame) {
    const uint32_t fieldId = value->field->fieldId;
    const bool isFirst = seen.insert(fieldId).second;
    if (isFirst) highest = std::max(highest, fieldId);
    values.push_back({isFirst ? fieldId : highest, value});
  }
  sortByPlace(values);
}

void order(FieldValList *list, std::vector<CachedValue *> &asTheyCame) {
  static std::vector<Placed> values;  // static: its room serves the next of a million objects
  values.clear();
  bool ascends = true;
  for (CachedValue *value : asTheyCame) {
    const uint32_t fieldId = value->field->fieldId;
    ascends = ascends && (values.empty() || fieldId > values.back().place);
    values.push_back({fieldId, value});
  }
  if (ascends) return;
  sortByPlace(values);
  if (hasSecondValues(values)) placeSecondValues(asTheyCame, values);
  std::transform(values.begin(), values.end(), asTheyCame.begin(),
                 [](const Placed &placed) { return placed.value; });
  list->reorder(asTheyCame);
}

}  // namespace

void BulkLoad::add(uint32_t objectId, uint32_t fieldId, CachedValue *item) {
  ObjValCache->announce(objectId);
  FieldInfoCache->announce(fieldId);
  Waiting &next = waiting_[added_ % waiting_.size()];
  enter(next);
  next = {objectId, fieldId, item, nullptr, nullptr, true};
  ++added_;
  Waiting &second = before(distance);
  if (second.isWaiting) {
    second.object = ObjValCache->look(second.objectId);
    second.field = FieldInfoCache->find(second.fieldId);
  }
  if (second.object != nullptr) __builtin_prefetch(second.object, 1);
  if (second.field != nullptr) __builtin_prefetch(second.field->values, 1);
  const Waiting &third = before(2 * distance);
  if (third.object != nullptr) ObjTable::announceChange(third.object);
}

void BulkLoad::enter(Waiting &waiting) {
  if (!std::exchange(waiting.isWaiting, false)) return;
  ObjCacheEntry *object = waiting.object;
  if (object != nullptr) {
    ObjValCache->promote(object);
  } else {
    // Unknown when it was looked up, but an earlier value may have made it meanwhile.
    object = ObjValCache->find(waiting.objectId);
    if (object == nullptr) object = newStoredObject(waiting.objectId);
  }
  CachedValue *item = waiting.item;
  if (item == nullptr) return;
  FieldCacheEntry *field = waiting.field;
  if (field == nullptr) field = FieldInfoCache->find(waiting.fieldId);  // the last few, at the end
  if (field == nullptr) {
    leftOut_->push_back(waiting.objectId);
    return;
  }
  item->field = field->info;
  appendStoredValue(object, item);
  field->values->insert(item);
  const char *name = field->valueIndex == nullptr ? nullptr : singleString(item->value);
  if (name != nullptr) field->valueIndex->insert(const_cast<char *>(name), object->objectId);
}

void BulkLoad::finish() {
  for (size_t i = 0; i < waiting_.size(); ++i) enter(waiting_[added_++ % waiting_.size()]);
  forEachObject(ObjValCache, [](ObjCacheEntry *object, std::vector<CachedValue *> &values) {
    order(object->values, values);
  });
}
