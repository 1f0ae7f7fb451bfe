// A new version of whatever can still be read of a damaged one.

#include <fcntl.h>
#include <gdbm.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <map>
#include <set>

#include "objdb/changes.h"
#include "objdb/commands.h"
#include "objdb/decoded_record.h"
#include "objdb/hidden_records.h"
#include "objdb/options.h"
#include "objdb/table_reader.h"
#include "objdb/table_writer.h"
#include "platform/files.h"
#include "records/codecs.h"
#include "store/id_keeper.h"
#include "store/versions.h"

namespace {

namespace fs = std::filesystem;

// Key to bytes, in memory as a whole: the tables mend each other.
using Records = std::map<std::string, std::string>;

constexpr char recoveryName[] = "recovery";
constexpr int32_t mostConstants = 2000;  // of an enumeration that can be stored

// What happened to the records of a table. The second part was lost by it.
struct Account {
  std::optional<uint64_t> counted;  // by the library
  uint64_t read = 0;
  uint64_t moved = 0;    // to the key or the table where they belong
  uint64_t rebuilt = 0;  // made again from other tables
  uint64_t hidden = 0;   // of those read: in blocks that nothing leads to
  bool damaged = false;  // in its structure: what was hidden may not all have been found

  uint64_t undecodable = 0;
  uint64_t unknownField = 0;
  uint64_t unknownType = 0;
  uint64_t wrongType = 0;
  uint64_t displaced = 0;  // by another record that has the key
  uint64_t cut = 0;
  uint64_t renamed = 0;

  uint64_t unread() const { return counted.value_or(0) > read ? *counted - read : 0; }
  // Whether records may be missing, so that other tables may have to fill in for them.
  bool isIncomplete() const { return !counted || unread() != 0 || undecodable != 0 || damaged; }
  bool hasLoss() const {
    return isIncomplete() ||
           unknownField + unknownType + wrongType + displaced + cut + renamed != 0;
  }
};

// What became of a record that is not as it was, with the ids that are known of it.
struct Loss {
  const char *what;
  std::optional<uint32_t> object;
  std::optional<uint32_t> field;
  std::string key;
};

struct Definition {
  int32_t type;
  uint32_t flags;
};

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

class Salvage {
 public:
  explicit Salvage(std::string source) : source_(std::move(source)) {}

  // Reads the version, mends what it has read and makes the tables in the directory.
  bool fill(const std::string &directory, std::string *error) {
    for (size_t table = 0; table < tableCount; ++table) collect(table, directory);
    if (readTables_ == 0) {
      *error = "nothing can be read in \"" + source_ + "\"";
      return false;
    }
    mendDefinitions(directory);
    mendValues();
    mendNames();
    mendConstants();
    mendCounter();
    for (size_t table = 0; table < tableCount; ++table) {
      const RecordViews records(records_[table].begin(), records_[table].end());
      if (writeTable(directory, table, records)) continue;
      return failAttempt("write", tableFile(table, pageSuffix), error);
    }
    return true;
  }

  // Says what was lost; true when anything was.
  bool report(bool json) const {
    bool lost = false;
    for (size_t table = 0; table < tableCount; ++table) {
      const Account &account = accounts_[table];
      std::string text;
      const auto add = [&text](uint64_t count, const char *what) {
        if (count != 0) text += (text.empty() ? "" : ", ") + std::to_string(count) + what;
      };
      if (!account.counted) {
        text = std::to_string(account.read) + " records read of an unknown number";
      } else if (account.unread() != 0) {
        text =
            std::to_string(account.read) + " records read of " + std::to_string(*account.counted);
      }
      if (account.damaged) text += (text.empty() ? "" : ", ") + std::string("damaged structure");
      add(account.hidden, " found in blocks that nothing leads to");
      add(account.undecodable, " cannot be decoded");
      add(account.unknownType, " of an unknown type left out");
      add(account.unknownField, " of unknown fields left out");
      add(account.wrongType, " with another type than their field left out");
      add(account.displaced, " left out because another record has their key");
      add(account.cut, " cut at a NUL or at their end");
      add(account.renamed, " renamed because another has the name");
      add(account.moved, " moved to the right key or table");
      add(account.rebuilt, " made again");
      if (!text.empty()) fprintf(stderr, "objdb: %s: %s\n", tableFormats[table].name, text.c_str());
      if (table == nameInfo) continue;  // which is made again from what is left
      for (const Loss &loss : losses_[table]) print(table, loss, json);
      lost = lost || (table != nameInfo && account.hasLoss());
    }
    return lost;
  }

 private:
  // One line for each record: as JSON for scripts, else among the messages.
  static void print(size_t table, const Loss &loss, bool json) {
    Json line{{"lost", loss.what}, {"table", tableFormats[table].name}};
    if (loss.object) line["object"] = *loss.object;
    if (loss.field) line["field"] = *loss.field;
    if (!loss.key.empty()) line["key"] = toHex(loss.key.substr(0, 300));
    const std::string text = line.dump();
    if (json) {
      puts(text.c_str());
    } else {
      fprintf(stderr, "objdb: lost: %s\n", text.c_str());
    }
  }

  void lose(size_t table, const char *what, const DecodedRecord &record) {
    const bool hasObject = table == objInfo || table == valueInfo || table == nameInfo;
    losses_[table].push_back(
        {what, hasObject ? std::optional(record.objectId) : std::nullopt, record.fieldId, ""});
  }

  // The key tells the ids where the record does not.
  void loseByKey(size_t table, const char *what, const std::string &key) {
    Loss loss{what, {}, {}, key};
    uint32_t words[2] = {};
    const size_t length = key.copy(reinterpret_cast<char *>(words), sizeof words);
    const bool hasObject = table == objInfo || table == valueInfo;
    if (hasObject && length == sizeof words) {
      loss.object = words[0];
      loss.field = words[1];
    } else if (!hasObject && table != idKeeper && length >= sizeof words[0]) {
      loss.field = words[0];
    }
    losses_[table].push_back(loss);
  }

  struct Stray {
    std::string key;
    std::string bytes;
    bool isCut;
  };

  // Every record of the table that decodes, from a scan and, where that does not read as many as
  // the library counts, from what the library recovers of a copy. Records under their own key come
  // before those under a wrong one.
  void collect(size_t table, const std::string &directory) {
    const char *name = tableFormats[table].name;
    Account &account = accounts_[table];
    std::set<std::string> undecodable;
    std::vector<Stray> strays;
    OpenFailure failure;
    const auto reader = TableReader::open(source_, table, TableReader::Demand::pageFile, &failure);
    if (reader == nullptr) {
      fprintf(stderr, "objdb: %s\n", failure.reason.c_str());
    } else {
      ++readTables_;
      take(table, *reader, &undecodable, &strays);
      account.counted = reader->counted();
      account.damaged = !reader->structure().isSound();
      if (!reader->isComplete() || reader->needsRecovery()) {
        takeHidden(table, reader->fd(), &undecodable);
        const auto copy = openRecovered(source_ + "/" + name + ".pag", directory);
        if (copy != nullptr) take(table, *copy, &undecodable, &strays);
        removeRecovery(directory);
      }
    }
    const uint64_t inPlace = records_[table].size();
    for (const Stray &stray : strays) {
      const auto [place, isNew] = records_[table].try_emplace(stray.key, stray.bytes);
      if (isNew) ++account.moved;
      if (isNew && stray.isCut) ++account.cut;
      if (!isNew && place->second != stray.bytes) {
        ++account.displaced;
        loseByKey(table, "another record has its key", stray.key);
      }
    }
    for (const std::string &key : undecodable) {
      if (records_[table].contains(key)) continue;
      ++account.undecodable;
      loseByKey(table, "cannot be decoded", key);
    }
    account.read = inPlace + account.moved + account.displaced + account.undecodable;
  }

  void take(size_t table, TableReader &reader, std::set<std::string> *undecodable,
            std::vector<Stray> *strays) {
    DbmRecord raw;
    while (reader.next(&raw)) {
      DecodedRecord record(table, raw.bytes);
      if (!record) {
        undecodable->emplace(raw.key);
        continue;
      }
      const bool isCut = record.isCut || record.encodedBytes() < raw.bytes.size();
      const std::string key(record.properKey());
      std::string bytes(isCut ? record.encoding() : raw.bytes);
      if (key != raw.key) {
        strays->push_back({key, std::move(bytes), isCut});
      } else if (records_[table].try_emplace(key, std::move(bytes)).second && isCut) {
        ++accounts_[table].cut;
        lose(table, "what is after its end or a NUL", record);
      }
    }
  }

  // A record that was read otherwise is younger than one that nothing leads to.
  void takeHidden(size_t table, int fd, std::set<std::string> *undecodable) {
    forEachHiddenRecord(fd, [&](const std::string &rawKey, const std::string &rawBytes) {
      DecodedRecord record(table, rawBytes);
      if (!record) {
        undecodable->insert(rawKey);
      } else if (record.properKey() == rawKey && !record.isCut &&
                 records_[table].try_emplace(rawKey, rawBytes).second) {
        ++accounts_[table].hidden;
      }
    });
  }

  // A copy of the file as the library recovers it; null when it cannot.
  static std::unique_ptr<TableReader> openRecovered(const std::string &pages,
                                                    const std::string &directory) {
    const std::string name = std::string(recoveryName) + pageSuffix;
    const std::string copy = pathIn(directory, name);
    const Descriptor source(openRegular(pages, O_RDONLY));
    const Descriptor target(open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!source.isOpen() || copyFileSynced(source.get(), target.get(), name) != 0) return nullptr;
    constexpr int flags = GDBM_WRITER | GDBM_NOLOCK | GDBM_CLOEXEC;
    GDBM_FILE file = gdbm_open(copy.c_str(), 0, flags, 0, nullptr);
    if (file == nullptr) return nullptr;
    gdbm_recovery unlimited{};
    gdbm_recover(file, &unlimited, GDBM_RCVR_FORCE);
    gdbm_close(file);
    OpenFailure ignored;
    return TableReader::openNamed(directory, recoveryName, TableReader::Demand::pageFile, &ignored);
  }

  // The copy, and what the library has left beside it.
  static void removeRecovery(const std::string &directory) {
    for (const auto &entry : fs::directory_iterator(directory)) {
      if (entry.path().filename().string().starts_with(recoveryName)) fs::remove(entry.path());
    }
  }

  // Definitions of the four types. Where definitions were lost, those that every database starts
  // with come back, and any other field is defined by the values that it has: they would be lost
  // with it.
  void mendDefinitions(const std::string &directory) {
    Account &account = accounts_[fieldInfo];
    Records &records = records_[fieldInfo];
    const size_t found = records.size();
    if (account.isIncomplete()) takePredefined(directory);
    for (auto at = records.begin(); at != records.end();) {
      const DecodedRecord record(fieldInfo, at->second);
      const bool isKnown = record.type >= Integer && record.type <= Enumeration;
      if (isKnown) {
        definitions_[record.fieldId] = {record.type, record.flags};
        makeNameUnique(record, &at->second);
      } else {
        ++account.unknownType;
        lose(fieldInfo, "has an unknown type", record);
      }
      at = isKnown ? std::next(at) : records.erase(at);
    }
    if (!account.isIncomplete()) return;
    for (const size_t table : {objInfo, nameInfo, valueInfo, enumInfo}) {
      for (const auto &[key, bytes] : records_[table]) {
        const DecodedRecord record(table, bytes);
        const uint32_t flags = table == objInfo || table == nameInfo ? nameFieldFlag : 0;
        if (!definitions_.try_emplace(record.fieldId, Definition{record.type, flags}).second) {
          continue;
        }
        std::string name = "recovered field " + std::to_string(record.fieldId);
        NQwFieldInfo info{record.fieldId, name.data(), record.type, flags};
        const dbFieldInfo definition{&info};
        records[keyOf({record.fieldId})] = encodedRecord(fieldInfo, &definition);
      }
    }
    account.rebuilt = records.size() + account.unknownType - found;
  }

  // One field for each name: of several the one with the lowest key keeps it.
  void makeNameUnique(const DecodedRecord &record, std::string *bytes) {
    const NQwFieldInfo &field = *static_cast<const dbFieldInfo *>(record.get())->fieldInfo;
    if (field.name == nullptr || fieldNames_.insert(field.name).second) return;
    const std::string addition = "#" + std::to_string(field.fieldId);
    std::string name = std::string(field.name).substr(0, longestString - addition.size());
    name += addition;
    fieldNames_.insert(name);
    NQwFieldInfo renamed{field.fieldId, name.data(), field.type, field.flags};
    const dbFieldInfo definition{&renamed};
    *bytes = encodedRecord(fieldInfo, &definition);
    ++accounts_[fieldInfo].renamed;
    lose(fieldInfo, "its name, which another field has", record);
  }

  void takePredefined(const std::string &directory) {
    ObjectDatabase seeded{};
    seeded.fieldInfoDb = _NQ_dbm_db_open(directory.c_str(), recoveryName, O_RDWR | O_CREAT, 0600,
                                         decodeDbFieldInfo, encodeDbFieldInfo);
    if (seeded.fieldInfoDb != nullptr) {
      initPredefinedFields(&seeded);
      _NQ_dbm_db_close(seeded.fieldInfoDb);
      OpenFailure ignored;
      const auto reader =
          TableReader::openNamed(directory, recoveryName, TableReader::Demand::pageFile, &ignored);
      std::set<std::string> none;
      std::vector<Stray> noStrays;
      if (reader != nullptr) take(fieldInfo, *reader, &none, &noStrays);
    }
    removeRecovery(directory);
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
      ++accounts_[table].unknownField;
      lose(table, "its field has no definition", record);
    } else if (definition->second.type != record.type) {
      ++accounts_[table].wrongType;
      lose(table, "has another type than its field", record);
    } else {
      return true;
    }
    return false;
  }

  // Drops what has no field, and moves names and values to the table of their kind.
  void mendValues() {
    for (const size_t table : {objInfo, valueInfo}) {
      const size_t other = table == objInfo ? valueInfo : objInfo;
      for (auto at = records_[table].begin(); at != records_[table].end();) {
        const DecodedRecord record(table, at->second);
        bool stays = hasField(table, record);
        const bool isName = isNameField(record.fieldId) && record.name != nullptr;
        if (stays && isName != (table == objInfo)) {
          stays = false;
          const std::string bytes =
              isName ? encodedName(record.objectId, record.fieldId, record.name)
                     : encodedValue(record.objectId, record.fieldId, record.name);
          const bool isNew = records_[other].try_emplace(at->first, bytes).second;
          ++(isNew ? accounts_[table].moved : accounts_[table].displaced);
          if (!isNew) lose(table, "another record has its key", record);
        }
        at = stays ? std::next(at) : records_[table].erase(at);
      }
    }
  }

  static std::string nameKey(const DecodedRecord &record) {
    return keyOf({record.fieldId}) + record.name;
  }

  // One object for each name, and name_info from that. Names of lost records come back from
  // name_info.
  void mendNames() {
    Records &names = records_[objInfo];
    std::map<std::string, uint32_t> owners;
    Records orphans;
    for (const auto &[key, bytes] : records_[nameInfo]) {
      const DecodedRecord entry(nameInfo, bytes);
      const std::string objectKey = keyOf({entry.objectId, entry.fieldId});
      const auto named = names.find(objectKey);
      if (named == names.end()) {
        if (isNameField(entry.fieldId)) orphans.emplace(objectKey, bytes);
      } else if (nameKey(DecodedRecord(objInfo, named->second)) == key) {
        owners[key] = entry.objectId;
      }
    }
    for (const auto &[key, bytes] : names) {
      const DecodedRecord record(objInfo, bytes);
      owners.try_emplace(nameKey(record), record.objectId);
    }
    for (const auto &[key, bytes] : orphans) {
      const DecodedRecord entry(nameInfo, bytes);
      if (accounts_[objInfo].isIncomplete() &&
          owners.try_emplace(nameKey(entry), entry.objectId).second) {
        names.emplace(key, bytes);
        ++accounts_[objInfo].rebuilt;
      }
    }
    Records index;
    for (auto &[key, bytes] : names) {
      const DecodedRecord record(objInfo, bytes);
      const std::string name = record.name;
      const uint32_t objectId = record.objectId;
      const uint32_t fieldId = record.fieldId;
      std::string nameInIndex = nameKey(record);
      for (int attempt = 0; owners.at(nameInIndex) != objectId; ++attempt) {
        std::string addition = "#" + std::to_string(objectId);
        if (attempt > 0) addition += "-" + std::to_string(attempt);
        const std::string other = name.substr(0, longestString - addition.size()) + addition;
        nameInIndex = keyOf({fieldId}) + other;
        if (!owners.try_emplace(nameInIndex, objectId).second) continue;
        bytes = encodedName(objectId, fieldId, other);
        ++accounts_[objInfo].renamed;
        losses_[objInfo].push_back({"its name, which another object has", objectId, fieldId, ""});
      }
      const auto known = records_[nameInfo].find(nameInIndex);
      if (known == records_[nameInfo].end() || known->second != bytes) {
        ++accounts_[nameInfo].rebuilt;
      }
      index.emplace(nameInIndex, bytes);
    }
    records_[nameInfo] = std::move(index);
  }

  // A constant for every number that a value has, as far as an enumeration may have so many.
  void mendConstants() {
    std::erase_if(records_[enumInfo], [this](const auto &each) {
      return !hasField(enumInfo, DecodedRecord(enumInfo, each.second));
    });
    std::map<uint32_t, uint32_t> needed;
    for (auto at = records_[valueInfo].begin(); at != records_[valueInfo].end();) {
      const DecodedRecord record(valueInfo, at->second);
      const bool fits = record.type != Enumeration || noteConstants(record, &needed);
      if (!fits) {
        ++accounts_[valueInfo].wrongType;
        lose(valueInfo, "its enumeration cannot have its number", record);
      }
      at = fits ? std::next(at) : records_[valueInfo].erase(at);
    }
    for (const auto &[fieldId, count] : needed) addConstants(fieldId, count);
  }

  // How many constants the field of the value needs. False when it cannot have so many.
  static bool noteConstants(const DecodedRecord &record, std::map<uint32_t, uint32_t> *needed) {
    const NQwFieldValue &value = *static_cast<const dbObjectValue *>(record.get())->value;
    std::vector<int32_t> numbers;
    if (value.isList == 0) {
      numbers.push_back(value.value.number);
    } else {
      for (uint32_t i = 0; i < value.value.list->count; ++i) {
        numbers.push_back(value.value.list->entries[i].value.number);
      }
    }
    uint32_t most = 0;
    for (const int32_t number : numbers) {
      if (number < 0 || number >= mostConstants) return false;
      most = std::max(most, static_cast<uint32_t>(number) + 1);
    }
    if (most == 0) return true;
    uint32_t &count = (*needed)[record.fieldId];
    count = std::max(count, most);
    return true;
  }

  void addConstants(uint32_t fieldId, uint32_t count) {
    std::string &bytes = records_[enumInfo][keyOf({fieldId})];
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
    ++accounts_[enumInfo].rebuilt;
  }

  // The counter is above every id, as far as there are numbers.
  void mendCounter() {
    uint32_t highest = 0;
    for (const size_t table : {fieldInfo, objInfo, valueInfo}) {
      for (const auto &[key, bytes] : records_[table]) highest = std::max(highest, firstWord(key));
    }
    const uint32_t lowestFree = highest == UINT32_MAX ? highest : highest + 1;
    std::string &bytes = records_[idKeeper][keyOf({0})];
    const uint32_t counter = bytes.empty() ? 0 : DecodedRecord(idKeeper, bytes).counter;
    if (counter >= lowestFree) return;
    bytes = encodedRecord(idKeeper, &lowestFree);
    ++accounts_[idKeeper].rebuilt;
  }

  std::string source_;
  int readTables_ = 0;
  std::array<Records, tableCount> records_;
  std::array<Account, tableCount> accounts_;
  std::array<std::vector<Loss>, tableCount> losses_;
  std::set<std::string> fieldNames_;
  std::map<uint32_t, Definition> definitions_;
};

ObjdbStatus salvageVersion(const std::string &directory, const std::string &name, bool json) {
  const auto fail = [](const std::string &why) -> ObjdbStatus {
    throw CommandFailure(why + "; nothing was changed");
  };
  const std::string source = directory + "/" + name;
  if (name.find('/') != std::string::npos || access(source.c_str(), F_OK) != 0) {
    return fail("no version \"" + name + "\" in \"" + directory + "\"");
  }
  std::string error;
  const auto lock = lockOrFail(source);
  removeLeftovers(directory);
  umask(0);  // the platform's daemons share the tables, and run as any user
  Salvage salvage(source);
  Version made;
  const auto fill = [&salvage](WorkDirectory *work, std::string *why) {
    return salvage.fill(work->path(), why);
  };
  if (!makeVersion(directory, fill, &made, &error)) return fail(error);
  puts(json ? Json{{"version", made.name}}.dump().c_str() : made.name.c_str());
  return salvage.report(json) ? objdbFindings : objdbFine;
}

ObjdbStatus runSalvage(Options &options) {
  VersionPath database;
  options.directory(&database);
  options.argument("VERSION", &database.name, "The version, or \"current\"");
  bool json = false;
  options.flag("--json", &json, "Write the version and what was lost as lines of JSON");
  options.parse();
  return salvageVersion(database.directory, database.name, json);
}

}  // namespace

const Command salvageCommand{"salvage",
                             "Make a new version of what can still be read of a damaged one",
                             "objdb salvage current", runSalvage};
