#include "objdb/table_writer.h"

#include <fcntl.h>

#include <algorithm>
#include <cstdint>

#include "objdb/progress.h"
#include "objdb/record_lines.h"

bool writeTable(const std::string &directory, size_t table, const RecordViews &records) {
  const TableFormat &format = tableFormats[table];
  NQ_dbm_db *db = _NQ_dbm_db_open(directory.c_str(), format.name, O_RDWR | O_CREAT, 0777,
                                  format.decode, format.encode);
  if (db == nullptr) return false;
  std::vector<std::pair<uint32_t, const RecordViews::value_type *>> stores;
  stores.reserve(records.size());
  for (const auto &record : records) {
    stores.emplace_back(_NQ_dbm_db_order(record.first.data(), record.first.size()), &record);
  }
  // Behind each other in memory are those of one key that come later.
  std::sort(stores.begin(), stores.end());
  Progress progress(std::string("writing ") + format.name);
  bool stored = true;
  _NQ_dbm_db_start_buffering(db, UINT32_MAX);
  for (const auto &[order, record] : stores) {
    stored = stored && _NQ_dbm_db_store_raw(db, record->first, record->second) == 0;
    progress.count();
  }
  _NQ_dbm_db_stop_buffering(db);
  stored = stored && _NQ_dbm_db_sync(db) == 0;
  _NQ_dbm_db_close(db);
  return stored;
}
