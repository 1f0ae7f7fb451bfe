#include <algorithm>
#include <cstdio>
#include <nlohmann/json.hpp>
#include <set>
#include <vector>

#include "objdb/census.h"
#include "objdb/commands.h"
#include "objdb/decoded_record.h"
#include "objdb/options.h"
#include "objdb/plain_lines.h"
#include "objdb/redaction.h"
#include "objdb/table_reader.h"
#include "platform/arena.h"

namespace {

// Which records to dump: of one table, of one object, of the fields with one name.
struct DumpChoice {
  std::optional<std::string> table;
  std::optional<uint32_t> object;
  std::optional<std::string> field;
  bool redacted = false;
};

// A line with its end, after what it is sorted by, both in one piece of storage.
struct Line {
  uint64_t prefix;  // the first bytes of the order, as a number
  const char *bytes;
  uint32_t orderLength;
  uint32_t textLength;

  std::string_view order() const { return {bytes, orderLength}; }
  const char *text() const { return bytes + orderLength; }
  bool operator<(const Line &other) const {
    return prefix != other.prefix ? prefix < other.prefix : order() < other.order();
  }
};

// Bytes that sort as the words of the key do as numbers, whatever the machine's byte order, and
// then as the name does: so that dumps of both word sizes and byte orders can be compared.
std::string sortKey(size_t table, std::string_view key) {
  const size_t wordBytes = table == nameInfo ? sizeof(uint32_t) : 2 * sizeof(uint32_t);
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

Line storeLine(Arena &storage, std::string_view order, std::string_view text) {
  auto *bytes = static_cast<char *>(storage.take(order.size() + text.size() + 1));
  Line line{0, bytes, static_cast<uint32_t>(order.size()), static_cast<uint32_t>(text.size() + 1)};
  for (size_t i = 0; i < sizeof line.prefix; ++i) {
    line.prefix = line.prefix << 8 | (i < order.size() ? static_cast<unsigned char>(order[i]) : 0);
  }
  order.copy(bytes, order.size());
  text.copy(bytes + order.size(), text.size());
  bytes[order.size() + text.size()] = '\n';
  return line;
}

// Which lines of a dump are wanted.
class Filter {
 public:
  Filter(const VersionPath &database, const DumpChoice &choice) : choice_(choice) {
    if (!choice.field) return;
    // A reader of its own, since each makes one scan.
    OpenFailure failure;
    const auto fields =
        TableReader::open(database.path(), fieldInfo, TableReader::Demand::lockedTable, &failure);
    DbmRecord record;
    while (fields != nullptr && fields->next(&record)) {
      const std::optional<Json> line = recordToJson(fieldInfo, record.key, record.bytes);
      if (line && line->at("name") == *choice.field) {
        fieldIds_.insert(line->at("field").get<uint32_t>());
      }
    }
  }

  bool wantsAll() const { return !choice_.table && !choice_.object && !choice_.field; }
  bool wantsTable(size_t table) const {
    return !choice_.table || *choice_.table == tableFormats[table].name;
  }
  bool wants(size_t table, std::string_view bytes) const {
    if (!choice_.object && !choice_.field) return true;
    const DecodedRecord record(table, bytes);
    if (!record) return true;  // wanted, so that it is reported
    if (choice_.object && (!record.hasObject || record.objectId != *choice_.object)) return false;
    objectMet_ = true;
    return !choice_.field || (table != idKeeper && fieldIds_.contains(record.fieldId));
  }
  // Whether an object was asked for that none of the tables has that were read.
  bool missedObject() const { return choice_.object && !choice_.table && !objectMet_; }
  bool namesNothing() const { return choice_.field && fieldIds_.empty(); }

 private:
  const DumpChoice &choice_;
  std::set<uint32_t> fieldIds_;
  mutable bool objectMet_ = false;
};

// Writes the table's lines. False, with the reason on standard error, when not every record could
// be read and written.
bool dumpTable(TableReader *reader, size_t table, const Filter &filter, Redaction *redaction,
               Census &census) {
  Arena storage;
  std::vector<Line> lines;
  DbmRecord record;
  while (reader->next(&record)) {
    if (!filter.wants(table, record.bytes)) continue;
    std::optional<std::string> line = recordToLine(table, record.key, record.bytes);
    if (!line) return sayUndecodable(table, record.key);
    if (redaction != nullptr) {
      const StoredRecord redacted = redaction->redact(table, record.key, record.bytes);
      line = recordToLine(table, redacted.key, redacted.bytes);
      lines.push_back(storeLine(storage, sortKey(table, redacted.key), *line));
      census.add(table, redacted.key, redacted.bytes);
      continue;
    }
    lines.push_back(storeLine(storage, sortKey(table, record.key), *line));
    census.add(table, record.key, record.bytes);
  }
  if (!reader->isComplete()) return sayIncomplete(table);
  {
    const Phase sorting(std::string("sorting ") + tableFormats[table].name);
    std::sort(lines.begin(), lines.end());
  }
  constexpr size_t ahead = 16;  // sorted lines lie anywhere in memory
  for (size_t i = 0; i < lines.size(); ++i) {
    if (i + ahead < lines.size()) __builtin_prefetch(lines[i + ahead].text());
    fwrite(lines[i].text(), 1, lines[i].textLength, stdout);
  }
  return true;
}

ObjdbStatus dumpDatabase(const VersionPath &database, const DumpChoice &choice) {
  const TableReaders tables = openAllTables(database.path());
  const Filter filter(database, choice);
  if (filter.namesNothing()) {
    throw CommandFailure("no field \"" + *choice.field + "\"");
  }
  Census census;
  Redaction redaction;
  if (filter.wantsAll()) puts(headerLine().dump().c_str());
  for (size_t table = 0; table < tableCount; ++table) {
    if (tables[table] == nullptr) continue;
    if (filter.wantsTable(table) && !dumpTable(tables[table].get(), table, filter,
                                               choice.redacted ? &redaction : nullptr, census)) {
      return objdbFailed;
    }
  }
  if (filter.wantsAll()) puts(census.toJson().dump().c_str());
  if (filter.missedObject()) throw CommandFailure("no object " + std::to_string(*choice.object));
  return objdbFine;
}

ObjdbStatus runDump(Options &options) {
  VersionPath database;
  DumpChoice choice;
  options.version(&database);
  options.text("--table", &choice.table, "Write only the records of this table");
  options.id("--object", &choice.object, "Write only the records of the object with this id");
  options.text("--field", &choice.field, "Write only the records of the field with this name");
  options.flag("--redact", &choice.redacted, "Write a token in place of each name and text");
  options.parse();
  const auto isChosen = [&](const TableFormat &format) { return *choice.table == format.name; };
  if (choice.table && std::none_of(tableFormats.begin(), tableFormats.end(), isChosen)) {
    throw CommandFailure("no table \"" + *choice.table + "\"");
  }
  return dumpDatabase(database, choice);
}

}  // namespace

const Command dumpCommand{"dump", "Write a database as lines of JSON to standard output",
                          "objdb dump >before.jsonl", runDump};
