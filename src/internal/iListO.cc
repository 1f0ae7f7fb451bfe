#include "internal/iListO.h"

#include "internal/caches.h"
#include "internal/object_ids.h"
#include "internal/util.h"
#include "internal/value_search.h"
#include "store/error_report.h"
#include "store/shared_database.h"

namespace {

// Brackets a query by bulk access to the current database, which is null when it cannot be opened.
class BulkAccess {
 public:
  BulkAccess() : db_(nqwDbGetDb(0)) {
    if (db_ == nullptr) {
      logDatabaseNotOpen();
    } else {
      startBuffering(db_);
    }
  }
  ~BulkAccess() {
    if (db_ != nullptr) stopBuffering(db_);
  }
  BulkAccess(const BulkAccess &) = delete;
  BulkAccess &operator=(const BulkAccess &) = delete;

  ObjectDatabase *get() const { return db_; }

 private:
  ObjectDatabase *db_;
};

// NQw_NO_ERROR, or what is wrong with the binding.
int bindingError(const FieldCacheEntry *field, const NQwFieldBinding &binding) {
  if (field == nullptr) return NQw_FIELD_NOT_FOUND;
  return field->info->type == binding.value->type ? NQw_NO_ERROR : NQw_FIELD_TYPE_MISMATCH;
}

// The objects of the values in one field's list that match, in its order. An object that has two
// such values is named once for each.
NQwObjectIdList *objectsOfField(const NQwFieldBinding &binding, bool firstOnly) {
  const FieldCacheEntry *field = FieldInfoCache->find(binding.fieldId);
  _NQwError = bindingError(field, binding);
  if (_NQwError != NQw_NO_ERROR) return nullptr;
  NQwObjectIdList *list = newObjectIdList(static_cast<size_t>(field->values->size()));
  for (FieldValIter item(field->values); item() != nullptr; item++) {
    if (fieldValuesMatch(item()->value, binding.value) == 0) continue;
    list->objectIds[list->count++] = *item()->objectId;
    if (firstOnly && field->valueIndex != nullptr) break;
  }
  return list;
}

// Both the object's values and the bindings ascend by field id.
bool satisfies(const ObjCacheEntry *object, const NQwFieldBindList *bindings) {
  int32_t next = 0;
  for (FieldValIter item(object->values); item() != nullptr; item++) {
    const NQwFieldBinding &binding = bindings->bindings[next];
    const uint32_t fieldId = item()->field->fieldId;
    if (fieldId > binding.fieldId) return false;
    if (fieldId < binding.fieldId) continue;
    if (fieldValuesMatch(item()->value, binding.value) == 0) return false;
    if (++next == bindings->count) return true;
  }
  return false;
}

}  // namespace

NQwObjectIdList *listObjects(NQwFieldBindList *bindings) {
  const BulkAccess database;
  if (database.get() == nullptr) return nullptr;
  if (bindings == nullptr) return allObjectIds();
  return cache_overflow == 0 ? objectsMatchingBindings(bindings)
                             : findObjectsWithValues(database.get(), bindings);
}

NQwObjectIdList *objectsWithFieldValue(const NQwFieldBinding *binding) {
  const BulkAccess database;
  if (database.get() == nullptr) return nullptr;
  if (binding == nullptr) return allObjectIds();
  return cache_overflow == 0 ? objectsOfField(*binding, true)
                             : findObjectsWithValue(database.get(), binding);
}

NQwObjectIdList *objectsMatchingBindings(NQwFieldBindList *bindings) {
  if (bindings->count == 1) return objectsOfField(bindings->bindings[0], false);
  _NQwSortFieldBindList(bindings);
  int hasNameField = 0;
  if (checkBindings(bindings, &hasNameField) == 0) return nullptr;
  _NQwError = NQw_NO_ERROR;
  if (bindings->count == 0) return newObjectIdList(0);
  NQwObjectIdList *list = newObjectIdList(static_cast<size_t>(ObjValCache->size()));
  for (RecencyIter object(ObjValCache); object() != nullptr; object++) {
    if (!satisfies(object(), bindings)) continue;
    list->objectIds[list->count++] = *object()->objectId;
    if (hasNameField != 0) break;
  }
  return list;
}

int checkBindings(const NQwFieldBindList *bindings, int *hasNameField) {
  *hasNameField = 0;
  for (int32_t i = 0; i < bindings->count; ++i) {
    const FieldCacheEntry *field = FieldInfoCache->find(bindings->bindings[i].fieldId);
    _NQwError = bindingError(field, bindings->bindings[i]);
    if (_NQwError == NQw_FIELD_NOT_FOUND) traceMessage("NQw_FIELD_NOF_FOUND");
    if (_NQwError == NQw_FIELD_TYPE_MISMATCH) traceMessage("NQw_FIELD_TYPE_MISMATCH");
    if (_NQwError != NQw_NO_ERROR) return 0;
    if (field->valueIndex != nullptr) *hasNameField = 1;
  }
  return 1;
}
