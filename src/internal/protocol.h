// Which objects a protocol has, for the sweep by protocol and for the command that tells what it
// would delete.
#pragma once

#include <cstdint>

#include "platform/field_values.h"

struct ProtocolField {
  uint32_t fieldId;  // of the Boolean field; 0 when there is none, or when it cannot be told which
  int definitions;   // how many definitions have the name, as the locale collates it
};

// Looks in the cache for the field NAME ("is" and the protocol). Of several definitions that
// collate equal it is the one whose name is equal byte by byte, if that is one alone. Id 0 is no
// field, even where a damaged definition claims it.
ProtocolField findProtocolField(const char *name);

// The objects whose Boolean field is true, in the order in which a sweep deletes them; an object
// with two such values stands there twice. The caller releases the list. Null with the errors of
// objectsWithFieldValue.
NQwObjectIdList *objectsOfProtocol(uint32_t fieldId);
