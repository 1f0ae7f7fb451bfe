// The second step of a salvage: makes the tables that were read agree with each other. It works on
// what lies in memory alone.
#pragma once

#include "objdb/salvaged_tables.h"

// 1. Leaves out definitions of an unknown type, and gives each field a name of its own.
//    Where definitions were lost, the predefined ones come back, and any other field is defined by
//    the values that it has: a value without a definition would be dropped by 2.
// 2. Leaves out names and values without a field or not of its type, and moves each to its table.
// 3. Gives each object a name of its own, brings the names of lost records back from name_info, and
//    makes name_info from what obj_info has then.
// 4. Gives each enumeration a constant for every number that a value has.
// 5. Puts the counter above every id.
// Each step relies on those before it.
void mendTables(SalvagedTables *tables, const Records &predefinedFields);
