#include "maint/delete_object.h"

#include <cstdlib>

#include "internal/iGetFV.h"
#include "internal/stored_values.h"
#include "records/value_table.h"
#include "store/error_report.h"
#include "store/name_table.h"
#include "store/shared_database.h"

namespace {

constexpr char source[] = "internal/iDeleteO";

int failDeletion(const char *what) {
  logMessage(severityDeletion, "%s failure in nqwDbDeleteObject.\nFile: %s\n", what, source);
  return 0;
}

}  // namespace

int _nqwDbDeleteObject(uint32_t objectId) {
  ObjCacheEntry *entry = ObjValCache->find(objectId);
  if (entry == nullptr) return 0;
  if (deleteObjectEntries(objectId, entry) == 0) return -1;
  _NQwError = NQw_NO_ERROR;
  return 0;
}

int deleteObjectEntries(uint32_t objectId, ObjCacheEntry *entry) {
  ObjectDatabase *db = nqwDbGetDb(0);
  if (db == nullptr) {
    logDatabaseNotOpen();
    return 0;
  }
  for (FieldValIter walk(entry->values); walk() != nullptr;) {
    CachedValue *item = walk();
    walk++;  // before the item goes, so that the walk stays on the list
    const uint32_t fieldId = item->field->fieldId;
    FieldCacheEntry *field = FieldInfoCache->find(fieldId);
    const uint32_t flags = field->info->flags;
    if ((flags & nameFieldFlag) != 0 && findObjectValue(objectId, fieldId) == nullptr) {
      return failDeletion("Cache");
    }
    unlinkCachedValue(entry, field, item);
    freeCachedValue(item);
    const int deleted = deleteStoredValue(objectId, fieldId, flags, db);
    if (deleted == 0) return 0;
  }
  destroyCachedObject(entry);
  return 1;
}

int deleteStoredValue(uint32_t objectId, uint32_t fieldId, uint32_t flags, ObjectDatabase *db) {
  const char *name = (flags & nameFieldFlag) != 0 ? getObjectName(db, objectId, fieldId) : nullptr;
  // A name field's value that is no name (a number, a list) stands in value_info like any other.
  const int deleted = name != nullptr ? delNameObject(db, objectId, fieldId, name)
                                      : delValueObject(db, objectId, fieldId);
  return deleted != 0 ? 1 : failDeletion("Database");
}
