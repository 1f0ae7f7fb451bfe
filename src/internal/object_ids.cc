#include "internal/object_ids.h"

#include <cstdlib>

#include "internal/caches.h"
#include "internal/scan.h"
#include "internal/util.h"
#include "platform/out_of_memory.h"
#include "records/table_records.h"
#include "store/error_report.h"
#include "store/shared_database.h"

namespace {

NQwObjectIdList *idsFromTable() {
  ObjectDatabase *db = nqwDbGetDb(0);
  if (db == nullptr) {
    logDatabaseNotOpen();
    return nullptr;
  }
  NQwObjectIdList *list = newObjectIdList(0);
  forEachRecord<dbObject>(db->objInfoDb, [list](const dbObject *record) {
    if (record->fieldId == commonNameField) appendObjectId(list, record->objectId);
  });
  _NQwError = NQw_NO_ERROR;
  return list;
}

}  // namespace

NQwObjectIdList *newObjectIdList(size_t room) {
  auto *list = static_cast<NQwObjectIdList *>(allocateOrEnd(sizeof(NQwObjectIdList)));
  if (room > 0) list->objectIds = static_cast<uint32_t *>(allocateOrEnd(room * sizeof(uint32_t)));
  return list;
}

void appendObjectId(NQwObjectIdList *list, uint32_t objectId) {
  // A full list is known by its count alone, since the record has no room for a capacity.
  constexpr int32_t step = 1000;
  if (list->count % step == 0) {
    const size_t room = static_cast<size_t>(list->count) + step;
    void *ids = realloc(list->objectIds, room * sizeof objectId);
    if (ids == nullptr) failForWantOfMemory();
    list->objectIds = static_cast<uint32_t *>(ids);
  }
  list->objectIds[list->count++] = objectId;
}

NQwObjectIdList *allObjectIds() {
  if (cache_overflow != 0) return idsFromTable();
  NQwObjectIdList *list = newObjectIdList(static_cast<size_t>(ObjValCache->size()));
  for (RecencyIter object(ObjValCache); object() != nullptr; object++) {
    list->objectIds[list->count++] = *object()->objectId;
  }
  _NQwError = NQw_NO_ERROR;
  return list;
}
