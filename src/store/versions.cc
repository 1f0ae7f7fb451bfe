#include "store/versions.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <ctime>

#include "platform/files.h"
#include "platform/table_lock.h"
#include "store/directory.h"

namespace {

// What cannot be looked at counts as there: a mark that is not seen would let a run go on, and a
// table that is not seen would not be kept.
bool isThere(const std::string &path) {
  struct stat status {};
  return lstat(path.c_str(), &status) == 0 || (errno != ENOENT && errno != ENOTDIR);
}

bool isVersion(const std::string &directory) {
  bool found = isThere(pathIn(directory, unfinishedMark));
  for (size_t table = 0; table < tableCount && !found; ++table) {
    found = isThere(tablePath(directory, table, pageSuffix));
  }
  return found;
}

bool hasTable(const std::string &directory, size_t table) {
  return isThere(tablePath(directory, table, directorySuffix)) ||
         isThere(tablePath(directory, table, pageSuffix));
}

bool copyOrLinkTable(WorkDirectory *work, const std::string &from, size_t table, bool links,
                     std::string *error) {
  const std::string pages = tableFile(table, pageSuffix);
  const std::string directory = tableFile(table, directorySuffix);
  if (!work->copy(pathIn(from, directory), directory, error)) return false;
  return (links && work->link(pathIn(from, pages), pages)) ||
         work->copy(pathIn(from, pages), pages, error);
}

// The tables of one directory. One that is not there is passed over; half of one is an error. The
// mark comes last, and before the version gets its name: with the mark the version is whole.
bool copyOrLinkTables(WorkDirectory *work, const std::string &from, const VersionContent &content,
                      std::string *error) {
  for (size_t table = 0; table < tableCount; ++table) {
    if (content.leftOut[table] || !hasTable(from, table)) continue;
    const bool links = content.linksRebuilt && tableFormats[table].isRebuilt;
    if (!copyOrLinkTable(work, from, table, links, error)) return false;
  }
  return !content.unfinished || makeMarker(work->fd(), unfinishedMark) == 0 ||
         failAttempt("make", unfinishedMark, error);
}

// The name of the present second, or of the next one that is free.
bool publishByTime(WorkDirectory *work, const std::string &database, Version *made,
                   std::string *error) {
  struct stat like {};
  const std::string current = pathIn(database, currentName);
  // Where there is no "current", its owner and mode will be those of the database directory.
  if (stat(current.c_str(), &like) != 0 && stat(database.c_str(), &like) != 0) {
    return failAttempt("look at", current, error);
  }
  for (time_t second = time(nullptr);; ++second) {
    int flags = 0;
    made->name = dbVersionName(second, &flags);
    made->directory = pathIn(database, made->name);
    if (work->publish(made->name, like, error)) return true;
    if (errno != EEXIST) return false;
  }
}

bool addBytes(const std::string &path, uint64_t *bytes, std::string *error) {
  struct stat status {};
  if (stat(path.c_str(), &status) == 0) {
    constexpr uint64_t block = 4096;  // a file of 16 bytes takes one, too
    *bytes += (static_cast<uint64_t>(status.st_size) + block - 1) / block * block;
    return true;
  }
  return errno == ENOENT || failAttempt("look at", path, error);
}

}  // namespace

std::vector<Version> listVersions(const std::string &database) {
  std::vector<Version> versions;
  const int fd = openQuietly(database, O_DIRECTORY);
  const std::unique_ptr<DIR, int (*)(DIR *)> entries(fd < 0 ? nullptr : fdopendir(fd), closedir);
  if (entries == nullptr) return versions;
  while (const dirent *entry = readdir(entries.get())) {
    const std::string name = entry->d_name;
    const std::string directory = pathIn(database, name);
    if (name[0] == '.' || name == currentName || !isVersion(directory)) continue;
    versions.push_back({name, directory, isThere(pathIn(directory, unfinishedMark))});
  }
  std::sort(versions.begin(), versions.end(),
            [](const Version &a, const Version &b) { return a.name < b.name; });
  return versions;
}

std::unique_ptr<WorkDirectory> keepCurrent(const std::string &database,
                                           const VersionContent &content, Version *made,
                                           std::string *error) {
  std::unique_ptr<WorkDirectory> work = WorkDirectory::make(database, error);
  if (work == nullptr ||
      !copyOrLinkTables(work.get(), pathIn(database, currentName), content, error) ||
      !publishByTime(work.get(), database, made, error)) {
    return nullptr;
  }
  made->unfinished = content.unfinished;
  return work;
}

bool bytesToKeep(const std::string &database, const VersionContent &content, uint64_t *bytes,
                 std::string *error) {
  *bytes = uint64_t{4} * 4096;  // the directory, the mark, and what the file system adds
  const std::string current = pathIn(database, currentName);
  for (size_t table = 0; table < tableCount; ++table) {
    if (content.leftOut[table]) continue;
    const bool isLinked = content.linksRebuilt && tableFormats[table].isRebuilt;
    if (!addBytes(tablePath(current, table, directorySuffix), bytes, error) ||
        (!isLinked && !addBytes(tablePath(current, table, pageSuffix), bytes, error))) {
      return false;
    }
  }
  return true;
}

bool bytesToRebuild(const std::string &database, uint64_t *bytes, std::string *error) {
  *bytes = 0;
  const std::string current = pathIn(database, currentName);
  for (size_t table = 0; table < tableCount; ++table) {
    if (!tableFormats[table].isRebuilt) continue;
    for (const char *suffix : tableSuffixes) {
      if (!addBytes(tablePath(current, table, suffix), bytes, error)) return false;
    }
  }
  return true;
}

bool replaceLinkByCopy(const WorkDirectory &version, size_t table, std::string *error) {
  const std::string pages = tableFile(table, pageSuffix);
  const std::string copy = pages + ".copy";
  const Descriptor linked(
      openat(version.fd(), pages.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
  struct stat status {};
  if (!linked.isOpen() || fstat(linked.get(), &status) != 0) {
    return failAttempt("open", pages, error);
  }
  if (status.st_nlink < 2) return true;  // was copied already, where it could not be linked
  if (copyFileSynced(linked.get(), version.fd(), copy) != 0 ||
      renameat(version.fd(), copy.c_str(), version.fd(), pages.c_str()) != 0 ||
      fsync(version.fd()) != 0) {
    return failAttempt("copy", pages, error);
  }
  return true;
}

bool copyTables(WorkDirectory *work, const std::string &from,
                const std::array<bool, tableCount> &leftOut, std::string *error) {
  VersionContent content;
  content.leftOut = leftOut;
  return copyOrLinkTables(work, from, content, error);
}

bool makeVersion(const std::string &database, const FillVersion &fill, Version *made,
                 std::string *error) {
  const std::unique_ptr<WorkDirectory> work = WorkDirectory::make(database, error);
  return work != nullptr && fill(work.get(), error) &&
         publishByTime(work.get(), database, made, error);
}

bool removeMark(const Version &version, std::string *error) {
  const std::string mark = pathIn(version.directory, unfinishedMark);
  if (unlink(mark.c_str()) != 0 && errno != ENOENT) return failAttempt("remove", mark, error);
  return syncDirectory(version.directory) == 0 || failAttempt("sync", version.directory, error);
}

bool makeCurrent(const std::string &database, WorkDirectory *work, bool keeps, Version *before,
                 std::string *error) {
  *before = {};
  const std::string current = pathIn(database, currentName);
  struct stat like {};
  if (lstat(current.c_str(), &like) != 0) {
    if (errno != ENOENT || stat(database.c_str(), &like) != 0) {
      return failAttempt("look at", current, error);
    }
    return work->publish(currentName, like, error);
  }
  if (!keeps) {
    if (!work->replace(database, currentName, like, error)) return false;
  } else {
    if (!publishByTime(work, database, before, error)) return false;
    std::string ignored;
    if (!work->exchange(currentName, error)) {
      work->retract(&ignored);
      return false;
    }
  }
  error->clear();  // of publishByTime, about names that were taken
  if (syncDirectory(database) != 0) failAttempt("sync", database, error);
  return true;
}

bool findStrangers(const std::string &directory, bool *found, std::string *error) {
  const std::unique_ptr<DIR, int (*)(DIR *)> entries(opendir(directory.c_str()), closedir);
  if (entries == nullptr) return failAttempt("read", directory, error);
  *found = false;
  errno = 0;
  while (const dirent *entry = readdir(entries.get())) {
    const std::string name = entry->d_name;
    bool known = name == "." || name == ".." || name == unfinishedMark;
    for (size_t table = 0; table < tableCount && !known; ++table) {
      known = name == tableFile(table, directorySuffix) || name == tableFile(table, pageSuffix);
    }
    // A directory under the name of a table is a stranger too: removeFiles would stop at it.
    struct stat status {};
    const bool isDirectory = name[0] != '.' &&
                             lstat(pathIn(directory, name).c_str(), &status) == 0 &&
                             S_ISDIR(status.st_mode);
    if (!known || isDirectory) *found = true;
    errno = 0;
  }
  return errno == 0 || failAttempt("read", directory, error);
}

bool removeVersion(const std::string &database, const Version &version, std::string *error) {
  bool hasStrangers = true;
  if (!findStrangers(version.directory, &hasStrangers, error)) return false;
  if (hasStrangers) {
    *error = "\"" + version.directory + "\" holds more than tables";
    return false;
  }
  const auto work = WorkDirectory::adopt(database, version.name, error);
  return work != nullptr && work->remove(error);
}

class VersionLock {
 public:
  std::vector<std::unique_ptr<TableLock>> locks;
};

std::shared_ptr<VersionLock> lockVersion(const std::string &directory, std::string *error) {
  auto lock = std::make_shared<VersionLock>();
  for (size_t table = 0; table < tableCount; ++table) {
    const std::string path = tablePath(directory, table, pageSuffix);
    if (!tableFormats[table].isLocked || !isThere(path)) continue;
    auto held = std::make_unique<TableLock>();
    if (!held->acquire(path.c_str())) {
      const int reason = errno;
      if (reason == EINVAL || reason == ELOOP) continue;  // what is no table file, nobody has open
      failAttempt("lock", path, error);
      if (reason == EWOULDBLOCK) {
        *error = "table \"" + path + "\" is held by " + lockHolder(path);
      }
      errno = reason;
      return nullptr;
    }
    lock->locks.push_back(std::move(held));
  }
  return lock;
}
