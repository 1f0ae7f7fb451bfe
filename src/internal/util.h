// Field lookups and the comparison of values: what maintenance and queries share.
#pragma once

#include <cstdint>

#include "internal/caches.h"
#include "platform/field_values.h"
#include "store/database.h"

// The name field that every object carries: an object without a record under it does not exist.
constexpr uint32_t commonNameField = 10;

// The id of the field with that name; 0 and NQw_FIELD_NOT_FOUND when there is none.
uint32_t fieldNameToId(const char *name);

// The cached definition, owned by the cache; null and NQw_FIELD_NOT_FOUND (traced) when there is
// none.
NQwFieldInfo *getCachedFieldInfo(uint32_t fieldId);

// 1 when the stored value matches the one asked for, else 0. Values of different types, and a list
// against a single value, never match. Strings match when they collate equal.
int fieldValuesMatch(NQwFieldValue *cached, NQwFieldValue *query);

// 1 when every element of the query list is in the cached list, for Integer and String lists. Sorts
// both in place.
int listContains(NQwFieldValue *cached, NQwFieldValue *query);

// Bringing an object into the cache on demand, which matters only while objects are left out of it
// (cache_overflow). Otherwise, and when the object is cached already, ensureObjectCached returns 1
// at once. All return 1, or 0 and NQw_OBJECT_NOT_FOUND when the object has no record under
// commonNameField; then the cache is as before. cacheObjectFromTables makes room for the object by
// dropping the oldest one when the cache holds more than max_objects_cached.
int ensureObjectCached(ObjectDatabase *db, uint32_t objectId);
int cacheObjectFromTables(ObjectDatabase *db, uint32_t objectId);
int loadObjectFromTables(ObjectDatabase *db, uint32_t objectId);
