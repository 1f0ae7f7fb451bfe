// The layouts that are a binary interface, checked when this is compiled: members in this order,
// with no others between or after them, each of four bytes or as wide as a pointer. On a 32-bit
// machine every member is therefore one word.

#include <cstddef>
#include <initializer_list>

#include "internal/caches.h"
#include "platform/dbm_table.h"
#include "records/table_records.h"

namespace {

constexpr size_t numberBytes = 4;

struct Member {
  size_t offset;
  size_t size;
};

constexpr size_t roundUp(size_t bytes, size_t to) {
  return (bytes + to - 1) / to * to;
}

template <typename Record>
consteval bool consistsOf(std::initializer_list<Member> members) {
  size_t end = 0;
  for (const Member &member : members) {
    if (member.size != numberBytes && member.size != sizeof(void *)) return false;
    if (member.offset != roundUp(end, member.size)) return false;
    end = member.offset + member.size;
  }
  return sizeof(Record) == roundUp(end, alignof(Record));
}

template <typename Record, typename Type>
consteval Member memberAt(size_t offset, Type Record::*) {
  return {offset, sizeof(Type)};  // NOLINT(bugprone-sizeof-expression): pointers too
}

#define MEMBER(record, name) memberAt(offsetof(record, name), &record::name)

static_assert(sizeof(ValueWord) == sizeof(void *));
static_assert(consistsOf<NQwFieldValue>({MEMBER(NQwFieldValue, isList), MEMBER(NQwFieldValue, type),
                                         MEMBER(NQwFieldValue, value),
                                         MEMBER(NQwFieldValue, valueFlag)}));
static_assert(consistsOf<ValueListEntry>({MEMBER(ValueListEntry, value),
                                          MEMBER(ValueListEntry, entryFlag)}));
static_assert(consistsOf<ValueList>({MEMBER(ValueList, count), MEMBER(ValueList, entries)}));
static_assert(consistsOf<NQwFieldInfo>({MEMBER(NQwFieldInfo, fieldId), MEMBER(NQwFieldInfo, name),
                                        MEMBER(NQwFieldInfo, type), MEMBER(NQwFieldInfo, flags)}));
static_assert(consistsOf<NQwFieldBinding>({MEMBER(NQwFieldBinding, fieldId),
                                           MEMBER(NQwFieldBinding, value)}));
static_assert(consistsOf<NQwFieldBindList>({MEMBER(NQwFieldBindList, count),
                                            MEMBER(NQwFieldBindList, bindings)}));
static_assert(consistsOf<NQwObjectIdList>({MEMBER(NQwObjectIdList, count),
                                           MEMBER(NQwObjectIdList, objectIds)}));
static_assert(consistsOf<NQwObjectField>({MEMBER(NQwObjectField, objectId),
                                          MEMBER(NQwObjectField, value)}));
static_assert(consistsOf<NQwObjectFieldList>({MEMBER(NQwObjectFieldList, count),
                                              MEMBER(NQwObjectFieldList, entries)}));

static_assert(consistsOf<dbFieldInfo>({MEMBER(dbFieldInfo, fieldInfo)}));
static_assert(offsetof(dbObject, objectId) == 0 && offsetof(dbObject, fieldId) == 4 &&
              offsetof(dbObject, name) == 8 && sizeof(dbObject) == 268);
static_assert(consistsOf<dbObjectValue>({MEMBER(dbObjectValue, objectId),
                                         MEMBER(dbObjectValue, fieldId),
                                         MEMBER(dbObjectValue, value)}));
static_assert(consistsOf<enumConstants>({MEMBER(enumConstants, count),
                                         MEMBER(enumConstants, names)}));
static_assert(consistsOf<dbEnumConstants>({MEMBER(dbEnumConstants, fieldId),
                                           MEMBER(dbEnumConstants, constants)}));

static_assert(consistsOf<NQ_dbm_list>({MEMBER(NQ_dbm_list, next), MEMBER(NQ_dbm_list, item)}));
static_assert(consistsOf<FieldCacheEntry>({MEMBER(FieldCacheEntry, info),
                                           MEMBER(FieldCacheEntry, values),
                                           MEMBER(FieldCacheEntry, valueIndex)}));
static_assert(consistsOf<ObjCacheEntry>({MEMBER(ObjCacheEntry, objectId),
                                         MEMBER(ObjCacheEntry, values), MEMBER(ObjCacheEntry, next),
                                         MEMBER(ObjCacheEntry, prev)}));
// The list nodes follow the three words and are no part of the interface.
static_assert(offsetof(CachedValue, objectId) == 0 &&
              offsetof(CachedValue, field) == sizeof(void *) &&
              offsetof(CachedValue, value) == 2 * sizeof(void *));

#undef MEMBER

}  // namespace
