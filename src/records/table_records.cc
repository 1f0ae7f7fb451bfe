#include "records/table_records.h"

#include <cstdlib>

#include "records/decode_storage.h"
#include "records/field_codec.h"

namespace {

// The steps that every allocated record shares: allocate when decoding into nothing, code the
// members, release the record after its members.
template <typename Record, typename Members>
bool_t codeRecord(XDR *stream, Record **record, Members codeMembers) {
  if (record == nullptr) return 0;
  if (*record == nullptr) {
    if (stream->x_op == XDR_FREE) return 1;
    if (stream->x_op == XDR_ENCODE || !allocateRecord(record)) return 0;
  }
  const bool_t coded = codeMembers(*record);
  if (stream->x_op == XDR_FREE) free(*record);
  return coded;
}

// A constant may have any length, for which xdr_wrapstring would be too narrow: libtirpc lets it
// pass 9,000 bytes. A length that the rest of the stream cannot hold is refused before anything is
// allocated for it.
bool_t codeConstant(XDR *stream, char **name) {
  if (stream->x_op == XDR_ENCODE && *name == nullptr) return 0;
  if (stream->x_op == XDR_DECODE) {
    u_int length = 0;
    if (!peekCount(stream, &length) || length > stream->x_handy) return 0;
    if (!allocateRecord(name, size_t{length} + 1)) return 0;
  }
  return xdr_string(stream, name, UINT32_MAX);
}

}  // namespace

bool_t xdr_dbFieldInfo(XDR *stream, dbFieldInfo **record) {
  return codeRecord(stream, record, [stream](dbFieldInfo *members) {
    return xdr_fieldInfo(stream, &members->fieldInfo);
  });
}

bool_t xdr_dbObject(XDR *stream, dbObject **record) {
  // Static, since a load decodes one for every name and copies what it keeps.
  static dbObject decoded;
  if (record == nullptr) return 0;
  if (stream->x_op == XDR_FREE) return 1;
  if (stream->x_op == XDR_DECODE) *record = &decoded;
  char *name = (*record)->name;
  return xdr_objectId(stream, &(*record)->objectId) && xdr_fieldId(stream, &(*record)->fieldId) &&
         _NQ_xdr_nullstring(stream, &name, longestString) && name != nullptr;
}

bool_t xdr_dbObjectValue(XDR *stream, dbObjectValue **record) {
  return codeRecord(stream, record, [stream](dbObjectValue *members) {
    return xdr_objectId(stream, &members->objectId) && xdr_fieldId(stream, &members->fieldId) &&
           xdr_fieldValue(stream, &members->value);
  });
}

bool_t xdr_dbObjectValueOld(XDR *stream, dbObjectValue **record) {
  return xdr_dbObjectValue(stream, record);
}

bool_t xdr_enumConstants(XDR *stream, enumConstants **record) {
  return codeRecord(stream, record, [stream](enumConstants *members) {
    if (stream->x_op == XDR_DECODE && !allocateArray(stream, &members->names, mostEnumConstants)) {
      return bool_t{0};
    }
    return xdr_array(stream, reinterpret_cast<char **>(&members->names), &members->count,
                     mostEnumConstants, sizeof(char *), reinterpret_cast<xdrproc_t>(codeConstant));
  });
}

bool_t xdr_dbEnumConstants(XDR *stream, dbEnumConstants **record) {
  return codeRecord(stream, record, [stream](dbEnumConstants *members) {
    return xdr_fieldId(stream, &members->fieldId) && xdr_enumConstants(stream, &members->constants);
  });
}
