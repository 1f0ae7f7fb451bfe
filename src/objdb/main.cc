// objdb: reads and writes the same databases as dbsweep, for what an operator needs around a sweep.

#include <unistd.h>

#include <cerrno>
#include <clocale>
#include <cstdio>
#include <cstring>
#include <exception>
#include <new>
#include <nlohmann/json.hpp>

#include "objdb/census.h"
#include "objdb/commands.h"
#include "objdb/options.h"

namespace {

const Command *const commands[] = {
    &archiveCommand, &checkCommand,   &diffCommand,      &dumpCommand,
    &findCommand,    &loadCommand,    &protocolsCommand, &removeCommand,
    &restoreCommand, &salvageCommand, &showCommand,      &versionsCommand,
};

void printHelp() {
  puts(
      "Looks after the object database around a sweep.\n"
      "Usage: objdb COMMAND [OPTION...]\n");
  for (const Command *command : commands) printf("  %-11s %s\n", command->name, command->summary);
  puts(
      "\n'objdb COMMAND --help' lists the options of a command. 'objdb --version' tells the "
      "version,\n"
      "the word size and the dbm library.");
}

// What a database depends on, besides the version of the program.
void printVersion() {
  const Json format = headerLine();
  printf("objdb " PROGRAM_VERSION ", %s bits, GNU dbm %s\n", format.at("wordBits").dump().c_str(),
         format.at("library").get<std::string>().c_str());
}

ObjdbStatus runCommand(const std::vector<std::string> &words) {
  if (words.empty()) throw CommandFailure("no command; 'objdb --help' lists them");
  const std::string &name = words[0];
  if (name == "--help" || name == "-h") {
    printHelp();
    return objdbFine;
  }
  if (name == "--version") {
    printVersion();
    return objdbFine;
  }
  for (const Command *command : commands) {
    if (name != command->name) continue;
    Options options(*command, {words.begin() + 1, words.end()});
    return command->run(options);
  }
  const char *what = name[0] == '-' ? "option" : "command";
  throw CommandFailure(std::string("unknown ") + what + " \"" + name + "\"; see 'objdb --help'");
}

// Output that could not be written makes a failure of any result. Here and nowhere else: no command
// looks at what its single writes return.
ObjdbStatus flushOutput(ObjdbStatus status) {
  if (fflush(stdout) == 0 && ferror(stdout) == 0) return status;
  fprintf(stderr, "objdb: could not write the output: %s\n", strerror(errno));
  return objdbFailed;
}

// Where memory is exhausted, an exception may find none for itself, or no way out. A work directory
// that is left is known to the next command.
[[noreturn]] void endOutOfMemory() {
  static constexpr char message[] = "objdb: out of memory\n";
  [[maybe_unused]] const ssize_t written = write(STDERR_FILENO, message, sizeof message - 1);
  _exit(objdbFailed);
}

// Before any other static of the program, which may want memory too.
struct HandleExhaustedMemory {
  HandleExhaustedMemory() {
    std::set_new_handler(endOutOfMemory);
    // Only an exception for which there is no memory gets that far: main catches all others.
    std::set_terminate(endOutOfMemory);
  }
};
[[gnu::init_priority(101)]] HandleExhaustedMemory handleExhaustedMemory;

}  // namespace

int main(int argc, char **argv) {
  setlocale(LC_ALL, "");  // names and texts compare as they do in a sweep
  try {
    return flushOutput(runCommand({argv + 1, argv + argc}));
  } catch (const HelpWritten &) {
    return flushOutput(objdbFine);
  } catch (const CommandFailure &failure) {
    fprintf(stderr, "objdb: %s\n", failure.what());
    return flushOutput(failure.status());
  } catch (const std::bad_alloc &) {
    endOutOfMemory();
  } catch (const std::exception &error) {
    fprintf(stderr, "objdb: %s\n", error.what());
    return objdbFailed;
  }
}
