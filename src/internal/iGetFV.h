// One field value of one object.
#pragma once

#include <cstdint>

#include "internal/caches.h"

// The first value of that field in the object's list: the cache's own item. Makes the object the
// newest. Null with NQw_OBJECT_NOT_FOUND (traced) or NQw_FIELD_VALUE_NULL.
CachedValue *findObjectValue(uint32_t objectId, uint32_t fieldId);

// The same value without an error code: the value itself, owned by the cache, or null. No table is
// read.
NQwFieldValue *getCachedFieldValue(uint32_t objectId, uint32_t fieldId);
