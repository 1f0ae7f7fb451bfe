// Files and directories that have to be on the disk, whatever happens next, in directories that
// other users may write to. Functions that can fail return 0 (or what they say), or -1 with errno.
#pragma once

#include <sys/stat.h>
#include <sys/types.h>

#include <cstdint>
#include <string>
#include <utility>

// Which file it is, whatever its name.
using FileIdentity = std::pair<dev_t, ino_t>;
inline FileIdentity identityOf(const struct stat &status) {
  return {status.st_dev, status.st_ino};
}

// Opens for reading, with these extra flags, without touching the access time if we own the file.
// Returns the descriptor.
int openQuietly(const std::string &path, int flags);

// Opens a regular file and nothing else, without waiting. A symbolic link is followed only if the
// super-user owns it, and never to a file that is not there: with O_CREAT in the flags a missing
// file is made where its name says, with the mode. Anything else fails with EINVAL, or with ELOOP
// for a link. Returns the descriptor.
int openRegular(const std::string &path, int flags, mode_t mode = 0);

// Copies an open file into a new one, NAME in the directory open as `directory`, with the same mode
// and owner; shared on disk where the file system can (reflink). Waits until the copy is on the
// disk.
int copyFileSynced(int from, int directory, const std::string &name);

// Makes an empty file NAME in an open directory, and waits until it is on the disk.
int makeMarker(int directory, const std::string &name);

// Waits until the directory's entries are on the disk.
int syncDirectory(const std::string &directory);

// Bytes that a new file may take on the directory's file system, for anybody but the super-user.
int freeBytes(const std::string &directory, uint64_t *bytes);

// Removes the files of an open directory, but no directories below it.
int removeFiles(int directory);
