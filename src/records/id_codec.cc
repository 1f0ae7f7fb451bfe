#include "records/id_codec.h"

bool_t xdr_encodingVersion(XDR *stream) {
  constexpr u_int currentVersion = 1;
  u_int version = currentVersion;
  if (!xdr_u_int(stream, &version)) return 0;
  return version == currentVersion;
}

bool_t xdr_dbkey(XDR *stream, uint32_t **number) {
  static uint32_t decoded;
  if (number == nullptr) return 0;
  if (stream->x_op == XDR_FREE) return 1;
  if (stream->x_op == XDR_DECODE && *number == nullptr) *number = &decoded;
  return xdr_encodingVersion(stream) && xdr_u_int(stream, *number);
}

bool_t xdr_objectId(XDR *stream, uint32_t *id) {
  return xdr_dbkey(stream, &id);
}
