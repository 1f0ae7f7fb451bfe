#include "internal/stored_values.h"

#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <new>

namespace {

// What a walk and a store look at comes first. The parts follow in the same piece: the characters
// of a string, or the list block, its entries and their strings.
struct StoredValue {
  NQwFieldValue value;
  CachedValue item;
};

size_t textSize(const char *text) {
  return text == nullptr ? 0 : strlen(text) + 1;
}

size_t listSize(const ValueList *list, int32_t type) {
  size_t size = sizeof(ValueList) + list->count * sizeof(ValueListEntry);
  if (type != String) return size;
  for (uint32_t i = 0; i < list->count; ++i) size += textSize(list->entries[i].value.string);
  return size;
}

char *copyText(const char *from, char **room) {
  if (from == nullptr) return nullptr;
  const size_t size = textSize(from);
  auto *copy = static_cast<char *>(memcpy(*room, from, size));
  *room += size;
  return copy;
}

ValueList *copyList(const ValueList *from, int32_t type, char *room) {
  auto *list = new (room) ValueList{from->count, nullptr};
  room += sizeof(ValueList);
  if (from->count == 0) return list;
  list->entries = reinterpret_cast<ValueListEntry *>(room);
  memcpy(list->entries, from->entries, from->count * sizeof(ValueListEntry));
  room += from->count * sizeof(ValueListEntry);
  for (uint32_t i = 0; type == String && i < from->count; ++i) {
    list->entries[i].value.string = copyText(from->entries[i].value.string, &room);
  }
  return list;
}

StoredValue *newStoredValue(ObjTable *table, const NQwFieldValue &value, size_t partsSize) {
  auto *stored =
      new (table->storage().take(sizeof(StoredValue) + partsSize)) StoredValue{value, {}};
  stored->item.value = &stored->value;
  return stored;
}

}  // namespace

CachedValue *storeValue(ObjTable *table, const NQwFieldValue &value) {
  const char *text = singleString(&value);
  if (text != nullptr) return storeText(table, text);
  if (value.isList == 0 || value.value.list == nullptr)
    return &newStoredValue(table, value, 0)->item;
  const ValueList *list = value.value.list;
  StoredValue *stored = newStoredValue(table, value, listSize(list, value.type));
  stored->value.value.list = copyList(list, value.type, reinterpret_cast<char *>(stored + 1));
  return &stored->item;
}

CachedValue *storeText(ObjTable *table, std::string_view text) {
  StoredValue *stored = newStoredValue(table, {0, String, {}, 0}, text.size() + 1);
  auto *characters = reinterpret_cast<char *>(stored + 1);
  if (!text.empty()) memcpy(characters, text.data(), text.size());
  characters[text.size()] = '\0';
  stored->value.value.string = characters;
  return &stored->item;
}

// Only where the two lie in one piece is a value just in front of its item: malloc leaves no two
// pieces of storage that close to each other.
bool isStored(const CachedValue *item) {
  return reinterpret_cast<const char *>(item->value) + offsetof(StoredValue, item) ==
         reinterpret_cast<const char *>(item);
}

void freeCachedValue(CachedValue *item) {
  if (isStored(item)) return;
  NQwDbFreeFieldValue(item->value);
  free(item);
}
