#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <iostream>
#include <vector>

#include "objdb/commands.h"
#include "objdb/dump_reader.h"
#include "objdb/options.h"
#include "objdb/record_lines.h"
#include "objdb/table_writer.h"
#include "platform/files.h"

namespace {

namespace fs = std::filesystem;

// Makes the six tables in a directory. False when a store or a sync fails.
bool buildTables(const fs::path &directory, const std::vector<StoredRecord> &records) {
  std::array<RecordViews, tableCount> tables;
  for (const StoredRecord &record : records) {
    tables[record.table].emplace_back(record.key, record.bytes);
  }
  for (size_t table = 0; table < tableCount; ++table) {
    if (!writeTable(directory, table, tables[table])) return false;
  }
  return syncDirectory(directory) == 0;
}

ObjdbStatus loadDatabase(const VersionPath &database, bool sealed) {
  const fs::path version = database.path();
  const fs::path aside =
      fs::path(database.directory) / (".load." + std::to_string(static_cast<long>(getpid())));
  try {
    if (fs::exists(version) && !fs::is_empty(version)) {
      fprintf(stderr, "objdb: \"%s\" is not empty; nothing was loaded\n", version.c_str());
      return objdbFailed;
    }
    if (isatty(STDIN_FILENO) == 1) {
      fputs("objdb: reading a dump from the terminal, until Ctrl-D\n", stderr);
    }
    std::ios::sync_with_stdio(false);  // which reads character by character
    const std::vector<StoredRecord> records = readDump(std::cin, sealed);
    umask(0);  // the platform's daemons share the tables, whoever they run as
    fs::create_directories(aside);
    if (!buildTables(aside, records)) {
      fprintf(stderr, "objdb: could not write the tables in \"%s\": %s\n", aside.c_str(),
              strerror(errno));
      fs::remove_all(aside);
      return objdbFailed;
    }
    fs::rename(aside, version);
    if (syncDirectory(version.parent_path()) != 0) {
      fprintf(stderr, "objdb: could not sync \"%s\": %s\n", version.parent_path().c_str(),
              strerror(errno));
      return objdbFailed;
    }
  } catch (const std::exception &error) {
    fprintf(stderr, "objdb: nothing was loaded: %s\n", error.what());
    std::error_code ignored;
    fs::remove_all(aside, ignored);
    return objdbFailed;
  }
  return objdbFine;
}

ObjdbStatus runLoad(Options &options) {
  VersionPath database;
  bool unsealed = false;
  options.version(&database);
  options.flag("--unsealed", &unsealed,
               "Take lines without a dump's header and trailer, which tell that none is missing");
  options.parse();
  return loadDatabase(database, !unsealed);
}

}  // namespace

const Command loadCommand{"load", "Make a database from the lines of a dump on standard input",
                          "objdb load --dir /var/tmp/copy <before.jsonl", runLoad};
