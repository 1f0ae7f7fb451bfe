#include "platform/table_lock.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>
#include <vector>

#include "platform/files.h"

namespace {

struct HeldFile {
  dev_t device;
  ino_t inode;
  int fd;
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

auto findHeld(dev_t device, ino_t inode) {
  return std::find_if(registry.files.begin(), registry.files.end(), [&](const HeldFile &file) {
    return file.device == device && file.inode == inode;
  });
}

bool fail(int fd, int error) {
  if (fd >= 0) close(fd);
  errno = error;
  return false;
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
  if (!S_ISREG(opened.st_mode)) return fail(-1, ESTALE);
  // By device and inode, not by path: a file keeps its lock when it is renamed or linked elsewhere.
  auto held = findHeld(opened.st_dev, opened.st_ino);
  if (held != registry.files.end()) {
    ++held->handles;
  } else {
    // A descriptor of the registry's own: flock belongs to the open file, and would go with the
    // caller's descriptor.
    const int own = openRegular(path, O_RDONLY);
    if (own < 0) return false;
    struct stat named {};
    if (fstat(own, &named) != 0) return fail(own, errno);
    if (named.st_dev != opened.st_dev || named.st_ino != opened.st_ino) return fail(own, ESTALE);
    if (flock(own, LOCK_EX | LOCK_NB) != 0) return fail(own, errno);
    registry.files.push_back({opened.st_dev, opened.st_ino, own, 1});
  }
  held_ = true;
  device_ = opened.st_dev;
  inode_ = opened.st_ino;
  return true;
}

bool TableLock::acquire(const char *path) {
  return acquireOpened(path, openRegular(path, O_RDONLY));
}

bool TableLock::acquireOrMake(const char *path, mode_t mode) {
  return acquireOpened(path, openRegular(path, O_RDONLY | O_CREAT, mode));
}

bool TableLock::acquireOpened(const char *path, int fd) {
  if (fd < 0) return false;
  if (!acquire(path, fd)) return fail(fd, errno);
  close(fd);
  return true;
}

void TableLock::release() {
  if (!held_) return;
  held_ = false;
  auto held = findHeld(device_, inode_);
  if (held == registry.files.end() || --held->handles > 0) return;
  close(held->fd);
  registry.files.erase(held);
}
