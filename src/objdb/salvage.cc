// Makes a new version of what can still be read of a damaged one, which stays as it is:
//
// 1. The damaged version is locked, and read into memory (salvage_read.h).
// 2. The tables are made to agree with each other, there (salvage_mend.h).
// 3. They are written to a work directory, which becomes a version when all are on the disk.
// 4. What was lost is said (salvage_report.h).

#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <nlohmann/json.hpp>

#include "objdb/changes.h"
#include "objdb/commands.h"
#include "objdb/options.h"
#include "objdb/record_lines.h"
#include "objdb/salvage_mend.h"
#include "objdb/salvage_read.h"
#include "objdb/salvage_report.h"
#include "objdb/table_writer.h"
#include "store/versions.h"

namespace {

bool writeTables(const SalvagedTables &tables, const std::string &directory, std::string *error) {
  for (size_t table = 0; table < tableCount; ++table) {
    const Records &records = tables[table].records;
    if (!writeTable(directory, table, RecordViews(records.begin(), records.end()), error)) {
      return false;
    }
  }
  return true;
}

bool fillVersion(const std::string &source, const std::string &directory, SalvagedTables *tables,
                 std::string *error) {
  if (!readVersion(source, directory, tables)) {
    *error = "nothing can be read in \"" + source + "\"";
    return false;
  }
  // Made only when wanted: that takes a table of its own.
  const bool lacksFields = (*tables)[fieldInfo].tally.isIncomplete();
  mendTables(tables, lacksFields ? predefinedFields(directory) : Records());
  return writeTables(*tables, directory, error);
}

ObjdbStatus salvageVersion(const std::string &directory, const std::string &name, bool json) {
  const auto fail = [](const std::string &why) -> ObjdbStatus {
    throw CommandFailure(why + "; nothing was changed");
  };
  const std::string source = directory + "/" + name;
  if (name.find('/') != std::string::npos || access(source.c_str(), F_OK) != 0) {
    return fail("no version \"" + name + "\" in \"" + directory + "\"");
  }
  std::string error;
  const auto lock = lockOrFail(source);
  removeLeftovers(directory);
  umask(0);  // the platform's daemons share the tables, whatever user they run as
  SalvagedTables tables;
  Version made;
  const auto fill = [&](WorkDirectory *work, std::string *why) {
    return fillVersion(source, work->path(), &tables, why);
  };
  if (!makeVersion(directory, fill, &made, &error)) return fail(error);
  puts(json ? Json{{"version", made.name}}.dump().c_str() : made.name.c_str());
  return reportLosses(tables, json) ? objdbFindings : objdbFine;
}

ObjdbStatus runSalvage(Options &options) {
  VersionPath database;
  options.directory(&database);
  options.argument("VERSION", &database.name, "The version, or \"current\"");
  bool json = false;
  options.flag("--json", &json, "Write the version and what was lost as lines of JSON");
  options.parse();
  return salvageVersion(database.directory, database.name, json);
}

}  // namespace

const Command salvageCommand{"salvage",
                             "Make a new version of what can still be read of a damaged one",
                             "objdb salvage current", runSalvage};
