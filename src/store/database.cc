#include "store/database.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <array>
#include <cerrno>
#include <cstdio>
#include <cstdlib>

#include "platform/field_values.h"
#include "platform/table_lock.h"
#include "records/codecs.h"
#include "store/directory.h"
#include "store/error_report.h"
#include "store/id_keeper.h"

uint32_t ndbm_buffersize = 0xC30000;

namespace {

// The two data formats differ in the value codecs, the version names and nothing else.
struct DataFormat {
  DbmDecoder decodeValue;
  DbmEncoder encodeValue;
  const char *(*versionName)(time_t version, int *flags);
  void (*close)(ObjectDatabase *db);
};

constexpr DataFormat currentFormat{decodeDbObjectValue, encodeDbObjectValue, dbVersionName,
                                   close_nqwdb_ndbm};
constexpr DataFormat oldFormat{decodeDbObjectValueOf, encodeDbObjectValueOf, dbVersionNameOld,
                               close_nqwdb_ndbm_old};

constexpr uint32_t noBound = 0xFFFFFFFF;  // of a buffer size and of a record count

constexpr mode_t tableMode = 0777;

constexpr NQ_dbm_db *ObjectDatabase::*allTables[] = {
    &ObjectDatabase::idKeeperDb,  &ObjectDatabase::fieldInfoDb, &ObjectDatabase::objInfoDb,
    &ObjectDatabase::valueInfoDb, &ObjectDatabase::nameInfoDb,  &ObjectDatabase::enumInfoDb};

// False, and errno says why, when the file is missing, cannot be looked at, or would need a longer
// path.
bool statPage(const char *directory, const char *table, struct stat *status) {
  char path[databasePathSize];
  errno = ENAMETOOLONG;
  const int length = snprintf(path, sizeof path, "%s/%s.pag", directory, table);
  return length < static_cast<int>(sizeof path) && stat(path, status) == 0;
}

bool failStat() {
  fprintf(stderr, "ERROR with stat in open_nqwdb_ndbm.\n");
  return false;
}

// Opens a table that is seeded when it is new. Whether it is has to be known from before the open:
// an open table is never 0 bytes long.
bool openSeeded(ObjectDatabase *db, NQ_dbm_db *ObjectDatabase::*table, const char *directory,
                const char *name, int flags, DbmDecoder decode, DbmEncoder encode,
                int (*seed)(ObjectDatabase *)) {
  struct stat page {};
  const bool isThere = statPage(directory, name, &page);
  if (!isThere && errno != ENOENT) return failStat();
  const bool isNew = !isThere || page.st_size == 0;
  db->*table = _NQ_dbm_db_open(directory, name, flags, tableMode, decode, encode);
  if (db->*table == nullptr) return false;
  if (!statPage(directory, name, &page)) return failStat();
  if (isNew) seed(db);
  _NQ_dbm_db_disable_lock_on_access(db->*table);
  return true;
}

bool openObjectTables(ObjectDatabase *db, const DataFormat &format, const char *directory,
                      int flags) {
  const struct {
    NQ_dbm_db *ObjectDatabase::*table;
    const char *name;
    DbmDecoder decode;
    DbmEncoder encode;
  } tables[] = {
      {&ObjectDatabase::objInfoDb, "obj_info", decodeDbObject, encodeDbObject},
      {&ObjectDatabase::valueInfoDb, "value_info", format.decodeValue, format.encodeValue},
      {&ObjectDatabase::nameInfoDb, "name_info", decodeDbObject, encodeDbObject},
      {&ObjectDatabase::enumInfoDb, "enum_info", decodeDbEnumConstants, encodeDbEnumConstants},
  };
  for (const auto &each : tables) {
    db->*each.table =
        _NQ_dbm_db_open(directory, each.name, flags, tableMode, each.decode, each.encode);
    if (db->*each.table == nullptr) return false;
    _NQ_dbm_db_disable_lock_on_access(db->*each.table);
  }
  return true;
}

// The locks come before the first look into a table: a handle caches what it has read, and nobody
// shall change it behind its back, a table that is being made included. A file that cannot be
// opened is left to the open that reports it.
constexpr const char *lockedTables[] = {"field_info", "obj_info", "value_info", "name_info",
                                        "enum_info"};
using FileLocks = std::array<TableLock, std::size(lockedTables)>;

bool lockFiles(const char *directory, FileLocks *locks) {
  for (size_t i = 0; i < locks->size(); ++i) {
    char path[databasePathSize];
    const int length = snprintf(path, sizeof path, "%s/%s.pag", directory, lockedTables[i]);
    if (length < static_cast<int>(sizeof path) && !(*locks)[i].acquireOrMake(path, tableMode) &&
        errno == EWOULDBLOCK) {
      logMessage(severityError, "Table \"%s\" is locked by %s.", path, lockHolder(path).c_str());
      return false;
    }
  }
  return true;
}

bool lockTables(ObjectDatabase *db) {
  for (const auto table : allTables) {
    if (table == &ObjectDatabase::idKeeperDb) continue;
    if (_NQ_lock_dbm_db(db->*table, 0) < 0) return false;
  }
  return true;
}

ObjectDatabase *newHandle() {
  auto *db = static_cast<ObjectDatabase *>(calloc(1, sizeof(ObjectDatabase)));
  if (db == nullptr) _NQwError = NQw_NO_MEMORY;
  return db;
}

ObjectDatabase *openDatabase(time_t version, const DataFormat &format) {
  ObjectDatabase *db = newHandle();
  if (db == nullptr) return nullptr;
  constexpr uint32_t bytesPerRecord = 81920;
  db->bufferCount = ndbm_buffersize == noBound ? noBound : ndbm_buffersize / bytesPerRecord;

  int flags = 0;
  const char *name = format.versionName(version, &flags);
  const char *directory = dbPath(name, nullptr);
  makeDbDirs(name, 0777);
  umask(0);
  FileLocks locks;
  if (lockFiles(directory, &locks) &&
      openSeeded(db, &ObjectDatabase::idKeeperDb, directory, "id_keeper", flags, decodeDbKey,
                 encodeDbKey, initIdKeeper) &&
      openSeeded(db, &ObjectDatabase::fieldInfoDb, directory, "field_info", flags,
                 decodeDbFieldInfo, encodeDbFieldInfo, initPredefinedFields) &&
      openObjectTables(db, format, directory, flags)) {
    db->version = version;
    if (lockTables(db)) return db;
  }
  format.close(db);
  return nullptr;
}

}  // namespace

ObjectDatabase *open_nqwdb_ndbm(time_t version) {
  return openDatabase(version, currentFormat);
}

ObjectDatabase *open_nqwdb_ndbm_old(time_t version) {
  return openDatabase(version, oldFormat);
}

ObjectDatabase *openVersionDb(time_t version) {
  ObjectDatabase *db = newHandle();
  if (db == nullptr) return nullptr;
  int flags = 0;
  const char *name = dbVersionName(version, &flags);
  const char *directory = dbPath(name, nullptr);
  versionExists(directory);
  makeDbDirs(name, 0777);
  umask(0);
  db->fieldInfoDb = _NQ_dbm_db_open(directory, "field_info", flags, tableMode, decodeDbFieldInfo,
                                    encodeDbFieldInfo);
  if (db->fieldInfoDb != nullptr && openObjectTables(db, currentFormat, directory, flags)) {
    db->version = version;
    return db;
  }
  close_nqwdb_ndbm(db);
  return nullptr;
}

void close_nqwdb_ndbm(ObjectDatabase *db) {
  for (const auto table : allTables) {
    if (db->*table != nullptr) _NQ_dbm_db_close(db->*table);
  }
  free(db);
}

void close_nqwdb_ndbm_old(ObjectDatabase *db) {
  close_nqwdb_ndbm(db);
}

ObjectDatabase *loadFieldList(ObjectDatabase *db) {
  _NQ_dbm_db_start_buffering(db->fieldInfoDb, db->bufferCount);
  db->fieldList = _NQ_dbm_db_getlist(db->fieldInfoDb);
  _NQ_dbm_db_stop_buffering(db->fieldInfoDb);
  db->fieldCount = 0;
  for (const NQ_dbm_list *node = db->fieldList; node != nullptr; node = node->next) {
    ++db->fieldCount;
  }
  return db;
}

ObjectDatabase *freeFieldList(ObjectDatabase *db) {
  while (db->fieldList != nullptr) {
    NQ_dbm_list *node = db->fieldList;
    db->fieldList = node->next;
    NQwDbFreeFieldInfo(static_cast<NQwFieldInfo *>(node->item));
    free(node);
  }
  return db;
}

void startBuffering(ObjectDatabase *db) {
  const uint32_t count = db->bufferCount;
  _NQ_dbm_db_start_buffering(db->objInfoDb, count);
  _NQ_dbm_db_start_buffering(db->valueInfoDb, count == noBound ? noBound : 8 * count);
  _NQ_dbm_db_start_buffering(db->nameInfoDb, count);
}

void stopBuffering(ObjectDatabase *db) {
  _NQ_dbm_db_stop_buffering(db->objInfoDb);
  _NQ_dbm_db_stop_buffering(db->valueInfoDb);
  _NQ_dbm_db_stop_buffering(db->nameInfoDb);
}
