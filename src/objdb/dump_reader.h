// Reads a dump back into records.
#pragma once

#include <istream>
#include <vector>

#include "objdb/record_lines.h"

// The records of a dump, in the order of its lines. A sealed dump has the header line before them
// and the trailer after them, which agrees with them; without the seal these two are passed over
// wherever they stand. Throws std::exception with the number of the line that is wrong: one that is
// not exactly a record's, or has the key of an earlier one, or that the input breaks off at.
std::vector<StoredRecord> readDump(std::istream &input, bool sealed);
