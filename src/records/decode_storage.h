// Storage for what a codec decodes: from malloc, zero-filled, taken before the XDR routines would
// take it, since those write a line to standard error when memory is exhausted.
#pragma once

#include <cstdlib>

#include "platform/report.h"
#include "platform/xdr_driver.h"

// Points *storage at room for that many. False, and _NQwError is NQw_NO_MEMORY, when memory is
// exhausted.
template <typename Record>
bool allocateRecord(Record **storage, size_t count = 1) {
  *storage = static_cast<Record *>(calloc(count, sizeof(Record)));
  if (*storage == nullptr) _NQwError = NQw_NO_MEMORY;
  return *storage != nullptr;
}

// Reads the count (or length) that comes next in a decoding stream and stays in front of it.
inline bool peekCount(XDR *stream, u_int *count) {
  const u_int start = xdr_getpos(stream);
  return xdr_u_int(stream, count) && xdr_setpos(stream, start);
}

// Gives an array that is about to be decoded its storage, if its count is within the limit.
template <typename Element>
bool allocateArray(XDR *stream, Element **array, u_int most) {
  u_int count = 0;
  if (!peekCount(stream, &count) || count > most) return false;
  return count == 0 || *array != nullptr || allocateRecord(array, count);
}
