#include "objdb/query_database.h"

#include <algorithm>
#include <cstring>
#include <ctime>
#include <filesystem>

#include "internal/iListO.h"
#include "internal/loaders.h"
#include "internal/scan.h"
#include "platform/report.h"
#include "platform/strings.h"
#include "store/directory.h"
#include "store/shared_database.h"
#include "store/tables.h"

namespace fs = std::filesystem;

namespace {

// The version that has this name: 0 for "current", else the time that it tells. A directory that
// was given another name is a version all the same, of a time that no version has.
time_t versionOf(const std::string &name) {
  int flags = 0;
  if (name == dbVersionName(0, &flags)) return 0;
  struct tm local {};
  local.tm_isdst = -1;
  const char *end = strptime(name.c_str(), "%d%m%Y.%H%M%S", &local);
  const time_t version = end == nullptr ? 0 : mktime(&local);
  const bool isTime = version != 0 && name == dbVersionName(version, &flags);
  return isTime ? version : -1;
}

// No fewer names than the table has: each takes 24 bytes at least.
uint32_t mostNames(const std::string &directory) {
  const uint64_t names = fs::file_size(tablePath(directory, objInfo, pageSuffix)) / 24;
  return static_cast<uint32_t>(std::min<uint64_t>(names, UINT32_MAX));
}

// The object of every record of both tables, by the keys.
template <typename Visit>
void forEachKeyedObject(ObjectDatabase *db, Visit visit) {
  for (NQ_dbm_db *table : {db->objInfoDb, db->valueInfoDb}) {
    DbmRecord record;
    table->first = 1;
    while (_NQ_dbm_db_getnext_raw(table, &record)) {
      uint32_t objectId = 0;
      if (record.key.size() != 2 * sizeof objectId) continue;
      memcpy(&objectId, record.key.data(), sizeof objectId);
      visit(objectId);
    }
  }
}

}  // namespace

QueryDatabase::QueryDatabase(const VersionPath &version, std::optional<uint32_t> mostObjects) {
  // The readers are opened for their locks alone, and for their words when they cannot be had.
  for (size_t table = 0; table < tableCount; ++table) {
    if (!tableFormats[table].isLocked) continue;
    OpenFailure failure;
    locks_.push_back(
        TableReader::open(version.path(), table, TableReader::Demand::lockedTable, &failure));
    if (locks_.back() == nullptr) throw failure.asFailure();
  }
  const time_t time = versionOf(version.name);
  ObjectDatabase *opened = openForReading(version.path(), time);
  if (opened == nullptr) throw CommandFailure("could not open \"" + version.path() + "\"");
  dropReports();  // a command that only looks must not write to the platform's log
  shareDatabase(opened);
  db_ = nqwDbGetDb(time);
  // Known before the definitions, since room for names is made with them.
  if (mostObjects) max_objects_cached = std::min(*mostObjects, mostNames(version.path()));
  ObjValCache = new ObjTable(1500, 3, 3, 0.333f);
  buildEnumTable(db_);
  buildFieldInfoTable(db_);
  if (max_objects_cached != 0) loadObjectsWithinLimit(db_);
}

ObjectIds QueryDatabase::unlistedObjects() const {
  ObjectIds unlisted(newObjectIdList(0));
  if (max_objects_cached == 0) return unlisted;
  const ObjectIds listed = requireIds(listObjects(nullptr));
  uint32_t *end = listed->objectIds + listed->count;
  std::sort(listed->objectIds, end);
  startBuffering(db_);  // which the query has stopped
  forEachKeyedObject(db_, [&](uint32_t objectId) {
    if (!std::binary_search(listed->objectIds, end, objectId)) {
      appendObjectId(unlisted.get(), objectId);
    }
  });
  uint32_t *last = unlisted->objectIds + unlisted->count;
  std::sort(unlisted->objectIds, last);
  last = std::unique(unlisted->objectIds, last);
  unlisted->count = static_cast<int32_t>(last - unlisted->objectIds);
  return unlisted;
}

ObjectIds QueryDatabase::objectsNamed(NQwFieldBinding *binding) const {
  if (cache_overflow == 0) {
    NQwFieldBindList bindings{1, binding};
    return requireIds(listObjects(&bindings));
  }
  ObjectIds ids(newObjectIdList(0));
  forEachRecord<dbObject>(db_->objInfoDb, [&](const dbObject *record) {
    if (record->fieldId == binding->fieldId &&
        strcoll_new(record->name, singleString(binding->value)) == 0) {
      appendObjectId(ids.get(), record->objectId);
    }
  });
  return ids;
}

ObjdbStatus QueryDatabase::judge(ObjdbStatus status) {
  if (loadLosses.unreadable == 0) return status;
  fprintf(stderr, "objdb: %u records could not be read, and may be missing from the answer\n",
          loadLosses.unreadable);
  return objdbFailed;
}

ObjectIds requireIds(NQwObjectIdList *list) {
  if (list == nullptr)
    throw CommandFailure("the query failed: error " + std::to_string(NQwError()));
  return ObjectIds(list);
}
