// stat for files with a time past 2038, in 32-bit programs alone. There the dbm library and the C++
// library of Debian ask for a file's state with times of 32 bits, and the C library refuses that
// for such a file: no table could be opened, whatever the rest of the program can do. The linker
// puts the functions below in place of those that the two libraries call. They truncate the times,
// which neither library looks at.
#undef _TIME_BITS  // the structure as those libraries know it

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>

namespace {

timespec truncatedTime(const statx_timestamp &time) {
  return {static_cast<time_t>(time.tv_sec), static_cast<long>(time.tv_nsec)};
}

int stateOf(int directory, const char *path, int flags, struct stat64 *status) {
  struct statx from {};
  if (statx(directory, path, flags, STATX_BASIC_STATS, &from) != 0) return -1;
  *status = {};
  status->st_dev = makedev(from.stx_dev_major, from.stx_dev_minor);
  status->st_ino = from.stx_ino;
  status->st_mode = from.stx_mode;
  status->st_nlink = from.stx_nlink;
  status->st_uid = from.stx_uid;
  status->st_gid = from.stx_gid;
  status->st_rdev = makedev(from.stx_rdev_major, from.stx_rdev_minor);
  status->st_size = static_cast<off64_t>(from.stx_size);
  status->st_blksize = static_cast<blksize_t>(from.stx_blksize);
  status->st_blocks = static_cast<__blkcnt64_t>(from.stx_blocks);
  status->st_atim = truncatedTime(from.stx_atime);
  status->st_mtim = truncatedTime(from.stx_mtime);
  status->st_ctim = truncatedTime(from.stx_ctime);
  return 0;
}

}  // namespace

extern "C" {

int fstat64(int fd, struct stat64 *status) noexcept {
  return stateOf(fd, "", AT_EMPTY_PATH, status);
}

int stat64(const char *path, struct stat64 *status) noexcept {
  return stateOf(AT_FDCWD, path, 0, status);
}

int lstat64(const char *path, struct stat64 *status) noexcept {
  return stateOf(AT_FDCWD, path, AT_SYMLINK_NOFOLLOW, status);
}
}
