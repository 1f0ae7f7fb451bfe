// The object queries: which objects there are, and which have given values. They answer for the
// current database; results belong to the caller, who releases them with NQwDbFreeObjectIdList, and
// are null with NQw_DB_OPEN_FAILED (logged) when it cannot be opened.
//
// While objects are left out of the cache (cache_overflow), the tables are searched instead
// (value_search.h), and lists come in the order of those searches. As everything that asks for the
// current database, the first query may end the process while it opens it (shared_database.h).
#pragma once

#include "platform/field_values.h"

// Every object, newest first; with bindings as objectsMatchingBindings.
NQwObjectIdList *listObjects(NQwFieldBindList *bindings);

// The objects whose field has a value that matches the binding's, in the order in which the values
// were loaded, and at most one for a name field; without a binding every object, newest first. Null
// also with NQw_FIELD_NOT_FOUND or NQw_FIELD_TYPE_MISMATCH.
NQwObjectIdList *objectsWithFieldValue(const NQwFieldBinding *binding);

// The objects that satisfy every binding, newest first (for one binding alone: in the order in
// which its field's values were loaded), and at most one when several bindings have a name field
// among them. Sorts the bindings by field id. An empty list of bindings selects nothing. Null with
// NQw_FIELD_NOT_FOUND or NQw_FIELD_TYPE_MISMATCH.
NQwObjectIdList *objectsMatchingBindings(NQwFieldBindList *bindings);

// 1 when every binding's field is defined and has the type of its value, else 0, with one of the
// two codes, traced. *hasNameField says whether a name field is among them.
int checkBindings(const NQwFieldBindList *bindings, int *hasNameField);
