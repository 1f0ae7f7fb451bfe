#include "network.h"

#include <cstdio>

#include "records/value_table.h"
#include "store/id_keeper.h"
#include "store/name_table.h"

namespace {

constexpr uint32_t firstOtherField = retiredField + 1;
constexpr uint32_t endOfFields = everyField + valuesAnObject - 1;

int32_t typeOf(uint32_t field) {
  if (field < firstOtherField) return Boolean;
  constexpr int32_t others[] = {Integer, String, Enumeration};
  return others[(field - firstOtherField) % 3];
}

constexpr int32_t constantsAField = 3;

void storeConstants(ObjectDatabase *db, uint32_t field) {
  char up[] = "up", down[] = "down", testing[] = "testing";
  char *names[constantsAField] = {up, down, testing};
  enumConstants constants{constantsAField, names};
  const dbEnumConstants record{field, &constants};
  _NQ_dbm_db_store(db->enumInfoDb, &field, sizeof field, &record);
}

void storeDefinitions(ObjectDatabase *db) {
  char name[32];
  for (uint32_t field = everyField; field < endOfFields; ++field) {
    snprintf(name, sizeof name, "Field %u", field);
    if (field == everyField) snprintf(name, sizeof name, "isEvery");
    if (field == retiredField) snprintf(name, sizeof name, "isRetired");
    NQwFieldInfo info{field, name, typeOf(field), 1};
    storeFieldInfo(db, field, &info);
    if (info.type == Enumeration) storeConstants(db, field);
  }
}

}  // namespace

void storeNetwork(ObjectDatabase *db, uint32_t objects) {
  storeDefinitions(db);
  const uint32_t counterKey = 0;
  const uint32_t counter = objects + 1;
  _NQ_dbm_db_store(db->idKeeperDb, &counterKey, sizeof counterKey, &counter);
  char text[48];
  for (uint32_t object = 1; object <= objects; ++object) {
    snprintf(text, sizeof text, "object-%u.network.example", object);
    putNameObject(db, object, nameField, text);
    for (uint32_t field = everyField; field < endOfFields; ++field) {
      NQwFieldValue value{0, typeOf(field), {static_cast<int32_t>(object)}, 0};
      if (field == everyField) value.value.number = 1;
      if (field == retiredField) value.value.number = object % 10 == 0;
      if (value.type == Enumeration) value.value.number %= constantsAField;
      if (value.type == String) {
        snprintf(text, sizeof text, "value %u of object %u", field, object);
        value.value.string = text;
      }
      putValueObject(db, object, field, &value);
    }
  }
}

void storeNumbers(ObjectDatabase *db, uint32_t objects, uint32_t fields) {
  for (uint32_t field = everyField; field < everyField + fields; ++field) {
    char name[32] = "isEvery";
    if (field > everyField) snprintf(name, sizeof name, "Field %u", field);
    NQwFieldInfo info{field, name, field == everyField ? Boolean : Integer, 1};
    storeFieldInfo(db, field, &info);
    for (uint32_t object = 1; object <= objects; ++object) {
      NQwFieldValue value{0, info.type, {}, 0};
      putValueObject(db, object, field, &value);
    }
  }
}
