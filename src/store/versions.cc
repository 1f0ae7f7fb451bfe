#include "store/versions.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <ctime>
#include <memory>
#include <string_view>

#include "platform/files.h"
#include "platform/table_lock.h"
#include "store/directory.h"

namespace {

struct TableFile {
  const char *name;
  bool rewritten;  // by a sweep
};
constexpr TableFile tableFiles[] = {{"id_keeper", false}, {"field_info", false},
                                    {"obj_info", true},   {"value_info", true},
                                    {"name_info", true},  {"enum_info", false}};
constexpr const char *suffixes[] = {".dir", ".pag"};
constexpr char marker[] = "/unfinished";
constexpr char currentName[] = "/current";

// Names that no version has: for what is being made and for what is being removed.
constexpr char making[] = "/.dbsweep-make";
constexpr char removing[] = "/.dbsweep-remove";

bool isThere(const std::string &path) {
  struct stat status {};
  return lstat(path.c_str(), &status) == 0;
}

bool fail(const char *attempt, const std::string &path, std::string *error) {
  const char *reason = strerror(errno);
  *error = std::string("could not ") + attempt + " \"" + path + "\": " + reason;
  return false;
}

bool renameSynced(const std::string &database, const std::string &from, const std::string &to,
                  std::string *error) {
  if (rename(from.c_str(), to.c_str()) != 0) {
    return fail("rename", from, error);
  }
  if (syncDirectory(database) != 0) return fail("sync", database, error);
  return true;
}

bool removeWhole(const std::string &directory, std::string *error) {
  return removeDirectory(directory) == 0 || fail("remove", directory, error);
}

// Copies the table files of one directory into another. A table that is not there is not copied;
// half of one is an error.
bool copyTables(const std::string &from, const std::string &to, std::string *error) {
  for (const TableFile &table : tableFiles) {
    std::string file = "/";
    file += table.name;
    if (!isThere(from + file + ".dir") && !isThere(from + file + ".pag")) continue;
    for (const char *suffix : suffixes) {
      const std::string source = from + file + suffix;
      if (copyFileSynced(source, to + file + suffix) != 0) return fail("copy", source, error);
    }
  }
  return true;
}

// Makes a complete directory under the name of what is being made. Nothing is left of it on
// failure.
bool makeAside(const std::string &database, const FillVersion &fill, std::string *error) {
  const std::string aside = database + making;
  if (!removeWhole(aside, error)) return false;
  if (mkdir(aside.c_str(), 0777) != 0) return fail("make", aside, error);
  bool complete = fill(aside, error);
  if (complete && syncDirectory(aside) != 0) complete = fail("sync", aside, error);
  if (!complete) removeDirectory(aside);
  return complete;
}

FillVersion copyOf(const std::string &from, bool unfinished) {
  return [from, unfinished](const std::string &to, std::string *error) {
    if (!copyTables(from, to, error)) return false;
    return !unfinished || makeMarker(to + marker) == 0 || fail("make", to + marker, error);
  };
}

// The version of the present second, or of the next one that is free.
Version freeVersion(const std::string &database) {
  Version version{"", "", false};
  time_t now = time(nullptr);
  do {
    int flags = 0;
    version.name = dbVersionName(now++, &flags);
    version.directory = database + "/" + version.name;
  } while (isThere(version.directory));
  return version;
}

}  // namespace

std::vector<Version> listVersions(const std::string &database) {
  std::vector<Version> versions;
  const int fd = openQuietly(database, O_DIRECTORY);
  const std::unique_ptr<DIR, int (*)(DIR *)> entries(fd < 0 ? nullptr : fdopendir(fd), closedir);
  if (entries == nullptr) return versions;
  while (const dirent *entry = readdir(entries.get())) {
    std::string directory = database + "/";
    directory += entry->d_name;
    if (entry->d_name[0] == '.' || directory == database + currentName ||
        !isThere(directory + "/obj_info.pag")) {
      continue;
    }
    versions.push_back({entry->d_name, directory, isThere(directory + marker)});
  }
  std::sort(versions.begin(), versions.end(),
            [](const Version &a, const Version &b) { return a.name < b.name; });
  return versions;
}

bool makeVersion(const std::string &database, const FillVersion &fill, Version *made,
                 std::string *error) {
  *made = freeVersion(database);
  if (!makeAside(database, fill, error)) return false;
  if (renameSynced(database, database + making, made->directory, error)) return true;
  removeDirectory(database + making);
  removeDirectory(made->directory);
  return false;
}

bool makeVersion(const std::string &database, bool unfinished, Version *made, std::string *error) {
  if (!makeVersion(database, copyOf(database + currentName, unfinished), made, error)) return false;
  made->unfinished = unfinished;
  return true;
}

bool finishVersion(const Version &version, std::string *error) {
  const std::string mark = version.directory + marker;
  if (unlink(mark.c_str()) != 0 && errno != ENOENT) return fail("remove", mark, error);
  if (syncDirectory(version.directory) != 0) {
    return fail("sync", version.directory, error);
  }
  return true;
}

bool removeVersion(const std::string &database, const Version &version, std::string *error) {
  return removeWhole(database + removing, error) &&
         renameSynced(database, version.directory, database + removing, error) &&
         removeWhole(database + removing, error);
}

bool restoreVersion(const std::string &database, const Version &version, std::string *error) {
  const std::string current = database + currentName;
  if (!makeAside(database, copyOf(version.directory, false), error) ||
      !removeWhole(database + removing, error)) {
    return false;
  }
  // Between the two there is no "current"; the version still has its mark then.
  if (isThere(current) && !renameSynced(database, current, database + removing, error))
    return false;
  return renameSynced(database, database + making, current, error) &&
         finishVersion(version, error) && removeWhole(database + removing, error);
}

void removeLeftovers(const std::string &database) {
  for (const char *name : {making, removing}) removeDirectory(database + name);
}

bool bytesForRewrite(const std::string &database, uint64_t *bytes, std::string *error) {
  *bytes = 0;
  for (const TableFile &table : tableFiles) {
    for (const char *suffix : suffixes) {
      const std::string path = database + currentName + "/" + table.name + suffix;
      struct stat status {};
      if (stat(path.c_str(), &status) != 0) return fail("look at", path, error);
      *bytes += static_cast<uint64_t>(status.st_size) * (table.rewritten ? 2 : 1);
    }
  }
  return true;
}

class VersionLock {
 public:
  std::vector<std::unique_ptr<TableLock>> locks;
};

std::shared_ptr<VersionLock> lockVersion(const std::string &directory, std::string *error) {
  auto lock = std::make_shared<VersionLock>();
  for (const TableFile &table : tableFiles) {
    if (table.name == std::string_view("id_keeper")) continue;
    const std::string path = directory + "/" + table.name + ".pag";
    if (!isThere(path)) continue;
    auto held = std::make_unique<TableLock>();
    if (!held->acquire(path.c_str())) {
      fail("lock", path, error);
      return nullptr;
    }
    lock->locks.push_back(std::move(held));
  }
  return lock;
}
