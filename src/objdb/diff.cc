// What stands in one version of a database and not in another.

#include <algorithm>
#include <cstdio>
#include <nlohmann/json.hpp>
#include <vector>

#include "objdb/commands.h"
#include "objdb/options.h"
#include "objdb/table_reader.h"

namespace {

struct Difference {
  int64_t object;  // -1 where the table has none
  int64_t field;
  size_t table;
  bool isNew;
  std::string line;

  auto order() const { return std::tie(object, field, table, isNew, line); }
};

// Adds the records of a table that the other version has not, or not with the same bytes.
bool addMissing(TableReader *here, TableReader *there, size_t table, bool isNew,
                std::vector<Difference> *differences) {
  if (here == nullptr) return true;  // an archive of the platform's, without an id keeper
  DbmRecord record;
  while (here->next(&record)) {
    const std::string_view other = there == nullptr ? std::string_view() : there->fetch(record.key);
    const bool isInBoth = record.bytes.data() != nullptr && other.data() != nullptr;
    if (isInBoth && other == record.bytes) continue;
    std::optional<Json> line;
    if (record.bytes.data() != nullptr) line = recordToJson(table, record.key, record.bytes);
    if (!line) return sayUndecodable(table, record.key);
    differences->push_back({line->value("object", int64_t{-1}), line->value("field", int64_t{-1}),
                            table, isNew, line->dump()});
  }
  return here->isComplete() || sayIncomplete(table);
}

ObjdbStatus diffVersions(const std::string &directory, const std::string &before,
                         const std::string &after, bool json) {
  const auto pathOf = [&directory](const std::string &name) {
    return name.find('/') == std::string::npos ? directory + "/" + name : name;
  };
  const TableReaders old = openAllTables(pathOf(before));
  const TableReaders current = openAllTables(pathOf(after));
  std::vector<Difference> differences;
  for (size_t table = 0; table < tableCount; ++table) {
    TableReader *was = old[table].get();
    TableReader *is = current[table].get();
    // Each scans one table and fetches from the other, so that both directions take one scan each.
    if (!addMissing(was, is, table, false, &differences) ||
        !addMissing(is, was, table, true, &differences)) {
      return objdbFailed;
    }
  }
  std::optional<Phase> sorting(std::in_place, "sorting the differences");
  std::ranges::sort(differences, {}, &Difference::order);
  sorting.reset();
  for (const Difference &each : differences) {
    if (json) {
      printf("{\"in\":\"%s\",\"record\":%s}\n", each.isNew ? "B" : "A", each.line.c_str());
    } else {
      printf("%c %s\n", each.isNew ? '+' : '-', each.line.c_str());
    }
  }
  return differences.empty() ? objdbFine : objdbFindings;
}

ObjdbStatus runDiff(Options &options) {
  VersionPath database;
  std::string before;
  std::string after;
  options.directory(&database);
  options.argument("A", &before, "A version, or a directory with a slash in its name");
  options.argument("B", &after, "Another");
  bool json = false;
  options.flag("--json", &json, "Write them as lines of JSON, with the version that they are in");
  options.parse();
  return diffVersions(database.directory, before, after, json);
}

}  // namespace

const Command diffCommand{
    "diff", "Compare two versions: \"-\" is only in the first, \"+\" only in the second",
    "objdb diff 22112026.231500 current", runDiff};
