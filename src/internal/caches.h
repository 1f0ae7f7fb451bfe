// The in-memory image of the object database: the cache classes, the records they own and the
// globals through which everything reaches them.
//
// Every CachedValue stands in exactly two lists, its object's and its field's. Objects own their
// values; a field's list only points at them, and so does a name field's index. Hence the order of
// destruction: field names before field definitions (they are the definitions' own strings); a
// field's index before the objects (its keys are the values' own strings).
#pragma once

#include <cstdint>
#include <vector>

#include "platform/arena.h"
#include "platform/field_values.h"
#include "platform/hash.h"
#include "platform/list.h"

// One value of one object. The nodes are its places in the two lists: with them, taking a value out
// of a list costs the same whatever the list's length, and a field's list may hold a million.
struct CachedValue {
  uint32_t *objectId;    // the object's id storage
  NQwFieldInfo *field;   // the field's definition in FieldInfoCache
  NQwFieldValue *value;  // owned
  _ListNode inObject;
  _ListNode inField;
};

// A list of CachedValues, none of which it owns: the values of an object in ascending order of
// their field ids, or those of a field in the order in which they were added.
class FieldValList : public _List {
 public:
  // Which of a value's two nodes this list uses: &CachedValue::inObject or &CachedValue::inField.
  explicit FieldValList(_ListNode CachedValue::*node);

  // Brings the values, which are those of the list, in this order.
  void reorder(const std::vector<CachedValue *> &values);
};

class FieldValIter : public _ListIter {
 public:
  explicit FieldValIter(const FieldValList *list) : _ListIter(list) {}
  CachedValue *operator()() const { return static_cast<CachedValue *>(_ListIter::operator()()); }
};

// Strings, owned elsewhere and never copied, to a word or a pointer. Strings that collate equal are
// one key.
class FieldNameTbl : public _Hash {
 public:
  using _Hash::_Hash;

 protected:
  uint32_t hash(const void *key) const override;
  int keyCmp(const void *a, const void *b) const override;
};

struct FieldCacheEntry {
  NQwFieldInfo *info;        // owned
  FieldValList *values;      // the list is owned, its values are not
  FieldNameTbl *valueIndex;  // name fields: value string to the object's id storage; else null
};

// Field id to FieldCacheEntry. Owns its entries: those that a load has made lie in the table's own
// storage, with their definitions; of all others the entry and the definition came from malloc.
class FieldTable : public _Hash {
 public:
  using _Hash::_Hash;
  ~FieldTable() override;

  void insert(FieldCacheEntry *entry);
  FieldCacheEntry *find(uint32_t fieldId) const;  // null when absent
  // Starts to fetch from memory what a find of the field will need soon.
  void announce(uint32_t fieldId) const { prefetch(wordKey(fieldId)); }
  // The entry becomes the caller's. For programs that take definitions away, which none here does.
  void remove(uint32_t fieldId);

  Arena &storage() { return storage_; }

 private:
  Arena storage_;
};

// Made in one piece with its id and its list by newCachedObject, or elsewhere of three: entry and
// id from malloc, the list by new.
struct ObjCacheEntry {
  uint32_t *objectId;    // owned; values and name indexes point at it
  FieldValList *values;  // owned with its values
  ObjCacheEntry *next;   // toward the newer end of the recency order
  ObjCacheEntry *prev;   // toward the older end
};

// Object id to ObjCacheEntry, with a recency order. Owns its entries and their values: those that a
// load has made lie in the table's own storage (stored_values.h), all others came from malloc.
class ObjTable : public _Hash {
 public:
  using _Hash::_Hash;
  ~ObjTable() override;

  void insert(ObjCacheEntry *entry);       // becomes the newest
  ObjCacheEntry *find(uint32_t objectId);  // and makes it the newest; null when absent
  void remove(ObjCacheEntry *entry);       // the entry stays the caller's
  int isIn(uint32_t objectId) const;       // without making it the newest

  // find() in four steps, for a load, which knows some lookups ahead which objects come and would
  // otherwise wait for memory at each. announce() starts to fetch the object's slot. A little later
  // look() returns its entry, or null. announceChange() starts to fetch what promote() will change.
  // promote() makes the object the newest; only this step changes anything.
  void announce(uint32_t objectId) const { prefetch(wordKey(objectId)); }
  ObjCacheEntry *look(uint32_t objectId) const;
  static void announceChange(const ObjCacheEntry *entry);
  void promote(ObjCacheEntry *entry);

  ObjCacheEntry *oldest() const;  // null when empty
  ObjCacheEntry *newest() const;  // null when empty

  Arena &storage() { return storage_; }

 private:
  friend class RecencyIter;

  void linkNewest(ObjCacheEntry *entry);
  static void unlink(ObjCacheEntry *entry);

  // Closes the circle: its next is the oldest entry, its prev the newest.
  ObjCacheEntry sentinel_{nullptr, nullptr, &sentinel_, &sentinel_};
  Arena storage_;
};

// Walks over the objects from the newest to the oldest. The current one must not be removed or
// found.
class RecencyIter {
 public:
  explicit RecencyIter(const ObjTable *table)
      : sentinel_(&table->sentinel_), entry_(table->sentinel_.prev) {}

  // The analyzer takes a freed entry for one that the walk can come back to.
  // NOLINTNEXTLINE(clang-analyzer-cplusplus.NewDelete)
  ObjCacheEntry *operator()() const { return entry_ == sentinel_ ? nullptr : entry_; }
  ObjCacheEntry *operator++(int) {
    if (entry_ != sentinel_) entry_ = entry_->prev;
    return operator()();
  }

 private:
  const ObjCacheEntry *sentinel_;
  ObjCacheEntry *entry_;
};

extern ObjTable *ObjValCache;         // the objects and their values
extern FieldTable *FieldInfoCache;    // the field definitions and their values
extern FieldNameTbl *FieldNameCache;  // field name to field id
extern _Hash *enumconstantstable;     // field id to enumConstants, which the table owns

// Twins for an archived version, which other programs that link this room may fill. Here
// SFieldInfoCache is created empty with FieldInfoCache, the others stay null, and nothing reads
// them.
extern ObjTable *SObjValCache;
extern FieldTable *SFieldInfoCache;
extern FieldNameTbl *SFieldNameCache;
extern _Hash *Senumconstantstable;
extern int32_t cache_snapshots;  // whether archived versions are cached: 0 here

extern uint32_t max_objects_cached;  // 0: no limit
extern uint8_t cache_overflow;       // 1: objects were left out, queries have to read the tables
extern uint32_t objcount;            // objects that the limited loader has admitted

// Ids of the fields "NQW Maps Managed" and "NQW Maps Exists"; 0 where the database lacks them. Kept
// for programs that ask for them; nothing here does.
extern uint32_t mapsManagedFldId;
extern uint32_t mapsExistsFldId;

// Makes an entry with a copy of the definition in the table's storage, and does not insert it.
FieldCacheEntry *newStoredField(FieldTable *table, const NQwFieldInfo &info);

// Takes a value out of both its lists and, under a name field, its string out of the field's index.
// The item and its value become the caller's.
void unlinkCachedValue(ObjCacheEntry *object, FieldCacheEntry *field, CachedValue *item);

// Makes an object without values and enters it into ObjValCache; the second in the table's storage.
ObjCacheEntry *newCachedObject(uint32_t objectId);
ObjCacheEntry *newStoredObject(uint32_t objectId);

// Appends a stored value to the list of an object that one of the two has made.
void appendStoredValue(ObjCacheEntry *object, CachedValue *item);

// Takes an object whose values are gone out of ObjValCache and frees it.
void destroyCachedObject(ObjCacheEntry *object);

// Frees the table with the constants it owns.
void destroyEnumTable(_Hash *table);
