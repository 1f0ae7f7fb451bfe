// objdb: reads and writes the same databases as dbsweep, for what an operator needs around a sweep.

#include <CLI/CLI.hpp>
#include <cerrno>
#include <cstdio>
#include <cstring>

#include "objdb/commands.h"
#include "objdb/record_lines.h"

namespace {

// What a database depends on, besides the version of the program.
std::string versionText() {
  const Json format = headerLine();
  return "objdb " PROGRAM_VERSION ", " + format.at("wordBits").dump() + " bits, GNU dbm " +
         format.at("library").get<std::string>();
}

std::vector<std::string> tableNames() {
  std::vector<std::string> names;
  names.reserve(tableCount);
  for (const TableFormat &format : tableFormats) names.emplace_back(format.name);
  return names;
}

int runCommand(int argc, char **argv) {
  CLI::App app("Looks after the object database around a sweep.", "objdb");
  app.require_subcommand(1);
  app.set_version_flag("--version", versionText);

  DatabaseName database;
  const auto addCommand = [&](const char *name, const char *description, const char *footer) {
    CLI::App *command = app.add_subcommand(name, description);
    command->footer(footer);
    command->add_option("--dir", database.directory, "The database directory")
        ->capture_default_str();
    return command;
  };
  const auto addVersion = [&](CLI::App *command) {
    command->add_option("--version", database.version, "The version in it")->capture_default_str();
  };

  CLI::App *dump = addCommand("dump", "Write a database as lines of JSON to standard output",
                              "Example: objdb dump > before.jsonl");
  addVersion(dump);
  DumpChoice choice;
  dump->add_option("--table", choice.table, "Only the records of this table")
      ->check(CLI::IsMember(tableNames()));
  dump->add_option("--object", choice.object, "Only the records of the object with this id");
  dump->add_option("--field", choice.field, "Only the records of the field with this name");
  CLI::App *load = addCommand("load", "Make a database from the lines of a dump on standard input",
                              "Example: objdb load --dir /var/tmp/copy < before.jsonl");
  addVersion(load);
  bool unsealed = false;
  load->add_flag("--unsealed", unsealed,
                 "Take lines without a dump's header and trailer, which tell that none is missing");
  CLI::App *check =
      addCommand("check", "Look at every record and list what is wrong with the database",
                 "Example: objdb check --version 22112026.231500");
  addVersion(check);
  bool json = false;
  check->add_flag("--json", json, "List the findings as lines of JSON");
  const CLI::App *versions =
      addCommand("versions", "List the archived versions and those that a run has left unfinished",
                 "Example: objdb versions");
  const CLI::App *archive = addCommand("archive", "Make an archived version of the current tables",
                                       "Example: objdb archive");
  CLI::App *restore =
      addCommand("restore", "Put the tables of a version in place of the current ones",
                 "Example: objdb restore 22112026.231500");
  CLI::App *protocols =
      addCommand("protocols", "Say how many objects a sweep of each protocol would delete",
                 "Example: objdb protocols --ids \"QRT Session\"");
  addVersion(protocols);
  std::string idsOf;
  protocols->add_option("--ids", idsOf, "List the ids of this protocol's objects instead");
  CLI::App *diff = addCommand(
      "diff", "Write what stands in one version alone: \"-\" the first, \"+\" the second",
      "Example: objdb diff 22112026.231500 current");
  std::string before;
  std::string after;
  diff->add_option("A", before, "A version, or a directory with a slash in its name")->required();
  diff->add_option("B", after, "Another")->required();
  CLI::App *salvage =
      addCommand("salvage", "Make a new version of what can still be read of a damaged one",
                 "Example: objdb salvage current");
  std::string name;
  bool dryRun = false;
  salvage->add_option("VERSION", name, "The version, or \"current\"")->required();
  restore->add_option("VERSION", name, "The version, as 'objdb versions' names it")->required();
  restore->add_flag("--dry-run", dryRun, "Only say what would be done");

  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError &error) {
    return app.exit(error) == 0 ? objdbFine : objdbFailed;
  }
  if (dump->parsed()) return dumpDatabase(database, choice);
  if (load->parsed()) return loadDatabase(database, !unsealed);
  if (protocols->parsed()) return printProtocols(database, idsOf);
  if (diff->parsed()) return diffDatabases(database.directory, before, after);
  if (salvage->parsed()) return salvageDatabase(database.directory, name);
  if (check->parsed()) return checkDatabase(database, json);
  if (versions->parsed()) return printVersions(database);
  if (archive->parsed()) return archiveDatabase(database);
  return restoreDatabase(database, name, dryRun);
}

}  // namespace

int main(int argc, char **argv) {
  try {
    const int status = runCommand(argc, argv);
    if (fflush(stdout) == 0 && ferror(stdout) == 0) return status;
    fprintf(stderr, "objdb: could not write the output: %s\n", strerror(errno));
    return objdbFailed;
  } catch (const std::exception &error) {
    fprintf(stderr, "objdb: %s\n", error.what());
    return objdbFailed;
  }
}
