// Owners of what the client library's records are made of: storage from malloc.
#pragma once

#include <cstdlib>
#include <memory>
#include <new>

#include "platform/field_values.h"

struct FreeFieldValue {
  void operator()(NQwFieldValue *value) const { NQwDbFreeFieldValue(value); }
};
using FieldValue = std::unique_ptr<NQwFieldValue, FreeFieldValue>;

// The storage that an allocation has given. Throws std::bad_alloc for null.
template <typename Storage>
Storage *allocated(Storage *storage) {
  if (storage == nullptr) throw std::bad_alloc();
  return storage;
}

template <typename Record>
Record *zeroFilled(size_t count = 1) {
  return allocated(static_cast<Record *>(calloc(count, sizeof(Record))));
}
