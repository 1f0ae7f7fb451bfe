// Filling the caches with a part of the values, for questions that need no more.
#pragma once

#include <cstdint>
#include <functional>

#include "store/database.h"

// Whether a value is asked for.
using WantsValue = std::function<bool(uint32_t objectId, uint32_t fieldId)>;

// As loadObjectValues, but only the values that are wanted are decoded and entered, with their
// objects. Others that do not decode are not counted. With allObjects every object of value_info is
// entered, so that the objects stand in the same order as after loadObjectValues.
void loadSelectedValues(ObjectDatabase *db, const WantsValue &wants, bool allObjects);
