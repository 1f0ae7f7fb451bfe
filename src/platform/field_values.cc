#include "platform/field_values.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>

namespace {

// False when memory is exhausted. A null string copies as null.
bool copyString(const char *from, char **to) {
  *to = from == nullptr ? nullptr : strdup(from);
  return from == nullptr || *to != nullptr;
}

void freeList(ValueList *list, int32_t type) {
  if (list == nullptr) return;
  if (type == String && list->entries != nullptr) {
    for (uint32_t i = 0; i < list->count; ++i) free(list->entries[i].value.string);
  }
  free(list->entries);
  free(list);
}

ValueList *copyList(const ValueList *from, int32_t type) {
  auto *list = static_cast<ValueList *>(calloc(1, sizeof(ValueList)));
  if (list == nullptr || from->count == 0 || from->entries == nullptr) return list;
  list->entries = static_cast<ValueListEntry *>(calloc(from->count, sizeof(ValueListEntry)));
  if (list->entries == nullptr) {
    free(list);
    return nullptr;
  }
  // Known before the strings are copied: after a failure freeList frees those that are there, and
  // finds null for the others.
  list->count = from->count;
  for (uint32_t i = 0; i < from->count; ++i) {
    ValueListEntry &to = list->entries[i];
    to.entryFlag = from->entries[i].entryFlag;
    if (type != String) {
      to.value.number = from->entries[i].value.number;
    } else if (!copyString(from->entries[i].value.string, &to.value.string)) {
      freeList(list, type);
      return nullptr;
    }
  }
  return list;
}

}  // namespace

const char *singleString(const NQwFieldValue *value) {
  return value->isList == 0 && value->type == String ? value->value.string : nullptr;
}

NQwFieldValue *_NQwDbCopyFieldValue(const NQwFieldValue *value) {
  auto *copy = static_cast<NQwFieldValue *>(malloc(sizeof(NQwFieldValue)));
  if (copy == nullptr) return nullptr;
  *copy = *value;
  bool copied = true;
  if (value->isList != 0) {
    if (value->value.list != nullptr) {
      copy->value.list = copyList(value->value.list, value->type);
      copied = copy->value.list != nullptr;
    }
  } else if (value->type == String) {
    copied = copyString(value->value.string, &copy->value.string);
  }
  if (copied) return copy;
  free(copy);
  return nullptr;
}

NQwFieldInfo *_NQwDbCopyFieldInfo(const NQwFieldInfo *info) {
  auto *copy = static_cast<NQwFieldInfo *>(malloc(sizeof(NQwFieldInfo)));
  if (copy == nullptr) return nullptr;
  *copy = *info;
  if (copyString(info->name, &copy->name)) return copy;
  free(copy);
  return nullptr;
}

void _NQwDbCopyFieldBinding(const NQwFieldBinding *source, NQwFieldBinding *destination) {
  destination->fieldId = source->fieldId;
  destination->value = source->value == nullptr ? nullptr : _NQwDbCopyFieldValue(source->value);
}

void NQwDbFreeFieldValue(NQwFieldValue *value) {
  if (value == nullptr) return;
  if (value->isList != 0) {
    freeList(value->value.list, value->type);
  } else if (value->type == String) {
    free(value->value.string);
  }
  free(value);
}

void NQwDbFreeFieldInfo(NQwFieldInfo *info) {
  if (info == nullptr) return;
  free(info->name);
  free(info);
}

void NQwDbFreeObjectIdList(NQwObjectIdList *list) {
  if (list == nullptr) return;
  free(list->objectIds);
  free(list);
}

void NQwDbFreeFieldBindList(NQwFieldBindList *list) {
  if (list == nullptr) return;
  for (int32_t i = 0; i < list->count; ++i) NQwDbFreeFieldValue(list->bindings[i].value);
  free(list->bindings);
  free(list);
}

void _NQwSortFieldBindList(NQwFieldBindList *list) {
  std::stable_sort(
      list->bindings, list->bindings + list->count,
      [](const NQwFieldBinding &a, const NQwFieldBinding &b) { return a.fieldId < b.fieldId; });
}
