#include "internal/iGetFV.h"

#include "store/error_report.h"

namespace {

constexpr char source[] = "internal/iGetFV";

CachedValue *firstValueOf(const ObjCacheEntry *object, uint32_t fieldId) {
  for (FieldValIter item(object->values); item() != nullptr; item++) {
    if (item()->field != nullptr && item()->field->fieldId == fieldId) return item();
  }
  return nullptr;
}

}  // namespace

CachedValue *findObjectValue(uint32_t objectId, uint32_t fieldId) {
  const ObjCacheEntry *object = ObjValCache->find(objectId);
  if (object == nullptr) {
    traceObjectNotFound(source, objectId);
    return nullptr;
  }
  CachedValue *item = firstValueOf(object, fieldId);
  _NQwError = item == nullptr ? NQw_FIELD_VALUE_NULL : NQw_NO_ERROR;
  return item;
}

NQwFieldValue *getCachedFieldValue(uint32_t objectId, uint32_t fieldId) {
  const ObjCacheEntry *object = ObjValCache->find(objectId);
  const CachedValue *item = object == nullptr ? nullptr : firstValueOf(object, fieldId);
  return item == nullptr ? nullptr : item->value;
}
