// Making, finding and removing archived versions of the database: directories beside "current" that
// hold its tables. A version is made in a work directory, has all its files on the disk before it
// gets its name, and loses its name before it is removed, so that nobody sees half of one.
//
// `database` is the database directory. Functions that can fail return false or null and put what
// was attempted, and why it failed, into *error.
#pragma once

#include <array>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "store/tables.h"
#include "store/work_directory.h"

struct Version {
  std::string name;
  std::string directory;
  bool unfinished;  // also when its mark cannot be looked at
};

// All archived versions that hold a table file or the mark of an unfinished run, in the order of
// their names.
std::vector<Version> listVersions(const std::string &database);

// What a version of "current" is made of.
struct VersionContent {
  bool unfinished = false;  // with the mark
  // The page files that a rewrite removes are hard links and no copies, where the file system
  // allows it. This is safe only because the caller then removes their names from "current".
  bool linksRebuilt = false;
  std::array<bool, tableCount> leftOut{};  // tables that were not there
};

// Makes a version of "current", named by the present time or the next second that is free. On
// failure nothing stays of it.
std::unique_ptr<WorkDirectory> keepCurrent(const std::string &database,
                                           const VersionContent &content, Version *made,
                                           std::string *error);

// Bytes that such a version needs of its own.
bool bytesToKeep(const std::string &database, const VersionContent &content, uint64_t *bytes,
                 std::string *error);

// Bytes of the tables that a rewrite makes again.
bool bytesToRebuild(const std::string &database, uint64_t *bytes, std::string *error);

// Replaces the linked page file of a table in the version by a copy. Called before that file is
// written over in "current".
bool replaceLinkByCopy(const WorkDirectory &version, size_t table, std::string *error);

// Makes a version of the files that `fill` puts into the empty directory that it is given. They are
// on the disk when `fill` returns.
using FillVersion = std::function<bool(WorkDirectory *work, std::string *error)>;
bool makeVersion(const std::string &database, const FillVersion &fill, Version *made,
                 std::string *error);

// Copies the tables of a version, except those left out, and waits until they are on the disk. A
// table that is not there is passed over; one that has only one of its two files is an error.
bool copyTables(WorkDirectory *work, const std::string &from,
                const std::array<bool, tableCount> &leftOut, std::string *error);

// Takes the mark away; the version stays as an archived one.
bool removeMark(const Version &version, std::string *error);

// Makes the work directory "current", at once: the two exchange their names, so that "current" is
// always there and whole. With `keeps` the former "current" is a version afterwards, *before: the
// work directory is published as a version first, and the exchange gives that name to the former
// "current". Otherwise the former "current" goes with the work directory (removeReplaced, or its
// destructor). Where there is no "current", the work directory takes that name, and *before is
// empty. True once "current" is the new one, even if *error says what failed after that.
bool makeCurrent(const std::string &database, WorkDirectory *work, bool keeps, Version *before,
                 std::string *error);

// Removes a version with its files. False, and nothing is changed, when something else is in it.
bool removeVersion(const std::string &database, const Version &version, std::string *error);

// *found: whether a directory holds anything else than a version does, which is files of tables and
// the mark. False when it cannot be looked at.
bool findStrangers(const std::string &directory, bool *found, std::string *error);

// Locks the tables of a version against other processes, as far as they are there, for as long as
// the result lives. Null, with errno EWOULDBLOCK and the process in *error, when one is held.
class VersionLock;
std::shared_ptr<VersionLock> lockVersion(const std::string &directory, std::string *error);
