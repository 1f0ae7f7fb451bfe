// Making, finding and removing archived versions of the database: directories beside "current" that
// hold all six tables. A version is made under a temporary name that no version has, is complete on
// the disk before it gets its own, and is unmade the same way back, so that a version that can be
// seen is always whole.
//
// A file "unfinished" in a version says that a run has started to change "current" and has not
// finished: the version then holds the tables as they were.
//
// `database` is the database directory. Functions that can fail return false and put what was
// attempted, and why it failed, into *error.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

struct Version {
  std::string name;
  std::string directory;
  bool unfinished;
};

// All archived versions that hold a table file, in the order of their names.
std::vector<Version> listVersions(const std::string &database);

// Copies the tables of "current" into a new version named by the present time, or the next second
// that is free, and waits until it is on the disk. Nothing is left behind on failure.
bool makeVersion(const std::string &database, bool unfinished, Version *made, std::string *error);

// The same for a version whose files `fill` makes: in the empty directory that it is given, and on
// the disk when it returns.
using FillVersion = std::function<bool(const std::string &directory, std::string *error)>;
bool makeVersion(const std::string &database, const FillVersion &fill, Version *made,
                 std::string *error);

// Takes the mark away; the version stays as an archived one.
bool finishVersion(const Version &version, std::string *error);

// Removes a version. Cut short, it leaves a directory that is no version.
bool removeVersion(const std::string &database, const Version &version, std::string *error);

// Puts a copy of the version's tables in place of "current", takes the mark away, and only then
// removes what was there before. Cut short anywhere, it can be done again. The version stays.
bool restoreVersion(const std::string &database, const Version &version, std::string *error);

// Removes what an earlier call has left when it was cut short. The database must be locked.
void removeLeftovers(const std::string &database);

// Bytes that keeping the tables of "current" and making the three of the objects anew may take.
bool bytesForRewrite(const std::string &database, uint64_t *bytes, std::string *error);

// Locks the tables of a version against other processes, as far as they are there, for as long as
// the result lives. Null when one is held.
class VersionLock;
std::shared_ptr<VersionLock> lockVersion(const std::string &directory, std::string *error);
