#include "platform/table_lock.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <vector>

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

}  // namespace

bool TableLock::acquire(const char *path, int fd) {
  if (held_) return true;
  struct stat opened {};
  if (fstat(fd, &opened) != 0) return false;
  auto held = findHeld(opened.st_dev, opened.st_ino);
  if (held != registry.files.end()) {
    ++held->handles;
  } else {
    const int own = open(path, O_RDONLY | O_CLOEXEC);
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
  return acquireOpened(path, open(path, O_RDONLY | O_CLOEXEC));
}

bool TableLock::acquireOrMake(const char *path, mode_t mode) {
  return acquireOpened(path, open(path, O_RDONLY | O_CREAT | O_CLOEXEC, mode));
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
