#include "platform/dbm_table.h"

extern "C" {  // ndbm.h has no guards for C++
#include <ndbm.h>
}

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
  TableLock lock;
};

namespace {

datum toDatum(const void *bytes, size_t length) {
  return {const_cast<char *>(static_cast<const char *>(bytes)), static_cast<int>(length)};
}

std::string_view toView(datum item) {
  return {item.dptr, static_cast<size_t>(item.dsize)};
}

// Behind every call of the library that has failed.
void checkLibraryMemory() {
  if (gdbm_errno == GDBM_MALLOC_ERROR) failForWantOfMemory();
}

// Behind every codec that has failed; errno was 0 before it.
void checkCodecMemory() {
  if (errno == ENOMEM) failForWantOfMemory();
}

datum fetch(const DbmTable *table, datum key) {
  const datum stored = dbm_fetch(table->dbm, key);
  if (stored.dptr == nullptr) checkLibraryMemory();
  return stored;
}

void *decode(const DbmTable *table, std::string_view bytes) {
  errno = 0;
  void *record = table->decoder(bytes.data(), bytes.size());
  if (record == nullptr) checkCodecMemory();
  return record;
}

int storeBytes(DbmTable *table, const void *key, size_t keyLength, const char *bytes,
               size_t length) {
  if (dbm_store(table->dbm, toDatum(key, keyLength), toDatum(bytes, length), DBM_REPLACE) == 0) {
    return 0;
  }
  checkLibraryMemory();
  return -1;
}

}  // namespace

NQ_dbm_db *_NQ_dbm_db_open(const char *directory, const char *name, int flags, mode_t mode,
                           DbmDecoder decoder, DbmEncoder encoder) {
  auto *table = new DbmTable;
  table->path = std::string(directory) + "/" + name;
  table->decoder = decoder;
  table->encoder = encoder;
  table->dbm = dbm_open(table->path.data(), flags, static_cast<int>(mode));
  if (table->dbm == nullptr) {
    checkLibraryMemory();
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
  errno = 0;
  const int encoded = db->table->encoder(record, &bytes, &length);
  if (encoded < 0) {
    checkCodecMemory();
    return encoded;
  }
  return storeBytes(db->table, key, keyLength, bytes, length);
}

int _NQ_dbm_db_delete(NQ_dbm_db *db, const void *key, size_t keyLength) {
  if (dbm_delete(db->table->dbm, toDatum(key, keyLength)) == 0) return 0;
  checkLibraryMemory();
  return gdbm_errno == GDBM_ITEM_NOT_FOUND ? 0 : -1;
}

bool _NQ_dbm_db_getnext_raw(NQ_dbm_db *db, DbmRecord *record) {
  DbmTable *table = db->table;
  datum key{};
  // The end of a scan and a failure in it look alike; the error that stays set tells them apart.
  if (db->first == 1) {
    db->first = 0;
    table->scan = DbmScan::underWay;
    dbm_clearerr(table->dbm);
    key = dbm_firstkey(table->dbm);
  } else if (table->scan == DbmScan::underWay) {
    dbm_clearerr(table->dbm);
    key = dbm_nextkey(table->dbm);
  } else {
    return false;
  }
  if (key.dptr == nullptr) {
    if (dbm_error(table->dbm) != 0) checkLibraryMemory();
    table->scan = dbm_error(table->dbm) == 0 ? DbmScan::complete : DbmScan::broken;
    return false;
  }
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

int _NQ_dbm_db_store_raw(NQ_dbm_db *db, std::string_view key, std::string_view bytes) {
  return storeBytes(db->table, key.data(), key.size(), bytes.data(), bytes.size());
}

int _NQ_dbm_db_sync(NQ_dbm_db *db) {
  return gdbm_sync(db->table->dbm->file) == 0 ? 0 : -1;
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
