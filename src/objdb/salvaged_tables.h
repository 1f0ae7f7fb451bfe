// What a salvage holds in memory: the records of the six tables, and what became of the records
// that were met. In memory as a whole, since the tables mend each other.
#pragma once

#include <array>
#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "objdb/decoded_record.h"
#include "store/tables.h"

using Records = std::map<std::string, std::string>;  // key to bytes

// What became of a table's records. The counters after the blank line are losses.
struct TableTally {
  std::optional<uint64_t> counted;  // how many there were; empty when the file cannot tell
  uint64_t read = 0;
  uint64_t moved = 0;    // to the key or the table where they belong
  uint64_t rebuilt = 0;  // from other tables
  uint64_t hidden = 0;   // of those read: found in blocks that no directory entry leads to
  bool damaged = false;  // the structure: further hidden records may not have been found

  uint64_t undecodable = 0;
  uint64_t unknownField = 0;
  uint64_t unknownType = 0;
  uint64_t wrongType = 0;
  uint64_t displaced = 0;  // by another record that has the key
  uint64_t shortened = 0;  // a text at its first NUL, or a record at its end
  uint64_t renamed = 0;

  uint64_t unread() const { return counted.value_or(0) > read ? *counted - read : 0; }

  // Whether records may be missing, so that other tables may have to fill in for them.
  bool isIncomplete() const;
  bool hasLoss() const;
};

// What became of one record that is not as it was, with the ids that are known of it.
struct Loss {
  const char *what;
  std::optional<uint32_t> object;
  std::optional<uint32_t> field;
  std::string key;  // empty where the ids tell enough
};

struct SalvagedTable {
  Records records;
  TableTally tally;
  std::vector<Loss> losses;  // in the order in which they were met
};

class SalvagedTables {
 public:
  SalvagedTable &operator[](size_t table) { return tables_[table]; }
  const SalvagedTable &operator[](size_t table) const { return tables_[table]; }

  // Notes a loss of the table: with the ids of the record, or with those that its key tells.
  void lose(size_t table, const char *what, const DecodedRecord &record);
  void loseByKey(size_t table, const char *what, const std::string &key);

 private:
  std::array<SalvagedTable, tableCount> tables_;
};
