// Filling the caches with a part of the values, for questions that need no more.
#pragma once

#include <cstdint>
#include <functional>

#include "store/database.h"

// Whether a value is asked for.
using WantsValue = std::function<bool(uint32_t objectId, uint32_t fieldId)>;

// As loadObjectValues, but only the values that are wanted are decoded and entered, with their
// objects. Others that do not decode are not counted. With allObjects the objects of all other
// values are entered too and become the newest, as if their values were entered.
void loadSelectedValues(ObjectDatabase *db, const WantsValue &wants, bool allObjects);
