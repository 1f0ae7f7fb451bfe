// Looks at every record of a database for what a sweep, or the platform, would stumble over.

#include <algorithm>
#include <array>
#include <optional>
#include <string>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include "objdb/commands.h"
#include "objdb/decoded_record.h"
#include "objdb/findings.h"
#include "objdb/fnv64.h"
#include "objdb/options.h"
#include "objdb/table_reader.h"
#include "store/versions.h"

namespace {

// A name as one of the two name tables has it: a hash of its field and characters, and the object.
// The hash stands for the name, which would take several times the memory.
struct NameEntry {
  uint64_t hash;
  uint32_t objectId;
  uint32_t fieldId;

  bool operator==(const NameEntry &other) const = default;
  bool operator<(const NameEntry &other) const {
    return std::pair(hash, objectId) < std::pair(other.hash, other.objectId);
  }
};

NameEntry nameEntry(const DecodedRecord &record) {
  uint64_t hash = fnv64Step(fnv64Start, record.fieldId);
  for (const char *at = record.name; *at != '\0'; ++at) {
    hash = fnv64Step(hash, static_cast<unsigned char>(*at));
  }
  return {hash, record.objectId, record.fieldId};
}

class Check {
 public:
  Check(TableReaders tables, Findings *findings)
      : tables_(std::move(tables)), findings_(*findings) {}

  // Returns how many records were looked at. The counter and the definitions come first, since the
  // other records are judged by them.
  uint64_t run() {
    for (const size_t table : {idKeeper, fieldInfo, enumInfo, objInfo, nameInfo, valueInfo}) {
      if (tables_[table] != nullptr) scan(table);
    }
    compareNames();
    return records_;
  }

 private:
  struct Definition {
    int32_t type;
    uint32_t flags;
  };

  // That something is absent proves nothing in a table that was not read whole.
  bool isWhole(size_t table) const { return whole_[table]; }

  void scan(size_t table) {
    TableReader &reader = *tables_[table];
    bool decoded = true;
    DbmRecord raw;
    while (reader.next(&raw)) {
      DecodedRecord record(table, raw.bytes);
      if (record) {
        judge(table, record, raw);
      } else {
        decoded = false;
        findings_.add(Finding::undecodable, table, {{"key", shownKey(raw.key)}});
      }
    }
    records_ += reader.recordsRead();
    whole_[table] = decoded && reader.isComplete();
    if (reader.needsRecovery()) findings_.add(Finding::needsRecovery, table);
    const TableStructure &structure = reader.structure();
    if (!structure.isSound()) {
      findings_.add(Finding::damagedStructure, table, Json::object(), structure.detail);
    }
    if (!reader.isComplete()) {
      const auto counted = reader.count();
      findings_.add(Finding::unreached, table, Json::object(),
                    std::to_string(reader.recordsRead()) + " read of " +
                        (counted ? std::to_string(*counted) : "an unknown number"));
    }
    if (table == idKeeper && isWhole(table) && counter_ == 0)
      findings_.add(Finding::noCounter, table);
  }

  static std::string shownKey(std::string_view key) { return toHex(key.substr(0, 300)); }

  Json membersOf(size_t table, const DecodedRecord &record) {
    if (table == idKeeper) return Json::object();
    if (table == fieldInfo || table == enumInfo) return {{"field", record.fieldId}};
    Json members{{"object", record.objectId}, {"field", record.fieldId}};
    if (table != valueInfo) {
      members["name"] = record.name;
    } else if (const std::string name = nameOf(record.objectId); !name.empty()) {
      members["name"] = name;
    }
    return members;
  }

  // The first name that the object has in obj_info; empty when it has none. Not to be called while
  // a record of the name tables is in use, which lies where this one is decoded.
  std::string nameOf(uint32_t objectId) {
    for (const uint32_t fieldId : nameFields_) {
      if (std::string name = nameOf(objectId, fieldId); !name.empty()) return name;
    }
    return "";
  }

  std::string nameOf(uint32_t objectId, uint32_t fieldId) {
    if (tables_[objInfo] == nullptr) return "";
    const DecodedRecord record(objInfo, tables_[objInfo]->fetch(keyOf({objectId, fieldId})));
    return record ? record.name : "";
  }

  // With the name that the finding is about, if obj_info has it.
  Json membersOf(const NameEntry &entry) {
    Json members{{"object", entry.objectId}, {"field", entry.fieldId}};
    std::string name = nameOf(entry.objectId, entry.fieldId);
    if (name.empty()) name = nameOf(entry.objectId);
    if (!name.empty()) members["name"] = name;
    return members;
  }

  void judge(size_t table, DecodedRecord &record, const DbmRecord &raw) {
    const auto add = [&](Finding finding) {
      findings_.add(finding, table, membersOf(table, record));
    };
    const bool hasOwnKey = record.properKey() == raw.key;
    if (!hasOwnKey) {
      Json members = membersOf(table, record);
      members["key"] = shownKey(raw.key);
      findings_.add(Finding::wrongKey, table, members);
    }
    if (record.isCut) add(Finding::cutString);
    if (!record.isCut && record.encodedBytes() < raw.bytes.size()) add(Finding::trailingBytes);
    switch (table) {
      case idKeeper:
        if (hasOwnKey) counter_ = record.counter;
        break;
      case fieldInfo:
        judgeFieldName(record);
        definitions_.insert({record.fieldId, {record.type, record.flags}});
        if ((record.flags & nameFieldFlag) != 0) nameFields_.push_back(record.fieldId);
        if (record.type < Integer || record.type > Enumeration) add(Finding::unknownType);
        if (isBeyondCounter(record.fieldId)) add(Finding::idBeyondCounter);
        break;
      case nameInfo:
        index_.push_back(nameEntry(record));
        break;
      case enumInfo:
        constants_[record.fieldId] =
            static_cast<const dbEnumConstants *>(record.get())->constants->count;
        judgeField(table, record);
        break;
      case objInfo:
        names_.push_back(nameEntry(record));
        [[fallthrough]];
      default:
        if (isBeyondCounter(record.objectId)) add(Finding::idBeyondCounter);
        judgeField(table, record);
    }
  }

  void judgeFieldName(const DecodedRecord &record) {
    const char *name = static_cast<const dbFieldInfo *>(record.get())->fieldInfo->name;
    if (name != nullptr && !fieldNames_.insert(name).second) {
      findings_.add(Finding::sameFieldName, fieldInfo, {{"field", record.fieldId}, {"name", name}});
    }
  }

  // Every number that the value has is one of a constant.
  void judgeConstants(const DecodedRecord &record) {
    if (record.type != Enumeration || !isWhole(enumInfo)) return;
    const NQwFieldValue &value = *static_cast<const dbObjectValue *>(record.get())->value;
    const auto constants = constants_.find(record.fieldId);
    const uint32_t count = constants == constants_.end() ? 0 : constants->second;
    const auto isUnknown = [=](int32_t number) { return static_cast<uint32_t>(number) >= count; };
    if (std::ranges::any_of(numbersOf(value), isUnknown)) {
      findings_.add(Finding::unknownConstant, valueInfo, membersOf(valueInfo, record));
    }
  }

  void judgeField(size_t table, const DecodedRecord &record) {
    const auto add = [&](Finding finding) {
      findings_.add(finding, table, membersOf(table, record));
    };
    const auto definition = definitions_.find(record.fieldId);
    if (definition == definitions_.end()) {
      if (isWhole(fieldInfo)) add(Finding::unknownField);
      return;
    }
    if (definition->second.type != record.type) {
      add(Finding::wrongType);
    } else if (table != enumInfo) {
      const bool isName = (definition->second.flags & nameFieldFlag) != 0 && record.name != nullptr;
      if (isName != (table == objInfo)) add(Finding::wrongTable);
      if (table == valueInfo) judgeConstants(record);
    }
  }

  // True once for each id.
  bool isBeyondCounter(uint32_t id) {
    return counter_ != 0 && id >= counter_ && beyondCounter_.insert(id).second;
  }

  using NameRange =
      std::pair<std::vector<NameEntry>::const_iterator, std::vector<NameEntry>::const_iterator>;

  // Walks over what the two name tables say of each name.
  void compareNames() {
    const Phase phase("comparing the names");
    for (auto *entries : {&names_, &index_}) {
      std::sort(entries->begin(), entries->end());
      // Duplicates come from a record under a wrong key, already reported.
      entries->erase(std::unique(entries->begin(), entries->end()), entries->end());
    }
    auto name = names_.cbegin();
    auto entry = index_.cbegin();
    while (name != names_.end() || entry != index_.end()) {
      const uint64_t hash = std::min(name == names_.end() ? UINT64_MAX : name->hash,
                                     entry == index_.end() ? UINT64_MAX : entry->hash);
      const auto isOther = [hash](const NameEntry &each) { return each.hash != hash; };
      const NameRange objects{name, std::find_if(name, names_.cend(), isOther)};
      const NameRange entries{entry, std::find_if(entry, index_.cend(), isOther)};
      compareOneName(objects, entries);
      name = objects.second;
      entry = entries.second;
    }
  }

  // Of several objects with one name, name_info leads to one.
  void compareOneName(const NameRange &objects, const NameRange &entries) {
    auto owner = objects.first;
    for (auto entry = entries.first; entry != entries.second; ++entry) {
      const auto found = std::find(objects.first, objects.second, *entry);
      if (found != objects.second) {
        owner = found;
      } else if (isWhole(objInfo)) {
        findings_.add(Finding::strayIndex, nameInfo, membersOf(*entry));
      }
    }
    if (owner == objects.second) return;
    if (std::find(entries.first, entries.second, *owner) == entries.second && isWhole(nameInfo)) {
      findings_.add(Finding::unindexedName, objInfo, membersOf(*owner));
    }
    for (auto object = objects.first; object != objects.second; ++object) {
      if (object != owner) findings_.add(Finding::duplicateName, objInfo, membersOf(*object));
    }
  }

  TableReaders tables_;
  Findings &findings_;
  std::array<bool, tableCount> whole_{};
  uint64_t records_ = 0;
  uint32_t counter_ = 0;
  std::unordered_map<uint32_t, Definition> definitions_;
  std::unordered_set<std::string> fieldNames_;
  std::vector<uint32_t> nameFields_;
  std::unordered_map<uint32_t, uint32_t> constants_;  // how many a field has
  std::unordered_set<uint32_t> beyondCounter_;
  std::vector<NameEntry> names_;
  std::vector<NameEntry> index_;
};

ObjdbStatus checkDatabase(const VersionPath &database, bool json) {
  OpenFailures failures;
  TableReaders tables = openTables(database.path(), TableReader::Demand::lockedTable, &failures);
  Findings findings(json);
  for (size_t table = 0; table < tableCount; ++table) {
    if (tables[table] != nullptr) continue;
    if (failures[table].kind != OpenFailure::damaged) throw failures[table].asFailure();
    findings.add(Finding::unopened, table, Json::object(), failures[table].reason);
  }
  for (const Version &version : listVersions(database.directory)) {
    if (version.unfinished)
      findings.add(Finding::unfinishedVersion, {}, {{"version", version.name}});
  }
  const uint64_t records = Check(std::move(tables), &findings).run();
  findings.finish(records);
  return findings.total() == 0 ? objdbFine : objdbFindings;
}

ObjdbStatus runCheck(Options &options) {
  VersionPath database;
  bool json = false;
  options.version(&database);
  options.flag("--json", &json, "List the findings as lines of JSON");
  options.parse();
  return checkDatabase(database, json);
}

}  // namespace

const Command checkCommand{"check", "Look at every record and list what is wrong with the database",
                           "objdb check --version 22112026.231500", runCheck};
