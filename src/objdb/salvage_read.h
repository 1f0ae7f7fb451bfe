// The first step of a salvage: reads what can still be read of a damaged version.
#pragma once

#include <string>

#include "objdb/salvaged_tables.h"

// Reads the tables of the version in the directory `source`. Each is scanned. Where the scan does
// not find every record, those follow in blocks that no directory entry leads to, and those that
// the library recovers of a copy, which is made in the work directory and removed again. Of
// several records with one key the first stays; one that lies under its own key goes before any
// that lies under a wrong one.
//
// Says on standard error why a table cannot be opened. False when that is so of all six.
bool readVersion(const std::string &source, const std::string &workDirectory,
                 SalvagedTables *tables);

// The field definitions that every database starts with, read from a table that is made for that
// in the work directory and removed again.
Records predefinedFields(const std::string &workDirectory);
