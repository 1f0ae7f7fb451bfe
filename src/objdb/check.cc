// Looks at every record of a database for what a sweep, or the platform, would stumble over.

#include <algorithm>
#include <array>
#include <cstdio>
#include <optional>
#include <string>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include "objdb/commands.h"
#include "objdb/decoded_record.h"
#include "objdb/field_text.h"
#include "objdb/options.h"
#include "objdb/table_reader.h"
#include "records/codecs.h"
#include "store/versions.h"

namespace {

enum Kind : size_t {
  unfinishedVersion,
  unopened,
  damagedStructure,
  needsRecovery,
  unreached,
  undecodable,
  cutString,
  trailingBytes,
  wrongKey,
  noCounter,
  idBeyondCounter,
  unknownType,
  sameFieldName,
  unknownField,
  wrongType,
  unknownConstant,
  wrongTable,
  duplicateName,
  unindexedName,
  strayIndex,
  kindCount,
};

// Of the severities, "loss" says that records cannot be read or will be dropped, "refusal" that
// sweeps will not run, and "fault" that readers are misled.
constexpr struct {
  const char *name;
  const char *severity;
  const char *text;
  const char *cure;
} kinds[kindCount] = {
    {"unfinished-version", "refusal", "a run did not finish, and its previous tables are kept",
     "'objdb restore' brings them back; sweeps refuse until then"},
    {"unopened", "loss", "cannot be opened",
     "objdb(8) has a cure for each reason; if it is damage, restore an archived version, or take "
     "what 'objdb salvage' can still read"},
    {"damaged-structure", "loss", "the directory of the file is wrong, and hides records",
     "'objdb salvage' looks for hidden records; or restore an archived version"},
    {"needs-recovery", "loss", "the dbm library asks for a recovery of the table",
     "'objdb salvage' recovers it in a new version"},
    {"unreached", "loss", "a scan reads other records than the library counts",
     "'objdb salvage' looks for the missing ones; or restore an archived version"},
    {"undecodable", "loss", "the record cannot be decoded",
     "'objdb salvage' leaves it out; or restore an archived version"},
    {"cut-string", "loss", "a text has a NUL inside, and every reader stops there",
     "'objdb salvage' keeps the part before it"},
    {"trailing-bytes", "loss", "there are bytes after the end of the record, which nobody reads",
     "'objdb salvage' leaves them out, as a sweep does"},
    {"wrong-key", "fault", "the key is not the one of this record",
     "'objdb salvage' puts it under the right key, unless another record is there"},
    {"no-counter", "fault", "the id keeper has no counter, so that ids would be given out twice",
     "'objdb salvage' sets the counter above every id"},
    {"id-beyond-counter", "fault",
     "the id is not below the id keeper's counter, and would be given out again",
     "'objdb salvage' raises the counter"},
    {"unknown-type", "loss", "the field is defined with a type that does not exist",
     "'objdb salvage' leaves out the definition and its values"},
    {"same-field-name", "fault", "another field has the same name",
     "'objdb salvage' adds the field's id to its name"},
    {"unknown-field", "loss", "the field has no definition",
     "'objdb salvage' leaves it out, as a sweep does"},
    {"wrong-type", "fault", "the record has another type than its field",
     "'objdb salvage' leaves it out"},
    {"unknown-constant", "fault", "the enumeration has no constant with this number",
     "'objdb salvage' adds constants with names of its own"},
    {"wrong-table", "fault",
     "a name is in the table of the values, or a value in the table of the names",
     "'objdb salvage' moves it, as a sweep does"},
    {"duplicate-name", "fault", "another object has the same name",
     "rename one of the two; 'objdb salvage' adds the object's id to its name"},
    {"unindexed-name", "fault", "name_info does not lead from this name to the object",
     "'objdb salvage' makes name_info again, as a sweep does"},
    {"stray-index", "fault", "name_info leads to an object that does not have the name",
     "'objdb salvage' makes name_info again, as a sweep does"},
};

class Findings {
 public:
  explicit Findings(bool json) : json_(json) {}

  // A finding about a table, or about a record if members are given that tell which; or about a
  // whole version, if they tell that.
  void add(Kind kind, std::optional<size_t> table, const Json &members = Json::object(),
           const std::string &detail = "") {
    ++counts_[kind];
    Json line{{"finding", kinds[kind].name}, {"severity", kinds[kind].severity}};
    if (table) line["table"] = tableFormats[*table].name;
    line.update(members);
    line["text"] = kinds[kind].text + (detail.empty() ? "" : " (" + detail + ")");
    const ProgressPause pause;
    if (json_) {
      line["cure"] = kinds[kind].cure;
      puts(line.dump(-1, ' ', false, Json::error_handler_t::replace).c_str());
      return;
    }
    std::string where = table ? tableFormats[*table].name : "";
    for (const auto &[name, value] : members.items()) {
      where += (where.empty() ? "" : ", ") + name + " ";
      where += value.is_string() ? plainText(value.get<std::string>().c_str()) : value.dump();
    }
    printf("%s: %s: %s\n", kinds[kind].name, where.c_str(),
           line["text"].get<std::string>().c_str());
  }

  // The cures and the last line.
  void finish(uint64_t records) const {
    if (json_) {
      puts(Json{{"records", records}, {"findings", total()}}.dump().c_str());
      return;
    }
    for (size_t kind = 0; kind < kindCount; ++kind) {
      if (counts_[kind] != 0) printf("cure of %s: %s\n", kinds[kind].name, kinds[kind].cure);
    }
    printf("%llu records looked at, %llu findings\n", static_cast<unsigned long long>(records),
           static_cast<unsigned long long>(total()));
  }

  uint64_t total() const {
    uint64_t sum = 0;
    for (const uint64_t count : counts_) sum += count;
    return sum;
  }

 private:
  bool json_;
  std::array<uint64_t, kindCount> counts_{};
};

// A name as one of the two name tables has it: a hash of its field and characters, and the object.
struct NameEntry {
  uint64_t hash;
  uint32_t objectId;
  uint32_t fieldId;

  bool operator<(const NameEntry &other) const {
    return hash != other.hash ? hash < other.hash : objectId < other.objectId;
  }
  bool operator==(const NameEntry &other) const {
    return hash == other.hash && objectId == other.objectId;
  }
};

NameEntry nameEntry(const DecodedRecord &record) {
  uint64_t hash = 14695981039346656037u;
  const auto mix = [&hash](uint32_t part) { hash = (hash ^ part) * 1099511628211u; };
  mix(record.fieldId);
  for (const char *at = record.name; *at != '\0'; ++at) mix(static_cast<unsigned char>(*at));
  return {hash, record.objectId, record.fieldId};
}

class Check {
 public:
  Check(TableReaders tables, Findings *findings)
      : tables_(std::move(tables)), findings_(*findings) {}

  // Returns how many records were looked at.
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

  // An absence proves nothing in a table that was not read whole.
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
        findings_.add(undecodable, table, {{"key", shownKey(raw.key)}});
      }
    }
    records_ += reader.recordsRead();
    whole_[table] = decoded && reader.isComplete();
    if (reader.needsRecovery()) findings_.add(needsRecovery, table);
    const TableStructure &structure = reader.structure();
    if (!structure.isSound()) {
      findings_.add(damagedStructure, table, Json::object(), structure.detail);
    }
    if (!reader.isReadToEnd()) {
      const auto counted = reader.counted();
      findings_.add(unreached, table, Json::object(),
                    std::to_string(reader.recordsRead()) + " read of " +
                        (counted ? std::to_string(*counted) : "an unknown number"));
    }
    if (table == idKeeper && isWhole(table) && counter_ == 0) findings_.add(noCounter, table);
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
    const auto add = [&](Kind kind) { findings_.add(kind, table, membersOf(table, record)); };
    const bool hasOwnKey = record.properKey() == raw.key;
    if (!hasOwnKey) {
      Json members = membersOf(table, record);
      members["key"] = shownKey(raw.key);
      findings_.add(wrongKey, table, members);
    }
    if (record.isCut) add(cutString);
    if (!record.isCut && record.encodedBytes() < raw.bytes.size()) add(trailingBytes);
    switch (table) {
      case idKeeper:
        if (hasOwnKey) counter_ = record.counter;
        break;
      case fieldInfo:
        judgeFieldName(record);
        definitions_.insert({record.fieldId, {record.type, record.flags}});
        if ((record.flags & nameFieldFlag) != 0) nameFields_.push_back(record.fieldId);
        if (record.type < Integer || record.type > Enumeration) add(unknownType);
        if (isBeyondCounter(record.fieldId)) add(idBeyondCounter);
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
        if (isBeyondCounter(record.objectId)) add(idBeyondCounter);
        judgeField(table, record);
    }
  }

  void judgeFieldName(const DecodedRecord &record) {
    const char *name = static_cast<const dbFieldInfo *>(record.get())->fieldInfo->name;
    if (name != nullptr && !fieldNames_.insert(name).second) {
      findings_.add(sameFieldName, fieldInfo, {{"field", record.fieldId}, {"name", name}});
    }
  }

  // Every number that the value has is one of a constant.
  void judgeConstants(const DecodedRecord &record) {
    if (record.type != Enumeration || !isWhole(enumInfo)) return;
    const NQwFieldValue &value = *static_cast<const dbObjectValue *>(record.get())->value;
    const auto constants = constants_.find(record.fieldId);
    const auto count = constants == constants_.end() ? 0 : constants->second;
    bool known = true;
    if (value.isList == 0) {
      known = static_cast<uint32_t>(value.value.number) < count;
    } else {
      for (uint32_t i = 0; i < value.value.list->count; ++i) {
        known = known && static_cast<uint32_t>(value.value.list->entries[i].value.number) < count;
      }
    }
    if (!known) findings_.add(unknownConstant, valueInfo, membersOf(valueInfo, record));
  }

  void judgeField(size_t table, const DecodedRecord &record) {
    const auto add = [&](Kind kind) { findings_.add(kind, table, membersOf(table, record)); };
    const auto definition = definitions_.find(record.fieldId);
    if (definition == definitions_.end()) {
      if (isWhole(fieldInfo)) add(unknownField);
      return;
    }
    if (definition->second.type != record.type) {
      add(wrongType);
    } else if (table != enumInfo) {
      const bool isName = (definition->second.flags & nameFieldFlag) != 0 && record.name != nullptr;
      if (isName != (table == objInfo)) add(wrongTable);
      if (table == valueInfo) judgeConstants(record);
    }
  }

  // Once for each id.
  bool isBeyondCounter(uint32_t id) {
    return counter_ != 0 && id >= counter_ && beyondCounter_.insert(id).second;
  }

  // Walks over what the two name tables say of each name.
  void compareNames() {
    const Phase phase("comparing the names");
    for (auto *entries : {&names_, &index_}) {
      std::sort(entries->begin(), entries->end());
      // A second record of the same is one under a wrong key, which has been said.
      entries->erase(std::unique(entries->begin(), entries->end()), entries->end());
    }
    auto name = names_.begin();
    auto entry = index_.begin();
    while (name != names_.end() || entry != index_.end()) {
      const uint64_t hash =
          entry == index_.end() || (name != names_.end() && name->hash < entry->hash) ? name->hash
                                                                                      : entry->hash;
      const auto firstName = name;
      const auto firstEntry = entry;
      while (name != names_.end() && name->hash == hash) ++name;
      while (entry != index_.end() && entry->hash == hash) ++entry;
      compareOneName({firstName, name}, {firstEntry, entry});
    }
  }

  using NameRange =
      std::pair<std::vector<NameEntry>::const_iterator, std::vector<NameEntry>::const_iterator>;

  // Of several objects with one name, name_info leads to one.
  void compareOneName(const NameRange &objects, const NameRange &entries) {
    auto owner = objects.first;
    for (auto entry = entries.first; entry != entries.second; ++entry) {
      const auto found = std::find(objects.first, objects.second, *entry);
      if (found != objects.second) {
        owner = found;
      } else if (isWhole(objInfo)) {
        findings_.add(strayIndex, nameInfo, membersOf(*entry));
      }
    }
    if (owner == objects.second) return;
    if (std::find(entries.first, entries.second, *owner) == entries.second && isWhole(nameInfo)) {
      findings_.add(unindexedName, objInfo, membersOf(*owner));
    }
    for (auto object = objects.first; object != objects.second; ++object) {
      if (object != owner) findings_.add(duplicateName, objInfo, membersOf(*object));
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
    findings.add(unopened, table, Json::object(), failures[table].reason);
  }
  for (const Version &version : listVersions(database.directory)) {
    if (version.unfinished) findings.add(unfinishedVersion, {}, {{"version", version.name}});
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
