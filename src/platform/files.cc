#include "platform/files.h"

#include <dirent.h>
#include <fcntl.h>
#include <linux/fs.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <memory>

#include "platform/descriptor.h"

namespace {

int copyBytes(int from, int to) {
  std::array<char, size_t{256} * 1024> buffer;
  for (;;) {
    const ssize_t got = read(from, buffer.data(), buffer.size());
    if (got <= 0) return static_cast<int>(got);
    for (ssize_t done = 0; done < got;) {
      const ssize_t written =
          write(to, &buffer[static_cast<size_t>(done)], static_cast<size_t>(got - done));
      if (written < 0) return -1;
      done += written;
    }
  }
}

}  // namespace

int openQuietly(const std::string &path, int flags) {
  flags |= O_RDONLY | O_CLOEXEC;
  // Only the owner of a file may ask for O_NOATIME; others are refused with EPERM.
  const int fd = open(path.c_str(), flags | O_NOATIME);
  return fd < 0 && errno == EPERM ? open(path.c_str(), flags) : fd;
}

int openRegular(const std::string &path, int flags, mode_t mode) {
  // O_CREAT goes with O_EXCL only, after a plain open has found nothing: alone it would open what
  // somebody else puts there in between. O_NONBLOCK: a FIFO in the place of a table is not waited
  // for.
  const bool makes = (flags & O_CREAT) != 0;
  flags = (flags & ~O_CREAT) | O_NONBLOCK | O_CLOEXEC;
  const auto openAs = [&](int more) {
    const bool onlyReads = (flags & O_ACCMODE) == O_RDONLY;
    const int fd = open(path.c_str(), flags | more | (onlyReads ? O_NOATIME : 0), mode);
    return fd < 0 && errno == EPERM ? open(path.c_str(), flags | more, mode) : fd;
  };
  Descriptor file(openAs(O_NOFOLLOW));
  if (!file.isOpen() && errno == ENOENT && makes) {
    file = Descriptor(openAs(O_NOFOLLOW | O_CREAT | O_EXCL));
  } else if (!file.isOpen() && errno == ELOOP) {
    // The directory may be open to everybody, and a link in it lead anywhere.
    struct stat link {};
    const bool trusted = lstat(path.c_str(), &link) == 0 && link.st_uid == 0;
    if (trusted) file = Descriptor(openAs(0));
    if (!file.isOpen()) errno = ELOOP;
  }
  struct stat status {};
  if (!file.isOpen() || fstat(file.get(), &status) != 0) return -1;
  if (S_ISREG(status.st_mode)) return file.release();
  errno = EINVAL;
  return -1;
}

int copyFileSynced(int from, int directory, const std::string &name) {
  struct stat status {};
  if (fstat(from, &status) != 0 || lseek(from, 0, SEEK_SET) != 0) return -1;
  Descriptor target(
      openat(directory, name.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600));
  if (!target.isOpen()) return -1;
  if (ioctl(target.get(), FICLONE, from) != 0 && copyBytes(from, target.get()) != 0) return -1;
  // Setting the owner may fail without the right to do so; the copy is good all the same.
  [[maybe_unused]] const int owned = fchown(target.get(), status.st_uid, status.st_gid);
  if (fchmod(target.get(), status.st_mode & 07777) != 0 || fsync(target.get()) != 0) return -1;
  return target.close();
}

// The caller syncs the directory, with all else that it has made there.
int makeMarker(int directory, const std::string &name) {
  Descriptor marker(openat(directory, name.c_str(),
                           O_WRONLY | O_CREAT | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC, 0644));
  if (!marker.isOpen() || fsync(marker.get()) != 0) return -1;
  return marker.close();
}

int syncDirectory(const std::string &directory) {
  const Descriptor opened(open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  return opened.isOpen() ? fsync(opened.get()) : -1;
}

int freeBytes(const std::string &directory, uint64_t *bytes) {
  struct statvfs status {};
  if (statvfs(directory.c_str(), &status) != 0) return -1;
  *bytes = uint64_t{status.f_bavail} * status.f_frsize;
  return 0;
}

int removeFiles(int directory) {
  // A descriptor of its own, since closedir closes it.
  Descriptor own(openat(directory, ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (!own.isOpen()) return -1;
  const std::unique_ptr<DIR, int (*)(DIR *)> entries(fdopendir(own.get()), closedir);
  if (entries == nullptr) return -1;
  own.release();
  // readdir ends with a null pointer and fails with one: only errno tells the two apart.
  errno = 0;
  while (const dirent *entry = readdir(entries.get())) {
    if (strcmp(entry->d_name, ".") == 0 || strcmp(entry->d_name, "..") == 0) continue;
    if (unlinkat(directory, entry->d_name, 0) != 0) return -1;
    errno = 0;
  }
  return errno == 0 ? 0 : -1;
}
