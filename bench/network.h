// The database that the benchmarks work on: objects with a name, two protocols and values of every
// type, always the same for the same size.
#pragma once

#include <cstdint>

#include "store/database.h"

constexpr uint32_t nameField = 10;       // one of the predefined fields
constexpr uint32_t everyField = 20;      // "isEvery" is true for all objects
constexpr uint32_t retiredField = 21;    // "isRetired" is true for one in ten
constexpr uint32_t valuesAnObject = 10;  // the name and the two protocols included

void storeNetwork(ObjectDatabase *db, uint32_t objects);

// As many numbers for each object, under as many fields, and "isEvery", which is false.
void storeNumbers(ObjectDatabase *db, uint32_t objects, uint32_t fields);
