// The counter of ids and the field definitions that a database created from nothing starts with.
#pragma once

#include <cstdint>

#include "platform/field_values.h"
#include "store/database.h"

// Stores the lowest id that has not been handed out. Negative on failure.
int storeIdKeeper(ObjectDatabase *db, uint32_t value);

// Stores a definition under its id; it stays the caller's. Negative on failure.
int storeFieldInfo(ObjectDatabase *db, uint32_t fieldId, NQwFieldInfo *info);

// Seeding: the counter 14, and the predefined fields 10 to 13. The result of the last store.
int initIdKeeper(ObjectDatabase *db);
int initPredefinedFields(ObjectDatabase *db);

// Whether the two are as seeding leaves them.
bool isSeededIdKeeper(ObjectDatabase *db);
bool areSeededFields(ObjectDatabase *db);
