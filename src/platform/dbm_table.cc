#include "platform/dbm_table.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <string>
#include <utility>
#include <vector>

#include "platform/out_of_memory.h"
#include "platform/read_only_dbm.h"
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
  bool buffering = false;
  uint64_t expected = 0;  // bytes to reserve at first
  uint64_t reserved = 0;  // bytes of the file while it is longer than the library knows; else 0
  uint64_t shortest = 0;  // bytes of the file before that
  uint64_t roomLeft = 0;  // bytes to store before the file's end is looked at again
  bool wasCut = false;    // the file is shorter than the library may believe
  std::string deletions;  // held back: keys, each behind its length as a size_t
  bool failed = false;    // something that was held back or reserved could not be settled
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

void settleDeletions(DbmTable *table);

datum fetch(DbmTable *table, datum key) {
  settleDeletions(table);
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

// Where the library's next new block will be: up to there the file is in use. 0 when the file does
// not begin like the tables of GNU dbm 1.23 that the library makes on this machine.
uint64_t endOfBlocks(int fd) {
  constexpr uint32_t magic32 = 0x13579ACD;  // offsets of 4 bytes
  constexpr uint32_t magic64 = 0x13579ACF;  // offsets of 8 bytes
  char header[40];
  if (pread(fd, header, sizeof header, 0) != sizeof header) return 0;
  uint32_t magic = 0;
  memcpy(&magic, header, sizeof magic);
  uint64_t end = 0;
  if (magic == magic64) memcpy(&end, header + 32, sizeof end);
  if (magic == magic32) {
    uint32_t shortEnd = 0;
    memcpy(&shortEnd, header + 28, sizeof shortEnd);
    end = shortEnd;
  }
  return end;
}

void mapFile(const DbmTable *table, int on) {
  gdbm_setopt(table->dbm->file, GDBM_SETMMAP, &on, sizeof on);
}

// Makes the file longer ahead of what is about to be stored. True when it has, and then the library
// learns the new length only from a store that it makes with its map off.
bool reserveAhead(DbmTable *table, size_t bytes) {
  constexpr uint64_t smallest = uint64_t{256} * 1024;
  constexpr size_t placeOfKey = 64;  // in the blocks that hold the keys, which may be half empty
  if (!table->buffering || table->wasCut) return false;
  bytes += placeOfKey;
  if (bytes <= table->roomLeft) {
    table->roomLeft -= bytes;
    return false;
  }
  table->roomLeft = smallest;  // also where nothing can be reserved
  const int fd = dbm_pagfno(table->dbm);
  const uint64_t used = endOfBlocks(fd);
  if (used == 0) return false;
  if (used + used / 8 < table->reserved) {
    table->roomLeft = (table->reserved - used) / 2;
    return false;
  }

  uint64_t length = std::max(used + used / 2, smallest);
  struct statvfs disk {};
  if (fstatvfs(fd, &disk) != 0) return false;
  // A disk that is nearly full is filled record by record: what one table reserves and does not
  // need would be missing in the next.
  const uint64_t plenty = disk.f_bavail * disk.f_frsize / 4;
  if (plenty <= length) return false;
  const uint64_t expected = std::exchange(table->expected, 0);
  if (expected < plenty) length = std::max(length, expected);
  struct stat file {};
  if (table->reserved == 0 && fstat(fd, &file) != 0) return false;
  if (table->reserved == 0) table->shortest = static_cast<uint64_t>(file.st_size);
  table->reserved = length;  // a failure may have made the file longer too
  if (posix_fallocate(fd, 0, static_cast<off_t>(length)) != 0) return false;
  table->roomLeft = (length - used) / 2;
  return true;
}

// Cuts the file to what is in use, but never below what it was: a damaged header may say anything.
// The map stays off for good: the library would take the old length for the file's, and touch pages
// that are gone.
void cutReserved(DbmTable *table) {
  if (table->reserved == 0) return;
  mapFile(table, 0);
  const int fd = dbm_pagfno(table->dbm);
  const uint64_t used = endOfBlocks(fd);
  const auto length = static_cast<off_t>(std::max(used, table->shortest));
  if (used == 0 || ftruncate(fd, length) != 0) table->failed = true;
  table->wasCut = true;
  table->reserved = 0;
  table->roomLeft = 0;
}

// One change of the table through the library, with room made for it.
template <typename Change>
int changeTable(DbmTable *table, size_t bytes, Change change) {
  forgetErrors();
  const bool longer = reserveAhead(table, bytes);
  if (longer) mapFile(table, 0);
  const int result = change();
  const int error = errno;
  const gdbm_error libraryError = gdbm_errno;
  if (longer) mapFile(table, 1);
  errno = error;
  gdbm_errno = libraryError;
  if (result != 0) checkMemory();
  return result;
}

int storeBytes(DbmTable *table, const void *key, size_t keyLength, const char *bytes,
               size_t length) {
  settleDeletions(table);
  return changeTable(table, keyLength + length,
                     [=] {
                       return dbm_store(table->dbm, toDatum(key, keyLength), toDatum(bytes, length),
                                        DBM_REPLACE);
                     }) == 0
             ? 0
             : -1;
}

// 0 when the key is gone, also when it was never there.
int deleteKey(DbmTable *table, const void *key, size_t keyLength) {
  const int deleted = changeTable(table, keyLength,
                                  [=] { return dbm_delete(table->dbm, toDatum(key, keyLength)); });
  return deleted == 0 || gdbm_errno == GDBM_ITEM_NOT_FOUND ? 0 : -1;
}

void holdDeletion(DbmTable *table, const void *key, size_t keyLength) {
  table->deletions.append(reinterpret_cast<const char *>(&keyLength), sizeof keyLength);
  table->deletions.append(static_cast<const char *>(key), keyLength);
}

// Deletes what was held back, before anything else looks at the table. Nobody will look at a file
// that has no name any more.
void settleDeletions(DbmTable *table) {
  if (table->deletions.empty()) return;
  const std::string held = std::exchange(table->deletions, {});
  struct stat file {};
  if (fstat(dbm_pagfno(table->dbm), &file) == 0 && file.st_nlink == 0) return;
  std::vector<std::pair<uint32_t, std::string_view>> keys;
  for (size_t at = 0; at < held.size();) {
    size_t length = 0;
    memcpy(&length, held.data() + at, sizeof length);
    const std::string_view key(held.data() + at + sizeof length, length);
    keys.emplace_back(_NQ_dbm_db_order(key.data(), key.size()), key);
    at += sizeof length + length;
  }
  std::sort(keys.begin(), keys.end());
  for (const auto &[order, key] : keys) {
    if (deleteKey(table, key.data(), key.size()) != 0) table->failed = true;
  }
}

}  // namespace

NQ_dbm_db *_NQ_dbm_db_open(const char *directory, const char *name, int flags, mode_t mode,
                           DbmDecoder decoder, DbmEncoder encoder) {
  auto *table = new DbmTable;
  table->path = std::string(directory) + "/" + name;
  table->decoder = decoder;
  table->encoder = encoder;
  forgetErrors();
  const bool isReadOnly = (flags & O_ACCMODE) == O_RDONLY;
  table->dbm = isReadOnly ? openReadOnlyDbm(table->path)
                          : dbm_open(table->path.data(), flags, static_cast<int>(mode));
  if (table->dbm == nullptr) {
    checkMemory();
    delete table;
    return nullptr;
  }
  // The library would keep all blocks of keys in memory that it has met, 40 bytes a record. With
  // few of them it is no slower: the file is mapped. A scan needs one at a time.
  size_t blocks = isReadOnly ? 8 : 100;
  gdbm_setopt(table->dbm->file, GDBM_SETCACHESIZE, &blocks, sizeof blocks);
  return &table->handle;
}

void _NQ_dbm_db_close(NQ_dbm_db *db) {
  settleDeletions(db->table);
  cutReserved(db->table);
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
  if (!db->table->buffering) return deleteKey(db->table, key, keyLength);
  holdDeletion(db->table, key, keyLength);
  return 0;
}

bool _NQ_dbm_db_getnext_raw(NQ_dbm_db *db, DbmRecord *record) {
  DbmTable *table = db->table;
  if (db->first != 1 && table->scan != DbmScan::underWay) return false;
  forgetErrors();
  dbm_clearerr(table->dbm);
  datum key{};
  if (db->first == 1) {
    settleDeletions(table);
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

void *_NQ_dbm_db_decode(NQ_dbm_db *db, std::string_view bytes) {
  return decode(db->table, bytes);
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
  settleDeletions(db->table);
  DBM *dbm = db->table->dbm;
  const bool synced = gdbm_sync(dbm->file) == 0 && fsync(dbm_dirfno(dbm)) == 0;
  return synced && !db->table->failed ? 0 : -1;
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

void _NQ_dbm_db_start_buffering(NQ_dbm_db *db, uint32_t) {
  DbmTable *table = db->table;
  table->buffering = true;
  if (!table->wasCut) mapFile(table, 1);
}

void _NQ_dbm_db_stop_buffering(NQ_dbm_db *db) {
  settleDeletions(db->table);
  db->table->buffering = false;
  cutReserved(db->table);
  mapFile(db->table, 0);
}

uint64_t _NQ_dbm_db_size(const NQ_dbm_db *db) {
  struct stat file {};
  return fstat(dbm_pagfno(db->table->dbm), &file) == 0 ? static_cast<uint64_t>(file.st_size) : 0;
}

void _NQ_dbm_db_expect(NQ_dbm_db *db, uint64_t size) {
  db->table->expected = size + size / 7;  // nothing more is reserved while an eighth is left
}

uint32_t _NQ_dbm_db_order(const void *key, size_t keyLength) {
  const auto *bytes = static_cast<const unsigned char *>(key);
  uint32_t hash = 0x238F13AFu * static_cast<uint32_t>(keyLength);
  uint32_t shift = 0;
  for (size_t i = 0; i < keyLength; ++i) {
    hash = (hash + (static_cast<uint32_t>(bytes[i]) << shift)) & 0x7FFFFFFF;
    shift = shift < 19 ? shift + 5 : shift - 19;
  }
  return (1103515243u * hash + 12345) & 0x7FFFFFFF;
}

void _NQ_dbm_db_disable_lock_on_access(NQ_dbm_db *) {}

int _NQ_lock_dbm_db(NQ_dbm_db *db, int) {
  const std::string file = db->table->path + ".pag";
  return db->table->lock.acquire(file.c_str(), dbm_pagfno(db->table->dbm)) ? 0 : -1;
}
