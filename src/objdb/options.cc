#include "objdb/options.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <charconv>

namespace {

// Checks of texts, as the parser wants them: an empty result is a success.
std::string whyNotGiven(const std::string &text) {
  // Most often from a variable of the shell that is not set.
  return text.empty() ? "must not be empty" : "";
}

// Decimal, whatever zeros stand in front.
std::string whyNoId(const std::string &text) {
  uint32_t id = 0;
  const char *end = text.data() + text.size();
  const auto [read, error] = std::from_chars(text.data(), end, id);
  return error == std::errc() && read == end ? "" : "\"" + text + "\" is no id";
}

// A path would lead out of the database directory.
std::string whyNoVersion(const std::string &text) {
  const bool isName = !text.empty() && text[0] != '.' && text.find('/') == std::string::npos;
  return isName ? "" : "\"" + text + "\" is no name of a version";
}

}  // namespace

struct Options::Parser {
  CLI::App app;
  std::string name;
  std::vector<std::string> words;
};

Options::Options(const Command &command, std::vector<std::string> words)
    : parser_(new Parser{CLI::App(command.summary, std::string("objdb ") + command.name),
                         command.name, std::move(words)}) {
  parser_->app.footer(std::string("Example: ") + command.example);
}

Options::~Options() = default;

void Options::flag(const char *name, bool *value, const char *description) {
  parser_->app.add_flag(name, *value, description);
}

void Options::text(const char *name, std::optional<std::string> *value, const char *description) {
  parser_->app
      .add_option_function<std::string>(
          name, [value](const std::string &text) { *value = text; }, description)
      ->check(whyNotGiven, "");
}

void Options::id(const char *name, std::optional<uint32_t> *value, const char *description) {
  const auto keep = [value](const std::string &text) {
    uint32_t id = 0;
    std::from_chars(text.data(), text.data() + text.size(), id);
    *value = id;
  };
  parser_->app.add_option_function<std::string>(name, keep, description)->check(whyNoId, "");
}

void Options::argument(const char *name, std::string *value, const char *description) {
  parser_->app.add_option(name, *value, description)->required()->check(whyNotGiven, "");
}

void Options::arguments(const char *name, std::vector<std::string> *values,
                        const char *description) {
  parser_->app.add_option(name, *values, description)->check(whyNotGiven, "");
}

void Options::directory(VersionPath *database) {
  parser_->app.add_option("--dir", database->directory, "The database directory")
      ->capture_default_str()
      ->check(whyNotGiven, "");
}

void Options::version(VersionPath *database) {
  directory(database);
  parser_->app.add_option("--version", database->name, "The version in it")
      ->capture_default_str()
      ->check(whyNoVersion, "");
}

void Options::parse() {
  std::reverse(parser_->words.begin(), parser_->words.end());  // as the parser takes them
  try {
    parser_->app.parse(parser_->words);
  } catch (const CLI::CallForHelp &) {
    puts(parser_->app.help().c_str());
    throw HelpWritten();
  } catch (const CLI::ParseError &error) {
    throw CommandFailure(parser_->name + ": " + error.what() + "; see 'objdb " + parser_->name +
                         " --help'");
  }
}
