// The client library's value vocabulary: one field value, one field definition, and the counted
// lists that queries take and give. Copying and releasing them.
//
// The layouts are a binary interface: every member is one word, in this order, with no others. A
// word that holds a number is 32 bits, one that holds a pointer is as wide as pointers are.
// All storage comes from malloc and goes back through free.
#pragma once

#include <cstdint>

enum FieldType : int32_t {
  Integer = 1,
  Boolean = 2,
  String = 3,       // nullable, at most 256 characters
  Enumeration = 4,  // a signed number
};

constexpr uint32_t longestString = 256;      // characters of a string value, field or object name
constexpr uint32_t longestValueList = 1000;  // entries of a list value

// Flag bits of a field definition. The others are carried and never interpreted.
constexpr uint32_t nameFieldFlag = 2;  // the field's strings name objects

struct ValueList;

union ValueWord {
  int32_t number;   // Integer, Boolean, Enumeration
  char *string;     // String; may be null
  ValueList *list;  // a list value
};

struct NQwFieldValue {
  int32_t isList;     // 0: one value of the type; else `value` is a list of the type
  int32_t type;       // FieldType, also of every entry of a list
  ValueWord value;    // told apart by isList and type, never by a field's definition
  int32_t valueFlag;  // lives in memory only
};

struct ValueListEntry {
  ValueWord value;
  int32_t entryFlag;
};

struct ValueList {
  uint32_t count;
  ValueListEntry *entries;
};

struct NQwFieldInfo {
  uint32_t fieldId;
  char *name;  // may be null
  int32_t type;
  uint32_t flags;
};

struct NQwFieldBinding {
  uint32_t fieldId;
  NQwFieldValue *value;
};

struct NQwFieldBindList {
  int32_t count;
  NQwFieldBinding *bindings;
};

struct NQwObjectIdList {
  int32_t count;
  uint32_t *objectIds;
};

struct NQwObjectField {
  uint32_t objectId;
  NQwFieldValue *value;
};

struct NQwObjectFieldList {
  int32_t count;
  NQwObjectField *entries;
};

// The string of a single, non-null string value; null for every other value. Only such a value can
// name an object, whatever the definition of its field says.
const char *singleString(const NQwFieldValue *value);

// Deep copies that the caller owns; null when memory is exhausted.
NQwFieldValue *_NQwDbCopyFieldValue(const NQwFieldValue *value);
NQwFieldInfo *_NQwDbCopyFieldInfo(const NQwFieldInfo *info);

// Fills the caller's binding with a deep copy. Its value is null when memory is exhausted.
void _NQwDbCopyFieldBinding(const NQwFieldBinding *source, NQwFieldBinding *destination);

// Release the record and everything it owns. Null is fine.
void NQwDbFreeFieldValue(NQwFieldValue *value);
void NQwDbFreeFieldInfo(NQwFieldInfo *info);
void NQwDbFreeObjectIdList(NQwObjectIdList *list);
void NQwDbFreeFieldBindList(NQwFieldBindList *list);

// Sorts the bindings by field id, as unsigned numbers; bindings of one field keep their order.
void _NQwSortFieldBindList(NQwFieldBindList *list);
