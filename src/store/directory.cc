#include "store/directory.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <cstdio>
#include <cstdlib>

#include "platform/exit_status.h"
#include "platform/paths.h"
#include "store/error_report.h"
#include "store/tables.h"

const char *nqwdbname = nullptr;
void (*directoryFailure)(int status) = nullptr;

namespace {

struct VersionName {
  char characters[32];
};

[[noreturn]] void endWithoutDirectory(ExitStatus status) {
  if (directoryFailure != nullptr) directoryFailure(status);
  exit(status);
}

const char *formatVersion(time_t version, int *flags, const char *format, VersionName *name) {
  *flags = O_RDWR | O_CREAT;
  if (version == 0) return currentName;
  // Not localtime_r, which need not look at the time zone.
  strftime(name->characters, sizeof name->characters, format, localtime(&version));
  return name->characters;
}

}  // namespace

const char *dbVersionName(time_t version, int *flags) {
  static VersionName name;
  return formatVersion(version, flags, "%d%m%Y.%H%M%S", &name);
}

const char *dbVersionNameOld(time_t version, int *flags) {
  static VersionName name;
  return formatVersion(version, flags, "%d%m%y.%H%M%S", &name);
}

const char *dbPath(const char *name, const char *sub) {
  static char path[databasePathSize];
  const char *directory = _NQwDbBuildDbPath(nqwdbname, "nqwdb");
  if (directory == nullptr) return nullptr;
  snprintf(path, sizeof path, "%s", directory);
  if (_NQConcatPath(path, sizeof path, name == nullptr ? currentName : name) != 0) return nullptr;
  if (_NQConcatPath(path, sizeof path, sub) != 0) return nullptr;
  return path;
}

int makeDir(const char *path, mode_t mode) {
  if (path == nullptr || _NQMakeDir(path, mode, 1) < 0) endWithoutDirectory(exitUsage);
  return 0;
}

int makeDbDirs(const char *name, mode_t mode) {
  if (_NQwDbMakeDbDir(nqwdbname) < 0) {
    logMessage(severityError, "Unable to create directory.");
    endWithoutDirectory(exitNormal);
  }
  makeDir(dbPath("", nullptr), mode);
  makeDir(dbPath(name, nullptr), mode);
  return 0;
}

int versionExists(const char *path) {
  struct stat status {};
  if (path == nullptr || stat(path, &status) != 0) {
    _NQwError = NQw_NO_ERROR;
  } else {
    traceError(NQw_VERSION_ALREADY_EXISTS);
  }
  return 0;
}
