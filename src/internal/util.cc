#include "internal/util.h"

#include <algorithm>
#include <cstdlib>

#include "internal/loaders.h"
#include "internal/stored_values.h"
#include "platform/out_of_memory.h"
#include "platform/strings.h"
#include "records/field_codec.h"
#include "records/value_table.h"
#include "store/error_report.h"
#include "store/name_table.h"

namespace {

using CompareEntries = int (*)(const void *a, const void *b);

int compareNumbers(const void *a, const void *b) {
  const int32_t x = static_cast<const ValueListEntry *>(a)->value.number;
  const int32_t y = static_cast<const ValueListEntry *>(b)->value.number;
  return (x > y) - (x < y);
}

int compareStrings(const void *a, const void *b) {
  return strcmp_new(static_cast<const ValueListEntry *>(a)->value.string,
                    static_cast<const ValueListEntry *>(b)->value.string);
}

void sortEntries(ValueList *list, CompareEntries compare) {
  if (list->count > 1) qsort(list->entries, list->count, sizeof(ValueListEntry), compare);
}

bool isNameField(const NQwFieldInfo *info) {
  return (info->flags & nameFieldFlag) != 0;
}

// False when the common name field is defined and the object has no name under it.
bool objectExists(ObjectDatabase *db, uint32_t objectId) {
  for (const NQ_dbm_list *node = db->fieldList; node != nullptr; node = node->next) {
    const auto *info = static_cast<const NQwFieldInfo *>(node->item);
    if (info->fieldId == commonNameField && isNameField(info)) {
      return getObjectName(db, objectId, commonNameField) != nullptr;
    }
  }
  return true;
}

void loadName(ObjectDatabase *db, uint32_t objectId, uint32_t fieldId) {
  const char *name = getObjectName(db, objectId, fieldId);
  if (name != nullptr) enterOrRelease(objectId, fieldId, newFieldValue(String, name));
}

void loadValue(ObjectDatabase *db, uint32_t objectId, uint32_t fieldId) {
  NQwFieldValue *stored = getObjectFieldValue(db, objectId, fieldId);
  if (stored == nullptr) return;
  NQwFieldValue *copy = _NQwDbCopyFieldValue(stored);
  if (copy == nullptr) failForWantOfMemory();
  enterOrRelease(objectId, fieldId, copy);
  freeFieldValue(stored);
}

// Takes the values out of the fields' lists too, and the names out of their indexes: both would
// point at freed storage.
void evict(ObjCacheEntry *entry) {
  for (FieldValIter walk(entry->values); walk() != nullptr;) {
    CachedValue *item = walk();
    walk++;
    FieldCacheEntry *field = FieldInfoCache->find(item->field->fieldId);
    if (field == nullptr) continue;
    unlinkCachedValue(entry, field, item);
    freeCachedValue(item);
  }
  destroyCachedObject(entry);
}

}  // namespace

uint32_t fieldNameToId(const char *name) {
  const _HashItem *item = FieldNameCache->find(const_cast<char *>(name));
  _NQwError = item == nullptr ? NQw_FIELD_NOT_FOUND : NQw_NO_ERROR;
  return item == nullptr ? 0 : keyNumber(item->data());
}

NQwFieldInfo *getCachedFieldInfo(uint32_t fieldId) {
  const FieldCacheEntry *entry = FieldInfoCache->find(fieldId);
  if (entry == nullptr) {
    traceError(NQw_FIELD_NOT_FOUND);
    return nullptr;
  }
  _NQwError = NQw_NO_ERROR;
  return entry->info;
}

int fieldValuesMatch(NQwFieldValue *cached, NQwFieldValue *query) {
  if (cached->isList == 0 && (cached->type < Integer || cached->type > Enumeration)) {
    traceMessage("NQW_FIELD_INVALID_TYPE.");
    return 0;
  }
  // The types are compared first: a word must never be read as what the other value says it is.
  if (cached->type != query->type || (cached->isList != 0) != (query->isList != 0)) return 0;
  if (cached->isList != 0) return listContains(cached, query);
  if (cached->type != String) return cached->value.number == query->value.number;
  return cached->value.string != nullptr &&
         strcoll_new(cached->value.string, query->value.string) == 0;
}

int listContains(NQwFieldValue *cached, NQwFieldValue *query) {
  if (cached->type != query->type) return 0;
  if (cached->type != Integer && cached->type != String) return 0;
  ValueList *have = cached->value.list;
  ValueList *want = query->value.list;
  if (want->count > have->count) return 0;
  // By bytes and not by collation, as the platform compares the entries of lists.
  const bool strings = cached->type == String;
  const CompareEntries compare = strings ? compareStrings : compareNumbers;
  sortEntries(have, compare);
  sortEntries(want, compare);
  // Both are sorted: the search for one element begins where the one before it was found.
  const ValueListEntry *place = have->entries;
  const ValueListEntry *end = have->entries + have->count;
  for (uint32_t i = 0; i < want->count; ++i) {
    if (strings && want->entries[i].value.string == nullptr) return 0;
    place = std::find_if(place, end, [&](const ValueListEntry &entry) {
      return compare(&entry, &want->entries[i]) == 0;
    });
    if (place == end) return 0;
  }
  return 1;
}

int ensureObjectCached(ObjectDatabase *db, uint32_t objectId) {
  if (cache_overflow != 0 && ObjValCache->find(objectId) == nullptr) {
    return cacheObjectFromTables(db, objectId);
  }
  _NQwError = NQw_NO_ERROR;
  return 1;
}

int cacheObjectFromTables(ObjectDatabase *db, uint32_t objectId) {
  // Loaded first: the object becomes the newest, so that room is not made by dropping itself.
  if (loadObjectFromTables(db, objectId) == 0) return 0;
  ObjCacheEntry *oldest = ObjValCache->oldest();
  if (static_cast<uint32_t>(ObjValCache->size()) <= max_objects_cached || oldest == nullptr ||
      *oldest->objectId == objectId) {
    return 1;
  }
  evict(oldest);
  return 1;
}

int loadObjectFromTables(ObjectDatabase *db, uint32_t objectId) {
  // Asked before anything is entered, so that a failure leaves the cache as it is.
  if (!objectExists(db, objectId)) {
    _NQwError = NQw_OBJECT_NOT_FOUND;
    return 0;
  }
  const NQ_dbm_list *node = db->fieldList;
  for (int32_t i = 0; i < db->fieldCount; ++i, node = node->next) {
    if (node == nullptr) {
      traceMessage("ptr = null in file %s\ni = %d, while fcache_cnt = %d", "internal/util", i,
                   db->fieldCount);
      break;
    }
    const auto *info = static_cast<const NQwFieldInfo *>(node->item);
    if (isNameField(info)) {
      loadName(db, objectId, info->fieldId);
    } else {
      loadValue(db, objectId, info->fieldId);
    }
  }
  _NQwError = NQw_NO_ERROR;
  return 1;
}
