// The base library's table layer: one dbm table (the file pair NAME.dir and NAME.pag of the ndbm
// interface of GNU dbm) with a decoder and an encoder. It knows nothing of what the records mean.
//
// Facts of GNU dbm that callers meet:
// - a table that is created is not 0 bytes long once it is open;
// - every store is written through to the file, and each handle caches directory and buckets of its
//   own: never write one table through two handles;
// - when memory runs out it fails without saying so, and a sound record would look absent or
//   damaged; this layer checks for it first, see failForWantOfMemory;
// - it trusts its file. This layer looks at the structure of the file before every scan, and opens
//   nothing but regular files (openRegular);
// - deleting the current key of a scan ends the scan: collect first, delete after.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <string_view>

// Turns stored bytes into a record, or null when they cannot be decoded. Who owns the record is the
// decoder's business.
using DbmDecoder = void *(*)(const char *bytes, size_t length);

// Turns a record into bytes that last until the next call. 0, or negative on failure.
using DbmEncoder = int (*)(const void *record, const char **bytes, size_t *length);

// How the latest scan of a handle stands.
enum class DbmScan {
  underWay,  // the last _NQ_dbm_db_getnext took a record from the file, decodable or not
  complete,  // the structure is sound, and as many records were read as it has
  broken,    // the table is damaged: there are records that were not reached
};

struct NQ_dbm_db {
  int first;  // set to 1 by the caller just before a scan, cleared by the scan's first read
  struct DbmTable *table;  // private to the layer
};

// A list with one node per record; nodes and items come from malloc.
struct NQ_dbm_list {
  NQ_dbm_list *next;
  void *item;
};

// A stored record as it lies in the file, and its key. Valid until the next call on the table. The
// bytes are null (not only empty) when the library has the key and cannot read its record.
struct DbmRecord {
  std::string_view key;
  std::string_view bytes;
};

// Opens DIRECTORY/NAME.dir and .pag; with O_CREAT in the flags missing files are made with the
// mode; with O_RDONLY nothing is made or written, not even an access time. Null on failure, which
// the platform's log tells with its reason, as it does every failure below.
NQ_dbm_db *_NQ_dbm_db_open(const char *directory, const char *name, int flags, mode_t mode,
                           DbmDecoder decoder, DbmEncoder encoder);

// Closes the files, drops the handle's share of the lock and frees the handle.
void _NQ_dbm_db_close(NQ_dbm_db *db);

// The decoded record; null when the key is absent or the decoder returns null.
void *_NQ_dbm_db_get(NQ_dbm_db *db, const void *key, size_t keyLength);

// Whether the latest look (or record of a scan) found nothing because the library failed, and not
// because nothing is there.
bool _NQ_dbm_db_look_failed(const NQ_dbm_db *db);

// Encodes and stores the record in place of any that has the key. 0; the encoder's own result when
// it fails; -1 when the library fails.
int _NQ_dbm_db_store(NQ_dbm_db *db, const void *key, size_t keyLength, const void *record);

// 0 when the key is gone, also when it was never there; -1 on failure.
int _NQ_dbm_db_delete(NQ_dbm_db *db, const void *key, size_t keyLength);

// The next record of a scan, decoded. Null at the end, after a failure of the library, and for a
// record that the decoder refuses; _NQ_dbm_db_scan tells the three apart, and after a refused
// record the next call goes on with the one after it.
void *_NQ_dbm_db_getnext(NQ_dbm_db *db);
DbmScan _NQ_dbm_db_scan(const NQ_dbm_db *db);

// How many records the latest scan, once it has ended, did not reach: 0 for a complete one, at
// least 1 for a broken one.
uint64_t _NQ_dbm_db_unreached(const NQ_dbm_db *db);

// The same walk without the decoder: false when there is no further record.
bool _NQ_dbm_db_getnext_raw(NQ_dbm_db *db, DbmRecord *record);

// Decodes bytes that _NQ_dbm_db_getnext_raw has given, with the table's decoder.
void *_NQ_dbm_db_decode(NQ_dbm_db *db, std::string_view bytes);

// Stores bytes as they are. 0, or -1 when the library fails.
int _NQ_dbm_db_store_raw(NQ_dbm_db *db, std::string_view key, std::string_view bytes);

// Waits until everything stored is on the disk. 0, or -1 with errno.
int _NQ_dbm_db_sync(NQ_dbm_db *db);

// Every decodable record, for decoders that return a malloc'ed struct which holds only a pointer to
// the item: the list takes the items over, the structs are freed. Null for an empty table.
NQ_dbm_list *_NQ_dbm_db_getlist(NQ_dbm_db *db);

// Counts the records by the structure of the file, which must be up to date: no deletions held
// back. False, and the log says why, when the structure is not sound or the library wants the table
// recovered.
bool _NQ_dbm_db_count(NQ_dbm_db *db, uint64_t *records);

// Whether the structure is sound, that of the free space included: asked before a table is changed
// in place (table_structure.h).
bool _NQ_dbm_db_check_space(NQ_dbm_db *db);

// How many records the table has gained through this handle: new keys stored less keys deleted.
int64_t _NQ_dbm_db_added(const NQ_dbm_db *db);

// Bracket bulk access; brackets may nest. After the last stop all changes are in the files. The
// count, which would bound what is held back in memory, has no effect: stores are never held back,
// and deletions must be.
//
// While buffering, the file grows in advance (table_growth.h), and deletions are held back
// (held_deletions.h): a deleted key is no longer found, but the file has not changed. A store, a
// scan, a sync and the last stop carry the deletions out first, in the order of _NQ_dbm_db_order.
// If the file is no longer the one at its path by then, they are dropped: the old tables must stay
// as they were, as links of a kept version. So whoever removes a file stops after that. A deletion
// while buffering therefore always succeeds; one that fails later makes the next sync fail.
void _NQ_dbm_db_start_buffering(NQ_dbm_db *db, uint32_t count);
void _NQ_dbm_db_stop_buffering(NQ_dbm_db *db);

// The length of the table's file, and a hint how long it will become. Bulk access then makes it
// that long at its first store. Growing later costs more: the library writes out and maps again
// all that it has by then.
uint64_t _NQ_dbm_db_size(const NQ_dbm_db *db);
void _NQ_dbm_db_expect(NQ_dbm_db *db, uint64_t size);

// Under bulk access: writes out a large table's mapped file and gives up its pages in memory. For a
// caller who has made many changes in places to which it will not come back.
void _NQ_dbm_db_release_pages(NQ_dbm_db *db);

// Bulk changes are cheapest in ascending order of this number (the library's hash of the key):
// their places in the file then follow each other. Only a hint: any order has the same result.
uint32_t _NQ_dbm_db_order(const void *key, size_t keyLength);

// Locking around each single access could not make two writers safe, since a handle caches what it
// has read. The layer therefore never does it, and asking for none is always granted.
void _NQ_dbm_db_disable_lock_on_access(NQ_dbm_db *db);

// Locks the whole table against other processes until this handle is closed; does not wait. The
// only mode is 0, exclusive. A further handle of this process shares the lock. 0, or -1 when
// another process has it.
int _NQ_lock_dbm_db(NQ_dbm_db *db, int mode);
