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
#include "maint/outcome.h"
#include "maint/proof.h"
#include "maint/rewrite_plan.h"
#include "maint/run.h"
#include "platform/out_of_memory.h"
#include "platform/report.h"
#include "store/directory.h"
#include "store/versions.h"

const char migrationLockFile[] = "/usr/NQ/conf/dbsweep.lock";

namespace {

constexpr size_t directorySize = 512;
constexpr size_t filePathSize = 1024;

// The directory of the current version. Its length leaves room for any of the files in a file path.
const char *currentDirectory() {
  static char directory[directorySize];
  const char *database = dbPath("", nullptr);
  const int length = database == nullptr
                         ? -1
                         : snprintf(directory, sizeof directory, "%s/%s", database, currentName);
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

// Keeps other processes out while no handle is open.
std::shared_ptr<VersionLock> heldLocks;

// Values of objects that remain and that the new tables will not have as they were read.
uint32_t countLeftOut() {
  uint32_t count = 0;
  for (const uint32_t objectId : loadLosses.leftOut) {
    if (ObjValCache->isIn(objectId) != 0) ++count;
  }
  return count;
}

void removeTable(const char *directory, size_t table) {
  for (const char *suffix : tableSuffixes) {
    const std::string name = tableFile(table, suffix);
    if (removeFile(directory, name.c_str())) continue;
    outcome.unremoved.push_back(pathIn(directory, name));
    keepCopyOf(table);
  }
}

[[noreturn]] void endUnopened(int) {
  if (_NQwError == NQw_NO_MEMORY) nqwDbOutOfMemory();
  fprintf(stderr, "dbsweep: Cannot open objects database.\n");
  fprintf(stderr, "\t\tRestore databases from archive and run the\n");
  fprintf(stderr, "\t\tnecessary Corvane commands to restart.\n");
  exit(exitNormal);
}

void recordMigration() {
  const std::string id = std::to_string(getpid());
  [[maybe_unused]] const ssize_t written =
      write(creat(migrationLockFile, 0600), id.data(), id.size());
}

}  // namespace

void removeCurrentFiles() {
  const char *directory = currentDirectory();
  // While the old files are there: if memory ends here, nothing has changed.
  outcome.leftOut = planRewrite() + countLeftOut();
  // Shares the locks of the open handle, and keeps them when that is closed: from the removal to
  // the next open no other process may take the tables.
  std::string ignored;
  heldLocks = lockVersion(directory, &ignored);
  keepTables(KeepBy::linking);
  closeRunDb();  // or the handle could still write into files that are the kept version's now
  for (const size_t table : rebuiltTables) removeTable(directory, table);
  // After the removal: deletions held back for a file that is gone are dropped. From a file that
  // could not be removed they are carried out one by one.
  if (deletingDb != nullptr) stopBuffering(std::exchange(deletingDb, nullptr));
}

void rewriteDatabase(int migrate) {
  std::string ignored;
  directoryFailure = endUnopened;
  runDb = open_nqwdb_ndbm(0);
  heldLocks.reset();  // the handle has locked the new files, which are others than the old ones
  if (runDb == nullptr) endUnopened(exitNormal);
  // Not always none: a file that could not be removed still has its records.
  const RecordCounts before = countRecords(runDb);
  startBuffering(runDb);
  outcome.unwritten = storePlanned(runDb);
  stopBuffering(runDb);
  const RecordCounts expected = expectedRecords(runDb, before);
  outcome.unsynced = !syncTables(runDb);
  // Until the mark is gone the tables stay locked, or another run would take this one for dead.
  const auto locks = lockVersion(currentDirectory(), &ignored);
  closeRunDb();
  outcome.incomplete = !areComplete(currentDirectory(), expected);
  removeOrReportKeptVersion();
  if (migrate != 0) recordMigration();  // last: a run that is cut short does not count
}
