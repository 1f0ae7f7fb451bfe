// The records of the six tables and their XDR encodings. Keys are raw host-order words, never XDR.
//
//   table       key                              record          encoding
//   id_keeper   0, 4 bytes                       dbkey           unsigned 1 | number
//   field_info  field id                         dbFieldInfo     NQwFieldInfo
//   obj_info    object id, field id              dbObject        dbkey | dbkey | null string name
//   value_info  object id, field id              dbObjectValue   dbkey | dbkey | NQwFieldValue
//   name_info   field id, the name's characters  dbObject
//   enum_info   field id                         dbEnumConstants dbkey | enumConstants
//
//   enumConstants   unsigned count (at most 2,000) | count times string
//   string          unsigned length | bytes, padded with zeros to a multiple of 4
//
// The records of the old data format are the same bytes; only the codecs' names differ.
#pragma once

#include <cstdint>

#include "platform/field_values.h"
#include "records/id_codec.h"

constexpr uint32_t mostEnumConstants = 2000;

struct dbFieldInfo {
  NQwFieldInfo *fieldInfo;
};

struct dbObject {
  uint32_t objectId;
  uint32_t fieldId;
  char name[longestString + 1];
};

struct dbObjectValue {
  uint32_t objectId;
  uint32_t fieldId;
  NQwFieldValue *value;
};

struct enumConstants {
  uint32_t count;
  char **names;
};

struct dbEnumConstants {
  uint32_t fieldId;
  enumConstants *constants;
};

// Codecs: 1 on success, 0 on failure; not re-entrant. Decoding into a null pointer allocates with
// malloc (NQw_NO_MEMORY in _NQwError when that fails), except for dbObject: every decode of one
// returns the same static record, overwritten by the next. A dbObject whose stored name is the null
// string does not decode.
bool_t xdr_dbFieldInfo(XDR *stream, dbFieldInfo **record);
bool_t xdr_dbObject(XDR *stream, dbObject **record);
bool_t xdr_dbObjectValue(XDR *stream, dbObjectValue **record);
bool_t xdr_dbObjectValueOld(XDR *stream, dbObjectValue **record);
bool_t xdr_enumConstants(XDR *stream, enumConstants **record);
bool_t xdr_dbEnumConstants(XDR *stream, dbEnumConstants **record);
