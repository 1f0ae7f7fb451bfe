// Making one table of records that lie in memory.
#pragma once

#include <string>
#include <string_view>
#include <utility>
#include <vector>

// Keys and stored bytes, which belong to somebody else.
using RecordViews = std::vector<std::pair<std::string_view, std::string_view>>;

// Makes the table (an index into tableFormats) in a directory, waits until it is on the disk, and
// reads it again. The keys are distinct. False, with *error, when that fails or the table does not
// hold the records.
bool writeTable(const std::string &directory, size_t table, const RecordViews &records,
                std::string *error);
