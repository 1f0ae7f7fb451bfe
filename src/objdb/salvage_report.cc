#include "objdb/salvage_report.h"

#include <cstdio>
#include <nlohmann/json.hpp>
#include <string>

#include "objdb/record_lines.h"

namespace {

// Empty when nothing has happened to the table.
std::string summaryOf(const TableTally &tally) {
  std::string text;
  const auto append = [&text](const std::string &what) {
    text += (text.empty() ? "" : ", ") + what;
  };
  const auto add = [&append](uint64_t count, const char *what) {
    if (count != 0) append(std::to_string(count) + what);
  };
  if (!tally.counted) {
    append(std::to_string(tally.read) + " records read of an unknown number");
  } else if (tally.unread() != 0) {
    append(std::to_string(tally.read) + " records read of " + std::to_string(*tally.counted));
  }
  if (tally.damaged) append("damaged structure");
  add(tally.hidden, " found in blocks that nothing leads to");
  add(tally.undecodable, " cannot be decoded");
  add(tally.unknownType, " of an unknown type left out");
  add(tally.unknownField, " of unknown fields left out");
  add(tally.wrongType, " with another type than their field left out");
  add(tally.displaced, " left out because another record has their key");
  add(tally.shortened, " cut at a NUL or at their end");
  add(tally.renamed, " renamed because another has the name");
  add(tally.moved, " moved to the right key or table");
  add(tally.rebuilt, " made again");
  return text;
}

void print(size_t table, const Loss &loss, bool json) {
  constexpr size_t longestKey = 300;  // enough for every key that a record of ours has
  Json line{{"lost", loss.what}, {"table", tableFormats[table].name}};
  if (loss.object) line["object"] = *loss.object;
  if (loss.field) line["field"] = *loss.field;
  if (!loss.key.empty()) line["key"] = toHex(loss.key.substr(0, longestKey));
  const std::string text = line.dump();
  if (json) {
    puts(text.c_str());
  } else {
    fprintf(stderr, "objdb: lost: %s\n", text.c_str());
  }
}

}  // namespace

bool reportLosses(const SalvagedTables &tables, bool json) {
  bool lost = false;
  for (size_t table = 0; table < tableCount; ++table) {
    const std::string summary = summaryOf(tables[table].tally);
    if (!summary.empty()) {
      fprintf(stderr, "objdb: %s: %s\n", tableFormats[table].name, summary.c_str());
    }
    if (table == nameInfo) continue;
    for (const Loss &loss : tables[table].losses) print(table, loss, json);
    lost = lost || tables[table].tally.hasLoss();
  }
  return lost;
}
