#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdio>
#include <filesystem>
#include <iostream>
#include <vector>

#include "objdb/changes.h"
#include "objdb/commands.h"
#include "objdb/dump_reader.h"
#include "objdb/options.h"
#include "objdb/table_writer.h"
#include "platform/files.h"

namespace fs = std::filesystem;

namespace {

// Makes the directory and those above it that are missing, for everybody as the platform does, and
// waits until their entries are on the disk.
bool makeDirectories(const std::string &directory, std::string *error) {
  if (access(directory.c_str(), F_OK) == 0) return true;
  const size_t slash = directory.find_last_of('/');
  const std::string above = slash == std::string::npos ? "." : directory.substr(0, slash);
  if (!above.empty() && !makeDirectories(above, error)) return false;
  if (mkdir(directory.c_str(), 0777) != 0 && errno != EEXIST) {
    return failAttempt("make", directory, error);
  }
  const std::string entry = above.empty() ? "/" : above;
  return syncDirectory(entry) == 0 || failAttempt("sync", entry, error);
}

// A version that holds anything is not loaded over.
void refuseTaken(const std::string &version) {
  std::error_code failure;
  const fs::directory_iterator first(version, failure);
  const bool isEmpty = !failure && first == fs::directory_iterator();
  if (isEmpty || failure == std::errc::no_such_file_or_directory) return;
  throw CommandFailure("\"" + version + "\" is not empty; nothing was loaded");
}

bool buildTables(WorkDirectory *work, const std::vector<StoredRecord> &records,
                 std::string *error) {
  std::array<RecordViews, tableCount> tables;
  for (const StoredRecord &record : records) {
    tables[record.table].emplace_back(record.key, record.bytes);
  }
  for (size_t table = 0; table < tableCount; ++table) {
    if (!writeTable(work->path(), table, tables[table], error)) return false;
  }
  return true;
}

ObjdbStatus loadDatabase(const VersionPath &database, bool sealed) {
  // Before the input, which may be long; publishOver refuses what has come there meanwhile.
  refuseTaken(database.path());
  if (isatty(STDIN_FILENO) == 1) {
    fputs("objdb: reading a dump from the terminal, until Ctrl-D\n", stderr);
  }
  std::ios::sync_with_stdio(false);  // which reads character by character
  const std::vector<StoredRecord> records = readDump(std::cin, sealed);
  umask(0);  // the platform's daemons share the tables, whatever user they run as
  std::string error;
  struct stat like {};
  if (!makeDirectories(database.directory, &error)) throw std::runtime_error(error);
  requireDatabase(database.directory);
  removeLeftovers(database.directory);
  const auto work = WorkDirectory::make(database.directory, &error);
  if (work == nullptr || !buildTables(work.get(), records, &error) ||
      (stat(database.directory.c_str(), &like) != 0 &&
       !failAttempt("look at", database.directory, &error)) ||
      !work->publishOver(database.name, like, &error)) {
    throw std::runtime_error(error);
  }
  return objdbFine;
}

ObjdbStatus runLoad(Options &options) {
  VersionPath database;
  bool unsealed = false;
  options.version(&database);
  options.flag("--unsealed", &unsealed,
               "Take lines without a header and a trailer, which would show a missing line");
  options.parse();
  try {
    return loadDatabase(database, !unsealed);
  } catch (const CommandFailure &) {
    throw;
  } catch (const std::runtime_error &error) {
    throw CommandFailure(std::string("nothing was loaded: ") + error.what());
  }
}

}  // namespace

const Command loadCommand{"load", "Make a database from the lines of a dump on standard input",
                          "objdb load --dir /var/tmp/copy <before.jsonl", runLoad};
