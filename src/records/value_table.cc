#include "records/value_table.h"

#include <cstdlib>

#include "platform/report.h"

void makeValueKey(TableKey *key, uint32_t objectId, uint32_t fieldId) {
  static uint32_t words[2];
  words[0] = objectId;
  words[1] = fieldId;
  *key = {words, sizeof words};
}

dbObjectValue *getValueObject(ObjectDatabase *db, uint32_t objectId, uint32_t fieldId) {
  TableKey key;
  makeValueKey(&key, objectId, fieldId);
  return static_cast<dbObjectValue *>(_NQ_dbm_db_get(db->valueInfoDb, key.bytes, key.length));
}

NQwFieldValue *getObjectFieldValue(ObjectDatabase *db, uint32_t objectId, uint32_t fieldId) {
  dbObjectValue *record = getValueObject(db, objectId, fieldId);
  if (record == nullptr) return nullptr;
  NQwFieldValue *value = record->value;
  free(record);
  return value;
}

int storeValueObject(ObjectDatabase *db, const dbObjectValue *record) {
  TableKey key;
  makeValueKey(&key, record->objectId, record->fieldId);
  return _NQ_dbm_db_store(db->valueInfoDb, key.bytes, key.length, record);
}

int putValueObject(ObjectDatabase *db, uint32_t objectId, uint32_t fieldId, NQwFieldValue *value) {
  const dbObjectValue record{objectId, fieldId, value};
  return storeValueObject(db, &record);
}

int delValueObject(ObjectDatabase *db, uint32_t objectId, uint32_t fieldId) {
  TableKey key;
  makeValueKey(&key, objectId, fieldId);
  if (_NQ_dbm_db_delete(db->valueInfoDb, key.bytes, key.length) >= 0) return 1;
  NQuTraceS(databaseComponent, databaseTraceClass, "nqw", 1, 0, "Error in delValueObject.");
  return 0;
}
