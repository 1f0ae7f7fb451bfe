#include "store/id_keeper.h"

#include <cstdio>
#include <iterator>

#include "records/table_records.h"

namespace {

constexpr uint32_t firstFreeId = 14;  // after the predefined fields

constexpr uint32_t nameFlags = nameFieldFlag | 8;  // 8 and 1: the platform's, see field_values.h
constexpr struct {
  uint32_t fieldId;
  const char *name;
  FieldType type;
  uint32_t flags;
} predefined[] = {{10, "Selection Name", String, nameFlags},
                  {11, "IP Hostname", String, nameFlags},
                  {12, "OSI Name", String, nameFlags},
                  {13, "Syntax List", Integer, 1}};

}  // namespace

int storeIdKeeper(ObjectDatabase *db, uint32_t value) {
  const uint32_t key = 0;
  return _NQ_dbm_db_store(db->idKeeperDb, &key, sizeof key, &value);
}

int storeFieldInfo(ObjectDatabase *db, uint32_t fieldId, NQwFieldInfo *info) {
  const dbFieldInfo record{info};
  return _NQ_dbm_db_store(db->fieldInfoDb, &fieldId, sizeof fieldId, &record);
}

int initIdKeeper(ObjectDatabase *db) {
  return storeIdKeeper(db, firstFreeId);
}

bool isSeededIdKeeper(ObjectDatabase *db) {
  const uint32_t key = 0;
  const auto *counter =
      static_cast<const uint32_t *>(_NQ_dbm_db_get(db->idKeeperDb, &key, sizeof key));
  return counter != nullptr && *counter == firstFreeId;
}

int initPredefinedFields(ObjectDatabase *db) {
  int result = 0;
  for (const auto &field : predefined) {
    char name[longestString + 1];
    snprintf(name, sizeof name, "%s", field.name);
    NQwFieldInfo info{field.fieldId, name, field.type, field.flags};
    result = storeFieldInfo(db, field.fieldId, &info);
  }
  return result;
}

bool areSeededFields(ObjectDatabase *db) {
  uint64_t records = 0;
  return _NQ_dbm_db_count(db->fieldInfoDb, &records) && records <= std::size(predefined);
}
