#include "internal/iGetFVs.h"

#include "internal/caches.h"
#include "platform/out_of_memory.h"
#include "records/field_codec.h"
#include "store/error_report.h"

NQwFieldBindList *getFieldValues(uint32_t objectId) {
  const ObjCacheEntry *object = ObjValCache->find(objectId);
  if (object == nullptr) {
    traceObjectNotFound("internal/iGetFVs", objectId);
    return nullptr;
  }
  auto *list = static_cast<NQwFieldBindList *>(allocateOrEnd(sizeof(NQwFieldBindList)));
  const auto count = static_cast<size_t>(object->values->size());
  if (count > 0) {
    list->bindings = static_cast<NQwFieldBinding *>(allocateOrEnd(count * sizeof(NQwFieldBinding)));
  }
  for (FieldValIter item(object->values); item() != nullptr; item++) {
    const NQwFieldBinding binding{item()->field->fieldId, item()->value};
    appendFieldBinding(list, &binding);
    if (list->bindings[list->count - 1].value == nullptr) failForWantOfMemory();
  }
  _NQwError = NQw_NO_ERROR;
  return list;
}
