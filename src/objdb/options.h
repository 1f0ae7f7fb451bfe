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

  // Declare what there may be, with where to put it; what is not given stays as it is. Descriptions
  // are for the help.
  void flag(const char *name, bool *value, const char *description);
  void text(const char *name, std::optional<std::string> *value, const char *description);
  void id(const char *name, std::optional<uint32_t> *value, const char *description);
  void argument(const char *name, std::string *value, const char *description);
  void arguments(const char *name, std::vector<std::string> *values, const char *description);

  // --dir alone, for commands that look at the whole database directory, and with --version.
  void directory(VersionPath *database);
  void version(VersionPath *database);

  // Throws CommandFailure when the words are not as declared.
  void parse();

 private:
  struct Parser;
  std::unique_ptr<Parser> parser_;
};
