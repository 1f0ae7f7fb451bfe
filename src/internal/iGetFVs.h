// All field values of one object.
#pragma once

#include <cstdint>

#include "platform/field_values.h"

// A copy of every value of the object in ascending order of field ids; empty when it has none. The
// caller releases it (NQwDbFreeFieldBindList). Makes the object the newest. Null and
// NQw_OBJECT_NOT_FOUND (traced) when the object is not in the cache.
NQwFieldBindList *getFieldValues(uint32_t objectId);
