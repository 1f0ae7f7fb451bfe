// Where the platform keeps its databases, and the base library's path and directory operations.
#pragma once

#include <sys/types.h>

#include <cstddef>

// The directory of a service's database: "/usr/NQ/databases/SERVICE", or for a database NAME
// "/usr/NQ/databases/NAME/SERVICE". A static string that the next call overwrites; null when the
// path would be longer than 1,023 characters.
const char *_NQwDbBuildDbPath(const char *name, const char *service);

// Creates that directory for the service "nqwdb", with its parents. 0, or negative on failure.
int _NQwDbMakeDbDir(const char *name);

// Appends "/" and the component to the path, a buffer of `size` bytes. A null or an empty component
// leaves the path as it is. 0, or -1 and the path unchanged when the result would not fit.
int _NQConcatPath(char *path, size_t size, const char *component);

// Creates one directory. With existingOk 1 a directory that is already there is a success.
// 0, or negative on failure.
int _NQMakeDir(const char *path, mode_t mode, int existingOk);
