#include <cerrno>

#include "objdb/changes.h"
#include "objdb/commands.h"
#include "objdb/options.h"
#include "platform/table_lock.h"

namespace {

ObjdbStatus removeArchived(const VersionPath &database, bool force) {
  requireDatabase(database.directory);
  const Version version = requireVersion(database);
  if (version.unfinished && !force) {
    throw CommandFailure("version \"" + version.name +
                         "\" is the way back from a run that did not finish; restore it, or remove "
                         "it with --force");
  }
  const auto lock = lockOrFail(version.directory);
  removeLeftovers(database.directory);
  std::string error;
  if (removeVersion(database.directory, version, &error)) return objdbFine;
  if (errno != EWOULDBLOCK) throw CommandFailure(error);
  // A run that is still at work holds the directory of its kept version, not its tables.
  throw CommandFailure("version \"" + version.name + "\" is held by " +
                           lockHolder(version.directory) + "; nothing was changed",
                       objdbInUse);
}

ObjdbStatus runRemove(Options &options) {
  VersionPath database;
  bool force = false;
  options.directory(&database);
  options.argument("VERSION", &database.name, "The version, as 'objdb versions' names it");
  options.flag("--force", &force, "Remove an unfinished version, too");
  options.parse();
  return removeArchived(database, force);
}

}  // namespace

const Command removeCommand{"remove", "Remove an archived version", "objdb remove 22112026.231500",
                            runRemove};
