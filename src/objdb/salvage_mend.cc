#include "objdb/salvage_mend.h"

#include <algorithm>
#include <cstring>
#include <iterator>
#include <set>
#include <utility>

#include "objdb/record_lines.h"
#include "objdb/survey.h"

namespace {

// A number beyond that cannot be a constant's, since the record could not be stored.
constexpr auto mostConstants = static_cast<int32_t>(mostEnumConstants);

struct Definition {
  int32_t type;
  uint32_t flags;
};

std::string encodedDefinition(uint32_t fieldId, std::string name, int32_t type, uint32_t flags) {
  NQwFieldInfo info{fieldId, name.data(), type, flags};
  const dbFieldInfo record{&info};
  return encodedRecord(fieldInfo, &record);
}

std::string encodedName(uint32_t objectId, uint32_t fieldId, const std::string &name) {
  dbObject record{objectId, fieldId, {}};
  memcpy(record.name, name.c_str(), name.size() + 1);
  return encodedRecord(objInfo, &record);
}

std::string encodedValue(uint32_t objectId, uint32_t fieldId, const char *text) {
  NQwFieldValue value{0, String, {}, 0};
  value.value.string = const_cast<char *>(text);
  const dbObjectValue record{objectId, fieldId, &value};
  return encodedRecord(valueInfo, &record);
}

uint32_t firstWord(const std::string &key) {
  uint32_t word = 0;
  memcpy(&word, key.data(), sizeof word);
  return word;
}

// The name with the id after it, and a number where even that is taken; within the limit of a name.
// `take` says whether a name is free, and takes it.
template <typename Take>
std::string nameWithId(const std::string &name, uint32_t id, Take take) {
  for (int attempt = 0;; ++attempt) {
    std::string addition = "#" + std::to_string(id);
    if (attempt > 0) addition += "-" + std::to_string(attempt);
    std::string other = name.substr(0, longestString - addition.size()) + addition;
    if (take(other)) return other;
  }
}

// The key in name_info of a record of either name table.
std::string nameKey(const DecodedRecord &record) {
  return keyOf({record.fieldId}) + record.name;
}

class Mending {
 public:
  explicit Mending(SalvagedTables *tables) : tables_(*tables) {}

  void mendDefinitions(const Records &predefined) {
    TableTally &tally = tables_[fieldInfo].tally;
    Records &records = tables_[fieldInfo].records;
    const size_t found = records.size();
    if (tally.isIncomplete()) records.insert(predefined.begin(), predefined.end());
    for (auto at = records.begin(); at != records.end();) {
      const DecodedRecord record(fieldInfo, at->second);
      const bool isKnown = record.type >= Integer && record.type <= Enumeration;
      if (isKnown) {
        definitions_[record.fieldId] = {record.type, record.flags};
        makeFieldNameUnique(record, &at->second);
      } else {
        ++tally.unknownType;
        tables_.lose(fieldInfo, "has an unknown type", record);
      }
      at = isKnown ? std::next(at) : records.erase(at);
    }
    if (!tally.isIncomplete()) return;
    defineByValues();
    tally.rebuilt = records.size() + tally.unknownType - found;
  }

  void mendValues() {
    for (const size_t table : {objInfo, valueInfo}) {
      const size_t other = table == objInfo ? valueInfo : objInfo;
      Records &records = tables_[table].records;
      for (auto at = records.begin(); at != records.end();) {
        const DecodedRecord record(table, at->second);
        bool stays = hasField(table, record);
        const bool isName = isNameField(record.fieldId) && record.name != nullptr;
        if (stays && isName != (table == objInfo)) {
          stays = false;
          const std::string bytes =
              isName ? encodedName(record.objectId, record.fieldId, record.name)
                     : encodedValue(record.objectId, record.fieldId, record.name);
          const bool isNew = tables_[other].records.try_emplace(at->first, bytes).second;
          ++(isNew ? tables_[table].tally.moved : tables_[table].tally.displaced);
          if (!isNew) tables_.lose(table, "another record has its key", record);
        }
        at = stays ? std::next(at) : records.erase(at);
      }
    }
  }

  void mendNames() {
    NameOwners owners = findOwners();
    if (tables_[objInfo].tally.isIncomplete()) restoreLostNames(&owners);
    for (auto &[key, bytes] : tables_[objInfo].records) makeNameUnique(&owners, &bytes);
    rebuildNameIndex();
  }

  void mendConstants() {
    std::erase_if(tables_[enumInfo].records, [this](const auto &each) {
      return !hasField(enumInfo, DecodedRecord(enumInfo, each.second));
    });
    std::map<uint32_t, uint32_t> needed;  // how many constants, by field
    Records &values = tables_[valueInfo].records;
    for (auto at = values.begin(); at != values.end();) {
      const DecodedRecord record(valueInfo, at->second);
      const bool fits = record.type != Enumeration || noteConstants(record, &needed);
      if (!fits) {
        ++tables_[valueInfo].tally.wrongType;
        tables_.lose(valueInfo, "its enumeration cannot have its number", record);
      }
      at = fits ? std::next(at) : values.erase(at);
    }
    for (const auto &[fieldId, count] : needed) addConstants(fieldId, count);
  }

  void mendCounter() {
    uint32_t highest = 0;
    for (const size_t table : {fieldInfo, objInfo, valueInfo}) {
      for (const auto &[key, bytes] : tables_[table].records) {
        highest = std::max(highest, firstWord(key));
      }
    }
    const uint32_t lowestFree = lowestCounter(highest);
    std::string &bytes = tables_[idKeeper].records[keyOf({0})];
    const uint32_t counter = bytes.empty() ? 0 : DecodedRecord(idKeeper, bytes).counter;
    if (counter >= lowestFree) return;
    bytes = encodedRecord(idKeeper, &lowestFree);
    ++tables_[idKeeper].tally.rebuilt;
  }

 private:
  // The object that keeps each name, by the name's key in name_info.
  using NameOwners = std::map<std::string, uint32_t>;

  // Of several fields with one name the one with the lowest key keeps it.
  void makeFieldNameUnique(const DecodedRecord &record, std::string *bytes) {
    const NQwFieldInfo &field = *static_cast<const dbFieldInfo *>(record.get())->fieldInfo;
    if (field.name == nullptr || fieldNames_.insert(field.name).second) return;
    const std::string name = nameWithId(field.name, field.fieldId, [this](const auto &other) {
      return fieldNames_.insert(other).second;
    });
    *bytes = encodedDefinition(field.fieldId, name, field.type, field.flags);
    ++tables_[fieldInfo].tally.renamed;
    tables_.lose(fieldInfo, "its name, which another field has", record);
  }

  // Defines every field that has records and no definition. The name tables come first: whether a
  // field is a name field shows there alone.
  void defineByValues() {
    for (const size_t table : {objInfo, nameInfo, valueInfo, enumInfo}) {
      const uint32_t flags = table == objInfo || table == nameInfo ? nameFieldFlag : 0;
      for (const auto &[key, bytes] : tables_[table].records) {
        const DecodedRecord record(table, bytes);
        if (!definitions_.try_emplace(record.fieldId, Definition{record.type, flags}).second) {
          continue;
        }
        tables_[fieldInfo].records[keyOf({record.fieldId})] =
            encodedDefinition(record.fieldId, "recovered field " + std::to_string(record.fieldId),
                              record.type, flags);
      }
    }
  }

  bool isNameField(uint32_t fieldId) const {
    const auto definition = definitions_.find(fieldId);
    return definition != definitions_.end() && definition->second.type == String &&
           (definition->second.flags & nameFieldFlag) != 0;
  }

  // Whether a record's field is known and of its type; counted when not.
  bool hasField(size_t table, const DecodedRecord &record) {
    const auto definition = definitions_.find(record.fieldId);
    if (definition == definitions_.end()) {
      ++tables_[table].tally.unknownField;
      tables_.lose(table, "its field has no definition", record);
    } else if (definition->second.type != record.type) {
      ++tables_[table].tally.wrongType;
      tables_.lose(table, "has another type than its field", record);
    } else {
      return true;
    }
    return false;
  }

  // Of several objects with one name the one that name_info leads to keeps it, else the one with
  // the lowest key.
  NameOwners findOwners() {
    NameOwners owners;
    const Records &names = tables_[objInfo].records;
    for (const auto &[key, bytes] : tables_[nameInfo].records) {
      const DecodedRecord entry(nameInfo, bytes);
      const uint32_t objectId = entry.objectId;
      const auto named = names.find(keyOf({objectId, entry.fieldId}));
      if (named == names.end()) continue;
      if (nameKey(DecodedRecord(objInfo, named->second)) == key) owners[key] = objectId;
    }
    for (const auto &[key, bytes] : names) {
      const DecodedRecord record(objInfo, bytes);
      owners.try_emplace(nameKey(record), record.objectId);
    }
    return owners;
  }

  // The entries of name_info whose obj_info record is missing become that record, as long as no
  // other object has the name. Ordered by the key that they get, so that of two names of an object
  // under one field the same one comes back each time.
  void restoreLostNames(NameOwners *owners) {
    Records &names = tables_[objInfo].records;
    Records orphans;
    for (const auto &[key, bytes] : tables_[nameInfo].records) {
      const DecodedRecord entry(nameInfo, bytes);
      const std::string objectKey = keyOf({entry.objectId, entry.fieldId});
      if (isNameField(entry.fieldId) && !names.contains(objectKey)) {
        orphans.emplace(objectKey, bytes);
      }
    }
    for (const auto &[key, bytes] : orphans) {
      const DecodedRecord entry(nameInfo, bytes);
      if (!owners->try_emplace(nameKey(entry), entry.objectId).second) continue;
      names.emplace(key, bytes);
      ++tables_[objInfo].tally.rebuilt;
    }
  }

  // Adds the object's id to a name that another object keeps.
  void makeNameUnique(NameOwners *owners, std::string *bytes) {
    const DecodedRecord record(objInfo, *bytes);
    if (owners->at(nameKey(record)) == record.objectId) return;
    const std::string name = nameWithId(record.name, record.objectId, [&](const auto &other) {
      return owners->try_emplace(keyOf({record.fieldId}) + other, record.objectId).second;
    });
    *bytes = encodedName(record.objectId, record.fieldId, name);
    ++tables_[objInfo].tally.renamed;
    tables_.lose(objInfo, "its name, which another object has", record);
  }

  // The two name tables have the same records under different keys.
  void rebuildNameIndex() {
    Records &index = tables_[nameInfo].records;
    Records rebuilt;
    for (const auto &[key, bytes] : tables_[objInfo].records) {
      const std::string indexKey = nameKey(DecodedRecord(objInfo, bytes));
      const auto known = index.find(indexKey);
      if (known == index.end() || known->second != bytes) ++tables_[nameInfo].tally.rebuilt;
      rebuilt.emplace(indexKey, bytes);
    }
    index = std::move(rebuilt);
  }

  // How many constants the field of the value needs. False when it cannot have so many.
  static bool noteConstants(const DecodedRecord &record, std::map<uint32_t, uint32_t> *needed) {
    const NQwFieldValue &value = *static_cast<const dbObjectValue *>(record.get())->value;
    uint32_t most = 0;
    for (const int32_t number : numbersOf(value)) {
      if (number < 0 || number >= mostConstants) return false;
      most = std::max(most, static_cast<uint32_t>(number) + 1);
    }
    if (most == 0) return true;
    uint32_t &count = (*needed)[record.fieldId];
    count = std::max(count, most);
    return true;
  }

  void addConstants(uint32_t fieldId, uint32_t count) {
    std::string &bytes = tables_[enumInfo].records[keyOf({fieldId})];
    std::vector<std::string> names;
    if (!bytes.empty()) {
      const DecodedRecord record(enumInfo, bytes);
      const enumConstants *known = static_cast<const dbEnumConstants *>(record.get())->constants;
      names.assign(known->names, known->names + known->count);
      if (names.size() >= count) return;
    }
    while (names.size() < count) {
      names.push_back("recovered constant " + std::to_string(names.size()));
    }
    std::vector<char *> pointers;
    pointers.reserve(names.size());
    for (std::string &name : names) pointers.push_back(name.data());
    enumConstants constants{static_cast<uint32_t>(pointers.size()), pointers.data()};
    const dbEnumConstants record{fieldId, &constants};
    bytes = encodedRecord(enumInfo, &record);
    ++tables_[enumInfo].tally.rebuilt;
  }

  SalvagedTables &tables_;
  std::set<std::string> fieldNames_;
  std::map<uint32_t, Definition> definitions_;
};

}  // namespace

void mendTables(SalvagedTables *tables, const Records &predefinedFields) {
  Mending mending(tables);
  mending.mendDefinitions(predefinedFields);
  mending.mendValues();
  mending.mendNames();
  mending.mendConstants();
  mending.mendCounter();
}
