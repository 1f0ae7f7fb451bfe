#include <cstdio>

#include "objdb/changes.h"
#include "objdb/commands.h"
#include "objdb/options.h"

namespace {

ObjdbStatus archiveCurrent(const std::string &directory, bool partial) {
  requireDatabase(directory);
  const std::string current = pathIn(directory, currentName);
  // Before the tables are read for the first time: the copy is compared with what is read here.
  const auto lock = lockOrFail(current);
  removeLeftovers(directory);
  const Survey source = surveyVersion(current);
  if (!source.isThere || (!source.isWhole && !partial)) {
    throw CommandFailure("\"" + current + "\" is not whole: " + source.whatIsWrong +
                         "; nothing was archived");
  }
  const auto fill = [&](WorkDirectory *work, std::string *error) {
    return copyCompared(work, current, source, error);
  };
  Version made;
  std::string error;
  if (!makeVersion(directory, fill, &made, &error)) throw CommandFailure(error);
  puts(made.name.c_str());
  return objdbFine;
}

ObjdbStatus runArchive(Options &options) {
  VersionPath database;
  bool partial = false;
  options.directory(&database);
  options.flag("--partial", &partial, "Archive tables that are not whole, too");
  options.parse();
  return archiveCurrent(database.directory, partial);
}

}  // namespace

const Command archiveCommand{"archive", "Make an archived version of the current tables",
                             "objdb archive", runArchive};
