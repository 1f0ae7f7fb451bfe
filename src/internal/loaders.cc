#include "internal/loaders.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <string_view>
#include <utility>

#include "internal/bulk_load.h"
#include "internal/scan.h"
#include "internal/stored_values.h"
#include "platform/out_of_memory.h"
#include "platform/strings.h"
#include "records/codecs.h"
#include "records/field_codec.h"
#include "records/record_views.h"

LoadLosses loadLosses;

namespace {

// The sizes and factors are the platform's own. Our tables grow, and take the first number alone
// (platform/hash.h).
constexpr uint32_t smallIndex = 200;
constexpr float growthFactor = 0.333f;

bool isCachedObject(uint32_t objectId) {
  return ObjValCache->isIn(objectId) != 0;
}

// With a limit, an object is admitted with its first name, and with it all its further names and
// values. The first object too many makes the cache incomplete.
bool isWithinLimit(uint32_t objectId) {
  if (isCachedObject(objectId)) return true;
  if (objcount >= max_objects_cached) {
    cache_overflow = 1;
    return false;
  }
  ++objcount;
  return true;
}

// Notes right after each decoding whether the decoder dropped anything of the record. Not for a
// value under an unknown field: that is counted when it is not entered, and must not count twice.
class LossWatch {
 public:
  void look(uint32_t objectId, uint32_t fieldId) {
    const uint32_t before = std::exchange(seen_, losses());
    if (seen_ != before && FieldInfoCache->find(fieldId) != nullptr) {
      loadLosses.leftOut.push_back(objectId);
    }
  }

 private:
  static uint32_t losses() { return cutStrings + recordsWithRest; }

  uint32_t seen_ = losses();
};

// Adds a single value that was read in place.
void addView(BulkLoad *load, const RecordView &view) {
  load->add(view.objectId, view.fieldId,
            view.hasText ? storeText(ObjValCache, view.text) : storeValue(ObjValCache, view.value));
}

void loadNamesWithinLimit(ObjectDatabase *db) {
  LossWatch losses;
  loadLosses.unreadable += forEachRecord<dbObject>(db->objInfoDb, [&](const dbObject *record) {
    losses.look(record->objectId, record->fieldId);
    if (!isWithinLimit(record->objectId)) return;
    enterOrRelease(record->objectId, record->fieldId, newFieldValue(String, record->name));
  });
}

// Through addObjectValue and not through a bulk load: a value that may be evicted later has to come
// from malloc, since the table's storage only goes as a whole.
void loadValuesWithinLimit(ObjectDatabase *db) {
  LossWatch losses;
  loadLosses.unreadable +=
      forEachRecord<dbObjectValue>(db->valueInfoDb, [&](dbObjectValue *record) {
        losses.look(record->objectId, record->fieldId);
        if (isCachedObject(record->objectId)) {
          enterOrRelease(record->objectId, record->fieldId, record->value);
        } else {
          NQwDbFreeFieldValue(record->value);
        }
        free(record);
      });
}

// How many names a name field's index is made for: with a limit on the cached objects, the fields
// that name most of them get room from the start.
int indexSize(const char *fieldName) {
  uint32_t size = smallIndex;
  for (const char *name : {"IP Hostname", "IP Name", "IP Address"}) {
    if (strcmp_new(fieldName, name) == 0) size = max_objects_cached / 30;
  }
  for (const char *name : {"Selection Name", "IP Network Name"}) {
    if (strcmp_new(fieldName, name) == 0) size = max_objects_cached;
  }
  return static_cast<int>(std::max(size, smallIndex));
}

void enterField(FieldCacheEntry *entry) {
  NQwFieldInfo *info = entry->info;
  entry->valueIndex = (info->flags & nameFieldFlag) != 0
                          ? new FieldNameTbl(indexSize(info->name), 3, 3, growthFactor)
                          : nullptr;
  FieldInfoCache->insert(entry);
  if (info->name == nullptr) return;
  FieldNameCache->insert(info->name, wordKey(info->fieldId));
  if (strcoll_new(info->name, "NQW Maps Managed") == 0) mapsManagedFldId = info->fieldId;
  if (strcoll_new(info->name, "NQW Maps Exists") == 0) mapsExistsFldId = info->fieldId;
}

}  // namespace

int buildEnumTable(ObjectDatabase *db) {
  enumconstantstable = new _Hash(50, 3, 3, growthFactor);
  _NQ_dbm_db_start_buffering(db->enumInfoDb, db->bufferCount);
  loadLosses.unreadable +=
      forEachRecord<dbEnumConstants>(db->enumInfoDb, [](dbEnumConstants *record) {
        const _HashItem *earlier = enumconstantstable->find(wordKey(record->fieldId));
        if (earlier != nullptr) freeEnumConstants(static_cast<enumConstants *>(earlier->data()));
        enumconstantstable->insert(wordKey(record->fieldId), record->constants);
        free(record);
      });
  _NQ_dbm_db_stop_buffering(db->enumInfoDb);
  return 1;
}

int buildFieldInfoTable(ObjectDatabase *db) {
  FieldInfoCache = new FieldTable(200, 0, 3, growthFactor);
  FieldNameCache = new FieldNameTbl(200, 3, 3, growthFactor);
  SFieldInfoCache = new FieldTable(200, 0, 3, growthFactor);
  _NQ_dbm_db_start_buffering(db->fieldInfoDb, db->bufferCount);
  loadLosses.unreadable += forEachRecord<dbFieldInfo>(db->fieldInfoDb, [](dbFieldInfo *record) {
    const NQwFieldInfo &info = *record->fieldInfo;
    if (FieldInfoCache->find(info.fieldId) == nullptr) {
      enterField(newStoredField(FieldInfoCache, info));
    }
    freeDbFieldInfo(record);
  });
  _NQ_dbm_db_stop_buffering(db->fieldInfoDb);
  return 1;
}

int addFieldInfo(NQwFieldInfo *info) {
  if (FieldInfoCache->find(info->fieldId) != nullptr) {
    NQwDbFreeFieldInfo(info);
    return 1;
  }
  auto *entry = static_cast<FieldCacheEntry *>(allocateOrEnd(sizeof(FieldCacheEntry)));
  entry->info = info;
  entry->values = new FieldValList(&CachedValue::inField);
  enterField(entry);
  return 1;
}

int loadObjectNames(ObjectDatabase *db) {
  LossWatch losses;
  BulkLoad load(&loadLosses.leftOut);
  loadLosses.unreadable += forEachStored(db->objInfoDb, [&](std::string_view bytes) {
    RecordView view;
    if (viewDbObject(bytes, &view)) {
      addView(&load, view);
      return true;
    }
    const auto *record = static_cast<dbObject *>(_NQ_dbm_db_decode(db->objInfoDb, bytes));
    if (record == nullptr) return false;
    losses.look(record->objectId, record->fieldId);
    load.add(record->objectId, record->fieldId, storeText(ObjValCache, record->name));
    return true;
  });
  load.finish();
  _NQ_dbm_db_stop_buffering(db->objInfoDb);  // its mapped file would be in memory for nothing
  return 1;
}

int loadObjectValues(ObjectDatabase *db) {
  LossWatch losses;
  BulkLoad load(&loadLosses.leftOut);
  loadLosses.unreadable += forEachStored(db->valueInfoDb, [&](std::string_view bytes) {
    RecordView view;
    if (viewDbObjectValue(bytes, &view)) {
      addView(&load, view);
      return true;
    }
    auto *record = static_cast<dbObjectValue *>(_NQ_dbm_db_decode(db->valueInfoDb, bytes));
    if (record == nullptr) return false;
    losses.look(record->objectId, record->fieldId);
    load.add(record->objectId, record->fieldId, storeValue(ObjValCache, *record->value));
    freeDbObjectValue(record);
    return true;
  });
  load.finish();
  return 1;
}

// Both data formats decode to the same records.
int loadObjectValuesOld(ObjectDatabase *db) {
  return loadObjectValues(db);
}

int loadObjectsWithinLimit(ObjectDatabase *db) {
  loadNamesWithinLimit(db);
  loadValuesWithinLimit(db);
  return 1;
}

int addObjectValue(uint32_t objectId, uint32_t fieldId, NQwFieldValue *value) {
  ObjCacheEntry *object = ObjValCache->find(objectId);
  if (object == nullptr) object = newCachedObject(objectId);
  FieldCacheEntry *field = FieldInfoCache->find(fieldId);
  if (field == nullptr) return 0;

  auto *item = static_cast<CachedValue *>(allocateOrEnd(sizeof(CachedValue)));
  item->objectId = object->objectId;
  item->field = field->info;
  item->value = value;
  insertByFieldId(field->values, item);
  const char *name = singleString(value);
  if (field->valueIndex != nullptr && name != nullptr) {
    field->valueIndex->insert(const_cast<char *>(name), object->objectId);
  }
  insertByFieldId(object->values, item);
  return 1;
}

void enterOrRelease(uint32_t objectId, uint32_t fieldId, NQwFieldValue *value) {
  if (addObjectValue(objectId, fieldId, value) != 0) return;
  loadLosses.leftOut.push_back(objectId);
  NQwDbFreeFieldValue(value);
}

NQwFieldValue *newFieldValue(int32_t type, const void *data) {
  auto *value = static_cast<NQwFieldValue *>(allocateOrEnd(sizeof(NQwFieldValue)));
  value->type = type;
  switch (type) {
    case Integer:
    case Boolean:
    case Enumeration:
      memcpy(&value->value.number, data, sizeof value->value.number);
      break;
    case String: {
      const auto *text = static_cast<const char *>(data);
      value->value.string = static_cast<char *>(allocateOrEnd(strlen_new(text) + 1));
      strcpy_new(value->value.string, text);
      break;
    }
    default:
      break;
  }
  return value;
}

void insertByFieldId(FieldValList *list, CachedValue *item) {
  const uint32_t fieldId = item->field->fieldId;
  const CachedValue *passed = nullptr;
  FieldValIter walk(list);
  for (; walk() != nullptr && walk()->field->fieldId < fieldId; walk++) passed = walk();
  if (walk() == nullptr || walk()->field->fieldId == fieldId) {
    list->insert(item);
  } else {
    list->insert(item, passed, 1);  // in front where none was passed
  }
}
