// The handle of one open object database: its six tables. Opening and closing it is the store's
// (store/database.h); reading and changing records needs no more than this.
#pragma once

#include <cstddef>
#include <cstdint>
#include <ctime>

#include "platform/dbm_table.h"

// A key as the table layer takes it.
struct TableKey {
  const void *bytes;
  size_t length;
};

// Malloc storage that belongs to the caller of the opener. A null table is not open.
struct ObjectDatabase {
  NQ_dbm_db *idKeeperDb;
  NQ_dbm_db *fieldInfoDb;
  NQ_dbm_db *objInfoDb;
  NQ_dbm_db *valueInfoDb;
  NQ_dbm_db *nameInfoDb;
  NQ_dbm_db *enumInfoDb;
  NQ_dbm_list *fieldList;  // items are NQwFieldInfo; null until loadFieldList
  int32_t fieldCount;      // nodes in fieldList
  time_t version;          // 0 for "current", else the time that names an archived version
  uint32_t bufferCount;    // records handed to _NQ_dbm_db_start_buffering
};
