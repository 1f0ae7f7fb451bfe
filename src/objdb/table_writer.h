// Making one table of records that lie in memory.
#pragma once

#include <string>
#include <string_view>
#include <utility>
#include <vector>

// Keys and stored bytes, which belong to somebody else.
using RecordViews = std::vector<std::pair<std::string_view, std::string_view>>;

// Makes the table (an index into tableFormats) in a directory and waits until it is on the disk. Of
// two records with one key the later stays. False, with errno, when a store or the sync fails.
bool writeTable(const std::string &directory, size_t table, const RecordViews &records);
