#include "internal/protocol.h"

#include <cstring>

#include "internal/caches.h"
#include "internal/iListO.h"
#include "platform/strings.h"

// Walks over the definitions: FieldNameCache knows one field for all names that collate equal, and
// a deletion must not choose among them by chance.
ProtocolField findProtocolField(const char *name) {
  const NQwFieldInfo *alike = nullptr;
  const NQwFieldInfo *equal = nullptr;
  int definitions = 0;
  int equals = 0;
  for (_HashIter each(FieldInfoCache); each() != nullptr; each++) {
    const NQwFieldInfo *info = static_cast<const FieldCacheEntry *>(each()->data())->info;
    if (strcoll_new(info->name, name) != 0) continue;  // also where one has no name
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

NQwObjectIdList *objectsOfProtocol(uint32_t fieldId) {
  NQwFieldValue isTrue{0, Boolean, {1}, 0};
  const NQwFieldBinding binding{fieldId, &isTrue};
  return objectsWithFieldValue(&binding);
}
