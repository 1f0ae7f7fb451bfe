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

namespace {

// Closes on every way out; a close whose result matters is made by hand.
class Descriptor {
 public:
  explicit Descriptor(int fd) : fd_(fd) {}
  ~Descriptor() {
    const int saved = errno;
    if (fd_ >= 0) ::close(fd_);
    errno = saved;
  }
  Descriptor(const Descriptor &) = delete;
  Descriptor &operator=(const Descriptor &) = delete;

  int get() const { return fd_; }
  int close() {
    const int fd = fd_;
    fd_ = -1;
    return ::close(fd);
  }

 private:
  int fd_;
};

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
  const int fd = open(path.c_str(), flags | O_NOATIME);
  return fd < 0 && errno == EPERM ? open(path.c_str(), flags) : fd;
}

int copyFileSynced(const std::string &from, const std::string &to) {
  const Descriptor source(openQuietly(from, 0));
  struct stat status {};
  if (source.get() < 0 || fstat(source.get(), &status) != 0) return -1;
  Descriptor target(open(to.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600));
  if (target.get() < 0) return -1;
  if (ioctl(target.get(), FICLONE, source.get()) != 0 &&
      copyBytes(source.get(), target.get()) != 0) {
    return -1;
  }
  // The owner may be beyond our reach; what the file says is not.
  [[maybe_unused]] const int owned = fchown(target.get(), status.st_uid, status.st_gid);
  if (fchmod(target.get(), status.st_mode & 07777) != 0 || fsync(target.get()) != 0) return -1;
  return target.close();
}

int makeMarker(const std::string &path) {
  Descriptor marker(open(path.c_str(), O_WRONLY | O_CREAT | O_NOFOLLOW | O_CLOEXEC, 0644));
  if (marker.get() < 0 || fsync(marker.get()) != 0) return -1;
  return marker.close();
}

int syncDirectory(const std::string &directory) {
  const Descriptor opened(open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  return opened.get() < 0 ? -1 : fsync(opened.get());
}

int freeBytes(const std::string &directory, uint64_t *bytes) {
  struct statvfs status {};
  if (statvfs(directory.c_str(), &status) != 0) return -1;
  *bytes = uint64_t{status.f_bavail} * status.f_frsize;
  return 0;
}

int removeDirectory(const std::string &directory) {
  const std::unique_ptr<DIR, int (*)(DIR *)> entries(opendir(directory.c_str()), closedir);
  if (entries == nullptr) return errno == ENOENT ? 0 : -1;
  while (const dirent *entry = readdir(entries.get())) {
    if (strcmp(entry->d_name, ".") == 0 || strcmp(entry->d_name, "..") == 0) continue;
    if (unlinkat(dirfd(entries.get()), entry->d_name, 0) != 0) return -1;
  }
  return rmdir(directory.c_str());
}
