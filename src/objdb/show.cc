// All values of objects.

#include <charconv>
#include <cstdio>
#include <nlohmann/json.hpp>
#include <set>
#include <utility>

#include "internal/caches.h"
#include "internal/iGetFVs.h"
#include "internal/iNameToOID.h"
#include "internal/loaders.h"
#include "internal/selected_load.h"
#include "internal/util.h"
#include "objdb/commands.h"
#include "objdb/field_text.h"
#include "objdb/options.h"
#include "objdb/progress.h"
#include "objdb/query_database.h"
#include "platform/out_of_memory.h"
#include "records/value_table.h"
#include "store/name_table.h"

namespace {

struct ShowOptions {
  std::vector<std::string> objects;
  std::optional<std::string> nameField;
  std::optional<uint32_t> mostObjects;
  bool json = false;
};

struct FreeBindings {
  void operator()(NQwFieldBindList *list) const { NQwDbFreeFieldBindList(list); }
};
using Bindings = std::unique_ptr<NQwFieldBindList, FreeBindings>;

// What a word of the command line may mean. 0 is no object's id.
struct Asked {
  std::string word;
  uint32_t byId = 0;
  uint32_t byName = 0;
};

uint32_t idOf(const std::string &word) {
  uint32_t id = 0;
  const char *end = word.data() + word.size();
  const auto [read, error] = std::from_chars(word.data(), end, id);
  return error == std::errc() && read == end ? id : 0;
}

const NQwFieldInfo &nameField(const ShowOptions &options) {
  const std::string name = options.nameField.value_or(std::to_string(commonNameField));
  const NQwFieldInfo *field =
      options.nameField ? findField(name) : getCachedFieldInfo(commonNameField);
  if (field != nullptr && (field->flags & nameFieldFlag) != 0) return *field;
  throw CommandFailure(unknownField(name, nameFieldFlag));
}

// With a limit the name table is asked. It finds a name by its bytes alone, while the locale may
// call other names equal: those are looked for in obj_info.
uint32_t objectNamed(const QueryDatabase &database, uint32_t fieldId, const std::string &name) {
  const uint32_t objectId = nameToObjectId(fieldId, name.c_str());
  if (objectId != 0 || cache_overflow == 0) return objectId;
  std::string text = name;
  NQwFieldValue value{0, String, {.string = text.data()}, 0};
  NQwFieldBinding binding{fieldId, &value};
  const ObjectIds ids = database.objectsNamed(&binding);
  return ids->count == 0 ? 0 : ids->objectIds[0];
}

void loadFor(const ShowOptions &options, QueryDatabase &database, std::vector<Asked> *objects) {
  const Phase phase("looking for the objects");
  ObjectDatabase *db = database.get();
  const uint32_t fieldId = nameField(options).fieldId;
  if (!options.mostObjects) loadObjectNames(db);
  std::set<uint32_t> ids;
  for (const std::string &word : options.objects) {
    const uint32_t byId = options.nameField ? 0 : idOf(word);
    objects->push_back({word, byId, objectNamed(database, fieldId, word)});
    ids.insert({objects->back().byId, objects->back().byName});
  }
  const auto isAsked = [&](uint32_t objectId, uint32_t) { return ids.contains(objectId); };
  if (!options.mostObjects) loadSelectedValues(db, isAsked, false);
}

// Reads an object that has no name under the common name field, which is not loaded on demand.
Bindings readValues(ObjectDatabase *db, uint32_t objectId) {
  Bindings list(static_cast<NQwFieldBindList *>(allocateOrEnd(sizeof(NQwFieldBindList))));
  list->bindings = static_cast<NQwFieldBinding *>(
      allocateOrEnd(static_cast<size_t>(FieldInfoCache->size()) * sizeof(NQwFieldBinding)));
  const auto add = [&](uint32_t fieldId, NQwFieldValue *value) {
    if (value != nullptr) list->bindings[list->count++] = {fieldId, value};
  };
  for (const NQ_dbm_list *node = db->fieldList; node != nullptr; node = node->next) {
    const auto *info = static_cast<const NQwFieldInfo *>(node->item);
    const bool isName = (info->flags & nameFieldFlag) != 0;
    const char *name = isName ? getObjectName(db, objectId, info->fieldId) : nullptr;
    add(info->fieldId, name == nullptr ? getObjectFieldValue(db, objectId, info->fieldId)
                                       : newFieldValue(String, name));
  }
  _NQwSortFieldBindList(list.get());
  return list->count == 0 ? nullptr : std::move(list);
}

// Null when there is no such object.
Bindings valuesOf(ObjectDatabase *db, uint32_t objectId) {
  if (objectId == 0) return nullptr;
  if (ensureObjectCached(db, objectId) != 0) {
    Bindings values(getFieldValues(objectId));
    if (values != nullptr) return values;
  }
  return max_objects_cached == 0 ? nullptr : readValues(db, objectId);
}

void writeObject(uint32_t objectId, const NQwFieldBindList &values, bool json, bool first) {
  Json list = Json::array();
  if (!json) printf("%sobject %u\n", first ? "" : "\n", objectId);
  for (int32_t i = 0; i < values.count; ++i) {
    const NQwFieldBinding &binding = values.bindings[i];
    if (json) {
      list.push_back(valueToJson(binding));
    } else {
      printf("%s: %s\n", fieldText(*getCachedFieldInfo(binding.fieldId)).c_str(),
             valueText(binding).c_str());
    }
  }
  if (json) puts(Json{{"object", objectId}, {"values", list}}.dump().c_str());
}

ObjdbStatus showObjects(const VersionPath &version, const ShowOptions &options) {
  QueryDatabase database(version, options.mostObjects);
  std::vector<Asked> objects;
  loadFor(options, database, &objects);
  bool all = true;
  bool first = true;
  for (const Asked &object : objects) {
    // A word that is a number may be a name as well: the id goes first.
    uint32_t objectId = object.byId;
    Bindings values = valuesOf(database.get(), objectId);
    if (values == nullptr) {
      objectId = object.byName;
      values = valuesOf(database.get(), objectId);
    }
    if (values == nullptr) {
      fprintf(stderr, "objdb: no object \"%s\"\n", object.word.c_str());
      all = false;
    } else {
      writeObject(objectId, *values, options.json, std::exchange(first, false));
    }
  }
  return QueryDatabase::judge(all ? objdbFine : objdbFindings);
}

ObjdbStatus runShow(Options &options) {
  VersionPath version;
  ShowOptions show;
  options.version(&version);
  options.arguments("OBJECT", &show.objects, "The id of an object, or its name");
  options.text("--field", &show.nameField, "Take each OBJECT for a name in this name field");
  options.flag("--json", &show.json, "Write lines of JSON");
  options.id("--max-objects", &show.mostObjects, "Hold at most this many objects in memory");
  options.parse();
  if (show.objects.empty()) throw CommandFailure("show: no object given");
  if (show.mostObjects == 0u) throw CommandFailure("--max-objects: must be 1 at least");
  return showObjects(version, show);
}

}  // namespace

const Command showCommand{"show", "Write all values of objects", "objdb show 1234 router-17",
                          runShow};
