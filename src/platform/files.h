// Files and directories that have to be on the disk, whatever happens next. Functions that can fail
// return 0 (or what they say), or -1 with errno.
#pragma once

#include <cstdint>
#include <string>

// Opens a file or directory for reading, with those flags, so that no access time is left, which
// its owner alone may ask for. The descriptor.
int openQuietly(const std::string &path, int flags);

// Copies a file to a new one with the same mode and owner, shared on disk where the file system can
// (reflink), and waits until the copy is on the disk. The target must not exist; it is never a link
// that is followed.
int copyFileSynced(const std::string &from, const std::string &to);

// Makes an empty file that is on the disk.
int makeMarker(const std::string &path);

// Waits until the directory's entries are on the disk.
int syncDirectory(const std::string &directory);

// Bytes that a new file may take on the directory's file system, for anybody but the super-user.
int freeBytes(const std::string &directory, uint64_t *bytes);

// Removes a directory and the files in it, but no directories below it. An absent one is a success.
int removeDirectory(const std::string &directory);
