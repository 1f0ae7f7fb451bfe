#include "internal/value_search.h"

#include <cstdlib>
#include <memory>
#include <unordered_set>

#include "internal/iGetFV.h"
#include "internal/iNameToOID.h"
#include "internal/object_ids.h"
#include "internal/util.h"
#include "platform/report.h"
#include "records/field_codec.h"
#include "records/value_table.h"

namespace {

struct FreeInfo {
  void operator()(NQwFieldInfo *info) const { freeFieldInfo(info); }
};
using FieldInfo = std::unique_ptr<NQwFieldInfo, FreeInfo>;

// The field's definition, if the binding's value is of its type.
FieldInfo definitionFor(ObjectDatabase *db, const NQwFieldBinding *binding) {
  FieldInfo info(getTableFieldInfo(db, binding->fieldId));
  if (info != nullptr && info->type != binding->value->type) {
    _NQwError = NQw_FIELD_TYPE_MISMATCH;
    info.reset();
  }
  return info;
}

NQwObjectIdList *objectNamed(const NQwFieldBinding *binding) {
  const char *name = singleString(binding->value);
  const uint32_t objectId = name == nullptr ? 0 : nameToObjectId(binding->fieldId, name);
  if (objectId == 0) {
    _NQwError = NQw_FIELD_VALUE_NULL;
    return newObjectIdList(0);
  }
  NQwObjectIdList *result = newObjectIdList(1);
  result->objectIds[result->count++] = objectId;
  _NQwError = NQw_NO_ERROR;
  return result;
}

// The cache goes before the table: with it no record has to be read and decoded.
bool objectHasValue(ObjectDatabase *db, uint32_t objectId, const NQwFieldBinding *binding) {
  NQwFieldValue *cached = getCachedFieldValue(objectId, binding->fieldId);
  if (cached != nullptr) return fieldValuesMatch(cached, binding->value) != 0;
  NQwFieldValue *stored = getObjectFieldValue(db, objectId, binding->fieldId);
  if (stored == nullptr) return false;
  const bool matches = fieldValuesMatch(stored, binding->value) != 0;
  freeFieldValue(stored);
  return matches;
}

NQwObjectIdList *search(ObjectDatabase *db, const NQwObjectIdList *candidates,
                        const NQwFieldInfo *info, const NQwFieldBinding *binding) {
  if ((info->flags & nameFieldFlag) != 0) return objectNamed(binding);
  NQwObjectIdList *result = newObjectIdList(static_cast<size_t>(candidates->count));
  for (int32_t i = 0; i < candidates->count; ++i) {
    const uint32_t objectId = candidates->objectIds[i];
    if (objectHasValue(db, objectId, binding)) result->objectIds[result->count++] = objectId;
  }
  return result;
}

// In the order of the first list.
ObjectIds intersection(const NQwObjectIdList *ordered, const NQwObjectIdList *other) {
  const std::unordered_set<uint32_t> both(other->objectIds, other->objectIds + other->count);
  ObjectIds result(newObjectIdList(static_cast<size_t>(ordered->count)));
  for (int32_t i = 0; i < ordered->count; ++i) {
    const uint32_t objectId = ordered->objectIds[i];
    if (both.contains(objectId)) result->objectIds[result->count++] = objectId;
  }
  return result;
}

}  // namespace

NQwFieldInfo *getTableFieldInfo(ObjectDatabase *db, uint32_t fieldId) {
  auto *record =
      static_cast<dbFieldInfo *>(_NQ_dbm_db_get(db->fieldInfoDb, &fieldId, sizeof fieldId));
  _NQwError = record == nullptr ? NQw_FIELD_NOT_FOUND : NQw_NO_ERROR;
  if (record == nullptr) return nullptr;
  NQwFieldInfo *info = record->fieldInfo;
  free(record);
  return info;
}

NQwObjectIdList *findObjectsWithValue(ObjectDatabase *db, const NQwFieldBinding *binding) {
  const FieldInfo info = definitionFor(db, binding);
  if (info == nullptr) return nullptr;
  ObjectIds candidates(allObjectIds());
  if (candidates == nullptr || candidates->count == 0) return candidates.release();
  return search(db, candidates.get(), info.get(), binding);
}

NQwObjectIdList *findObjectsWithValueIn(ObjectDatabase *db, const NQwObjectIdList *candidates,
                                        const NQwFieldBinding *binding) {
  const FieldInfo info = definitionFor(db, binding);
  return info == nullptr ? nullptr : search(db, candidates, info.get(), binding);
}

NQwObjectIdList *findObjectsWithValues(ObjectDatabase *db, const NQwFieldBindList *bindings) {
  ObjectIds candidates(allObjectIds());
  if (candidates == nullptr) return nullptr;
  if (bindings == nullptr) {
    _NQwError = NQw_NO_ERROR;
    return candidates.release();
  }
  if (bindings->count == 1) {
    return findObjectsWithValueIn(db, candidates.get(), &bindings->bindings[0]);
  }
  // Each binding is asked of all candidates, also after one that matches nothing: a field that is
  // not defined is an error wherever it stands.
  ObjectIds running;
  for (int32_t i = 0; i < bindings->count; ++i) {
    ObjectIds matches(findObjectsWithValueIn(db, candidates.get(), &bindings->bindings[i]));
    if (matches == nullptr) return nullptr;
    running = running == nullptr ? std::move(matches) : intersection(running.get(), matches.get());
  }
  _NQwError = NQw_NO_ERROR;
  return running == nullptr ? newObjectIdList(0) : running.release();
}
