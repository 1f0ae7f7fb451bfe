// The floor under a sweep: what the library alone takes to read the objects once and to copy their
// three tables, record by record in the order of a scan, undecoded and unsynced.

#include <fcntl.h>

#include <cstdio>

#include "platform/dbm_table.h"

namespace {

NQ_dbm_db *openTable(const char *directory, const char *name, int flags) {
  NQ_dbm_db *table = _NQ_dbm_db_open(directory, name, flags, 0600, nullptr, nullptr);
  if (table == nullptr) fprintf(stderr, "raw_copy: no table %s/%s\n", directory, name);
  return table;
}

// With a target, copies what it reads.
bool readTable(const char *from, const char *name, const char *to) {
  NQ_dbm_db *source = openTable(from, name, O_RDONLY);
  NQ_dbm_db *target = to == nullptr ? nullptr : openTable(to, name, O_RDWR | O_CREAT);
  if (source == nullptr || (to != nullptr && target == nullptr)) return false;
  DbmRecord record;
  bool copied = true;
  source->first = 1;
  while (_NQ_dbm_db_getnext_raw(source, &record)) {
    if (target != nullptr && _NQ_dbm_db_store_raw(target, record.key, record.bytes) != 0) {
      copied = false;
    }
  }
  copied = copied && _NQ_dbm_db_scan(source) == DbmScan::complete;
  _NQ_dbm_db_close(source);
  if (target != nullptr) _NQ_dbm_db_close(target);
  return copied;
}

}  // namespace

int main(int argc, char **argv) {
  if (argc != 3) {
    fprintf(stderr, "usage: raw_copy FROM TO\n");
    return 2;
  }
  for (const char *name : {"obj_info", "value_info"}) {
    if (!readTable(argv[1], name, nullptr)) return 1;
  }
  for (const char *name : {"obj_info", "value_info", "name_info"}) {
    if (!readTable(argv[1], name, argv[2])) return 1;
  }
  return 0;
}
