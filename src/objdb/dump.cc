#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <vector>

#include "objdb/commands.h"
#include "objdb/record_lines.h"
#include "objdb/table_reader.h"

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
bool dumpTable(TableReader *reader, size_t table, Census &census) {
  const char *name = tableFormats[table].name;
  std::vector<Line> lines;
  DbmRecord record;
  while (reader->next(&record)) {
    std::optional<Json> line;
    if (record.bytes.data() != nullptr) line = recordToJson(table, record.key, record.bytes);
    if (!line) {
      fprintf(stderr, "objdb: could not decode the record with key %s in table \"%s\"\n",
              toHex(record.key).c_str(), name);
      return false;
    }
    lines.push_back({sortKey(table, record.key), line->dump()});
    census.add(table, record.key, record.bytes);
  }
  if (!reader->isComplete()) {
    fprintf(stderr, "objdb: could not read table \"%s\" to its end\n", name);
    return false;
  }
  std::sort(lines.begin(), lines.end(),
            [](const Line &a, const Line &b) { return a.order < b.order; });
  for (const Line &line : lines) puts(line.text.c_str());
  return true;
}

}  // namespace

int dumpDatabase(const DatabaseName &database) {
  const std::optional<TableReaders> tables =
      openAllTables(database.directory + "/" + database.version);
  if (!tables) return objdbFailed;
  Census census;
  puts(headerLine().dump().c_str());
  for (size_t table = 0; table < tableCount; ++table) {
    if (!dumpTable((*tables)[table].get(), table, census)) return objdbFailed;
  }
  puts(census.toJson().dump().c_str());
  if (fflush(stdout) != 0 || ferror(stdout) != 0) {
    fprintf(stderr, "objdb: could not write the dump: %s\n", strerror(errno));
    return objdbFailed;
  }
  return objdbFine;
}
