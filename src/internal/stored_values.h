// Cached values that a load makes: each in one piece of the object table's own storage, with its
// record and all that the record points at. They go with the table, not one by one.
#pragma once

#include <string_view>

#include "internal/caches.h"

// A deep copy of the value, in no list and of no object yet.
CachedValue *storeValue(ObjTable *table, const NQwFieldValue &value);

// The same for a single string that is given by its characters, none of them NUL.
CachedValue *storeText(ObjTable *table, std::string_view text);

// Releases an item that is in no list any more, wherever it was made.
void freeCachedValue(CachedValue *item);

// Whether the item lies in the storage of its table.
bool isStored(const CachedValue *item);
