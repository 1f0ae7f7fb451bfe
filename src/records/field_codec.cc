#include "records/field_codec.h"

#include <cstdlib>
#include <cstring>

#include "platform/report.h"
#include "records/decode_storage.h"

uint32_t cutStrings = 0;

namespace {

bool isFieldType(int32_t type) {
  return type >= Integer && type <= Enumeration;
}

bool_t codeSingleValue(XDR *stream, int32_t type, ValueWord *value) {
  switch (type) {
    case Integer:
      return xdr_int(stream, &value->number);
    case Boolean:
      return xdr_bool(stream, &value->number);
    case String:
      return _NQ_xdr_nullstring(stream, &value->string, longestString);
    case Enumeration:
      return xdr_enum(stream, &value->number);
    default:
      return 0;
  }
}

// The array routine hands its element routine the stream and the entry alone, so the type is passed
// on here: one reason why the codecs are not re-entrant.
int32_t listType;

bool_t codeListEntry(XDR *stream, ValueListEntry *entry) {
  return codeSingleValue(stream, listType, &entry->value) && xdr_bool(stream, &entry->entryFlag);
}

bool_t codeList(XDR *stream, ValueList **list, int32_t type) {
  listType = type;
  if (*list == nullptr) {
    if (stream->x_op == XDR_FREE) return 1;
    if (stream->x_op == XDR_ENCODE || !allocateRecord(list)) return 0;
  }
  // Before xdr_array would allocate it: that writes to standard error when memory runs out.
  if (stream->x_op == XDR_DECODE && !allocateArray(stream, &(*list)->entries, longestValueList)) {
    return 0;
  }
  const bool_t coded = xdr_array(stream, reinterpret_cast<char **>(&(*list)->entries),
                                 &(*list)->count, longestValueList, sizeof(ValueListEntry),
                                 reinterpret_cast<xdrproc_t>(codeListEntry));
  if (stream->x_op == XDR_FREE) free(*list);  // xdr_array has freed the entries
  return coded;
}

// Decodes the characters that follow a string's length word. Every reader sees the string end at
// its first NUL, which is counted.
bool_t decodeCharacters(XDR *stream, char **string, u_int length) {
  if (*string == nullptr) *string = static_cast<char *>(malloc(length + 1));
  char *characters = *string;
  if (characters == nullptr) return 0;
  characters[length] = '\0';
  if (length == 0) return 1;
  if (!xdr_opaque(stream, characters, length)) return 0;
  if (memchr(characters, '\0', length) != nullptr) ++cutStrings;
  return 1;
}

// Releases what a value owns. A value of an unknown type owns nothing.
void freeParts(XDR *stream, NQwFieldValue *value) {
  if (value->isList != 0) {
    codeList(stream, &value->value.list, value->type);
  } else {
    codeSingleValue(stream, value->type, &value->value);
  }
}

}  // namespace

bool_t xdr_fieldValue(XDR *stream, NQwFieldValue **value) {
  if (value == nullptr) return 0;
  if (stream->x_op == XDR_FREE) {
    if (*value != nullptr) freeParts(stream, *value);
    free(*value);
    return 1;
  }
  if (*value == nullptr && (stream->x_op == XDR_ENCODE || !allocateRecord(value))) return 0;
  NQwFieldValue *record = *value;
  if (!xdr_encodingVersion(stream) || !xdr_bool(stream, &record->isList) ||
      !xdr_int(stream, &record->type) || !isFieldType(record->type)) {
    return 0;
  }
  return record->isList != 0 ? codeList(stream, &record->value.list, record->type)
                             : codeSingleValue(stream, record->type, &record->value);
}

bool_t xdr_fieldInfo(XDR *stream, NQwFieldInfo **info) {
  if (info == nullptr) return 0;
  if (stream->x_op == XDR_FREE) {
    if (*info != nullptr) free((*info)->name);
    free(*info);
    return 1;
  }
  if (*info == nullptr && (stream->x_op == XDR_ENCODE || !allocateRecord(info))) return 0;
  NQwFieldInfo *record = *info;
  return xdr_encodingVersion(stream) && xdr_fieldId(stream, &record->fieldId) &&
         _NQ_xdr_nullstring(stream, &record->name, longestString) &&
         xdr_int(stream, &record->type) && xdr_u_int(stream, &record->flags);
}

bool_t _NQ_xdr_nullstring(XDR *stream, char **string, u_int longest) {
  constexpr u_int nullMarker = 0xFFFFFFFF;
  if (stream->x_op == XDR_FREE) {
    free(*string);
    *string = nullptr;
    return 1;
  }
  u_int length = nullMarker;
  if (stream->x_op == XDR_ENCODE && *string != nullptr)
    length = static_cast<u_int>(strlen(*string));
  if (!xdr_u_int(stream, &length)) return 0;
  if (length == nullMarker) {
    *string = nullptr;
    return 1;
  }
  if (length > longest) return 0;
  if (stream->x_op == XDR_DECODE) return decodeCharacters(stream, string, length);
  return length == 0 || xdr_opaque(stream, *string, length);
}

void freeFieldValue(NQwFieldValue *value) {
  _NQ_freeit_xdr(value, xdr_fieldValue);
}

void freeFieldInfo(NQwFieldInfo *info) {
  _NQ_freeit_xdr(info, xdr_fieldInfo);
}

NQwFieldBindList *appendFieldBinding(NQwFieldBindList *list, const NQwFieldBinding *binding) {
  _NQwDbCopyFieldBinding(binding, &list->bindings[list->count]);
  ++list->count;
  return list;
}
