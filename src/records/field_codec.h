// XDR encodings of field values and field definitions, which the table records nest.
//
//   NQwFieldValue   unsigned 1 | bool isList | int type | value, or list
//     value         Integer int, Boolean bool, Enumeration enum: 4 bytes; String: null string
//     list          unsigned count (at most 1,000) | count times (value | bool entryFlag)
//   NQwFieldInfo    unsigned 1 | dbkey fieldId | null string name | int type | unsigned flags
//   null string     unsigned length (at most 256) | bytes, padded with zeros to a multiple of 4;
//                   length FF FF FF FF and nothing after it for a null pointer
//
// valueFlag does not travel: a decoded value has it 0. Any type but the four fails.
#pragma once

#include "platform/field_values.h"
#include "records/id_codec.h"

// Decoding into a null pointer allocates with malloc, the whole record zero-filled first, and the
// caller owns it. When that fails _NQwError is NQw_NO_MEMORY. What a failing decode has allocated
// so far stays attached to *value or *info for the free routines.
bool_t xdr_fieldValue(XDR *stream, NQwFieldValue **value);
bool_t xdr_fieldInfo(XDR *stream, NQwFieldInfo **info);

// A string that may be null. Decoding into a non-null pointer uses the caller's storage, which must
// have room for longest + 1 characters.
bool_t _NQ_xdr_nullstring(XDR *stream, char **string, u_int longest);

// How many strings with a NUL inside have been decoded: what follows the NUL is not in the record,
// and would be lost if the record were written back.
extern uint32_t cutStrings;

// Release a decoded record; it must not be null.
void freeFieldValue(NQwFieldValue *value);
void freeFieldInfo(NQwFieldInfo *info);

// Fills the entry at index `count` with a deep copy of the binding and adds 1 to the count. The
// caller has sized the array; returns the list.
NQwFieldBindList *appendFieldBinding(NQwFieldBindList *list, const NQwFieldBinding *binding);
