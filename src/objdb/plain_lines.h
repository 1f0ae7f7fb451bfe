// The lines that most records have, read at ten and written at five times the speed of the others.
//
// A name, or a single value of a known type, whose text is printable ASCII without a quote or a
// backslash, makes nine lines of ten in a database of any size. Those are put together and taken
// apart here without a document of JSON between; any other line goes through record_lines.h. Both
// ways lead to the same: the one line that Json::dump writes is the one that is read here.
#pragma once

#include "objdb/record_lines.h"

// The line of a record; nothing when it does not decode.
std::optional<std::string> recordToLine(size_t table, std::string_view key, std::string_view bytes);

// The record of such a line; nothing for any other line.
std::optional<StoredRecord> recordFromPlainLine(std::string_view text);
