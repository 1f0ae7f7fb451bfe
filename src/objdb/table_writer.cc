#include "objdb/table_writer.h"

#include <fcntl.h>

#include <algorithm>
#include <cstdint>
#include <optional>

#include "objdb/census.h"
#include "objdb/progress.h"
#include "objdb/table_reader.h"
#include "store/tables.h"
#include "store/work_directory.h"

namespace {

bool store(const std::string &directory, size_t table, const RecordViews &records) {
  const TableFormat &format = tableFormats[table];
  NQ_dbm_db *db = _NQ_dbm_db_open(directory.c_str(), format.name, O_RDWR | O_CREAT, 0777,
                                  format.decode, format.encode);
  if (db == nullptr) return false;
  // In the order that is cheapest for the library (dbm_table.h).
  std::vector<std::pair<uint32_t, const RecordViews::value_type *>> stores;
  stores.reserve(records.size());
  constexpr uint64_t besides = 48;  // bytes of a record's entry in blocks that are not all full
  uint64_t size = 0;
  for (const auto &record : records) {
    size += record.first.size() + record.second.size() + besides;
    stores.emplace_back(_NQ_dbm_db_order(record.first.data(), record.first.size()), &record);
  }
  {
    const Phase sorting(std::string("sorting ") + format.name);
    std::sort(stores.begin(), stores.end());
  }
  bool stored = true;
  std::optional<Phase> phase(std::in_place, std::string("writing ") + format.name, stores.size());
  _NQ_dbm_db_expect(db, size);
  _NQ_dbm_db_start_buffering(db, UINT32_MAX);
  constexpr size_t ahead = 8;  // sorted records lie anywhere in memory, and so do their bytes
  for (size_t i = 0; i < stores.size(); ++i) {
    if (i + 2 * ahead < stores.size()) __builtin_prefetch(stores[i + 2 * ahead].second);
    if (i + ahead < stores.size()) {
      __builtin_prefetch(stores[i + ahead].second->first.data());
      __builtin_prefetch(stores[i + ahead].second->second.data());
    }
    const auto &[key, bytes] = *stores[i].second;
    // After a failure nothing more is stored: the table is given up.
    stored = stored && _NQ_dbm_db_store_raw(db, key, bytes) == 0;
    phase->count();
  }
  _NQ_dbm_db_stop_buffering(db);
  phase.emplace(std::string("waiting for the disk with ") + format.name);
  stored = stored && _NQ_dbm_db_sync(db) == 0;
  _NQ_dbm_db_close(db);
  return stored;
}

// By the files: what was stored may not be what they have.
bool holds(const std::string &directory, size_t table, const RecordViews &records) {
  Census stored, found;
  for (const auto &[key, bytes] : records) stored.add(table, key, bytes);
  OpenFailure ignored;
  const auto reader = TableReader::open(directory, table, TableReader::Demand::table, &ignored);
  DbmRecord record;
  while (reader != nullptr && reader->next(&record)) found.add(table, record.key, record.bytes);
  return reader != nullptr && reader->isComplete() && found == stored;
}

}  // namespace

bool writeTable(const std::string &directory, size_t table, const RecordViews &records,
                std::string *error) {
  if (!store(directory, table, records)) {
    return failAttempt("write", tableFile(table, pageSuffix), error);
  }
  if (holds(directory, table, records)) return true;
  *error = "the tables do not hold what was written to them";
  return false;
}
