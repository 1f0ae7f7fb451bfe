// Filling the caches from the tables, and the one way by which a value enters them.
//
// Loaders take an open database and return 1. A record that cannot be read is passed over and
// counted; memory that is exhausted ends in failForWantOfMemory.
#pragma once

#include <cstdint>
#include <vector>

#include "internal/caches.h"
#include "store/database.h"

// What the loaders met that is not in the caches, since the start of the process.
struct LoadLosses {
  uint32_t unreadable = 0;  // records that do not decode or were not reached
  // The object of each value that a rewrite would drop or change: under a field id that no
  // definition has, a text with a NUL inside, bytes after the end of the record.
  std::vector<uint32_t> leftOut;
};
extern LoadLosses loadLosses;

// Creates and fills enumconstantstable.
int buildEnumTable(ObjectDatabase *db);

// Creates FieldInfoCache, FieldNameCache and SFieldInfoCache and fills the first two.
int buildFieldInfoTable(ObjectDatabase *db);

// Enters one definition, which the cache then owns. Of two with one id the first stays.
int addFieldInfo(NQwFieldInfo *info);

// Enter every record into ObjValCache: the first those of obj_info, the others those of value_info,
// the last for a database opened in the old data format.
int loadObjectNames(ObjectDatabase *db);
int loadObjectValues(ObjectDatabase *db);
int loadObjectValuesOld(ObjectDatabase *db);

// Both scans, admitting at most max_objects_cached objects. One that is refused sets
// cache_overflow.
int loadObjectsWithinLimit(ObjectDatabase *db);

// Enters one value, which the cache then owns, and makes its object the newest. 0 when no
// definition has the field id: then the object is there all the same and the value stays the
// caller's.
int addObjectValue(uint32_t objectId, uint32_t fieldId, NQwFieldValue *value);

// The same for a value that nobody keeps otherwise: one that is not entered is counted and
// released.
void enterOrRelease(uint32_t objectId, uint32_t fieldId, NQwFieldValue *value);

// A new single value of the type, from the 32-bit number or the characters at the address.
NQwFieldValue *newFieldValue(int32_t type, const void *data);

// Keeps an object's list in ascending order of field ids (unsigned). A value whose field is already
// in the list goes to the end.
void insertByFieldId(FieldValList *list, CachedValue *item);
