// What a sweep by protocol would delete, told without deleting it: the fields are chosen and the
// objects selected as there, by the same functions over the same caches.

#include <algorithm>
#include <cctype>
#include <cstdio>
#include <fstream>
#include <nlohmann/json.hpp>
#include <set>
#include <vector>

#include "internal/loaders.h"
#include "internal/protocol.h"
#include "objdb/commands.h"
#include "objdb/field_text.h"
#include "objdb/options.h"
#include "objdb/progress.h"
#include "objdb/query_database.h"
#include "platform/strings.h"

namespace {

constexpr char capabilityMap[] = "/usr/NQ/conf/capability_map";
constexpr size_t longestProtocol = 77;  // what -p of dbsweep takes

std::vector<const NQwFieldInfo *> booleanFields() {
  std::vector<const NQwFieldInfo *> fields;
  for (_HashIter each(FieldInfoCache); each() != nullptr; each++) {
    const NQwFieldInfo *info = static_cast<const FieldCacheEntry *>(each()->data())->info;
    const bool isProtocol = info->name != nullptr && std::string(info->name).starts_with("is");
    if (isProtocol && info->type == Boolean) fields.push_back(info);
  }
  return fields;
}

// Why a sweep would not take the name of this field for one; empty when it would.
std::string whyRefused(const NQwFieldInfo &field) {
  const std::string protocol = field.name + 2;
  if (field.fieldId == 0) return "its field has the id 0";
  if (!protocol.empty() && isdigit(static_cast<unsigned char>(protocol[0])) != 0) {
    return "it begins with a digit";
  }
  if (protocol.size() > longestProtocol) return "it has more than 77 characters";
  int sameText = 0;
  for (_HashIter each(FieldInfoCache); each() != nullptr; each++) {
    const char *other = static_cast<const FieldCacheEntry *>(each()->data())->info->name;
    if (other != nullptr && strcmp_new(other, field.name) == 0) ++sameText;
  }
  return sameText > 1 ? "several fields have it" : "";
}

struct Protocol {
  const NQwFieldInfo *field;
  size_t objects;
};

std::vector<Protocol> listProtocols() {
  std::vector<Protocol> protocols;
  for (const NQwFieldInfo *field : booleanFields()) {
    const ObjectIds objects = requireIds(objectsOfProtocol(field->fieldId));
    protocols.push_back({field, static_cast<size_t>(objects->count)});
  }
  std::sort(protocols.begin(), protocols.end(), [](const Protocol &a, const Protocol &b) {
    if (a.objects != b.objects) return a.objects > b.objects;
    const int order = strcmp_new(a.field->name, b.field->name);
    return order != 0 ? order < 0 : a.field->fieldId < b.field->fieldId;
  });
  return protocols;
}

// The protocol names of the platform's file, one a line; blank lines and lines that start with "#"
// have no name.
std::set<std::string> namesOfPlatform() {
  std::set<std::string> names;
  std::ifstream file(capabilityMap);
  for (std::string line; std::getline(file, line);) {
    const size_t end = line.find_last_not_of(" \t\r");
    const size_t start = line.find_first_not_of(" \t");
    if (end == line.npos || line[start] == '#') continue;
    names.insert(line.substr(start, end + 1 - start));
  }
  return names;
}

// A name that is not UTF-8 is shown all the same, with replacement characters.
std::string dumped(const Json &line) {
  return line.dump(-1, ' ', false, Json::error_handler_t::replace);
}

void printAll(bool json) {
  std::set<std::string> unmatched = namesOfPlatform();
  for (const Protocol &protocol : listProtocols()) {
    const char *name = protocol.field->name + 2;
    const std::string refused = whyRefused(*protocol.field);
    unmatched.erase(name);
    if (json) {
      Json line{
          {"protocol", name}, {"field", protocol.field->fieldId}, {"objects", protocol.objects}};
      if (!refused.empty()) line["refused"] = refused;
      puts(dumped(line).c_str());
    } else {
      printf("%8zu %s%s%s\n", protocol.objects, plainText(name).c_str(),
             refused.empty() ? "" : ", which dbsweep refuses: ", refused.c_str());
    }
  }
  for (const std::string &name : unmatched) {
    if (json) {
      puts(dumped({{"protocol", name}, {"field", nullptr}}).c_str());
    } else {
      printf("no field %s\n", plainText(name.c_str()).c_str());
    }
  }
}

// The field that a sweep would take for the name. Looks for one that collates like it, or better is
// equal, and then asks for the sweep's own choice: fields of other types may have the name too.
const NQwFieldInfo *requireField(const std::string &protocol) {
  const std::string name = "is" + protocol;
  const NQwFieldInfo *found = nullptr;
  for (const NQwFieldInfo *field : booleanFields()) {
    if (strcoll_new(field->name, name.c_str()) != 0) continue;
    if (found == nullptr || name == field->name) found = field;
  }
  if (found == nullptr) throw CommandFailure("no Boolean field \"" + name + "\"");
  const bool isChosen = findProtocolField(name.c_str()).fieldId == found->fieldId;
  const std::string refused =
      isChosen || name == found->name ? whyRefused(*found) : "several fields sort as equal to it";
  if (!refused.empty()) {
    throw CommandFailure("dbsweep refuses the protocol \"" + protocol + "\": " + refused);
  }
  return found;
}

ObjdbStatus printProtocols(const VersionPath &database, const std::optional<std::string> &idsOf,
                           bool json) {
  const QueryDatabase asked(database, std::nullopt);
  {
    const Phase phase("reading the names");
    loadObjectNames(asked.get());
  }
  {
    const Phase phase("reading the values");
    loadObjectValues(asked.get());
  }
  if (idsOf) {
    const ObjectIds ids = requireIds(objectsOfProtocol(requireField(*idsOf)->fieldId));
    for (int32_t i = 0; i < ids->count; ++i) {
      if (json) {
        puts(dumped({{"object", ids->objectIds[i]}}).c_str());
      } else {
        printf("%u\n", ids->objectIds[i]);
      }
    }
  } else {
    printAll(json);
  }
  return QueryDatabase::judge(objdbFine);
}

ObjdbStatus runProtocols(Options &options) {
  VersionPath database;
  std::optional<std::string> idsOf;
  bool json = false;
  options.version(&database);
  options.text("--ids", &idsOf, "List the ids of the objects of this protocol");
  options.flag("--json", &json, "Write lines of JSON");
  options.parse();
  return printProtocols(database, idsOf, json);
}

}  // namespace

const Command protocolsCommand{"protocols",
                               "Say how many objects a sweep of each protocol would delete",
                               "objdb protocols --ids \"QRT Session\"", runProtocols};
