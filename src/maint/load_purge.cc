#include "maint/load_purge.h"

#include <fcntl.h>
#include <unistd.h>

#include <cstdlib>

#include "internal/iListO.h"
#include "internal/loaders.h"
#include "internal/util.h"
#include "maint/delete_object.h"
#include "maint/kept_tables.h"
#include "maint/run.h"
#include "platform/out_of_memory.h"
#include "platform/report.h"
#include "store/shared_database.h"

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

void openForRun(int dflag, int pflag, int mflag) {
  if (mflag != 0) {
    runDb = open_nqwdb_ndbm_old(0);
  } else if (dflag != 0 && pflag == 0) {
    runDb = nqwDbGetDb(0);
  } else {
    runDb = open_nqwdb_ndbm(0);
  }
  if (runDb == nullptr) endUnopened();
  refuseUnfinished();
  if (runDb->fieldList == nullptr) loadFieldList(runDb);
}

void fillCaches(int mflag) {
  ObjValCache = new ObjTable(1500, 3, 3, 0.333f);
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

void openTraceFile() {
  const int fd = open(traceFile, O_WRONLY | O_CREAT | O_TRUNC | O_NOFOLLOW | O_CLOEXEC, 0644);
  tfp = fd < 0 ? nullptr : fdopen(fd, "w");
  if (tfp == nullptr) endWith(exitRefused, "dbsweep: Cann't open log file for writing\n");
}

// With `keeps` the tables are kept before the first deletion.
void deleteListed(bool keeps) {
  openTraceFile();
  NQwObjectIdList *objects = listObjects(nullptr);
  if (objects == nullptr) endUnopened();
  writeCount(tfp, objects->count);
  writeCount(stderr, objects->count);
  if (objectids[0] != countOnly) {
    if (keeps) keepTables();
    for (int32_t i = 0; i < numofobj; ++i) {
      if (_nqwDbDeleteObject(objectids[i]) == -1) {
        writeNotDeleted(tfp, objectids[i]);
        continue;
      }
      writeDeleted(tfp, objectids[i]);
      writeDeleted(stderr, objectids[i]);
    }
  }
  fclose(tfp);
  tfp = nullptr;
  NQwDbFreeObjectIdList(objects);
}

bool onlyCounts(int dflag) {
  return dflag != 0 && objectids[0] == countOnly;
}

// Id 0 is no field, even where a damaged definition claims it.
bool protocolHasField() {
  const uint32_t fieldId = fieldNameToId(protocolName);
  const FieldCacheEntry *field = fieldId == 0 ? nullptr : FieldInfoCache->find(fieldId);
  return field != nullptr && field->info->type == Boolean;
}

void reportUnread() {
  if (loadLosses.unreadable == 0) return;
  fprintf(stderr, "dbsweep: %u records could not be read; objects among them were not deleted.\n",
          loadLosses.unreadable);
  runStatus = exitRefused;
}

NQwFieldBinding *newProtocolQuery() {
  auto *query = static_cast<NQwFieldBinding *>(allocateOrEnd(sizeof(NQwFieldBinding)));
  constexpr int32_t isTrue = 1;
  query->fieldId = fieldNameToId(protocolName);
  query->value = newFieldValue(Boolean, &isTrue);
  return query;
}

void deleteProtocol() {
  NQwFieldBinding *query = newProtocolQuery();
  NQwObjectIdList *ids = protocolHasField() ? objectsWithFieldValue(query) : nullptr;
  NQwDbFreeFieldValue(query->value);
  free(query);
  if (ids == nullptr && _NQwError == NQw_DB_OPEN_FAILED) endUnopened();
  if (ids == nullptr) {
    fprintf(stderr,
            "dbsweep: No Boolean field \"%s\" in the objects database, nothing was deleted by "
            "protocol.\n",
            protocolName);
    cleanupCaches(1);
    exit(exitRefused);
  }
  keepTables();
  purgedDb = nqwDbGetDb(0);
  if (purgedDb != nullptr) startBuffering(purgedDb);
  int deleted = 0;
  for (int32_t i = 0; i < ids->count; ++i) {
    if (_nqwDbDeleteObject(ids->objectIds[i]) == 0) {
      writeDeleted(stderr, ids->objectIds[i]);
      ++deleted;
    } else {
      writeNotDeleted(stderr, ids->objectIds[i]);
    }
  }
  if (ids->count > 0) {
    fprintf(stderr, "dbsweep: %d objects have been deleted from the objects database\n", deleted);
  }
  NQwDbFreeObjectIdList(ids);
}

}  // namespace

void loadAndPurge(int dflag, int pflag, int mflag) {
  openForRun(dflag, pflag, mflag);
  fillCaches(mflag);
  const bool rewrites = pflag != 0 || mflag != 0;
  const bool keeps = rewrites && (pflag == 0 || protocolHasField());
  if (dflag != 0) deleteListed(keeps);
  if (!rewrites || onlyCounts(dflag)) reportUnread();
  if (onlyCounts(dflag)) {
    cleanupCaches(1);
    exit(runStatus);
  }
  if (pflag != 0) deleteProtocol();
  if (keeps) keepTables();
}
