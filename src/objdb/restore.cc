#include <sys/stat.h>

#include <algorithm>
#include <cstdio>

#include "objdb/changes.h"
#include "objdb/commands.h"
#include "objdb/options.h"
#include "objdb/table_writer.h"

namespace {

// The counter that the current tables and the version agree with.
bool addIdKeeper(WorkDirectory *work, const std::string &current, uint32_t highestId,
                 std::string *error) {
  const uint32_t counter = std::max(surveyVersion(current).counter, lowestCounter(highestId));
  const std::string key = keyOf({0});
  const std::string bytes = encodedRecord(idKeeper, &counter);
  return writeTable(work->path(), idKeeper, {{key, bytes}}, error);
}

// A link leads to files that lie elsewhere, which an exchange of names would not reach.
void refuseLink(const std::string &current) {
  struct stat status {};
  if (lstat(current.c_str(), &status) == 0 && !S_ISDIR(status.st_mode)) {
    throw CommandFailure("\"" + current + "\" is no directory; nothing was changed");
  }
}

ObjdbStatus putInPlace(const std::string &database, const Version &version, WorkDirectory *work) {
  std::string error;
  Version replaced;
  // Whatever else somebody has put there stays.
  const std::string current = pathIn(database, currentName);
  struct stat status {};
  bool hasStrangers = false;
  if (stat(current.c_str(), &status) == 0 && !findStrangers(current, &hasStrangers, &error)) {
    throw CommandFailure(error + "; nothing was changed");
  }
  const bool keeps = !version.unfinished || hasStrangers;
  if (!makeCurrent(database, work, keeps, &replaced, &error)) {
    throw CommandFailure(error + "; nothing was changed");
  }
  if (error.empty() && version.unfinished && removeMark(version, &error)) {
    work->removeReplaced(&error);
  }
  if (keeps && !replaced.name.empty()) puts(replaced.name.c_str());
  if (error.empty()) return objdbFine;
  throw CommandFailure("the tables of \"" + version.name + "\" are in place, but: " + error);
}

// What was current becomes a version, or does not, by the mark: it has to be known.
void requireKnownMark(const Version &version) {
  const std::string mark = pathIn(version.directory, unfinishedMark);
  struct stat status {};
  std::string error;
  if (!version.unfinished || lstat(mark.c_str(), &status) == 0) return;
  failAttempt("look at", mark, &error);
  throw CommandFailure(error + "; nothing was changed");
}

ObjdbStatus restoreTables(const VersionPath &database, bool partial, bool dryRun) {
  requireDatabase(database.directory);
  const Version version = requireVersion(database);
  const std::string current = pathIn(database.directory, currentName);
  requireKnownMark(version);
  refuseLink(current);
  const auto currentLock = lockOrFail(current);
  const auto versionLock = lockOrFail(version.directory);  // or it could be removed meanwhile
  if (!dryRun) removeLeftovers(database.directory);
  const Survey source = surveyVersion(version.directory);
  if (!source.isThere || (!source.isWhole && !partial)) {
    throw CommandFailure("version \"" + version.name + "\" is not whole: " + source.whatIsWrong +
                         "; nothing was changed" +
                         (source.isThere ? "; --partial restores what there is" : ""));
  }
  std::string error;
  const auto work = WorkDirectory::make(database.directory, &error);
  if (work == nullptr || !copyCompared(work.get(), version.directory, source, &error) ||
      (!source.hasIdKeeper && !addIdKeeper(work.get(), current, source.highestId, &error))) {
    throw CommandFailure(error + "; nothing was changed");
  }
  if (!dryRun) return putInPlace(database.directory, version, work.get());
  printf("would put the tables of \"%s\" in place of \"%s\"%s\n", version.directory.c_str(),
         current.c_str(), version.unfinished ? " and take its mark \"unfinished\" away" : "");
  return objdbFine;
}

ObjdbStatus runRestore(Options &options) {
  VersionPath database;
  bool partial = false;
  bool dryRun = false;
  options.directory(&database);
  options.argument("VERSION", &database.name, "The version, as 'objdb versions' names it");
  options.flag("--partial", &partial, "Restore a version that is not whole, too");
  options.flag("--dry-run", &dryRun, "Copy and compare the tables, and change nothing");
  options.parse();
  return restoreTables(database, partial, dryRun);
}

}  // namespace

const Command restoreCommand{"restore", "Put the tables of a version in place of the current ones",
                             "objdb restore 22112026.231500", runRestore};
