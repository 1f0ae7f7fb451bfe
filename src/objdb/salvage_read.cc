#include "objdb/salvage_read.h"

#include <fcntl.h>
#include <gdbm.h>

#include <cstdio>
#include <filesystem>
#include <memory>
#include <set>
#include <utility>

#include "objdb/hidden_records.h"
#include "objdb/table_reader.h"
#include "platform/descriptor.h"
#include "platform/files.h"
#include "store/database.h"
#include "store/id_keeper.h"

namespace {

namespace fs = std::filesystem;

// The name of tables in the work directory that are not for the version. They are removed before it
// gets its name.
constexpr char scratchName[] = "recovery";

// Removes the scratch table, and what the library has left beside it.
void removeScratch(const std::string &directory) {
  std::error_code failure;
  fs::directory_iterator entry(directory, failure);
  while (!failure && entry != fs::directory_iterator()) {
    const bool isScratch = entry->path().filename().string().starts_with(scratchName);
    if (isScratch) fs::remove(entry->path(), failure);
    if (!failure) entry.increment(failure);
  }
  if (!failure) return;
  throw CommandFailure("could not clear the work directory: " + failure.message() +
                       "; nothing was changed");
}

std::unique_ptr<TableReader> openScratch(const std::string &directory) {
  OpenFailure ignored;
  return TableReader::openNamed(directory, scratchName, TableReader::Demand::pageFile, &ignored);
}

// A copy of the file as the library recovers it; null when it cannot. Of the copy alone: the
// library rebuilds the file it is given, and a recovery that fails leaves less than there was.
std::unique_ptr<TableReader> openRecovered(const std::string &pages, const std::string &directory) {
  const std::string name = std::string(scratchName) + pageSuffix;
  const std::string copy = pathIn(directory, name);
  const Descriptor source(openRegular(pages, O_RDONLY));
  const Descriptor target(open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (!source.isOpen() || copyFileSynced(source.get(), target.get(), name) != 0) return nullptr;
  constexpr int flags = GDBM_WRITER | GDBM_NOLOCK | GDBM_CLOEXEC;
  GDBM_FILE file = gdbm_open(copy.c_str(), 0, flags, 0, nullptr);
  if (file == nullptr) return nullptr;
  // Without limits on what may fail, and even if the library sees no need: we have missed records.
  gdbm_recovery unlimited{};
  gdbm_recover(file, &unlimited, GDBM_RCVR_FORCE);
  gdbm_close(file);
  return openScratch(directory);
}

// Reads one table, in several passes over its file and a copy of it.
class TableSalvage {
 public:
  TableSalvage(size_t table, SalvagedTables *tables)
      : table_(table), all_(*tables), records_(all_[table].records), tally_(all_[table].tally) {}

  void read(TableReader &reader, const std::string &pages, const std::string &workDirectory) {
    addScanned(reader);
    tally_.counted = reader.count();
    tally_.damaged = !reader.structure().isSound();
    if (reader.isComplete() && !reader.needsRecovery()) return;
    // Before the recovery, whose copy has lost what nothing leads to.
    addHidden(reader.fd());
    const auto copy = openRecovered(pages, workDirectory);
    if (copy != nullptr) addScanned(*copy);
    removeScratch(workDirectory);
  }

  // Places the strays and counts what was read: after all passes, since a record under its own key
  // goes before a stray, whichever was met first.
  void finish() {
    const uint64_t inPlace = records_.size();
    for (const Stray &stray : strays_) addStray(stray);
    for (const std::string &key : undecodable_) {
      if (records_.contains(key)) continue;  // another pass has read it
      ++tally_.undecodable;
      all_.loseByKey(table_, "cannot be decoded", key);
    }
    tally_.read = inPlace + tally_.moved + tally_.displaced + tally_.undecodable;
  }

 private:
  // A record under a key that is not its own, with the key where it belongs.
  struct Stray {
    std::string key;
    std::string bytes;
    bool isShortened;
  };

  void addScanned(TableReader &reader) {
    DbmRecord raw;
    while (reader.next(&raw)) {
      DecodedRecord record(table_, raw.bytes);
      if (!record) {
        undecodable_.emplace(raw.key);
        continue;
      }
      const bool isShortened = record.isCut || record.encodedBytes() < raw.bytes.size();
      const std::string key(record.properKey());
      std::string bytes(isShortened ? record.encoding() : raw.bytes);
      if (key != raw.key) {
        strays_.push_back({key, std::move(bytes), isShortened});
      } else if (records_.try_emplace(key, std::move(bytes)).second && isShortened) {
        ++tally_.shortened;
        all_.lose(table_, "what is after its end or a NUL", record);
      }
    }
  }

  // Adds nothing over a record that was read otherwise, which is younger than one that nothing
  // leads to. Takes only what is entirely sound: such a block may have been half written over.
  void addHidden(int fd) {
    forEachHiddenRecord(fd, [&](const std::string &rawKey, const std::string &rawBytes) {
      DecodedRecord record(table_, rawBytes);
      if (!record) {
        undecodable_.insert(rawKey);
      } else if (record.properKey() == rawKey && !record.isCut &&
                 records_.try_emplace(rawKey, rawBytes).second) {
        ++tally_.hidden;
      }
    });
  }

  void addStray(const Stray &stray) {
    const auto [place, isNew] = records_.try_emplace(stray.key, stray.bytes);
    if (isNew) ++tally_.moved;
    if (isNew && stray.isShortened) ++tally_.shortened;
    if (!isNew && place->second != stray.bytes) {
      ++tally_.displaced;
      all_.loseByKey(table_, "another record has its key", stray.key);
    }
  }

  size_t table_;
  SalvagedTables &all_;
  Records &records_;
  TableTally &tally_;
  std::set<std::string> undecodable_;  // the keys
  std::vector<Stray> strays_;
};

}  // namespace

bool readVersion(const std::string &source, const std::string &workDirectory,
                 SalvagedTables *tables) {
  bool anyOpened = false;
  for (size_t table = 0; table < tableCount; ++table) {
    TableSalvage salvage(table, tables);
    OpenFailure failure;
    const auto reader = TableReader::open(source, table, TableReader::Demand::pageFile, &failure);
    if (reader == nullptr) {
      fprintf(stderr, "objdb: %s\n", failure.reason.c_str());
    } else {
      anyOpened = true;
      salvage.read(*reader, tablePath(source, table, pageSuffix), workDirectory);
    }
    salvage.finish();
  }
  return anyOpened;
}

Records predefinedFields(const std::string &workDirectory) {
  Records fields;
  ObjectDatabase seeded{};
  seeded.fieldInfoDb = _NQ_dbm_db_open(workDirectory.c_str(), scratchName, O_RDWR | O_CREAT, 0600,
                                       decodeDbFieldInfo, encodeDbFieldInfo);
  if (seeded.fieldInfoDb != nullptr) {
    initPredefinedFields(&seeded);
    _NQ_dbm_db_close(seeded.fieldInfoDb);
    const auto reader = openScratch(workDirectory);
    DbmRecord record;
    while (reader != nullptr && reader->next(&record)) fields.emplace(record.key, record.bytes);
  }
  removeScratch(workDirectory);
  return fields;
}
