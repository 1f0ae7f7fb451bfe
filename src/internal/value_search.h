// Which objects have given values, answered from the cache where it holds the value and from the
// tables where it does not: for queries while objects are left out of the cache. Id lists belong to
// the caller; candidate lists stay the caller's.
#pragma once

#include "platform/field_values.h"
#include "store/database.h"

// The field's definition as field_info has it, released with freeFieldInfo. Null and
// NQw_FIELD_NOT_FOUND when there is none; success leaves NQw_NO_ERROR.
NQwFieldInfo *getTableFieldInfo(ObjectDatabase *db, uint32_t fieldId);

// The candidates (or all objects) whose field has the binding's value, in their order. A name field
// is asked for the one object with that name, whatever the candidates are; without one the list is
// empty and _NQwError is NQw_FIELD_VALUE_NULL. Null with NQw_FIELD_NOT_FOUND or
// NQw_FIELD_TYPE_MISMATCH.
NQwObjectIdList *findObjectsWithValue(ObjectDatabase *db, const NQwFieldBinding *binding);
NQwObjectIdList *findObjectsWithValueIn(ObjectDatabase *db, const NQwObjectIdList *candidates,
                                        const NQwFieldBinding *binding);

// The objects that satisfy every binding, in the order of the first binding's matches. Every
// binding is evaluated against all objects. Without a bind list every object; with an empty one
// none.
NQwObjectIdList *findObjectsWithValues(ObjectDatabase *db, const NQwFieldBindList *bindings);
