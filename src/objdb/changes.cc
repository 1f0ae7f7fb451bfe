#include "objdb/changes.h"

#include <sys/stat.h>

#include <cerrno>
#include <cstring>
#include <nlohmann/json.hpp>

#include "objdb/progress.h"

namespace {

bool hasTables(const std::string &directory) {
  for (size_t table = 0; table < tableCount; ++table) {
    struct stat status {};
    if (lstat(tablePath(directory, table, pageSuffix).c_str(), &status) == 0) return true;
  }
  return false;
}

}  // namespace

void requireDatabase(const std::string &directory) {
  struct stat status {};
  if (stat(directory.c_str(), &status) != 0) {
    throw CommandFailure("no database directory \"" + directory + "\": " + strerror(errno));
  }
  if (!S_ISDIR(status.st_mode)) {
    throw CommandFailure("no database directory \"" + directory + "\": " + strerror(ENOTDIR));
  }
  // --dir was given with a version's own path: what would be made there, nobody would find.
  if (hasTables(directory)) {
    throw CommandFailure("\"" + directory + "\" is a version; --dir names the directory above it");
  }
}

Version requireVersion(const VersionPath &database) {
  for (const Version &version : listVersions(database.directory)) {
    if (version.name == database.name) return version;
  }
  throw CommandFailure("no version \"" + database.name + "\" in \"" + database.directory + "\"");
}

std::shared_ptr<VersionLock> lockOrFail(const std::string &directory) {
  std::string error;
  auto lock = lockVersion(directory, &error);
  if (lock == nullptr) {
    throw CommandFailure(error + "; nothing was changed",
                         errno == EWOULDBLOCK ? objdbInUse : objdbFailed);
  }
  return lock;
}

bool copyCompared(WorkDirectory *work, const std::string &from, const Survey &source,
                  std::string *error) {
  {
    const Phase phase("copying the tables");
    if (!copyTables(work, from, source.halfTables, error)) return false;
  }
  // By reading the copy from its files: other programs of the platform take no locks, and the disk
  // may have kept something else than it was given.
  const Survey copy = surveyVersion(work->path());
  if (copy.census.toJson() == source.census.toJson() && copy.isWhole == source.isWhole) return true;
  *error = "the copy of \"" + from + "\" does not hold the same; another process may change it";
  return false;
}
