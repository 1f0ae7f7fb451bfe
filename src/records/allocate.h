// Fresh storage for a record that a codec decodes.
#pragma once

#include <cstdlib>

#include "platform/report.h"

// Points *record at zero-filled malloc storage. False, and _NQwError is NQw_NO_MEMORY, when memory
// is exhausted.
template <typename Record>
bool allocateRecord(Record **record) {
  *record = static_cast<Record *>(calloc(1, sizeof(Record)));
  if (*record == nullptr) _NQwError = NQw_NO_MEMORY;
  return *record != nullptr;
}
