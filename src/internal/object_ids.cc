#include "internal/object_ids.h"

#include <vector>

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
  std::vector<uint32_t> ids;
  forEachRecord<dbObject>(db->objInfoDb, [&ids](const dbObject *record) {
    if (record->fieldId == commonNameField) ids.push_back(record->objectId);
  });
  NQwObjectIdList *list = newObjectIdList(ids.size());
  for (const uint32_t id : ids) list->objectIds[list->count++] = id;
  _NQwError = NQw_NO_ERROR;
  return list;
}

}  // namespace

NQwObjectIdList *newObjectIdList(size_t room) {
  auto *list = static_cast<NQwObjectIdList *>(allocateOrEnd(sizeof(NQwObjectIdList)));
  if (room > 0) list->objectIds = static_cast<uint32_t *>(allocateOrEnd(room * sizeof(uint32_t)));
  return list;
}

NQwObjectIdList *allObjectIds() {
  if (cache_overflow != 0) return idsFromTable();
  NQwObjectIdList *list = newObjectIdList(static_cast<size_t>(ObjValCache->size()));
  for (RecencyIter object(ObjValCache); object() != nullptr; object++) {
    if (object()->objectId != nullptr) list->objectIds[list->count++] = *object()->objectId;
  }
  _NQwError = NQw_NO_ERROR;
  return list;
}
