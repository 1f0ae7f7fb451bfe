// Object id lists, and the list of every object. Lists belong to the caller, who releases them with
// NQwDbFreeObjectIdList.
#pragma once

#include <cstddef>

#include "platform/field_values.h"

// An empty list with room for that many ids. Never null.
NQwObjectIdList *newObjectIdList(size_t room);

// Every object, newest first. While objects are left out of the cache: every object that has a name
// under field 10 in the current database, in the order of the table; null and NQw_DB_OPEN_FAILED
// (logged) when that cannot be opened.
NQwObjectIdList *allObjectIds();
