#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <vector>

#include "objdb/commands.h"
#include "objdb/record_lines.h"

namespace {

struct Line {
  std::string order;
  std::string text;
};

// Sorts by the words of the key as numbers, whatever the machine's byte order, and then by the
// name.
std::string sortKey(size_t table, std::string_view key) {
  const size_t wordBytes = tableFormats[table].name == std::string_view("name_info")
                               ? sizeof(uint32_t)
                               : 2 * sizeof(uint32_t);
  std::string order;
  for (size_t at = 0; at < key.size();) {
    uint32_t word = 0;
    if (at + sizeof word > std::min(wordBytes, key.size())) {
      order.append(key.substr(at));
      break;
    }
    key.copy(reinterpret_cast<char *>(&word), sizeof word, at);
    for (int shift = 24; shift >= 0; shift -= 8) order += static_cast<char>(word >> shift);
    at += sizeof word;
  }
  return order;
}

// Writes the table's lines. False, with the reason on standard error, when not every record could
// be read and written.
bool dumpTable(const std::string &directory, size_t table, Census &census) {
  const TableFormat &format = tableFormats[table];
  const std::string path = directory + "/" + format.name;
  // Both files have to be there: opening a table without its .dir leaves an empty one behind.
  for (const char *suffix : {".dir", ".pag"}) {
    if (access((path + suffix).c_str(), R_OK) != 0) {
      fprintf(stderr, "objdb: could not read \"%s%s\": %s\n", path.c_str(), suffix,
              strerror(errno));
      return false;
    }
  }
  NQ_dbm_db *db =
      _NQ_dbm_db_open(directory.c_str(), format.name, O_RDONLY, 0, format.decode, format.encode);
  if (db == nullptr) {
    fprintf(stderr, "objdb: could not open table \"%s\": not a table of this machine's word size\n",
            path.c_str());
    return false;
  }
  std::vector<Line> lines;
  DbmRecord record;
  db->first = 1;
  bool readable = true;
  while (readable && _NQ_dbm_db_getnext_raw(db, &record)) {
    std::optional<Json> line;
    if (record.bytes.data() != nullptr) line = recordToJson(table, record.key, record.bytes);
    if (line) {
      lines.push_back({sortKey(table, record.key), line->dump()});
      census.add(table, record.key, record.bytes);
    } else {
      fprintf(stderr, "objdb: could not decode the record with key %s in table \"%s\"\n",
              toHex(record.key).c_str(), path.c_str());
      readable = false;
    }
  }
  if (readable && _NQ_dbm_db_scan(db) != DbmScan::complete) {
    fprintf(stderr, "objdb: could not read table \"%s\" to its end\n", path.c_str());
    readable = false;
  }
  _NQ_dbm_db_close(db);
  std::sort(lines.begin(), lines.end(),
            [](const Line &a, const Line &b) { return a.order < b.order; });
  for (const Line &line : lines) puts(line.text.c_str());
  return readable;
}

}  // namespace

int dumpDatabase(const DatabaseName &database) {
  const std::string directory = database.directory + "/" + database.version;
  Census census;
  puts(headerLine().dump().c_str());
  for (size_t table = 0; table < tableCount; ++table) {
    if (!dumpTable(directory, table, census)) return objdbFailed;
  }
  puts(census.toJson().dump().c_str());
  if (fflush(stdout) != 0 || ferror(stdout) != 0) {
    fprintf(stderr, "objdb: could not write the dump: %s\n", strerror(errno));
    return objdbFailed;
  }
  return objdbFine;
}
