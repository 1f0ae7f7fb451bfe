// What a subcommand is to the program: its name, its words for the help, and its function.
#pragma once

#include <stdexcept>
#include <string>

// The same for every subcommand.
enum ObjdbStatus {
  objdbFine = 0,      // nothing to report
  objdbFindings = 1,  // findings, differences or losses: the output tells which
  objdbFailed = 2,    // refused or failed: usage, no database, not whole, input or output
  objdbInUse = 3,     // another process has the tables
};

// Ends a command with that status after "objdb: WHAT" on standard error.
class CommandFailure : public std::runtime_error {
 public:
  explicit CommandFailure(const std::string &what, ObjdbStatus status = objdbFailed)
      : std::runtime_error(what), status_(status) {}
  ObjdbStatus status() const { return status_; }

 private:
  ObjdbStatus status_;
};

class Options;

// Declares its options, parses them and does the work. Findings go to standard output, everything
// else to standard error. Throws std::exception when it cannot.
using CommandFunction = ObjdbStatus (*)(Options &options);

struct Command {
  const char *name;
  const char *summary;  // a line of "objdb --help"
  const char *example;
  CommandFunction run;
};

// Which version of which database.
struct VersionPath {
  std::string directory = "/usr/NQ/databases/nqwdb";
  std::string name = "current";

  std::string path() const { return directory + "/" + name; }
};
