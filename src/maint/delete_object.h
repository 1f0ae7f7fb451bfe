// Removing one object from the caches and from the tables.
#pragma once

#include <cstdint>

#include "internal/caches.h"
#include "store/database.h"

// 0 when the object is no longer in the database, also when it was not there; -1 when the deletion
// failed part way (logged). After a failure:
// - the values before the failing one are gone from the caches and, unless they are held back
//   (deletingDb), from the tables;
// - the failing one is gone from the caches;
// - the object keeps the values after it, and a rewrite would store those.
int _nqwDbDeleteObject(uint32_t objectId);

// Removes every value of a cached object, then the object. 1, or 0 on failure.
int deleteObjectEntries(uint32_t objectId, ObjCacheEntry *entry);

// Removes the stored record of one value of a field with these flags. 1, or 0 on failure (logged).
int deleteStoredValue(uint32_t objectId, uint32_t fieldId, uint32_t flags, ObjectDatabase *db);

// As _nqwDbDeleteObject, for a run that changes the tables in place. In addition:
// - where not all records could be read, those that the caches lack are deleted by their keys;
// - a name that another object bears too is entered in name_info again: for the object that it led
//   to if that still bears it, else for the oldest one, as a rewrite would leave it.
int deleteObjectInPlace(uint32_t objectId);
