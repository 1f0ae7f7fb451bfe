// objdb: reads and writes the same databases as dbsweep, for what an operator needs around a sweep.

#include <CLI/CLI.hpp>

#include "objdb/commands.h"

namespace {

struct Command {
  const char *name;
  const char *description;
  const char *footer;
  int (*run)(const DatabaseName &database);
};

constexpr Command commands[] = {
    {"dump", "Write a database as lines of JSON to standard output",
     "Example: objdb dump | grep '\"table\":\"field_info\"'", dumpDatabase},
    {"load", "Make a database from the lines of a dump on standard input",
     "Example: objdb load --dir /var/tmp/copy < night.jsonl", loadDatabase},
};

}  // namespace

int main(int argc, char **argv) {
  CLI::App app("Looks after the object database around a sweep.", "objdb");
  app.require_subcommand(1);
  DatabaseName database;
  for (const Command &command : commands) {
    CLI::App *sub = app.add_subcommand(command.name, command.description);
    sub->footer(command.footer);
    sub->add_option("--dir", database.directory, "The database directory")->capture_default_str();
    sub->add_option("--version", database.version, "The version in it")->capture_default_str();
  }
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError &error) {
    return app.exit(error) == 0 ? objdbFine : objdbFailed;
  }
  for (const Command &command : commands) {
    if (app.got_subcommand(command.name)) return command.run(database);
  }
  return objdbFailed;
}
