#include "platform/table_lock.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/sysmacros.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>
#include <utility>
#include <vector>

#include "platform/descriptor.h"
#include "platform/files.h"

namespace {

struct HeldFile {
  FileIdentity file;
  // Of the registry's own: flock belongs to the open file, and would go with the caller's
  // descriptor.
  Descriptor lock;
  int handles;
};

// Never destroyed, since locks may be released while the process' other statics are, and without an
// allocation at the start, when nothing could say that it failed.
union HeldFiles {
  HeldFiles() : files() {}
  ~HeldFiles() {}
  std::vector<HeldFile> files;
};
HeldFiles registry;

auto findHeld(const FileIdentity &file) {
  return std::find_if(registry.files.begin(), registry.files.end(),
                      [&](const HeldFile &held) { return held.file == file; });
}

using File = std::unique_ptr<FILE, int (*)(FILE *)>;

// The name of a process, which it may choose itself: without characters that control a terminal.
std::string processName(long process) {
  const File comm(fopen(("/proc/" + std::to_string(process) + "/comm").c_str(), "re"), fclose);
  char name[64];
  if (comm == nullptr || fgets(name, sizeof name, comm.get()) == nullptr) return "";
  name[strcspn(name, "\n")] = '\0';
  for (char *each = name; *each != '\0'; ++each) {
    if (*each < ' ' || *each > '~') *each = '?';
  }
  return name;
}

}  // namespace

std::string lockHolder(const struct stat &file) {
  char wanted[64];
  snprintf(wanted, sizeof wanted, "%02x:%02x:%llu", major(file.st_dev), minor(file.st_dev),
           static_cast<unsigned long long>(file.st_ino));
  const File locks(fopen("/proc/locks", "re"), fclose);
  char line[256];
  while (locks != nullptr && fgets(line, sizeof line, locks.get()) != nullptr) {
    long holder = 0;  // 0 for a process of another namespace
    char place[64];
    if (sscanf(line, "%*s FLOCK %*s %*s %ld %63s", &holder, place) != 2 || holder <= 0 ||
        strcmp(place, wanted) != 0) {
      continue;
    }
    const std::string name = processName(holder);
    return "process " + std::to_string(holder) + (name.empty() ? "" : " (" + name + ")");
  }
  return "another process";
}

std::string lockHolder(const std::string &path) {
  struct stat file {};
  return stat(path.c_str(), &file) == 0 ? lockHolder(file) : "another process";
}

bool TableLock::acquire(const char *path, int fd) {
  if (held_) return true;
  struct stat opened {};
  if (fstat(fd, &opened) != 0) return false;
  // Not by path: a file keeps its lock when it is renamed or linked elsewhere.
  file_ = identityOf(opened);
  const auto held = findHeld(file_);
  if (held != registry.files.end()) {
    ++held->handles;
  } else {
    Descriptor own(openRegular(path, O_RDONLY));
    struct stat named {};
    if (!own.isOpen() || fstat(own.get(), &named) != 0) return false;
    if (identityOf(named) != file_) {
      errno = ESTALE;
      return false;
    }
    if (flock(own.get(), LOCK_EX | LOCK_NB) != 0) return false;
    registry.files.push_back({file_, std::move(own), 1});
  }
  held_ = true;
  return true;
}

bool TableLock::acquire(const char *path) {
  const Descriptor file(openRegular(path, O_RDONLY));
  return file.isOpen() && acquire(path, file.get());
}

bool TableLock::acquireOrMake(const char *path, mode_t mode) {
  const Descriptor file(openRegular(path, O_RDONLY | O_CREAT, mode));
  return file.isOpen() && acquire(path, file.get());
}

void TableLock::release() {
  if (!held_) return;
  held_ = false;
  const auto held = findHeld(file_);
  if (--held->handles == 0) registry.files.erase(held);
}
