#include "internal/iNameToOID.h"

#include "internal/caches.h"
#include "store/error_report.h"
#include "store/name_table.h"
#include "store/shared_database.h"

uint32_t nameToObjectId(uint32_t fieldId, const char *name) {
  // A null name has no key in the table; the index takes it, and says which error it is.
  if (cache_overflow == 0 || name == nullptr) return lookupNameInIndex(fieldId, name);
  ObjectDatabase *db = nqwDbGetDb(0);
  if (db == nullptr) {
    logDatabaseNotOpen();
    return 0;
  }
  const uint32_t objectId = getNameObjectId(db, fieldId, name);
  _NQwError = objectId == 0 ? NQw_OBJECT_NOT_FOUND : NQw_NO_ERROR;
  return objectId;
}

uint32_t lookupNameInIndex(uint32_t fieldId, const char *name) {
  const FieldCacheEntry *field = FieldInfoCache->find(fieldId);
  if (field == nullptr) {
    _NQwError = NQw_FIELD_NOT_FOUND;
    traceMessage("NQw_FIELD_NOT_FOUND\nFIle: %s\noid: %d", "internal/iNameToOID",
                 static_cast<int>(fieldId));
    return 0;
  }
  if (field->valueIndex == nullptr) {
    traceError(NQw_FIELD_INVALID_FLAG);
    return 0;
  }
  const _HashItem *item = field->valueIndex->find(const_cast<char *>(name));
  _NQwError = item == nullptr ? NQw_OBJECT_NOT_FOUND : NQw_NO_ERROR;
  return item == nullptr ? 0 : *static_cast<const uint32_t *>(item->data());
}
