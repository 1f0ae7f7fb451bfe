#include "platform/read_only_dbm.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>

#include "platform/files.h"

DBM *openReadOnlyDbm(const std::string &path) {
  const std::string pages = path + ".pag";
  const int directory = openRegular(path + ".dir", O_RDONLY);
  if (directory < 0) return nullptr;
  // Opened by us and handed over by descriptor: the library would follow any link and wait for a
  // FIFO. It closes the descriptor, also when it fails (GDBM_CLOERROR).
  const int fd = openRegular(pages, O_RDONLY);
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
