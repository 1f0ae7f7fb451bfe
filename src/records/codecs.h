// The decoder and the encoder each table is opened with, and the release of decoded records.
//
// Decoders: stored bytes and their length to a record, or null. Who releases it:
//   dbkey, dbObject     nobody: one static record each, overwritten by the next decode of its kind
//   dbFieldInfo         freeDbFieldInfo; or free of the wrapper once its definition has been taken
//   dbObjectValue       freeDbObjectValue(Old); or free of the record once its value has been taken
//   dbEnumConstants     free of the record once its constants have been taken, which then belong to
//                       the taker: freeEnumConstants
// Encoders: a record to bytes that last until the next encoding; 0, or -1 on failure.
#pragma once

#include <cstddef>

#include "records/table_records.h"

void *decodeDbKey(const char *bytes, size_t length);
int encodeDbKey(const void *record, const char **bytes, size_t *length);

void *decodeDbFieldInfo(const char *bytes, size_t length);
int encodeDbFieldInfo(const void *record, const char **bytes, size_t *length);

void *decodeDbObject(const char *bytes, size_t length);
int encodeDbObject(const void *record, const char **bytes, size_t *length);

void *decodeDbObjectValue(const char *bytes, size_t length);
int encodeDbObjectValue(const void *record, const char **bytes, size_t *length);

// value_info of the old data format.
void *decodeDbObjectValueOf(const char *bytes, size_t length);
int encodeDbObjectValueOf(const void *record, const char **bytes, size_t *length);

void *decodeDbEnumConstants(const char *bytes, size_t length);
int encodeDbEnumConstants(const void *record, const char **bytes, size_t *length);

// The record must not be null.
void freeDbFieldInfo(dbFieldInfo *record);
void freeDbObjectValue(dbObjectValue *record);
void freeDbObjectValueOld(dbObjectValue *record);  // the same: both formats decode alike
void freeEnumConstants(enumConstants *constants);
