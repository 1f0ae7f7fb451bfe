#include "store/shared_database.h"

#include "store/error_report.h"

int update_fcache = 0;

ObjectDatabase *snapstruct = nullptr;
time_t _NQW_NDBM_snapshot_open = 0;

namespace {

ObjectDatabase *sharedDatabase = nullptr;
bool sharedOpened = false;

}  // namespace

ObjectDatabase *nqwDbGetDb(time_t version) {
  if (version != 0) return openArchiveDb(version);
  if (!sharedOpened) {
    sharedDatabase = open_nqwdb_ndbm(0);
    if (sharedDatabase == nullptr) {
      traceError(NQw_DB_OPEN_FAILED);
      return nullptr;
    }
    sharedOpened = true;
    loadFieldList(sharedDatabase);
  } else if (update_fcache != 0) {
    loadFieldList(freeFieldList(sharedDatabase));
    update_fcache = 0;
  }
  return sharedDatabase;
}

// Entered as the open archived version too: a query for it must not open it a second time.
void shareDatabase(ObjectDatabase *db) {
  sharedDatabase = loadFieldList(db);
  sharedOpened = true;
  if (db->version == 0) return;
  snapstruct = db;
  _NQW_NDBM_snapshot_open = db->version;
}

ObjectDatabase *openArchiveDb(time_t version) {
  if (_NQW_NDBM_snapshot_open == version) return snapstruct;
  if (_NQW_NDBM_snapshot_open != 0) {
    traceError(NQw_DB_VERSION_NOT_FOUND);
    return nullptr;
  }
  snapstruct = openVersionDb(version);
  if (snapstruct == nullptr) {
    traceError(NQw_DB_OPEN_FAILED);
    return nullptr;
  }
  _NQW_NDBM_snapshot_open = version;
  return loadFieldList(snapstruct);
}
