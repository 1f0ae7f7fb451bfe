#include "maint/rewrite.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>
#include <utility>

#include "internal/loaders.h"
#include "maint/kept_tables.h"
#include "maint/rewrite_plan.h"
#include "maint/run.h"
#include "platform/files.h"
#include "platform/out_of_memory.h"
#include "platform/report.h"
#include "store/directory.h"
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
  lost += storePlanned(runDb);
  stopBuffering(runDb);
  const bool synced = syncTables();
  closeRunDb();
  settleKeptTables({loadLosses.unreadable, lost, synced});
  if (migrate != 0) recordMigration();
}
