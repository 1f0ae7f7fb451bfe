#include "maint/proof.h"

#include <fcntl.h>

#include "platform/files.h"
#include "store/directory.h"

RecordCounts countRecords(ObjectDatabase *db) {
  RecordCounts counts{};
  for (const size_t table : rebuiltTables) _NQ_dbm_db_count(tableOf(db, table), &counts[table]);
  return counts;
}

RecordCounts expectedRecords(ObjectDatabase *db, const RecordCounts &before) {
  RecordCounts counts = before;
  for (const size_t table : rebuiltTables) {
    counts[table] += static_cast<uint64_t>(_NQ_dbm_db_added(tableOf(db, table)));
  }
  return counts;
}

bool syncTables(ObjectDatabase *db) {
  bool synced = true;
  for (const size_t table : rebuiltTables) {
    if (_NQ_dbm_db_sync(tableOf(db, table)) != 0) synced = false;
  }
  const char *directory = dbPath(nullptr, nullptr);
  return directory != nullptr && syncDirectory(directory) == 0 && synced;
}

// Counted in the files and not in the handle that has written them, which knows only what it was
// told.
bool areComplete(const char *directory, const RecordCounts &records) {
  for (const size_t table : rebuiltTables) {
    const TableFormat &format = tableFormats[table];
    // As a run opens it, which looks at both files.
    NQ_dbm_db *opened =
        _NQ_dbm_db_open(directory, format.name, O_RDWR, 0, format.decode, format.encode);
    if (opened == nullptr) return false;
    uint64_t found = 0;
    const bool sound = _NQ_dbm_db_count(opened, &found);
    _NQ_dbm_db_close(opened);
    if (!sound || found != records[table]) return false;
  }
  return true;
}
