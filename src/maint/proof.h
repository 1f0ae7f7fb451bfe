// The proof that a change of the object tables is complete on the disk.
#pragma once

#include <array>
#include <cstdint>

#include "store/database.h"
#include "store/tables.h"

// The object tables, in the order in which a rewrite removes them.
inline constexpr std::array rebuiltTables{nameInfo, objInfo, valueInfo};

// How many records each of the object tables has or is to have; 0 for the other tables.
using RecordCounts = std::array<uint64_t, tableCount>;

// The records that the open object tables have now. A table whose structure is not sound has none.
RecordCounts countRecords(ObjectDatabase *db);

// The records that they must have now: `before`, and what the handle has added since then.
RecordCounts expectedRecords(ObjectDatabase *db, const RecordCounts &before);

// Waits until the tables and their directory are on the disk. False when that is not known.
bool syncTables(ObjectDatabase *db);

// Opens the closed tables of a directory again: whether they are sound and have these records.
bool areComplete(const char *directory, const RecordCounts &records);
