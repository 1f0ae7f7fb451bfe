#include "platform/dbm_table.h"

extern "C" {  // ndbm.h has no guards for C++
#include <ndbm.h>
}

#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <string>

#include "platform/out_of_memory.h"
#include "platform/table_lock.h"

struct DbmTable {
  NQ_dbm_db handle{0, this};
  std::string path;  // without the suffix
  DBM *dbm = nullptr;
  DbmDecoder decoder = nullptr;
  DbmEncoder encoder = nullptr;
  DbmScan scan = DbmScan::complete;
  gdbm_count_t scanned = 0;    // records that the latest scan has met
  gdbm_count_t unreached = 0;  // and that it has not, once it has ended
  TableLock lock;
};

namespace {

datum toDatum(const void *bytes, size_t length) {
  return {const_cast<char *>(static_cast<const char *>(bytes)), static_cast<int>(length)};
}

std::string_view toView(datum item) {
  return {item.dptr, static_cast<size_t>(item.dsize)};
}

// Before every call that may take memory: what tells afterwards whether it failed for want of it.
void forgetErrors() {
  errno = 0;
  gdbm_errno = GDBM_NO_ERROR;
}

// Behind every such call that has failed. The library does not always say so itself: a scan may end
// and an open fail without its error for exhausted memory.
void checkMemory() {
  if (gdbm_errno == GDBM_ITEM_NOT_FOUND) return;
  if (gdbm_errno == GDBM_MALLOC_ERROR || errno == ENOMEM) failForWantOfMemory();
}

datum fetch(const DbmTable *table, datum key) {
  forgetErrors();
  const datum stored = dbm_fetch(table->dbm, key);
  if (stored.dptr == nullptr) checkMemory();
  return stored;
}

void *decode(const DbmTable *table, std::string_view bytes) {
  forgetErrors();
  void *record = table->decoder(bytes.data(), bytes.size());
  if (record == nullptr) checkMemory();
  return record;
}

// The end of a scan and a failure in it look alike, and a damaged table may end a scan early
// without any error: only the library's own count tells.
bool hasReachedEnd(DbmTable *table) {
  const bool failed = dbm_error(table->dbm) != 0;
  forgetErrors();
  gdbm_count_t records = 0;
  if (gdbm_count(table->dbm->file, &records) != 0) {
    checkMemory();
    records = 0;
  }
  const bool complete = !failed && records == table->scanned;
  table->unreached = records > table->scanned ? records - table->scanned : !complete;
  return complete;
}

int storeBytes(DbmTable *table, const void *key, size_t keyLength, const char *bytes,
               size_t length) {
  forgetErrors();
  if (dbm_store(table->dbm, toDatum(key, keyLength), toDatum(bytes, length), DBM_REPLACE) == 0) {
    return 0;
  }
  checkMemory();
  return -1;
}

}  // namespace

NQ_dbm_db *_NQ_dbm_db_open(const char *directory, const char *name, int flags, mode_t mode,
                           DbmDecoder decoder, DbmEncoder encoder) {
  auto *table = new DbmTable;
  table->path = std::string(directory) + "/" + name;
  table->decoder = decoder;
  table->encoder = encoder;
  forgetErrors();
  table->dbm = dbm_open(table->path.data(), flags, static_cast<int>(mode));
  if (table->dbm == nullptr) {
    checkMemory();
    delete table;
    return nullptr;
  }
  return &table->handle;
}

void _NQ_dbm_db_close(NQ_dbm_db *db) {
  dbm_close(db->table->dbm);
  delete db->table;
}

void *_NQ_dbm_db_get(NQ_dbm_db *db, const void *key, size_t keyLength) {
  const datum stored = fetch(db->table, toDatum(key, keyLength));
  return stored.dptr == nullptr ? nullptr : decode(db->table, toView(stored));
}

int _NQ_dbm_db_store(NQ_dbm_db *db, const void *key, size_t keyLength, const void *record) {
  const char *bytes = nullptr;
  size_t length = 0;
  forgetErrors();
  const int encoded = db->table->encoder(record, &bytes, &length);
  if (encoded < 0) {
    checkMemory();
    return encoded;
  }
  return storeBytes(db->table, key, keyLength, bytes, length);
}

int _NQ_dbm_db_delete(NQ_dbm_db *db, const void *key, size_t keyLength) {
  forgetErrors();
  if (dbm_delete(db->table->dbm, toDatum(key, keyLength)) == 0) return 0;
  checkMemory();
  return gdbm_errno == GDBM_ITEM_NOT_FOUND ? 0 : -1;
}

bool _NQ_dbm_db_getnext_raw(NQ_dbm_db *db, DbmRecord *record) {
  DbmTable *table = db->table;
  if (db->first != 1 && table->scan != DbmScan::underWay) return false;
  forgetErrors();
  dbm_clearerr(table->dbm);
  datum key{};
  if (db->first == 1) {
    db->first = 0;
    table->scan = DbmScan::underWay;
    table->scanned = 0;
    key = dbm_firstkey(table->dbm);
  } else {
    key = dbm_nextkey(table->dbm);
  }
  if (key.dptr == nullptr) {
    checkMemory();
    table->scan = hasReachedEnd(table) ? DbmScan::complete : DbmScan::broken;
    return false;
  }
  ++table->scanned;
  const datum stored = fetch(table, key);
  *record = {toView(key), stored.dptr == nullptr ? std::string_view() : toView(stored)};
  return true;
}

void *_NQ_dbm_db_getnext(NQ_dbm_db *db) {
  DbmRecord record;
  if (!_NQ_dbm_db_getnext_raw(db, &record) || record.bytes.data() == nullptr) return nullptr;
  return decode(db->table, record.bytes);
}

DbmScan _NQ_dbm_db_scan(const NQ_dbm_db *db) {
  return db->table->scan;
}

uint64_t _NQ_dbm_db_unreached(const NQ_dbm_db *db) {
  return db->table->unreached;
}

int _NQ_dbm_db_store_raw(NQ_dbm_db *db, std::string_view key, std::string_view bytes) {
  return storeBytes(db->table, key.data(), key.size(), bytes.data(), bytes.size());
}

// The library never syncs the .dir file, and does not open a table whose .dir is empty.
int _NQ_dbm_db_sync(NQ_dbm_db *db) {
  DBM *dbm = db->table->dbm;
  return gdbm_sync(dbm->file) == 0 && fsync(dbm_dirfno(dbm)) == 0 ? 0 : -1;
}

NQ_dbm_list *_NQ_dbm_db_getlist(NQ_dbm_db *db) {
  NQ_dbm_list *head = nullptr;
  NQ_dbm_list **end = &head;
  db->first = 1;
  do {
    void *wrapper = _NQ_dbm_db_getnext(db);
    if (wrapper == nullptr) continue;
    *end = static_cast<NQ_dbm_list *>(allocateOrEnd(sizeof(NQ_dbm_list)));
    (*end)->item = *static_cast<void **>(wrapper);
    end = &(*end)->next;
    free(wrapper);
  } while (_NQ_dbm_db_scan(db) == DbmScan::underWay);
  return head;
}

void _NQ_dbm_db_start_buffering(NQ_dbm_db *, uint32_t) {}

void _NQ_dbm_db_stop_buffering(NQ_dbm_db *) {}

void _NQ_dbm_db_disable_lock_on_access(NQ_dbm_db *) {}

int _NQ_lock_dbm_db(NQ_dbm_db *db, int) {
  const std::string file = db->table->path + ".pag";
  return db->table->lock.acquire(file.c_str(), dbm_pagfno(db->table->dbm)) ? 0 : -1;
}
