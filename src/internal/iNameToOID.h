// From a name to the object that bears it.
#pragma once

#include <cstdint>

// The object whose name field has that name (as the locale collates); 0 when there is none, with
// NQw_FIELD_NOT_FOUND, NQw_FIELD_INVALID_FLAG (both traced) or NQw_OBJECT_NOT_FOUND. Asks the
// field's index, or the name table of the current database while objects are left out of the cache;
// then also NQw_DB_OPEN_FAILED (logged).
uint32_t nameToObjectId(uint32_t fieldId, const char *name);

// Asks the index alone.
uint32_t lookupNameInIndex(uint32_t fieldId, const char *name);
