#include "internal/selected_load.h"

#include "internal/bulk_load.h"
#include "internal/loaders.h"
#include "internal/scan.h"
#include "internal/stored_values.h"
#include "records/codecs.h"

namespace {

// A record begins with the two ids (table_records.h), which tell without decoding whose value it
// is.
struct RecordOwner {
  uint32_t objectId;
  uint32_t fieldId;
};

uint32_t wordAt(std::string_view bytes, size_t place) {
  uint32_t word = 0;
  for (size_t i = 0; i < sizeof word; ++i) {
    word = word << 8 | static_cast<unsigned char>(bytes[4 * place + i]);
  }
  return word;
}

// False for bytes that do not begin that way, and cannot be decoded either.
bool readOwner(std::string_view bytes, RecordOwner *owner) {
  if (bytes.size() < 16 || wordAt(bytes, 0) != 1 || wordAt(bytes, 2) != 1) return false;
  *owner = {wordAt(bytes, 1), wordAt(bytes, 3)};
  return true;
}

}  // namespace

void loadSelectedValues(ObjectDatabase *db, const WantsValue &wants, bool allObjects) {
  std::vector<uint32_t> leftOut;  // of no interest here
  BulkLoad load(&leftOut);
  loadLosses.unreadable += forEachStored(db->valueInfoDb, [&](std::string_view bytes) {
    RecordOwner owner{};
    if (!readOwner(bytes, &owner)) return false;
    if (!wants(owner.objectId, owner.fieldId)) {
      if (allObjects) load.add(owner.objectId, owner.fieldId, nullptr);
      return true;
    }
    auto *record = static_cast<dbObjectValue *>(_NQ_dbm_db_decode(db->valueInfoDb, bytes));
    if (record == nullptr) return false;
    load.add(record->objectId, record->fieldId, storeValue(ObjValCache, *record->value));
    freeDbObjectValue(record);
    return true;
  });
  load.finish();
}
