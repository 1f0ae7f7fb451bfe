#include "maint/rewrite.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "internal/loaders.h"
#include "maint/kept_tables.h"
#include "maint/run.h"
#include "platform/files.h"
#include "platform/out_of_memory.h"
#include "platform/report.h"
#include "records/value_table.h"
#include "store/directory.h"
#include "store/name_table.h"
#include "store/versions.h"

const char migrationLockFile[] = "/usr/NQ/conf/dbsweep.lock";

namespace {

constexpr const char *filesInCurDir[] = {"name_info.dir", "name_info.pag",  "obj_info.dir",
                                         "obj_info.pag",  "value_info.dir", "value_info.pag"};

constexpr size_t directorySize = 512;
constexpr size_t filePathSize = 1024;

// The directory of the current version. Its length leaves room for any of the files in a file path.
const char *currentDirectory() {
  static char directory[directorySize];
  const char *database = dbPath("", nullptr);
  const int length =
      database == nullptr ? -1 : snprintf(directory, sizeof directory, "%s/current", database);
  if (length < 0 || length >= static_cast<int>(sizeof directory)) {
    fprintf(stderr, "dbsweep: The path of the objects database is too long.\n");
    cleanupCaches(1);
    exit(exitRefused);
  }
  return directory;
}

// False when the file is still there.
bool removeFile(const char *directory, const char *name) {
  static char path[filePathSize];
  snprintf(path, sizeof path, "%s/%s", directory, name);
  if (unlink(path) == 0) return true;
  const bool gone = errno == ENOENT;
  fprintf(stderr, "\nDatabase file %s couldn't be removed.\n", path);
  fprintf(stderr, "File will be written over, check permission for correctness\n");
  return gone;
}

// Set by the removal and used by the rewrite: whether the old files are gone, and the locks that
// keep other processes out while no handle is open.
bool filesRemoved = false;
std::shared_ptr<VersionLock> heldLocks;

// A name field's value goes to the name tables only if it is a name; anything else goes back to
// where it was read from.
const char *nameOf(const CachedValue *item) {
  return (item->field->flags & nameFieldFlag) != 0 ? singleString(item->value) : nullptr;
}

// Whether an earlier value of the object goes to the same key, which then keeps only the later one.
bool overwrites(const ObjCacheEntry *object, const CachedValue *item) {
  for (FieldValIter earlier(object->values); earlier() != item; earlier++) {
    if (earlier()->field == item->field &&
        (nameOf(earlier()) != nullptr) == (nameOf(item) != nullptr)) {
      return true;
    }
  }
  return false;
}

struct PlannedValue {
  uint32_t order;
  const CachedValue *item;
};

// All that will be stored, made while the old files are still there, since it takes memory.
struct Plan {
  std::vector<const CachedValue *> names;  // newest object first, in the order of its list
  std::vector<PlannedValue> values;        // in the cheapest order; of one key the later is behind
  uint32_t overwritten = 0;                // by a later value of the object
};
Plan plan;

void planObject(const ObjCacheEntry *object) {
  uint32_t highestField = 0;
  for (FieldValIter item(object->values); item() != nullptr; item++) {
    // Values ascend by field; only one that does not can share its field with an earlier one.
    const uint32_t fieldId = item()->field->fieldId;
    if (fieldId <= highestField && overwrites(object, item())) ++plan.overwritten;
    highestField = std::max(highestField, fieldId);
    if (nameOf(item()) != nullptr) {
      plan.names.push_back(item());
    } else {
      TableKey key;
      makeValueKey(&key, *object->objectId, fieldId);
      plan.values.push_back({_NQ_dbm_db_order(key.bytes, key.length), item()});
    }
  }
}

void planRewrite() {
  size_t values = 0;
  for (RecencyIter object(ObjValCache); object() != nullptr; object++) {
    values += static_cast<size_t>(object()->values->size());
  }
  plan = {};
  plan.values.reserve(values);
  for (RecencyIter object(ObjValCache); object() != nullptr; object++) planObject(object());
  std::stable_sort(plan.values.begin(), plan.values.end(),
                   [](const PlannedValue &a, const PlannedValue &b) { return a.order < b.order; });
}

// Stores all that is planned. Returns how many values are not in the tables afterwards.
uint32_t storePlanned() {
  uint32_t lost = plan.overwritten;
  for (const CachedValue *item : plan.names) {
    if (putNameObject(runDb, *item->objectId, item->field->fieldId, nameOf(item)) < 0) ++lost;
  }
  // The order is none that the memory knows: what comes next is fetched ahead.
  constexpr size_t ahead = 16;
  const size_t count = plan.values.size();
  for (size_t i = 0; i < count; ++i) {
    if (i + ahead < count) __builtin_prefetch(plan.values[i + ahead].item);
    if (i + ahead / 2 < count) __builtin_prefetch(plan.values[i + ahead / 2].item->value);
    const CachedValue *item = plan.values[i].item;
    if (putValueObject(runDb, *item->objectId, item->field->fieldId, item->value) < 0) ++lost;
  }
  return lost;
}

bool syncTables() {
  bool synced = filesRemoved;
  for (NQ_dbm_db *table : {runDb->objInfoDb, runDb->valueInfoDb, runDb->nameInfoDb}) {
    if (_NQ_dbm_db_sync(table) != 0) synced = false;
  }
  return syncDirectory(dbPath(nullptr, nullptr)) == 0 && synced;
}

void recordMigration() {
  char id[16];
  const int length = snprintf(id, sizeof id, "%d", static_cast<int>(getpid()));
  const int fd = creat(migrationLockFile, 0600);
  if (fd < 0) return;
  [[maybe_unused]] const ssize_t written = write(fd, id, static_cast<size_t>(length));
}

}  // namespace

void removeCurrentFiles() {
  const char *directory = currentDirectory();
  planRewrite();
  std::string ignored;
  heldLocks = lockVersion(directory, &ignored);
  closeRunDb();
  filesRemoved = true;
  for (const char *name : filesInCurDir) {
    if (!removeFile(directory, name)) filesRemoved = false;
  }
  // From a file that could not be removed, what was purged has to go one by one.
  if (purgedDb != nullptr) stopBuffering(std::exchange(purgedDb, nullptr));
}

void rewriteDatabase(int migrate) {
  runDb = open_nqwdb_ndbm(0);
  heldLocks.reset();
  if (runDb == nullptr) {
    if (_NQwError == NQw_NO_MEMORY) nqwDbOutOfMemory();
    fprintf(stderr, "dbsweep: Cannot open objects database.\n");
    fprintf(stderr, "\t\tRestore databases from archive and run the\n");
    fprintf(stderr, "\t\tnecessary Corvane commands to restart.\n");
    exit(exitNormal);
  }
  uint32_t lost = loadLosses.unknownField + loadLosses.cutString;
  startBuffering(runDb);
  lost += storePlanned();
  stopBuffering(runDb);
  const bool synced = syncTables();
  closeRunDb();
  settleKeptTables({loadLosses.unreadable, lost, synced});
  if (migrate != 0) recordMigration();
}
