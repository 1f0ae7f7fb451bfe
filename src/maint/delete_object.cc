#include "maint/delete_object.h"

#include <set>
#include <string>
#include <vector>

#include "internal/iGetFV.h"
#include "internal/loaders.h"
#include "internal/stored_values.h"
#include "records/codecs.h"
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
    // First from the caches, then from the tables: after a failure the caller is told, and the
    // object keeps the values that have not been visited.
    unlinkCachedValue(entry, field, item);
    freeCachedValue(item);
    const int deleted = deleteStoredValue(objectId, fieldId, flags, db);
    if (deleted == 0) return 0;
  }
  destroyCachedObject(entry);
  return 1;
}

int deleteStoredValue(uint32_t objectId, uint32_t fieldId, uint32_t flags, ObjectDatabase *db) {
  const bool isNameField = (flags & nameFieldFlag) != 0;
  // The stored name and not the cached one: under its key the entry of name_info lies. That no name
  // could be read does not mean that there is none.
  const char *name = isNameField ? getObjectName(db, objectId, fieldId) : nullptr;
  if (isNameField && name == nullptr && _NQ_dbm_db_look_failed(db->objInfoDb)) {
    return failDeletion("Database");
  }
  // A name field's value that is no name (a number, a list) stands in value_info like any other.
  const int deleted = name != nullptr ? delNameObject(db, objectId, fieldId, name)
                                      : delValueObject(db, objectId, fieldId);
  return deleted != 0 ? 1 : failDeletion("Database");
}

namespace {

// A name of an object that is about to be deleted, and to which object it leads.
struct Name {
  uint32_t fieldId;
  std::string text;
  uint32_t leadsTo;
};

std::vector<Name> namesOf(const ObjCacheEntry *object, ObjectDatabase *db) {
  std::vector<Name> names;
  for (FieldValIter item(object->values); item() != nullptr; item++) {
    const NQwFieldInfo *field = item()->field;
    const char *text = singleString(item()->value);
    if ((field->flags & nameFieldFlag) == 0 || text == nullptr) continue;
    names.push_back({field->fieldId, text, getNameObjectId(db, field->fieldId, text)});
  }
  return names;
}

// Whether obj_info has the value as the name of its object: a string under a name field that stands
// in value_info is no name.
bool bears(const CachedValue *item, const Name &name, ObjectDatabase *db) {
  const char *text = singleString(item->value);
  if (text == nullptr || name.text != text) return false;
  const char *stored = getObjectName(db, *item->objectId, name.fieldId);
  return stored != nullptr && name.text == stored;
}

// Finds the object that the name is to lead to; null when none bears it any more. False when the
// library fails, which does not mean that nobody does.
bool findNewBearer(const Name &name, ObjectDatabase *db, const uint32_t **bearer) {
  std::set<const uint32_t *> bearers;
  *bearer = nullptr;
  const FieldCacheEntry *field = FieldInfoCache->find(name.fieldId);
  for (FieldValIter item(field->values); item() != nullptr; item++) {
    if (bears(item(), name, db)) {
      bearers.insert(item()->objectId);
      if (*item()->objectId == name.leadsTo) *bearer = item()->objectId;
    } else if (_NQ_dbm_db_look_failed(db->objInfoDb)) {
      return false;
    }
  }
  if (*bearer != nullptr || bearers.empty()) return true;
  for (RecencyIter object(ObjValCache); object() != nullptr; object++) {
    if (bearers.contains(object()->objectId)) *bearer = object()->objectId;  // the oldest is last
  }
  return true;
}

bool enterAgain(const Name &name, ObjectDatabase *db) {
  const uint32_t *bearer = nullptr;
  if (!findNewBearer(name, db, &bearer)) return false;
  if (bearer == nullptr) return true;
  const dbObject *record = getObjectNameRecord(db, *bearer, name.fieldId);
  return record != nullptr && enterName(db, record) == 0;
}

// Deletes every record under a key of the object and any field: one that the load could not read is
// in no cache and would be left over.
bool deleteByKeys(uint32_t objectId, ObjectDatabase *db) {
  for (_HashIter each(FieldInfoCache); each() != nullptr; each++) {
    const NQwFieldInfo *field = static_cast<const FieldCacheEntry *>(each()->data())->info;
    const uint32_t id = field->fieldId;
    if (deleteStoredValue(objectId, id, field->flags, db) == 0) return false;
    const bool mayHaveName = (field->flags & nameFieldFlag) != 0;
    if (mayHaveName && delUnreadableName(db, objectId, id) == 0) return false;
  }
  return true;
}

}  // namespace

int deleteObjectInPlace(uint32_t objectId) {
  ObjectDatabase *db = nqwDbGetDb(0);  // which is the run's own, and open
  const ObjCacheEntry *object = ObjValCache->find(objectId);
  // Noted before the deletion, which takes them out of name_info.
  std::vector<Name> names;
  if (object != nullptr) names = namesOf(object, db);
  if (loadLosses.unreadable != 0 && !deleteByKeys(objectId, db)) return -1;
  if (_nqwDbDeleteObject(objectId) != 0) return -1;
  for (const Name &name : names) {
    if (!enterAgain(name, db)) return -1;
  }
  return 0;
}
