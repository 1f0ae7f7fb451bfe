// The field that tells which objects a protocol has.
#pragma once

#include <cstdint>

struct ProtocolField {
  uint32_t fieldId;  // of the Boolean field; 0 when there is none, or when it cannot be told which
  int definitions;   // how many definitions have the name, as the locale collates it
};

// Looks in the cache for the field NAME ("is" and the protocol). Of several definitions that
// collate equal it is the one whose name is equal byte by byte, if that is one alone. Id 0 is no
// field, even where a damaged definition claims it.
ProtocolField findProtocolField(const char *name);
