#include "internal/protocol.h"

#include <cstring>

#include "internal/caches.h"
#include "platform/strings.h"

ProtocolField findProtocolField(const char *name) {
  const NQwFieldInfo *alike = nullptr;
  const NQwFieldInfo *equal = nullptr;
  int definitions = 0;
  int equals = 0;
  for (_HashIter each(FieldInfoCache); each() != nullptr; each++) {
    const NQwFieldInfo *info = static_cast<const FieldCacheEntry *>(each()->data())->info;
    if (info->name == nullptr || strcoll_new(info->name, name) != 0) continue;
    alike = info;
    ++definitions;
    if (strcmp(info->name, name) != 0) continue;
    equal = info;
    ++equals;
  }
  const NQwFieldInfo *found = definitions == 1 ? alike : equals == 1 ? equal : nullptr;
  if (found == nullptr) return {0, definitions};
  return {found->type == Boolean ? found->fieldId : 0, 1};
}
