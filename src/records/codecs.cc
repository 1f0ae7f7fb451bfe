#include "records/codecs.h"

#include "records/field_codec.h"
#include "records/record_views.h"

void *decodeDbKey(const char *bytes, size_t length) {
  return _NQ_decodeit_xdr(bytes, length, xdr_dbkey);
}

int encodeDbKey(const void *record, const char **bytes, size_t *length) {
  return _NQ_encodeit_xdr(static_cast<const uint32_t *>(record), bytes, length, xdr_dbkey);
}

void *decodeDbFieldInfo(const char *bytes, size_t length) {
  return _NQ_decodeit_xdr(bytes, length, xdr_dbFieldInfo);
}

int encodeDbFieldInfo(const void *record, const char **bytes, size_t *length) {
  return _NQ_encodeit_xdr(static_cast<const dbFieldInfo *>(record), bytes, length, xdr_dbFieldInfo);
}

void *decodeDbObject(const char *bytes, size_t length) {
  return _NQ_decodeit_xdr(bytes, length, xdr_dbObject);
}

int encodeDbObject(const void *record, const char **bytes, size_t *length) {
  return _NQ_encodeit_xdr(static_cast<const dbObject *>(record), bytes, length, xdr_dbObject);
}

void *decodeDbObjectValue(const char *bytes, size_t length) {
  return _NQ_decodeit_xdr(bytes, length, xdr_dbObjectValue);
}

int encodeDbObjectValue(const void *record, const char **bytes, size_t *length) {
  // Single values are nearly all that a rewrite stores, and are cheaper without a call for each
  // word.
  const XdrBuffer buffer = xdrBuffer(largestPlainRecord);
  if (buffer.bytes == nullptr) return -1;
  *bytes = buffer.bytes;
  *length = writeDbObjectValue(*static_cast<const dbObjectValue *>(record), buffer.bytes);
  if (*length > 0) return 0;
  return _NQ_encodeit_xdr(static_cast<const dbObjectValue *>(record), bytes, length,
                          xdr_dbObjectValue);
}

void *decodeDbObjectValueOf(const char *bytes, size_t length) {
  return _NQ_decodeit_xdr(bytes, length, xdr_dbObjectValueOld);
}

int encodeDbObjectValueOf(const void *record, const char **bytes, size_t *length) {
  return _NQ_encodeit_xdr(static_cast<const dbObjectValue *>(record), bytes, length,
                          xdr_dbObjectValueOld);
}

void *decodeDbEnumConstants(const char *bytes, size_t length) {
  return _NQ_decodeit_xdr(bytes, length, xdr_dbEnumConstants);
}

int encodeDbEnumConstants(const void *record, const char **bytes, size_t *length) {
  return _NQ_encodeit_xdr(static_cast<const dbEnumConstants *>(record), bytes, length,
                          xdr_dbEnumConstants);
}

void freeDbFieldInfo(dbFieldInfo *record) {
  _NQ_freeit_xdr(record, xdr_dbFieldInfo);
}

void freeDbObjectValue(dbObjectValue *record) {
  _NQ_freeit_xdr(record, xdr_dbObjectValue);
}

void freeDbObjectValueOld(dbObjectValue *record) {
  _NQ_freeit_xdr(record, xdr_dbObjectValueOld);
}

void freeEnumConstants(enumConstants *constants) {
  _NQ_freeit_xdr(constants, xdr_enumConstants);
}
