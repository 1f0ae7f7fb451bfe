// What the commands share that change something in a database directory.
#pragma once

#include <memory>
#include <string>

#include "objdb/command.h"
#include "objdb/survey.h"
#include "store/versions.h"

// Throws CommandFailure when the directory cannot be looked at, or is a version itself: a
// version made inside of a version would never be found.
void requireDatabase(const std::string &directory);

// The version of that name; throws CommandFailure when there is none.
Version requireVersion(const VersionPath &database);

// Locks the tables of a version, as far as they are there, while the result lives. Throws
// CommandFailure: with objdbInUse when another process has one.
std::shared_ptr<VersionLock> lockOrFail(const std::string &directory);

// Copies the tables of a version that has been surveyed into the work directory, except those that
// have only one of their files, and compares what the two then hold. False, and *error says why, on
// failure.
bool copyCompared(WorkDirectory *work, const std::string &from, const Survey &source,
                  std::string *error);
