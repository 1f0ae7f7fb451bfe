// The objects that have given values.

#include <algorithm>
#include <cstdio>
#include <nlohmann/json.hpp>
#include <set>
#include <unordered_set>

#include "internal/caches.h"
#include "internal/iGetFV.h"
#include "internal/iListO.h"
#include "internal/loaders.h"
#include "internal/selected_load.h"
#include "internal/util.h"
#include "internal/value_search.h"
#include "objdb/commands.h"
#include "objdb/field_text.h"
#include "objdb/options.h"
#include "objdb/progress.h"
#include "objdb/query_database.h"
#include "platform/strings.h"
#include "store/name_table.h"

namespace {

struct FindOptions {
  std::vector<std::string> bindings;
  std::optional<uint32_t> mostObjects;
  bool names = false;
  bool json = false;
  bool count = false;
};

// What is asked for, in the order of the command line. The bindings' values are owned by `values`.
struct Question {
  std::vector<NQwFieldBinding> bindings;
  std::vector<FieldValue> values;
};

// A field's name may have the signs in it: the first sign that follows the name of a field counts.
void addBinding(const std::string &text, Question *question) {
  const size_t first = text.find_first_of("=~");
  if (first == text.npos) {
    throw CommandFailure("\"" + text + "\" is neither FIELD=VALUE nor FIELD~[VALUE,...]");
  }
  for (size_t sign = first; sign != text.npos; sign = text.find_first_of("=~", sign + 1)) {
    const NQwFieldInfo *field = findField(text.substr(0, sign));
    if (field == nullptr) continue;
    const std::string value = text.substr(sign + 1);
    question->values.push_back(text[sign] == '=' ? parseValue(*field, value)
                                                 : parseList(*field, value));
    question->bindings.push_back({field->fieldId, question->values.back().get()});
    return;
  }
  throw CommandFailure(unknownField(text.substr(0, first)));
}

bool isOnName(const NQwFieldBinding &binding) {
  return FieldInfoCache->find(binding.fieldId)->valueIndex != nullptr &&
         singleString(binding.value) != nullptr;
}

void loadFor(const Question &question, const FindOptions &options, QueryDatabase &database) {
  if (options.mostObjects) return;
  std::set<uint32_t> fields;
  for (const NQwFieldBinding &binding : question.bindings) fields.insert(binding.fieldId);
  const auto isAsked = [&](uint32_t, uint32_t fieldId) { return fields.contains(fieldId); };
  loadObjectNames(database.get());
  loadSelectedValues(database.get(), isAsked, question.bindings.empty());
}

// Those of the objects that have the binding's value too.
ObjectIds narrow(const QueryDatabase &database, ObjectIds ids, NQwFieldBinding &binding) {
  ObjectDatabase *db = database.get();
  if (!isOnName(binding)) return requireIds(findObjectsWithValueIn(db, ids.get(), &binding));
  keepIds(ids.get(), [&](uint32_t objectId) {
    const char *name = getObjectName(db, objectId, binding.fieldId);
    return name != nullptr && strcoll_new(name, singleString(binding.value)) == 0;
  });
  return ids;
}

// An object that has two values of a field may match once for each, and is to be told once.
void dropRepeated(NQwObjectIdList *list) {
  std::unordered_set<uint32_t> met;
  keepIds(list, [&met](uint32_t objectId) { return met.insert(objectId).second; });
}

ObjectIds joined(const NQwObjectIdList &a, const NQwObjectIdList &b) {
  ObjectIds both(newObjectIdList(static_cast<size_t>(a.count) + static_cast<size_t>(b.count)));
  for (const NQwObjectIdList *list : {&a, &b}) {
    std::copy_n(list->objectIds, list->count, both->objectIds + both->count);
    both->count += list->count;
  }
  return both;
}

ObjectIds askQueries(std::vector<NQwFieldBinding> &bindings) {
  if (bindings.empty()) return requireIds(listObjects(nullptr));
  if (bindings.size() == 1) return requireIds(objectsWithFieldValue(bindings.data()));
  NQwFieldBindList all{static_cast<int32_t>(bindings.size()), bindings.data()};
  return requireIds(listObjects(&all));
}

// Begins with the name, which few objects have. Of objects that share it the queries would tell
// only one.
ObjectIds answerByName(const QueryDatabase &database, std::vector<NQwFieldBinding> &bindings,
                       NQwFieldBinding &name) {
  ObjectIds ids = database.objectsNamed(&name);
  for (NQwFieldBinding &binding : bindings) {
    if (&binding != &name) ids = narrow(database, std::move(ids), binding);
  }
  dropRepeated(ids.get());
  return ids;
}

ObjectIds answer(Question &question, const FindOptions &options, QueryDatabase &database) {
  const Phase phase("looking for the objects");
  loadFor(question, options, database);
  auto &bindings = question.bindings;
  const auto name = std::find_if(bindings.begin(), bindings.end(), isOnName);
  if (name != bindings.end()) return answerByName(database, bindings, *name);
  ObjectIds ids = askQueries(bindings);
  if (cache_overflow == 0 && !bindings.empty()) dropRepeated(ids.get());
  ObjectIds rest = database.unlistedObjects();
  for (NQwFieldBinding &binding : bindings) rest = narrow(database, std::move(rest), binding);
  return rest->count == 0 ? std::move(ids) : joined(*ids, *rest);
}

// Null when the object has no name. Valid until the next question.
const char *nameOf(ObjectDatabase *db, uint32_t objectId) {
  if (ensureObjectCached(db, objectId) == 0) return nullptr;
  const CachedValue *item = findObjectValue(objectId, commonNameField);
  return item == nullptr ? nullptr : singleString(item->value);
}

void writeObject(ObjectDatabase *db, uint32_t objectId, const FindOptions &options) {
  const char *name = options.names ? nameOf(db, objectId) : nullptr;
  if (options.json) {
    Json line{{"object", objectId}};
    if (options.names) line["name"] = textToJson(name);
    puts(line.dump().c_str());
  } else if (name != nullptr) {
    printf("%u %s\n", objectId, plainText(name).c_str());
  } else {
    printf("%u\n", objectId);
  }
}

ObjdbStatus findObjects(const VersionPath &version, const FindOptions &options) {
  QueryDatabase database(version, options.mostObjects);
  Question question;
  for (const std::string &text : options.bindings) addBinding(text, &question);
  const ObjectIds ids = answer(question, options, database);
  if (options.count) {
    printf(options.json ? "{\"objects\":%d}\n" : "%d\n", ids->count);
  } else {
    for (int32_t i = 0; i < ids->count; ++i) {
      writeObject(database.get(), ids->objectIds[i], options);
    }
  }
  return QueryDatabase::judge(ids->count == 0 ? objdbFindings : objdbFine);
}

ObjdbStatus runFind(Options &options) {
  VersionPath version;
  FindOptions find;
  options.version(&version);
  options.arguments("BINDING", &find.bindings,
                    "FIELD=VALUE, or FIELD~[VALUE,...] for a list that contains all of these");
  options.flag("--names", &find.names, "Write the name of each object too");
  options.flag("--json", &find.json, "Write lines of JSON");
  options.flag("--count", &find.count, "Write only how many objects there are");
  options.id("--max-objects", &find.mostObjects, "Hold at most this many objects in memory");
  options.parse();
  if (find.mostObjects == 0u) throw CommandFailure("--max-objects: must be 1 at least");
  return findObjects(version, find);
}

}  // namespace

const Command findCommand{"find", "List the objects that have given values",
                          "objdb find 'Status=down' 'Neighbours~[1000,1002]'", runFind};
