// The last step of a salvage: says what was lost.
#pragma once

#include "objdb/salvaged_tables.h"

// A line on standard error for each table that is not as it was, and one for each lost record: on
// standard error too, or with `json` as JSON on standard output. True when anything was lost.
// name_info counts for nothing there, since it is rebuilt from obj_info.
bool reportLosses(const SalvagedTables &tables, bool json);
