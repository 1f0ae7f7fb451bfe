#include "maint/rewrite.h"

#include <fcntl.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>

#include "internal/util.h"
#include "maint/run.h"
#include "platform/out_of_memory.h"
#include "platform/report.h"
#include "records/value_table.h"
#include "store/directory.h"
#include "store/name_table.h"

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

void removeFile(const char *directory, const char *name) {
  static char path[filePathSize];
  snprintf(path, sizeof path, "%s/%s", directory, name);
  if (unlink(path) == 0) return;
  fprintf(stderr, "\nDatabase file %s couldn't be removed.\n", path);
  fprintf(stderr, "File will be written over, check permission for correctness\n");
}

// A name field's value goes to the name tables only if it is a name; anything else goes back to
// where it was read from.
void storeValue(const CachedValue *item) {
  const NQwFieldInfo *info = getCachedFieldInfo(item->field->fieldId);
  const char *name = (info->flags & nameFieldFlag) != 0 ? singleString(item->value) : nullptr;
  if (name != nullptr) {
    putNameObject(runDb, *item->objectId, info->fieldId, name);
  } else {
    putValueObject(runDb, *item->objectId, info->fieldId, item->value);
  }
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
  closeRunDb();
  for (const char *name : filesInCurDir) removeFile(directory, name);
}

void rewriteDatabase(int migrate) {
  RecencyIter object(ObjValCache);
  runDb = open_nqwdb_ndbm(0);
  if (runDb == nullptr) {
    if (_NQwError == NQw_NO_MEMORY) nqwDbOutOfMemory();
    fprintf(stderr, "dbsweep: Cannot open objects database.\n");
    fprintf(stderr, "\t\tRestore databases from archive and run the\n");
    fprintf(stderr, "\t\tnecessary Corvane commands to restart.\n");
    exit(exitNormal);
  }
  startBuffering(runDb);
  for (; object() != nullptr; object++) {
    for (FieldValIter item(object()->values); item() != nullptr; item++) storeValue(item());
  }
  stopBuffering(runDb);
  closeRunDb();
  if (migrate != 0) recordMigration();
}
