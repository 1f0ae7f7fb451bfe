// The kept and archived versions: what there is, making one, going back to one.

#include "store/versions.h"

#include <cstdio>

#include "objdb/commands.h"

namespace {

int refuse(const std::string &why) {
  fprintf(stderr, "objdb: %s; nothing was changed\n", why.c_str());
  return objdbRefused;
}

int fail(const std::string &why) {
  fprintf(stderr, "objdb: %s\n", why.c_str());
  return objdbFailed;
}

}  // namespace

int printVersions(const DatabaseName &database) {
  bool unfinished = false;
  for (const Version &version : listVersions(database.directory)) {
    printf("%s%s\n", version.name.c_str(), version.unfinished ? " unfinished" : "");
    unfinished = unfinished || version.unfinished;
  }
  return unfinished ? objdbRefused : objdbFine;
}

int archiveDatabase(const DatabaseName &database) {
  std::string error;
  const auto lock = lockVersion(database.directory + "/current", &error);
  if (lock == nullptr) return refuse(error);
  Version made;
  if (!makeVersion(database.directory, false, &made, &error)) return fail(error);
  printf("%s\n", made.name.c_str());
  return objdbFine;
}

int restoreDatabase(const DatabaseName &database, const std::string &name, bool dryRun) {
  for (const Version &version : listVersions(database.directory)) {
    if (version.name != name) continue;
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
  return refuse("no version \"" + name + "\" in \"" + database.directory + "\"");
}
