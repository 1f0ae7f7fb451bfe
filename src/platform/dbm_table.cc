#include "platform/dbm_table.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "platform/descriptor.h"
#include "platform/files.h"
#include "platform/held_deletions.h"
#include "platform/out_of_memory.h"
#include "platform/read_only_dbm.h"
#include "platform/report.h"
#include "platform/table_growth.h"
#include "platform/table_lock.h"
#include "platform/table_refusal.h"
#include "platform/table_structure.h"

struct DbmTable {
  NQ_dbm_db handle{0, this};
  std::string path;  // without the suffix
  DBM *dbm = nullptr;
  DbmDecoder decoder = nullptr;
  DbmEncoder encoder = nullptr;
  DbmScan scan = DbmScan::complete;
  bool isSound = true;     // what the structure of the file said when the latest scan began
  uint64_t records = 0;    // how many there were then
  uint64_t scanned = 0;    // how many the scan has returned
  uint64_t unreached = 0;  // how many it did not return, once it has ended
  bool lookFailed = false;
  int64_t added = 0;
  int buffering = 0;  // open brackets, which may nest
  TableGrowth growth;
  HeldDeletions deletions{hashOf};
  bool failed = false;  // a held deletion or the trim has failed: the next sync says so
  int reported = 0;     // failures written to the log so far
  TableLock lock;

  static uint32_t hashOf(std::string_view key) { return _NQ_dbm_db_order(key.data(), key.size()); }
};

namespace {

// As in store/tables.h, which this room does not know.
constexpr char directorySuffix[] = ".dir";
constexpr char pageSuffix[] = ".pag";

datum toDatum(std::string_view bytes) {
  return {const_cast<char *>(bytes.data()), static_cast<int>(bytes.size())};
}

std::string_view toView(datum item) {
  return {item.dptr, static_cast<size_t>(item.dsize)};
}

// Called before anything that may allocate, so that failIfOutOfMemory can tell afterwards why it
// failed.
void forgetErrors() {
  errno = 0;
  gdbm_errno = GDBM_NO_ERROR;
}

// Called after every such call that has failed. The library does not always name the reason itself:
// without memory a scan may just end, and an open fail with another error.
void failIfOutOfMemory() {
  if (gdbm_errno == GDBM_ITEM_NOT_FOUND) return;  // an answer, whatever errno says
  if (gdbm_errno == GDBM_MALLOC_ERROR || errno == ENOMEM) failForWantOfMemory();
}

std::string inHex(std::string_view bytes) {
  std::string digits;
  for (const char each : bytes) {
    constexpr char all[] = "0123456789abcdef";
    digits += all[static_cast<unsigned char>(each) >> 4];
    digits += all[static_cast<unsigned char>(each) & 15];
  }
  return digits;
}

std::string reasonOfFailure() {
  const int error = errno;
  std::string reason = gdbm_errno == GDBM_NO_ERROR ? "" : gdbm_strerror(gdbm_errno);
  if (error != 0) reason += (reason.empty() ? "" : ": ") + std::string(strerror(error));
  return reason.empty() ? "no reason given" : reason;
}

// What the library does not say about a table that it has refused; empty when it would take it.
std::string whyRefused(const std::string &path) {
  const Descriptor directory(openRegular(path + directorySuffix, O_RDONLY));
  Descriptor pages(openRegular(path + pageSuffix, O_RDONLY));
  if (!directory.isOpen() || !pages.isOpen()) return "";
  std::string why = whyNotDirectoryFile(directory.get());
  if (!why.empty()) return why;
  GDBM_FILE file = gdbm_fd_open(pages.get(), "", 0, GDBM_READER | GDBM_NOLOCK, nullptr);
  if (file == nullptr) return whyNotPageFile(pages.get());
  pages.release();
  gdbm_close(file);
  return "";
}

// The one place that tells of a failure of the library: what was tried, on which table and key, and
// why it failed. A damaged table may fail a million times; the first few say enough.
void reportFailure(DbmTable *table, const char *attempt, std::string_view key = {},
                   const std::string &reason = reasonOfFailure()) {
  constexpr int most = 20;
  if (table->reported++ >= most) return;
  const std::string where = key.empty() ? "" : ", key " + inHex(key.substr(0, 64));
  NQuLogS(databaseComponent, severityError, "nqw", 1, 0, "Could not %s table \"%s\"%s: %s.%s",
          attempt, table->path.c_str(), where.c_str(), reason.c_str(),
          table->reported == most ? " Further failures on this table are not listed." : "");
}

void settleDeletions(DbmTable *table);

// The stored bytes; null when there are none, and then lookFailed tells absence from failure.
datum fetch(DbmTable *table, datum key) {
  table->lookFailed = false;
  if (table->deletions.contains(toView(key))) return {};  // deleted, though still in the file
  forgetErrors();
  const datum stored = dbm_fetch(table->dbm, key);
  if (stored.dptr == nullptr) {
    failIfOutOfMemory();
    table->lookFailed = gdbm_errno != GDBM_ITEM_NOT_FOUND;
    if (table->lookFailed) reportFailure(table, "read", toView(key));
  }
  return stored;
}

void *decode(const DbmTable *table, std::string_view bytes) {
  forgetErrors();
  void *record = table->decoder(bytes.data(), bytes.size());
  if (record == nullptr) failIfOutOfMemory();
  return record;
}

bool isSound(const DbmTable *table, const TableStructure &structure) {
  if (structure.isSound()) return true;
  NQuLogS(databaseComponent, severityError, "nqw", 1, 0, "Table \"%s\" is damaged: %s.",
          table->path.c_str(), structure.detail.c_str());
  return false;
}

// What there is to scan, before the library is believed: a damaged directory would hide records
// from it, or lead it in a circle.
void lookAtStructure(DbmTable *table) {
  const TableStructure structure = readStructure(dbm_pagfno(table->dbm));
  table->isSound = isSound(table, structure);
  table->records = structure.records;
  if (table->isSound) return;
  // Of a damaged table neither count can be trusted. The larger one bounds the scan, which may lead
  // in a circle.
  forgetErrors();
  gdbm_count_t counted = 0;
  if (gdbm_count(table->dbm->file, &counted) != 0) failIfOutOfMemory();
  table->records = std::max<uint64_t>(structure.records, counted);
}

// The end of a scan and a failure in it look alike, and a damaged table may end a scan early
// without any error: only the count tells. A scan that is not complete has left out 1 at least,
// even where the count does not say which.
void endScan(DbmTable *table, bool failed) {
  const bool complete = !failed && table->isSound && table->records == table->scanned;
  table->unreached = table->records > table->scanned ? table->records - table->scanned : !complete;
  table->scan = complete ? DbmScan::complete : DbmScan::broken;
}

void mapFile(const DbmTable *table, int on) {
  gdbm_setopt(table->dbm->file, GDBM_SETMMAP, &on, sizeof on);
}

void trimReserved(DbmTable *table) {
  if (!table->growth.isReserved()) return;
  mapFile(table, 0);  // first: a page that is mapped beyond the end of the file is a SIGBUS
  if (!table->growth.trim(dbm_pagfno(table->dbm))) table->failed = true;
}

// One change of the table through the library, with room made for it. Turning the map on again
// overwrites both error codes, so they are saved.
template <typename Change>
int changeTable(DbmTable *table, size_t bytes, Change change) {
  forgetErrors();
  const bool longer = table->buffering > 0 && table->growth.reserve(dbm_pagfno(table->dbm), bytes);
  if (longer) mapFile(table, 0);
  const int result = change();
  const int error = errno;
  const gdbm_error libraryError = gdbm_errno;
  if (longer) mapFile(table, 1);
  errno = error;
  gdbm_errno = libraryError;
  if (result < 0) failIfOutOfMemory();
  return result;
}

// Inserts first and replaces only then, to learn whether the key is new: the proof of a run counts
// new keys (_NQ_dbm_db_added).
int storeBytes(DbmTable *table, std::string_view key, std::string_view bytes) {
  settleDeletions(table);  // or a key that is deleted and stored again would be lost
  const auto store = [&](int mode) {
    return changeTable(table, key.size() + bytes.size(),
                       [&] { return dbm_store(table->dbm, toDatum(key), toDatum(bytes), mode); });
  };
  int stored = store(DBM_INSERT);
  if (stored == 0) ++table->added;
  if (stored > 0) stored = store(DBM_REPLACE);
  if (stored == 0) return 0;
  reportFailure(table, "store in", key);
  return -1;
}

// 0 when the key is gone, also when it was never there.
int deleteKey(DbmTable *table, std::string_view key) {
  const int deleted =
      changeTable(table, key.size(), [&] { return dbm_delete(table->dbm, toDatum(key)); });
  if (deleted == 0) --table->added;
  if (deleted == 0 || gdbm_errno == GDBM_ITEM_NOT_FOUND) return 0;
  reportFailure(table, "delete from", key);
  return -1;
}

// Whether the file still stands where it was opened. One that has lost its place there, or may
// have, belongs to others: to a version that keeps it as it was.
bool isInPlace(const DbmTable *table) {
  struct stat opened {};
  struct stat named {};
  const std::string pages = table->path + pageSuffix;
  return fstat(dbm_pagfno(table->dbm), &opened) == 0 && stat(pages.c_str(), &named) == 0 &&
         identityOf(opened) == identityOf(named);
}

// Deletes what was held back, or forgets it when the file has lost its place.
void settleDeletions(DbmTable *table) {
  if (table->deletions.empty()) return;
  const HeldDeletions held = std::exchange(table->deletions, HeldDeletions(DbmTable::hashOf));
  if (!isInPlace(table)) return;
  std::vector<std::pair<uint32_t, std::string_view>> keys;
  for (const std::string_view key : held.keys()) {
    keys.emplace_back(_NQ_dbm_db_order(key.data(), key.size()), key);
  }
  std::sort(keys.begin(), keys.end());
  for (const auto &[order, key] : keys) {
    if (deleteKey(table, key) != 0) table->failed = true;
  }
}

// The file as it stands under a name before the library opens it: it has to be a regular one, since
// the library would wait for a FIFO and follow anybody's link. False, with errno, when it is not,
// or when it is missing and will not be made.
bool lookAtFile(const std::string &path, bool makes, struct stat *status) {
  *status = {};
  const Descriptor file(openRegular(path, O_RDONLY));
  if (file.isOpen()) return fstat(file.get(), status) == 0;
  struct stat named {};
  return makes && errno == ENOENT && lstat(path.c_str(), &named) != 0 && errno == ENOENT;
}

// Whether what the library has opened is that file, or a new one in its place: somebody may have
// put another file there between our look and the library's open.
bool isThatFile(int fd, const std::string &path, const struct stat &status) {
  struct stat opened {};
  struct stat named {};
  if (fstat(fd, &opened) != 0 || !S_ISREG(opened.st_mode)) return false;
  if (status.st_ino != 0) return identityOf(opened) == identityOf(status);
  return lstat(path.c_str(), &named) == 0 && identityOf(opened) == identityOf(named);
}

bool openToRead(DbmTable *table) {
  forgetErrors();
  table->dbm = openReadOnlyDbm(table->path);
  if (table->dbm == nullptr) failIfOutOfMemory();
  return table->dbm != nullptr;
}

bool openToChange(DbmTable *table, int flags, mode_t mode) {
  const std::string directory = table->path + directorySuffix;
  const std::string pages = table->path + pageSuffix;
  const bool makes = (flags & O_CREAT) != 0;
  struct stat directoryStatus {};
  struct stat pageStatus {};
  forgetErrors();
  if (!lookAtFile(directory, makes, &directoryStatus) || !lookAtFile(pages, makes, &pageStatus)) {
    return false;
  }
  forgetErrors();
  table->dbm = dbm_open(table->path.data(), flags, static_cast<int>(mode));
  if (table->dbm == nullptr) {
    failIfOutOfMemory();
    return false;
  }
  if (isThatFile(dbm_pagfno(table->dbm), pages, pageStatus) &&
      isThatFile(dbm_dirfno(table->dbm), directory, directoryStatus)) {
    return true;
  }
  dbm_close(table->dbm);
  errno = ESTALE;
  return false;
}

}  // namespace

NQ_dbm_db *_NQ_dbm_db_open(const char *directory, const char *name, int flags, mode_t mode,
                           DbmDecoder decoder, DbmEncoder encoder) {
  auto table = std::make_unique<DbmTable>();
  table->path = std::string(directory) + "/" + name;
  table->decoder = decoder;
  table->encoder = encoder;
  const bool isReadOnly = (flags & O_ACCMODE) == O_RDONLY;
  if (isReadOnly ? !openToRead(table.get()) : !openToChange(table.get(), flags, mode)) {
    const bool isRefused = errno == 0;  // and no call has failed
    const std::string reason = reasonOfFailure();
    const std::string refusal = isRefused ? whyRefused(table->path) : "";
    reportFailure(table.get(), "open", {}, refusal.empty() ? reason : refusal);
    return nullptr;
  }
  // The library would keep every block of keys in memory that it has met, 40 bytes a record. With
  // few of them it is no slower, since the file is mapped. A scan needs one at a time.
  size_t blocks = isReadOnly ? 8 : 100;
  gdbm_setopt(table->dbm->file, GDBM_SETCACHESIZE, &blocks, sizeof blocks);
  return &table.release()->handle;
}

void _NQ_dbm_db_close(NQ_dbm_db *db) {
  settleDeletions(db->table);
  trimReserved(db->table);
  dbm_close(db->table->dbm);
  delete db->table;
}

void *_NQ_dbm_db_get(NQ_dbm_db *db, const void *key, size_t keyLength) {
  const datum stored = fetch(db->table, toDatum({static_cast<const char *>(key), keyLength}));
  return stored.dptr == nullptr ? nullptr : decode(db->table, toView(stored));
}

bool _NQ_dbm_db_look_failed(const NQ_dbm_db *db) {
  return db->table->lookFailed;
}

int _NQ_dbm_db_store(NQ_dbm_db *db, const void *key, size_t keyLength, const void *record) {
  const char *bytes = nullptr;
  size_t length = 0;
  forgetErrors();
  const int encoded = db->table->encoder(record, &bytes, &length);
  if (encoded < 0) {
    failIfOutOfMemory();
    return encoded;
  }
  return storeBytes(db->table, {static_cast<const char *>(key), keyLength}, {bytes, length});
}

int _NQ_dbm_db_delete(NQ_dbm_db *db, const void *key, size_t keyLength) {
  const std::string_view bytes(static_cast<const char *>(key), keyLength);
  if (db->table->buffering == 0) return deleteKey(db->table, bytes);
  db->table->deletions.add(bytes);
  return 0;
}

bool _NQ_dbm_db_count(NQ_dbm_db *db, uint64_t *records) {
  const TableStructure structure = readStructure(dbm_pagfno(db->table->dbm));
  *records = structure.records;
  forgetErrors();
  if (gdbm_needs_recovery(db->table->dbm->file) == 0) return isSound(db->table, structure);
  // Its file is longer than its header says, for one, and the library gives no record out.
  gdbm_errno = GDBM_NEED_RECOVERY;
  reportFailure(db->table, "read");
  return false;
}

bool _NQ_dbm_db_check_space(NQ_dbm_db *db) {
  return isSound(db->table, readStructureAndSpace(dbm_pagfno(db->table->dbm)));
}

int64_t _NQ_dbm_db_added(const NQ_dbm_db *db) {
  return db->table->added;
}

bool _NQ_dbm_db_getnext_raw(NQ_dbm_db *db, DbmRecord *record) {
  DbmTable *table = db->table;
  if (db->first != 1 && table->scan != DbmScan::underWay) return false;
  datum key{};
  if (db->first == 1) {
    settleDeletions(table);
    lookAtStructure(table);
    db->first = 0;
    table->scan = DbmScan::underWay;
    table->scanned = 0;
    forgetErrors();
    dbm_clearerr(table->dbm);
    key = dbm_firstkey(table->dbm);
  } else {
    forgetErrors();
    dbm_clearerr(table->dbm);
    key = dbm_nextkey(table->dbm);
  }
  if (key.dptr == nullptr) failIfOutOfMemory();
  const bool goesOn = key.dptr != nullptr && table->scanned < table->records;
  if (!goesOn) {
    endScan(table, key.dptr != nullptr || dbm_error(table->dbm) != 0);
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
  return storeBytes(db->table, key, bytes);
}

// The library never syncs the .dir file, and does not open a table whose .dir is empty.
int _NQ_dbm_db_sync(NQ_dbm_db *db) {
  settleDeletions(db->table);
  forgetErrors();
  DBM *dbm = db->table->dbm;
  if (gdbm_sync(dbm->file) != 0 || fsync(dbm_dirfno(dbm)) != 0) {
    reportFailure(db->table, "sync");
    return -1;
  }
  return db->table->failed ? -1 : 0;
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
  if (table->buffering++ == 0 && !table->growth.wasTrimmed()) mapFile(table, 1);
}

void _NQ_dbm_db_stop_buffering(NQ_dbm_db *db) {
  if (db->table->buffering > 1) {
    --db->table->buffering;
    return;
  }
  // While the bracket is still open, so that the deletions are bulk changes too.
  settleDeletions(db->table);
  db->table->buffering = 0;
  trimReserved(db->table);
  mapFile(db->table, 0);  // a mapped file would count as memory of the process
}

uint64_t _NQ_dbm_db_size(const NQ_dbm_db *db) {
  struct stat file {};
  return fstat(dbm_pagfno(db->table->dbm), &file) == 0 ? static_cast<uint64_t>(file.st_size) : 0;
}

void _NQ_dbm_db_expect(NQ_dbm_db *db, uint64_t size) {
  db->table->growth.expect(size);
}

void _NQ_dbm_db_release_pages(NQ_dbm_db *db) {
  constexpr uint64_t worthIt = uint64_t{32} * 1024 * 1024;
  if (_NQ_dbm_db_size(db) < worthIt) return;
  if (db->table->buffering == 0 || db->table->growth.wasTrimmed()) return;
  mapFile(db->table, 0);
  mapFile(db->table, 1);
}

// The hash of GNU dbm 1.23. It adds plain chars, which have a sign on the processors that we run
// on.
uint32_t _NQ_dbm_db_order(const void *key, size_t keyLength) {
  const auto *bytes = static_cast<const char *>(key);
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
  const std::string file = db->table->path + pageSuffix;
  return db->table->lock.acquire(file.c_str(), dbm_pagfno(db->table->dbm)) ? 0 : -1;
}
