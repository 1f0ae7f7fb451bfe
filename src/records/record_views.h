// The records that a database has most of, read where they lie: a name, and one single value. They
// take no storage, and are most of what a load reads.
#pragma once

#include <string_view>

#include "records/table_records.h"

// Points into the bytes that it was read from.
struct RecordView {
  uint32_t objectId;
  uint32_t fieldId;
  NQwFieldValue value;    // no list; the string of a text that is not null is in `text`
  std::string_view text;  // without a NUL
  bool hasText;
};

// False for every record that is not as simple, sound or not, or that has further bytes; it is the
// decoder's, then.
bool viewDbObject(std::string_view bytes, RecordView *view);
bool viewDbObjectValue(std::string_view bytes, RecordView *view);

// Writes the encoding of a sound single value. Returns its length, which is never more than
// largestPlainRecord; 0 for every other value, which is the encoder's.
constexpr size_t largestPlainRecord = 8 * 4 + longestString;
size_t writeDbObjectValue(const dbObjectValue &record, char *bytes);
