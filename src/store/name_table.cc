#include "store/name_table.h"

#include <signal.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "platform/exit_status.h"
#include "platform/strings.h"
#include "store/error_report.h"

namespace {

TableKey objInfoKey(uint32_t objectId, uint32_t fieldId) {
  static uint32_t words[2];
  words[0] = objectId;
  words[1] = fieldId;
  return {words, sizeof words};
}

// The name is at most 256 characters long.
TableKey nameInfoKey(uint32_t fieldId, const char *name) {
  static char bytes[sizeof fieldId + longestString];
  const size_t length = strnlen(name, longestString);
  memcpy(bytes, &fieldId, sizeof fieldId);
  memcpy(bytes + sizeof fieldId, name, length);
  return {bytes, sizeof fieldId + length};
}

bool looksDuplicated(uint32_t objectId, uint32_t fieldId, const char *name) {
  const char *armed = getenv("NQWDB_ABORT_ON_DUP_FID");
  long long armedField = 0;  // wider than an id, which "%d" would cut to 2^31 - 1 on i386
  if (armed == nullptr || sscanf(armed, "%lld", &armedField) != 1) return false;
  if (static_cast<uint32_t>(armedField) != fieldId) return false;
  char number[16];
  const int digits = snprintf(number, sizeof number, "%d", static_cast<int>(objectId - 1));
  const char *found = strstr(name, number);
  return digits >= 4 && found != nullptr && found[digits] == '\0';
}

// Signal 11 is blocked while the tables are rewritten and may have a handler; the end must be a
// real one all the same, so that a core image is left.
[[noreturn]] void abortOnDuplicate() {
  sayLastWords();
  [[maybe_unused]] int status = system("kill -11 `ps -ef | grep pollerd | cut -c9-15 `");
  status = system("kill -11 `ps -ef | grep nqtopmd | cut -c9-15 `");
  signal(SIGSEGV, SIG_DFL);
  sigset_t segv;
  sigemptyset(&segv);
  sigaddset(&segv, SIGSEGV);
  sigprocmask(SIG_UNBLOCK, &segv, nullptr);
  raise(SIGSEGV);
  _Exit(exitUsage);  // only if the signal is not delivered after all
}

bool deleteKey(NQ_dbm_db *table, const TableKey &key) {
  if (_NQ_dbm_db_delete(table, key.bytes, key.length) >= 0) return true;
  traceMessage("Error in delNameObject");
  return false;
}

}  // namespace

dbObject *getObjectNameRecord(ObjectDatabase *db, uint32_t objectId, uint32_t fieldId) {
  const TableKey key = objInfoKey(objectId, fieldId);
  return static_cast<dbObject *>(_NQ_dbm_db_get(db->objInfoDb, key.bytes, key.length));
}

dbObject *getNameRecord(ObjectDatabase *db, uint32_t fieldId, const char *name) {
  const TableKey key = nameInfoKey(fieldId, name);
  return static_cast<dbObject *>(_NQ_dbm_db_get(db->nameInfoDb, key.bytes, key.length));
}

const char *getObjectName(ObjectDatabase *db, uint32_t objectId, uint32_t fieldId) {
  const dbObject *record = getObjectNameRecord(db, objectId, fieldId);
  return record == nullptr ? nullptr : record->name;
}

uint32_t getNameObjectId(ObjectDatabase *db, uint32_t fieldId, const char *name) {
  const dbObject *record = getNameRecord(db, fieldId, name);
  return record == nullptr ? 0 : record->objectId;
}

// obj_info first: a name that stands there alone is found again from it (a rewrite, a salvage), and
// an entry of name_info alone would lead to an object without the name.
int storeNameObject(ObjectDatabase *db, const dbObject *record) {
  const TableKey byObject = objInfoKey(record->objectId, record->fieldId);
  if (_NQ_dbm_db_store(db->objInfoDb, byObject.bytes, byObject.length, record) < 0) return -1;
  return enterName(db, record);
}

int enterName(ObjectDatabase *db, const dbObject *record) {
  const TableKey byName = nameInfoKey(record->fieldId, record->name);
  return _NQ_dbm_db_store(db->nameInfoDb, byName.bytes, byName.length, record) < 0 ? -1 : 0;
}

int putNameObject(ObjectDatabase *db, uint32_t objectId, uint32_t fieldId, const char *name) {
  dbObject record{objectId, fieldId, {}};
  if (strlen_new(name) > longestString) return -1;
  strcpy_new(record.name, name);
  if (looksDuplicated(objectId, fieldId, record.name)) abortOnDuplicate();
  return storeNameObject(db, &record);
}

int delNameObject(ObjectDatabase *db, uint32_t objectId, uint32_t fieldId, const char *name) {
  if (!deleteKey(db->objInfoDb, objInfoKey(objectId, fieldId))) return 0;
  return deleteKey(db->nameInfoDb, nameInfoKey(fieldId, name)) ? 1 : 0;
}

int delUnreadableName(ObjectDatabase *db, uint32_t objectId, uint32_t fieldId) {
  return deleteKey(db->objInfoDb, objInfoKey(objectId, fieldId)) ? 1 : 0;
}
