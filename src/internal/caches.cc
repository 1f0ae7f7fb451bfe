#include "internal/caches.h"

#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <new>

#include "internal/stored_values.h"
#include "platform/strings.h"
#include "records/codecs.h"

ObjTable *ObjValCache = nullptr;
FieldTable *FieldInfoCache = nullptr;
FieldNameTbl *FieldNameCache = nullptr;
_Hash *enumconstantstable = nullptr;

ObjTable *SObjValCache = nullptr;
FieldTable *SFieldInfoCache = nullptr;
FieldNameTbl *SFieldNameCache = nullptr;
_Hash *Senumconstantstable = nullptr;
int32_t cache_snapshots = 0;

uint32_t max_objects_cached = 0;
uint8_t cache_overflow = 0;
uint32_t objcount = 0;

uint32_t mapsManagedFldId = 0;
uint32_t mapsExistsFldId = 0;

FieldValList::FieldValList(_ListNode CachedValue::*node)
    : _List(node == &CachedValue::inObject ? offsetof(CachedValue, inObject)
                                           : offsetof(CachedValue, inField)) {}

void FieldValList::reorder(const std::vector<CachedValue *> &values) {
  forget();
  for (const CachedValue *value : values) insert(value);
}

uint32_t FieldNameTbl::hash(const void *key) const {
  return collationHash(static_cast<const char *>(key));
}

int FieldNameTbl::keyCmp(const void *a, const void *b) const {
  return strcoll_new(static_cast<const char *>(a), static_cast<const char *>(b));
}

namespace {

// A field and what it points at, in one piece of storage: a load meets it with every value. The
// characters of the name follow.
struct CachedField {
  FieldCacheEntry entry;
  FieldValList values{&CachedValue::inField};
  NQwFieldInfo info;
};

// The list lies in the piece only where newStoredField has made it.
bool isStored(FieldCacheEntry *entry) {
  return entry->values == &reinterpret_cast<CachedField *>(entry)->values;
}

}  // namespace

FieldCacheEntry *newStoredField(FieldTable *table, const NQwFieldInfo &info) {
  const size_t nameSize = info.name == nullptr ? 0 : strlen(info.name) + 1;
  void *storage = table->storage().take(sizeof(CachedField) + nameSize);
  auto *field = new (storage) CachedField;
  field->info = info;
  field->entry = {&field->info, &field->values, nullptr};
  if (info.name != nullptr) {
    field->info.name = reinterpret_cast<char *>(field + 1);
    memcpy(field->info.name, info.name, nameSize);
  }
  return &field->entry;
}

FieldTable::~FieldTable() {
  for (_HashIter item(this); item() != nullptr; item++) {
    auto *entry = static_cast<FieldCacheEntry *>(item()->data());
    delete entry->valueIndex;
    if (isStored(entry)) continue;
    delete entry->values;
    NQwDbFreeFieldInfo(entry->info);
    free(entry);
  }
}

void FieldTable::insert(FieldCacheEntry *entry) {
  _Hash::insert(wordKey(entry->info->fieldId), entry);
}

FieldCacheEntry *FieldTable::find(uint32_t fieldId) const {
  const _HashItem *item = _Hash::find(wordKey(fieldId));
  return item == nullptr ? nullptr : static_cast<FieldCacheEntry *>(item->data());
}

void FieldTable::remove(uint32_t fieldId) {
  _Hash::remove(wordKey(fieldId));
}

namespace {

// An object and what it points at, in one piece of storage: loading touches all of it for every
// value.
struct CachedObject {
  ObjCacheEntry entry{&id, &values, nullptr, nullptr};
  FieldValList values{&CachedValue::inObject};
  uint32_t id;
  uint32_t isStored : 1;  // in the storage of its table
  uint32_t storedValues : 31;
};

// Null for an entry that was made elsewhere, in three pieces: its list lies somewhere else.
CachedObject *inOnePiece(ObjCacheEntry *entry) {
  auto *object = reinterpret_cast<CachedObject *>(entry);
  return entry->values == &object->values ? object : nullptr;
}

// Then nothing is to be freed one by one, and the values need not even be read from memory: what is
// stored goes with the storage.
bool hasOnlyStoredValues(ObjCacheEntry *entry) {
  const CachedObject *object = inOnePiece(entry);
  return object != nullptr && static_cast<int>(object->storedValues) == entry->values->size();
}

void freeValues(FieldValList *values) {
  for (FieldValIter walk(values); walk() != nullptr;) {
    CachedValue *item = walk();
    walk++;
    freeCachedValue(item);
  }
}

void freeCachedObject(ObjCacheEntry *entry) {
  CachedObject *object = inOnePiece(entry);
  if (object == nullptr) {  // made elsewhere, in pieces
    delete entry->values;
    free(entry->objectId);
    free(entry);
  } else if (!object->isStored) {
    delete object;
  }
}

}  // namespace

ObjTable::~ObjTable() {
  for (_HashIter item(this); item() != nullptr; item++) {
    auto *entry = static_cast<ObjCacheEntry *>(item()->data());
    if (!hasOnlyStoredValues(entry)) freeValues(entry->values);
    freeCachedObject(entry);
  }
}

void ObjTable::insert(ObjCacheEntry *entry) {
  _Hash::insert(wordKey(*entry->objectId), entry);
  linkNewest(entry);
}

ObjCacheEntry *ObjTable::find(uint32_t objectId) {
  // The values of one object often come in a row.
  ObjCacheEntry *last = newest();
  if (last != nullptr && *last->objectId == objectId) return last;
  ObjCacheEntry *entry = look(objectId);
  if (entry != nullptr) promote(entry);
  return entry;
}

ObjCacheEntry *ObjTable::look(uint32_t objectId) const {
  const _HashItem *item = _Hash::find(wordKey(objectId));
  return item == nullptr ? nullptr : static_cast<ObjCacheEntry *>(item->data());
}

void ObjTable::announceChange(const ObjCacheEntry *entry) {
  __builtin_prefetch(entry->next, 1);
  __builtin_prefetch(entry->prev, 1);
  entry->values->prefetchEnd();
}

void ObjTable::promote(ObjCacheEntry *entry) {
  if (entry->next == &sentinel_) return;
  unlink(entry);
  linkNewest(entry);
}

void ObjTable::remove(ObjCacheEntry *entry) {
  _Hash::remove(wordKey(*entry->objectId));
  unlink(entry);
  entry->next = nullptr;
  entry->prev = nullptr;
}

int ObjTable::isIn(uint32_t objectId) const {
  return _Hash::isIn(wordKey(objectId));
}

ObjCacheEntry *ObjTable::oldest() const {
  return sentinel_.next == &sentinel_ ? nullptr : sentinel_.next;
}

ObjCacheEntry *ObjTable::newest() const {
  return sentinel_.prev == &sentinel_ ? nullptr : sentinel_.prev;
}

void ObjTable::linkNewest(ObjCacheEntry *entry) {
  entry->prev = sentinel_.prev;
  entry->next = &sentinel_;
  sentinel_.prev->next = entry;  // NOLINT(clang-analyzer-core.NullDereference): a circle
  sentinel_.prev = entry;
}

void ObjTable::unlink(ObjCacheEntry *entry) {
  entry->prev->next = entry->next;
  entry->next->prev = entry->prev;
}

void unlinkCachedValue(ObjCacheEntry *object, FieldCacheEntry *field, CachedValue *item) {
  // The key in the index is the value's own string, which the caller may free.
  const char *name = singleString(item->value);
  if (field->valueIndex != nullptr && name != nullptr) {
    field->valueIndex->remove(const_cast<char *>(name));
  }
  object->values->remove(item);
  field->values->remove(item);
  if (isStored(item)) --inOnePiece(object)->storedValues;
}

namespace {

ObjCacheEntry *enterObject(CachedObject *object, uint32_t objectId, bool isStored) {
  object->id = objectId;
  object->isStored = isStored ? 1 : 0;
  object->storedValues = 0;
  ObjValCache->insert(&object->entry);
  return &object->entry;
}

}  // namespace

ObjCacheEntry *newCachedObject(uint32_t objectId) {
  return enterObject(new CachedObject, objectId, false);
}

void appendStoredValue(ObjCacheEntry *object, CachedValue *item) {
  item->objectId = object->objectId;
  object->values->insert(item);
  ++inOnePiece(object)->storedValues;
}

ObjCacheEntry *newStoredObject(uint32_t objectId) {
  void *storage = ObjValCache->storage().take(sizeof(CachedObject));
  return enterObject(new (storage) CachedObject, objectId, true);
}

void destroyCachedObject(ObjCacheEntry *object) {
  ObjValCache->remove(object);
  freeCachedObject(object);
}

void destroyEnumTable(_Hash *table) {
  for (_HashIter item(table); item() != nullptr; item++) {
    freeEnumConstants(static_cast<enumConstants *>(item()->data()));
  }
  delete table;
}
