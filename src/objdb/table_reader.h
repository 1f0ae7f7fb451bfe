// One table as the reading commands look at it: no byte of its files, no time stamp and no
// directory entry changes, whatever state the files are in.
//
// An ndbm handle for writing mends a .dir file that it does not like and leaves new access times,
// and one for reading still needs a sound .dir file. Here the .pag file, which holds all the
// records, is opened by itself, read-only.
#pragma once

#include <array>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "objdb/command.h"
#include "objdb/progress.h"
#include "objdb/record_lines.h"
#include "platform/table_structure.h"
#include "store/tables.h"

// Why a table could not be opened, in words.
struct OpenFailure {
  enum Kind {
    damaged,      // the table
    unavailable,  // there is no such version, or it cannot be had
    inUse,        // by another process
  };

  std::string reason;
  Kind kind = unavailable;

  CommandFailure asFailure() const {
    return CommandFailure(reason, kind == inUse ? objdbInUse : objdbFailed);
  }
};

class TableReader {
 public:
  enum class Demand {
    lockedTable,  // both files have to be what the library itself would open; takes a shared lock
    table,        // the same, but the lock is the caller's business
    pageFile,     // the .pag file alone
  };

  // Opens a table of a version, or files of another name in its directory. Null when that cannot be
  // done.
  static std::unique_ptr<TableReader> open(const std::string &directory, size_t table,
                                           Demand demand, OpenFailure *failure);
  static std::unique_ptr<TableReader> openNamed(const std::string &directory,
                                                const std::string &name, Demand demand,
                                                OpenFailure *failure);
  ~TableReader();
  TableReader(const TableReader &) = delete;
  TableReader &operator=(const TableReader &) = delete;

  // The next record of the one scan that a reader makes; false when there is no further one. The
  // record is valid until the next call. Never goes on for more records than the file has room for,
  // though the directory of a damaged one may lead in circles.
  bool next(DbmRecord *record);

  // The bytes under a key, valid until the next call; null when there are none.
  std::string_view fetch(std::string_view key);

  // What the file says about itself, which the library has not been asked for.
  const TableStructure &structure() const;

  // The page file.
  int fd() const;

  // How many records there are by the counters in the file; unknown when its structure is damaged.
  std::optional<uint64_t> count() const;

  // Once the scan has ended: how many records it read; whether these are all, the structure is
  // sound and nothing failed; whether the library wants the table recovered.
  uint64_t recordsRead() const { return read_; }
  bool isComplete() const { return !failed_ && count() == read_; }
  bool needsRecovery() const;

 private:
  struct State;
  explicit TableReader(std::unique_ptr<State> state, const std::string &name);

  std::unique_ptr<State> state_;
  std::string name_;
  std::optional<Phase> phase_;  // while it scans
  uint64_t read_ = 0;
  bool failed_ = false;
};

// Opens all six tables. All locks are taken before the first read, so that the tables agree. A
// table that cannot be opened is null, and *failures says why in its place.
using TableReaders = std::array<std::unique_ptr<TableReader>, tableCount>;
using OpenFailures = std::array<OpenFailure, tableCount>;
TableReaders openTables(const std::string &directory, TableReader::Demand demand,
                        OpenFailures *failures);

// The same for commands that need all six, except an id keeper that is not there: throws
// CommandFailure when one cannot be opened. The reasons of further ones stand on standard error
// before that.
TableReaders openAllTables(const std::string &directory);

// These say on standard error that a record cannot be decoded, or that a scan has not read all that
// there is. False.
bool sayUndecodable(size_t table, std::string_view key);
bool sayIncomplete(size_t table);
