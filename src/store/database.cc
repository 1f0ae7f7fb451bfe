#include "store/database.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <array>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "platform/field_values.h"
#include "platform/table_lock.h"
#include "store/directory.h"
#include "store/error_report.h"
#include "store/id_keeper.h"
#include "store/tables.h"

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

constexpr mode_t tableMode = 0777;  // the platform's daemons run as different users

bool heldByAnother = false;

// In the order of the tables.
constexpr NQ_dbm_db *ObjectDatabase::*tableHandles[tableCount] = {
    &ObjectDatabase::idKeeperDb,  &ObjectDatabase::fieldInfoDb, &ObjectDatabase::objInfoDb,
    &ObjectDatabase::valueInfoDb, &ObjectDatabase::nameInfoDb,  &ObjectDatabase::enumInfoDb};

// False, and errno says why, when the file is missing, cannot be looked at, or would need a longer
// path.
bool statPage(const char *directory, size_t table, struct stat *status) {
  const std::string path = tablePath(directory, table, pageSuffix);
  errno = ENAMETOOLONG;
  return path.size() < databasePathSize && stat(path.c_str(), status) == 0;
}

bool failStat() {
  fprintf(stderr, "ERROR with stat in open_nqwdb_ndbm.\n");
  return false;
}

// Opens a table that is seeded when it is new. Whether it is has to be known from before the open:
// an open table is never 0 bytes long.
bool openSeeded(ObjectDatabase *db, size_t which, const char *directory, int flags,
                int (*seed)(ObjectDatabase *)) {
  const auto &[name, decode, encode, isLocked, isRebuilt] = tableFormats[which];
  NQ_dbm_db *&table = tableOf(db, which);
  struct stat page {};
  const bool isThere = statPage(directory, which, &page);
  if (!isThere && errno != ENOENT) return failStat();
  const bool isNew = !isThere || page.st_size == 0;
  table = _NQ_dbm_db_open(directory, name, flags, tableMode, decode, encode);
  if (table == nullptr) return false;
  if (!statPage(directory, which, &page)) return failStat();  // for its message alone
  if (isNew) seed(db);
  _NQ_dbm_db_disable_lock_on_access(table);
  return true;
}

bool openObjectTables(ObjectDatabase *db, const DataFormat &format, const char *directory,
                      int flags) {
  for (const size_t which : {objInfo, valueInfo, nameInfo, enumInfo}) {
    const TableFormat &table = tableFormats[which];
    const bool isValues = which == valueInfo;
    NQ_dbm_db *&handle = tableOf(db, which);
    handle = _NQ_dbm_db_open(directory, table.name, flags, tableMode,
                             isValues ? format.decodeValue : table.decode,
                             isValues ? format.encodeValue : table.encode);
    if (handle == nullptr) return false;
    _NQ_dbm_db_disable_lock_on_access(handle);
  }
  return true;
}

// The locks come before the first look into a table: a handle caches what it reads, so nobody else
// may change the table, not even one that is being created. A file that cannot be opened is left to
// the open that reports it.
using FileLocks = std::array<TableLock, tableCount>;

bool lockFiles(const char *directory, FileLocks *locks) {
  for (size_t table = 0; table < tableCount; ++table) {
    if (!tableFormats[table].isLocked) continue;
    const std::string path = tablePath(directory, table, pageSuffix);
    if (path.size() < databasePathSize && !(*locks)[table].acquireOrMake(path.c_str(), tableMode) &&
        errno == EWOULDBLOCK) {
      logMessage(severityError, "Table \"%s\" is locked by %s.", path.c_str(),
                 lockHolder(path).c_str());
      heldByAnother = true;
      return false;
    }
  }
  return true;
}

// The handles' own share of the locks, which lives until they are closed; that of lockFiles ends
// with the open. Also fails where the file has been exchanged since.
bool lockTables(ObjectDatabase *db) {
  for (size_t table = 0; table < tableCount; ++table) {
    if (tableFormats[table].isLocked && _NQ_lock_dbm_db(tableOf(db, table), 0) < 0) {
      heldByAnother = errno == EWOULDBLOCK;
      return false;
    }
  }
  return true;
}

ObjectDatabase *newHandle() {
  auto *db = static_cast<ObjectDatabase *>(calloc(1, sizeof(ObjectDatabase)));
  if (db == nullptr) _NQwError = NQw_NO_MEMORY;
  return db;
}

ObjectDatabase *openDatabase(time_t version, const DataFormat &format) {
  heldByAnother = false;
  ObjectDatabase *db = newHandle();
  if (db == nullptr) return nullptr;
  constexpr uint32_t bytesPerRecord = 81920;
  db->bufferCount = ndbm_buffersize == noBound ? noBound : ndbm_buffersize / bytesPerRecord;

  int flags = 0;
  const char *name = format.versionName(version, &flags);
  // makeDbDirs leaves the same path in dbPath's string (directory.h).
  const char *directory = dbPath(name, nullptr);
  makeDbDirs(name, 0777);
  umask(0);  // the platform's daemons share the tables, whatever user they run as
  FileLocks locks;
  if (lockFiles(directory, &locks) && openSeeded(db, idKeeper, directory, flags, initIdKeeper) &&
      openSeeded(db, fieldInfo, directory, flags, initPredefinedFields) &&
      openObjectTables(db, format, directory, flags)) {
    db->version = version;
    if (lockTables(db)) return db;
  }
  format.close(db);
  return nullptr;
}

}  // namespace

NQ_dbm_db *&tableOf(ObjectDatabase *db, size_t table) {
  return db->*tableHandles[table];
}

bool isHeldByAnother() {
  return heldByAnother;
}

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
  const TableFormat &fields = tableFormats[fieldInfo];
  db->fieldInfoDb =
      _NQ_dbm_db_open(directory, fields.name, flags, tableMode, fields.decode, fields.encode);
  if (db->fieldInfoDb != nullptr && openObjectTables(db, currentFormat, directory, flags)) {
    db->version = version;
    return db;
  }
  close_nqwdb_ndbm(db);
  return nullptr;
}

ObjectDatabase *openForReading(const std::string &directory, time_t version) {
  ObjectDatabase *db = newHandle();
  for (size_t which = 0; db != nullptr && which < tableCount; ++which) {
    const auto &[name, decode, encode, isLocked, isRebuilt] = tableFormats[which];
    if (which == idKeeper) continue;  // who only looks hands out no ids
    db->*tableHandles[which] =
        _NQ_dbm_db_open(directory.c_str(), name, O_RDONLY, 0, decode, encode);
    if (db->*tableHandles[which] != nullptr) continue;
    close_nqwdb_ndbm(db);
    return nullptr;
  }
  if (db != nullptr) db->version = version;
  return db;
}

void close_nqwdb_ndbm(ObjectDatabase *db) {
  for (const auto table : tableHandles) {
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
