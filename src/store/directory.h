// Where the versions of the object database lie: one directory a version below the database
// directory, "current" for version 0 and the local time of the version for an archived one.
#pragma once

#include <sys/types.h>

#include <ctime>

// Longest path plus its terminator. A path that would be longer is refused.
constexpr size_t databasePathSize = 1024;

// The database that is worked on; null is the platform's default one.
extern const char *nqwdbname;

// The name of a version and, through *flags, the flags its tables are opened with (read-write and
// create, for every version). Archived versions: "%d%m%Y.%H%M%S" of the local time, in the old data
// format "%d%m%y.%H%M%S". Static strings, one for each format, which the next call overwrites.
const char *dbVersionName(time_t version, int *flags);
const char *dbVersionNameOld(time_t version, int *flags);

// The database directory, then the version `name` (null: "current"; empty: nothing), then `sub` if
// there is one. A static string that the next call overwrites; null when it would be too long.
const char *dbPath(const char *name, const char *sub);

// Called with the exit status before makeDir or makeDbDirs end the process because a directory
// cannot be made. It may say more and must not return. Null: the process ends at once.
extern void (*directoryFailure)(int status);

// Creates one directory, or ends the process silently with status 255.
int makeDir(const char *path, mode_t mode);

// Creates the database directory and the version directory below it; both may be there already. The
// version directory comes last: afterwards dbPath's string names it again. Ends the process with
// status 255 when one of the two cannot be made; with status 0 and a line in the log when one above
// them cannot.
int makeDbDirs(const char *name, mode_t mode);

// Looks whether a version's directory is there: _NQwError is then NQw_VERSION_ALREADY_EXISTS
// (traced), otherwise NQw_NO_ERROR. 0 in both cases; the caller goes on.
int versionExists(const char *path);
