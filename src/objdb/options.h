// The words after a subcommand's name.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "objdb/command.h"

// Thrown by parse() after it has written the help that was asked for.
struct HelpWritten {};

class Options {
 public:
  Options(const Command &command, std::vector<std::string> words);
  ~Options();
  Options(const Options &) = delete;
  Options &operator=(const Options &) = delete;

  // Each declares one option or argument, and where its value goes; a value that is not given stays
  // as it is. The descriptions are for the help.
  void flag(const char *name, bool *value, const char *description);
  void text(const char *name, std::optional<std::string> *value, const char *description);
  void id(const char *name, std::optional<uint32_t> *value, const char *description);
  void argument(const char *name, std::string *value, const char *description);
  void arguments(const char *name, std::vector<std::string> *values, const char *description);

  // The first declares --dir alone, for commands that look at the whole database directory; the
  // second --dir and --version.
  void directory(VersionPath *database);
  void version(VersionPath *database);

  // Throws CommandFailure when the words are not as declared.
  void parse();

 private:
  struct Parser;
  std::unique_ptr<Parser> parser_;
};
