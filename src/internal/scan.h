// One walk over all readable records of a table.
#pragma once

#include <cstdint>

#include "platform/dbm_table.h"

// Calls `visit` with the bytes of every record, in the order of the table. Returns how many records
// could not be read: those that the library cannot give, those that `visit` refuses, and those that
// a broken scan did not reach.
template <typename Visit>
uint32_t forEachStored(NQ_dbm_db *table, Visit visit) {
  uint32_t unreadable = 0;
  DbmRecord record;
  table->first = 1;
  while (_NQ_dbm_db_getnext_raw(table, &record)) {
    if (record.bytes.data() == nullptr || !visit(record.bytes)) ++unreadable;
  }
  return unreadable + static_cast<uint32_t>(_NQ_dbm_db_unreached(table));
}

// Calls `visit` with every record that can be read, in the order of the table. Returns how many
// could not: records that do not decode, and those that a broken scan did not reach.
template <typename Record, typename Visit>
uint32_t forEachRecord(NQ_dbm_db *table, Visit visit) {
  uint32_t unreadable = 0;
  table->first = 1;
  do {
    auto *record = static_cast<Record *>(_NQ_dbm_db_getnext(table));
    if (record != nullptr) {
      visit(record);
    } else if (_NQ_dbm_db_scan(table) == DbmScan::underWay) {
      ++unreadable;
    }
  } while (_NQ_dbm_db_scan(table) == DbmScan::underWay);
  return unreadable + static_cast<uint32_t>(_NQ_dbm_db_unreached(table));
}
