// The kept and archived versions: what there is, making one, going back to one.

#include "store/versions.h"

#include <cstdio>

#include "objdb/commands.h"
#include "objdb/options.h"

namespace {

ObjdbStatus refuse(const std::string &why) {
  fprintf(stderr, "objdb: %s; nothing was changed\n", why.c_str());
  return objdbFailed;
}

ObjdbStatus fail(const std::string &why) {
  fprintf(stderr, "objdb: %s\n", why.c_str());
  return objdbFailed;
}

ObjdbStatus printVersions(const VersionPath &database) {
  bool unfinished = false;
  for (const Version &version : listVersions(database.directory)) {
    printf("%s%s\n", version.name.c_str(), version.unfinished ? " unfinished" : "");
    unfinished = unfinished || version.unfinished;
  }
  return unfinished ? objdbFindings : objdbFine;
}

ObjdbStatus archiveDatabase(const VersionPath &database) {
  std::string error;
  const auto lock = lockVersion(database.directory + "/current", &error);
  if (lock == nullptr) return refuse(error);
  Version made;
  if (!makeVersion(database.directory, false, &made, &error)) return fail(error);
  printf("%s\n", made.name.c_str());
  return objdbFine;
}

ObjdbStatus restoreDatabase(const VersionPath &database, bool dryRun) {
  for (const Version &version : listVersions(database.directory)) {
    if (version.name != database.name) continue;
    std::string error;
    const auto lock = lockVersion(database.directory + "/current", &error);
    if (lock == nullptr) return refuse(error);
    if (dryRun) {
      printf("would put the tables of \"%s\" in place of \"%s/current\"%s\n",
             version.directory.c_str(), database.directory.c_str(),
             version.unfinished ? " and take its mark \"unfinished\" away" : "");
      return objdbFine;
    }
    removeLeftovers(database.directory);
    return restoreVersion(database.directory, version, &error) ? objdbFine : fail(error);
  }
  return refuse("no version \"" + database.name + "\" in \"" + database.directory + "\"");
}

ObjdbStatus runVersions(Options &options) {
  VersionPath database;
  options.directory(&database);
  options.parse();
  return printVersions(database);
}

ObjdbStatus runArchive(Options &options) {
  VersionPath database;
  options.directory(&database);
  options.parse();
  return archiveDatabase(database);
}

ObjdbStatus runRestore(Options &options) {
  VersionPath database;
  bool dryRun = false;
  options.directory(&database);
  options.argument("VERSION", &database.name, "The version, as 'objdb versions' names it");
  options.flag("--dry-run", &dryRun, "Only say what would be done");
  options.parse();
  return restoreDatabase(database, dryRun);
}

}  // namespace

const Command versionsCommand{"versions",
                              "List the archived versions and those that a run has left unfinished",
                              "objdb versions", runVersions};

const Command archiveCommand{"archive", "Make an archived version of the current tables",
                             "objdb archive", runArchive};

const Command restoreCommand{"restore", "Put the tables of a version in place of the current ones",
                             "objdb restore 22112026.231500", runRestore};
