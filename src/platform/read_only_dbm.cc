#include "platform/read_only_dbm.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>

#include "platform/files.h"

namespace {

// The descriptor, or -1. Whatever stands there, the open does not wait.
int openFile(const std::string &path) {
  const int fd = openQuietly(path, O_NOFOLLOW | O_NONBLOCK);
  struct stat status {};
  if (fd < 0 || (fstat(fd, &status) == 0 && S_ISREG(status.st_mode))) return fd;
  close(fd);
  errno = EINVAL;
  return -1;
}

}  // namespace

DBM *openReadOnlyDbm(const std::string &path) {
  const std::string pages = path + ".pag";
  const int directory = openFile(path + ".dir");
  if (directory < 0) return nullptr;
  const int fd = openFile(pages);
  constexpr int flags = GDBM_READER | GDBM_NOLOCK | GDBM_CLOERROR;
  GDBM_FILE file = fd < 0 ? nullptr : gdbm_fd_open(fd, pages.c_str(), 0, flags, nullptr);
  // Put together as dbm_open does it, from storage that dbm_close frees.
  auto *dbm = file == nullptr ? nullptr : static_cast<DBM *>(calloc(1, sizeof(DBM)));
  if (dbm != nullptr) {
    dbm->file = file;
    dbm->dirfd = directory;
    return dbm;
  }
  const int error = errno;
  if (file != nullptr) gdbm_close(file);
  close(directory);
  errno = error;
  return nullptr;
}
