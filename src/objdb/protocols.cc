// What a sweep by protocol would delete, told without deleting it.

#include <algorithm>
#include <cstdio>
#include <fstream>
#include <set>
#include <vector>

#include "internal/iListO.h"
#include "internal/loaders.h"
#include "objdb/commands.h"
#include "objdb/decoded_record.h"
#include "objdb/options.h"
#include "objdb/table_reader.h"
#include "records/codecs.h"

namespace {

constexpr char capabilityMap[] = "/usr/NQ/conf/capability_map";

// Hands every record to `take` in the order of the table, as a run loads it; what does not decode
// is passed over, as there. False when there was such a record or the table does not read to its
// end.
template <typename Record, typename Take>
bool forEachDecoded(TableReader *reader, size_t table, Take take) {
  bool whole = true;
  DbmRecord raw;
  while (reader->next(&raw)) {
    void *decoded = raw.bytes.data() == nullptr
                        ? nullptr
                        : tableFormats[table].decode(raw.bytes.data(), raw.bytes.size());
    if (decoded == nullptr) {
      whole = false;
    } else {
      take(static_cast<Record *>(decoded));
    }
  }
  if (whole && reader->isComplete()) return true;
  fprintf(stderr, "objdb: not every record of table \"%s\" can be read\n",
          tableFormats[table].name);
  return false;
}

// Fills the caches in the order of a run. They last until the process ends.
bool fillCaches(TableReaders &tables) {
  ObjValCache = new ObjTable(1500, 3, 3, 0.333f);
  FieldInfoCache = new FieldTable(200, 0, 3, 0.333f);
  FieldNameCache = new FieldNameTbl(200, 3, 3, 0.333f);
  const bool hasDefinitions =
      forEachDecoded<dbFieldInfo>(tables[fieldInfo].get(), fieldInfo, [](dbFieldInfo *record) {
        addFieldInfo(record->fieldInfo);
        free(record);
      });
  const bool hasNames =
      forEachDecoded<dbObject>(tables[objInfo].get(), objInfo, [](dbObject *record) {
        enterOrRelease(record->objectId, record->fieldId, newFieldValue(String, record->name));
      });
  const bool hasValues =
      forEachDecoded<dbObjectValue>(tables[valueInfo].get(), valueInfo, [](dbObjectValue *record) {
        enterOrRelease(record->objectId, record->fieldId, record->value);
        free(record);
      });
  return hasDefinitions && hasNames && hasValues;
}

// The ids that a deletion by the field selects, in its order. Nothing for a field that it refuses.
std::vector<uint32_t> selectedObjects(uint32_t fieldId) {
  const FieldCacheEntry *field = FieldInfoCache->find(fieldId);
  if (fieldId == 0 || field == nullptr || field->info->type != Boolean) return {};
  NQwFieldValue isTrue{0, Boolean, {1}, 0};
  NQwFieldBinding binding{fieldId, &isTrue};
  NQwFieldBindList query{1, &binding};
  NQwObjectIdList *list = objectsMatchingBindings(&query);
  std::vector<uint32_t> ids(list->objectIds, list->objectIds + list->count);
  NQwDbFreeObjectIdList(list);
  // Under a name field a deletion looks for the one object with the name.
  if (field->valueIndex != nullptr && ids.size() > 1) ids.erase(ids.begin() + 1, ids.end());
  return ids;
}

struct Protocol {
  std::string name;
  size_t objects;
};

std::vector<Protocol> listProtocols() {
  std::vector<Protocol> protocols;
  for (_HashIter name(FieldNameCache); name() != nullptr; name++) {
    const std::string text = static_cast<const char *>(name()->key());
    const uint32_t fieldId = keyNumber(name()->data());
    const FieldCacheEntry *field = FieldInfoCache->find(fieldId);
    if (!text.starts_with("is") || field == nullptr || field->info->type != Boolean) continue;
    protocols.push_back({text.substr(2), selectedObjects(fieldId).size()});
  }
  std::sort(protocols.begin(), protocols.end(), [](const Protocol &a, const Protocol &b) {
    return a.objects != b.objects ? a.objects > b.objects : a.name < b.name;
  });
  return protocols;
}

// The protocol names of the platform's file, one a line; blank lines and those that start with "#"
// are none.
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

ObjdbStatus printProtocols(const VersionPath &database, const std::optional<std::string> &idsOf) {
  TableReaders tables = openAllTables(database.path());
  const ObjdbStatus status = fillCaches(tables) ? objdbFine : objdbFindings;
  if (idsOf) {
    const _HashItem *field = FieldNameCache->find(const_cast<char *>(("is" + *idsOf).c_str()));
    const uint32_t fieldId = field == nullptr ? 0 : keyNumber(field->data());
    const FieldCacheEntry *entry = FieldInfoCache->find(fieldId);
    if (entry == nullptr || entry->info->type != Boolean) {
      throw CommandFailure("no Boolean field \"is" + *idsOf + "\"");
    }
    for (const uint32_t id : selectedObjects(fieldId)) printf("%u\n", id);
  } else {
    std::set<std::string> unmatched = namesOfPlatform();
    for (const Protocol &protocol : listProtocols()) {
      printf("%8zu %s\n", protocol.objects, protocol.name.c_str());
      unmatched.erase(protocol.name);
    }
    for (const std::string &name : unmatched) printf("no field %s\n", name.c_str());
  }
  return status;
}

ObjdbStatus runProtocols(Options &options) {
  VersionPath database;
  std::optional<std::string> idsOf;
  options.version(&database);
  options.text("--ids", &idsOf, "List the ids of this protocol's objects instead");
  options.parse();
  return printProtocols(database, idsOf);
}

}  // namespace

const Command protocolsCommand{"protocols",
                               "Say how many objects a sweep of each protocol would delete",
                               "objdb protocols --ids \"QRT Session\"", runProtocols};
