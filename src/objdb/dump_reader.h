// Reads a dump back into records.
#pragma once

#include <istream>
#include <vector>

#include "objdb/record_lines.h"

// The records of a dump, in the order of its lines. A sealed dump has the header line before them
// and the trailer behind them, which agrees with them. Throws std::exception with the number of the
// line that is wrong.
std::vector<StoredRecord> readDump(std::istream &input, bool sealed);
