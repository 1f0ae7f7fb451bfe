// Object id lists, and the list of every object. Lists belong to the caller, who releases them with
// NQwDbFreeObjectIdList.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>

#include "platform/field_values.h"

struct FreeObjectIds {
  void operator()(NQwObjectIdList *list) const { NQwDbFreeObjectIdList(list); }
};
using ObjectIds = std::unique_ptr<NQwObjectIdList, FreeObjectIds>;

// An empty list with room for that many ids. Never null.
NQwObjectIdList *newObjectIdList(size_t room);

// Appends to a list that was made without room and is only added to by this: it makes room for a
// thousand at a time.
void appendObjectId(NQwObjectIdList *list, uint32_t objectId);

// Every object, newest first. While objects are left out of the cache: every object that has a name
// under field 10 in the current database, in the order of the table; null and NQw_DB_OPEN_FAILED
// (logged) when that cannot be opened.
NQwObjectIdList *allObjectIds();
