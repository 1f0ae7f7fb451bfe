// Exclusive locks on whole table files, held by the process and not by a handle.
//
// A run keeps two handles on one table at a time, and closing one must not drop the lock of the
// other. So the lock (flock, which the GNU dbm tools respect) hangs on a descriptor of its own, one
// for each file (device and inode), with a count of the handles that share it.
#pragma once

#include <sys/stat.h>
#include <sys/types.h>

#include <string>

#include "platform/files.h"

// Who holds a lock on the file, in words: "process 4711 (nqwdb)", or "another process" where the
// kernel does not tell.
std::string lockHolder(const struct stat &file);
std::string lockHolder(const std::string &path);

class TableLock {
 public:
  TableLock() = default;
  ~TableLock() { release(); }
  TableLock(const TableLock &) = delete;
  TableLock &operator=(const TableLock &) = delete;

  // Locks the file that `path` names, which must be the one open as `fd`, without waiting. False,
  // and errno says why: EWOULDBLOCK when another process holds it, ESTALE when the file at the path
  // is not that one, EINVAL or ELOOP when it is no regular file (openRegular). Locking again what
  // is already held succeeds.
  bool acquire(const char *path, int fd);
  bool acquire(const char *path);                     // for a file that is not open
  bool acquireOrMake(const char *path, mode_t mode);  // and may not be there
  void release();

 private:
  bool held_ = false;
  FileIdentity file_;
};
