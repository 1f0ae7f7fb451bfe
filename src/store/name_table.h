// Object names: the string values of name fields, each stored twice, in obj_info under (object id,
// field id) and in name_info under (field id, name).
//
// A record that a read returns is one static area, which the next read of either table overwrites;
// copy a name that is needed beyond that. Keys are built in static buffers.
#pragma once

#include <cstdint>

#include "records/table_records.h"
#include "store/database.h"

// The record or its part; null (0 for the id) when there is none.
dbObject *getObjectNameRecord(ObjectDatabase *db, uint32_t objectId, uint32_t fieldId);
dbObject *getNameRecord(ObjectDatabase *db, uint32_t fieldId, const char *name);
const char *getObjectName(ObjectDatabase *db, uint32_t objectId, uint32_t fieldId);
uint32_t getNameObjectId(ObjectDatabase *db, uint32_t fieldId, const char *name);

// Stores in obj_info, then in name_info. 0, or -1 as soon as a store fails or when the name is
// longer than 256 characters. Of two objects with one name, name_info leads to the one stored last.
int storeNameObject(ObjectDatabase *db, const dbObject *record);

// The second half alone: enters a name that obj_info has in name_info again. 0, or -1.
int enterName(ObjectDatabase *db, const dbObject *record);

// As storeNameObject, for a name given in parts. With the environment variable
// NQWDB_ABORT_ON_DUP_FID holding this field's id, a name is taken for a duplicate made by a naming
// fault when the number of the object before this one, if it has at least four digits, stands first
// at its end: the polling and topology daemons and this process then end with signal 11, and the
// name is not stored.
int putNameObject(ObjectDatabase *db, uint32_t objectId, uint32_t fieldId, const char *name);

// 1 when both records are gone, also when they were never there; 0 on a failure, which is traced
// and ends the operation.
int delNameObject(ObjectDatabase *db, uint32_t objectId, uint32_t fieldId, const char *name);

// The same for a record of obj_info alone, whose name cannot be read.
int delUnreadableName(ObjectDatabase *db, uint32_t objectId, uint32_t fieldId);
