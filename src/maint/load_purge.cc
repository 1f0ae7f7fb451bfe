#include "maint/load_purge.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <string>
#include <unordered_set>
#include <vector>

#include "internal/iListO.h"
#include "internal/loaders.h"
#include "internal/protocol.h"
#include "maint/delete_object.h"
#include "maint/kept_tables.h"
#include "maint/outcome.h"
#include "maint/proof.h"
#include "maint/run.h"
#include "platform/out_of_memory.h"
#include "platform/report.h"
#include "store/directory.h"
#include "store/id_keeper.h"
#include "store/shared_database.h"
#include "store/versions.h"

FILE *tfp = nullptr;

namespace {

constexpr char traceFile[] = "/usr/NQ/log/objectsdb.trace";
constexpr uint32_t countOnly = 99;

[[noreturn]] void endWith(ExitStatus status, const char *message) {
  fputs(message, stderr);
  exit(status);
}

[[noreturn]] void endUnopened() {
  if (_NQwError == NQw_NO_MEMORY) nqwDbOutOfMemory();
  cleanupCaches(1);
  endWith(exitNormal, "dbsweep: Cannot open objects database.\n");
}

// An earlier run that did not finish is named before anything else is said, but not while another
// run is still at work.
[[noreturn]] void endWithoutDirectory(int status) {
  refuseUnfinished();
  exit(status);
}

bool isEmptyFile(const std::string &path) {
  struct stat status {};
  if (stat(path.c_str(), &status) != 0) return errno == ENOENT;
  return status.st_size == 0;
}

// The tables that every database has and this one lacks. Called before the open, which makes them.
std::vector<size_t> absentTables() {
  std::vector<size_t> absent;
  const char *directory = dbPath(nullptr, nullptr);
  if (directory == nullptr) return absent;
  for (const size_t table : {idKeeper, fieldInfo, objInfo, valueInfo}) {
    if (isEmptyFile(tablePath(directory, table, pageSuffix))) absent.push_back(table);
  }
  return absent;
}

bool hasRecords(size_t table) {
  uint64_t records = 0;
  return !_NQ_dbm_db_count(tableOf(runDb, table), &records) || records != 0;
}

// Whether the table is as an open makes it where there is none. Another process may have put a
// whole database there between our look and our locks.
bool isNew(size_t table) {
  if (table == idKeeper) return isSeededIdKeeper(runDb);
  return table == fieldInfo ? areSeededFields(runDb) : !hasRecords(table);
}

// Absent tables count as missing when there is something that they belong to. An obj_info without
// records beside names that lead to objects was made by an earlier run in the place of one that had
// gone missing.
void noteMissing(std::vector<size_t> absent) {
  std::erase_if(absent, [](size_t table) { return !isNew(table); });
  const auto isAbsent = [&](size_t table) {
    return std::find(absent.begin(), absent.end(), table) != absent.end();
  };
  if (!isAbsent(objInfo) && !hasRecords(objInfo) && hasRecords(nameInfo)) {
    absent.push_back(objInfo);
  }
  bool othersHaveRecords = false;
  for (size_t table = 0; table < tableCount && !absent.empty(); ++table) {
    othersHaveRecords = othersHaveRecords || (!isAbsent(table) && hasRecords(table));
  }
  if (!othersHaveRecords) return;
  for (const size_t table : absent) outcome.missing.emplace_back(tableFormats[table].name);
}

void openForRun(int pflag, int mflag) {
  const std::vector<size_t> absent = absentTables();
  directoryFailure = endWithoutDirectory;
  // A list alone is deleted from the tables through the shared handle, so the run takes that one:
  // two handles must not write one table (dbm_table.h). Other runs have a handle of their own,
  // which they close before the rewrite.
  if (mflag != 0) {
    runDb = open_nqwdb_ndbm_old(0);
  } else if (pflag == 0) {
    runDb = nqwDbGetDb(0);
  } else {
    runDb = open_nqwdb_ndbm(0);
  }
  if (runDb != nullptr || !isHeldByAnother()) refuseUnfinished();
  if (runDb == nullptr) endUnopened();
  directoryFailure = nullptr;
  noteMissing(absent);
  // It serves objects that a limit leaves out of the caches.
  if (runDb->fieldList == nullptr && max_objects_cached != 0) loadFieldList(runDb);
}

void fillCaches(int mflag) {
  ObjValCache = new ObjTable(1500, 3, 3, 0.333f);  // the loaders enter into it
  if (buildEnumTable(runDb) == 0) {
    endWith(exitNormal, "dbsweep: Could not build enum table in cache.");
  }
  if (buildFieldInfoTable(runDb) == 0) {
    endWith(exitNormal, "dbsweep: Could not build field info table in cache.");
  }
  startBuffering(runDb);
  if (mflag == 0 && max_objects_cached != 0) {
    loadObjectsWithinLimit(runDb);
  } else {
    loadObjectNames(runDb);
    mflag != 0 ? loadObjectValuesOld(runDb) : loadObjectValues(runDb);
  }
  stopBuffering(runDb);
}

// Ids above 2^31 - 1 are written as the negative numbers that "%d" makes of them.
void writeDeleted(FILE *stream, uint32_t objectId) {
  fprintf(stream, "dbsweep: Objectid %d has been deleted from the database.\n",
          static_cast<int>(objectId));
}

void writeNotDeleted(FILE *stream, uint32_t objectId) {
  fprintf(stream, "dbsweep: Database failure, object  %d could not be deleted\n",
          static_cast<int>(objectId));
}

void writeCount(FILE *stream, int32_t count) {
  fprintf(stream, "dbsweep: Total number of objects in DB is %d\n", count);
}

// Every line goes out at its end, so that the file tells what was done whenever the run ends.
void openTraceFile() {
  constexpr int flags = O_WRONLY | O_CREAT | O_TRUNC | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC;
  tfp = fdopen(open(traceFile, flags, 0644), "w");
  if (tfp == nullptr) endWith(exitRefused, "dbsweep: Cann't open log file for writing\n");
  setvbuf(tfp, nullptr, _IOLBF, BUFSIZ);
}

void closeTraceFile() {
  const bool failed = ferror(tfp) != 0;
  if (fclose(tfp) != 0 || failed) {
    fputs("dbsweep: Cannot write the log file\n", stderr);
    runStatus = exitRefused;
  }
  tfp = nullptr;
}

// Under bulk access the tables stay as they are: what is deleted goes with their files.
void deleteFromCachesAlone() {
  if (deletingDb != nullptr) return;
  deletingDb = nqwDbGetDb(0);
  if (deletingDb != nullptr) startBuffering(deletingDb);
}

void deleteListed(int (*deleteObject)(uint32_t objectId)) {
  for (int32_t i = 0; i < numofobj; ++i) {
    if (deleteObject(objectids[i]) != 0) {
      ++outcome.undeleted;
      writeNotDeleted(tfp, objectids[i]);
      continue;
    }
    writeDeleted(tfp, objectids[i]);
    writeDeleted(stderr, objectids[i]);
  }
}

// Whether the library can change the object tables: in a damaged one it writes over records, or
// makes the file as long as a wrong header says.
bool canBeChanged() {
  const auto isUnsound = [](size_t table) {
    return !_NQ_dbm_db_check_space(tableOf(runDb, table));
  };
  return std::count_if(rebuiltTables.begin(), rebuiltTables.end(), isUnsound) == 0;
}

int refuseDeletion(uint32_t) {
  return -1;
}

// Deletes from the tables. What lies in a damaged one counts as not read.
void deleteListedInPlace() {
  const bool sound = canBeChanged();
  if (!sound) outcome.unread = std::max(outcome.unread, 1u);
  keepTables(KeepBy::copying);  // before the first deletion
  const RecordCounts before = countRecords(runDb);
  deleteListed(sound ? deleteObjectInPlace : refuseDeletion);
  const RecordCounts expected = expectedRecords(runDb, before);
  outcome.unsynced = !syncTables(runDb);
  // Until the mark is gone the tables stay locked, or another run would take this one for dead.
  std::string ignored;
  const auto locks = lockVersion(dbPath(nullptr, nullptr), &ignored);
  closeRunDb();
  outcome.incomplete = !areComplete(dbPath(nullptr, nullptr), expected);
  removeOrReportKeptVersion();
}

void countObjects() {
  NQwObjectIdList *objects = listObjects(nullptr);
  if (objects == nullptr) endUnopened();
  writeCount(tfp, objects->count);
  writeCount(stderr, objects->count);
  NQwDbFreeObjectIdList(objects);
}

void reportUnread() {
  if (outcome.unread == 0) return;
  fprintf(stderr, "dbsweep: %u records could not be read.\n", outcome.unread);
  runStatus = exitRefused;
}

// The second and last thing that a run says when it cannot tell which objects to delete.
[[noreturn]] void endWithoutProtocol(int definitions) {
  if (definitions > 1) {
    fprintf(stderr, "dbsweep: %d fields are named \"%s\", nothing was deleted by protocol.\n",
            definitions, protocolName);
  } else {
    fprintf(stderr,
            "dbsweep: No Boolean field \"%s\" in the objects database, nothing was deleted by "
            "protocol.\n",
            protocolName);
  }
  cleanupCaches(1);
  exit(exitRefused);
}

uint32_t protocolFieldOrEnd() {
  const ProtocolField field = findProtocolField(protocolName);
  if (field.fieldId == 0) endWithoutProtocol(field.definitions);
  return field.fieldId;
}

void deleteProtocol(uint32_t fieldId) {
  NQwObjectIdList *ids = objectsOfProtocol(fieldId);
  if (ids == nullptr) endUnopened();
  deleteFromCachesAlone();
  int deleted = 0;
  std::unordered_set<uint32_t> seen;  // an object may have two values that match
  for (int32_t i = 0; i < ids->count; ++i) {
    const uint32_t objectId = ids->objectIds[i];
    if (!seen.insert(objectId).second) continue;
    if (_nqwDbDeleteObject(objectId) == 0) {
      writeDeleted(stderr, objectId);
      ++deleted;
    } else {
      ++outcome.undeleted;
      writeNotDeleted(stderr, objectId);
    }
  }
  if (ids->count > 0) {
    fprintf(stderr, "dbsweep: %d objects have been deleted from the objects database\n", deleted);
  }
  NQwDbFreeObjectIdList(ids);
}

}  // namespace

void loadAndPurge(int dflag, int pflag, int mflag) {
  openForRun(pflag, mflag);
  fillCaches(mflag);
  outcome.unread = loadLosses.unreadable;
  const bool onlyCounts = dflag != 0 && objectids[0] == countOnly;
  const bool rewrites = pflag != 0 || mflag != 0;
  // Before the list is deleted: a run that refuses the protocol has changed nothing.
  const uint32_t protocol = pflag != 0 && !onlyCounts ? protocolFieldOrEnd() : 0;
  if (dflag != 0) {
    openTraceFile();
    countObjects();
    if (rewrites && !onlyCounts) {
      deleteFromCachesAlone();
      deleteListed(_nqwDbDeleteObject);
    } else if (!onlyCounts) {
      deleteListedInPlace();
    }
    closeTraceFile();
  }
  if (onlyCounts) {
    reportUnread();
    cleanupCaches(1);
    exit(runStatus);
  }
  if (pflag != 0) deleteProtocol(protocol);
}
