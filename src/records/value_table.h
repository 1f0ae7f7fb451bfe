// The value_info table, one value at a time: the value of an object under a field that is no name
// field. Keys are built in one static buffer, so none of this is re-entrant.
#pragma once

#include <cstdint>

#include "records/object_database.h"
#include "records/table_records.h"

// object id, field id: 8 bytes in host order, valid until the next key is made.
void makeValueKey(TableKey *key, uint32_t objectId, uint32_t fieldId);

// The decoded record, which the caller releases (freeDbObjectValue); null when absent or
// unreadable.
dbObjectValue *getValueObject(ObjectDatabase *db, uint32_t objectId, uint32_t fieldId);

// The value alone, which the caller releases (freeFieldValue); null when absent or unreadable.
NQwFieldValue *getObjectFieldValue(ObjectDatabase *db, uint32_t objectId, uint32_t fieldId);

// Stores replace what the key holds. 0, or negative on failure. The value stays the caller's.
int storeValueObject(ObjectDatabase *db, const dbObjectValue *record);
int putValueObject(ObjectDatabase *db, uint32_t objectId, uint32_t fieldId, NQwFieldValue *value);

// 1 when the record is gone, also when there was none; 0 on failure, which is traced.
int delValueObject(ObjectDatabase *db, uint32_t objectId, uint32_t fieldId);
