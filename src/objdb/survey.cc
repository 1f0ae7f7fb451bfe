#include "objdb/survey.h"

#include <sys/stat.h>

#include <algorithm>
#include <cstring>

#include "objdb/decoded_record.h"
#include "objdb/table_reader.h"

namespace {

class Surveyor {
 public:
  Surveyor(const std::string &directory, bool quick) : directory_(directory), quick_(quick) {}

  Survey survey() {
    for (size_t table = 0; table < tableCount; ++table) {
      measure(table);
      read(table);
    }
    if (survey_.isThere && definitions_ == 0) blame("it has no field definitions");
    if (!survey_.isThere)
      survey_.whatIsWrong = "it holds no table";  // says more than the first one
    survey_.isWhole = survey_.whatIsWrong.empty();
    return survey_;
  }

 private:
  void blame(const std::string &what) {
    if (survey_.whatIsWrong.empty()) survey_.whatIsWrong = what;
  }

  void measure(size_t table) {
    // A link counts as a file here; why it is not opened, the reader says.
    int files = 0;
    for (const char *suffix : tableSuffixes) {
      struct stat status {};
      if (lstat(tablePath(directory_, table, suffix).c_str(), &status) != 0) continue;
      ++files;
      survey_.bytes += static_cast<uint64_t>(status.st_size);
    }
    survey_.isThere = survey_.isThere || files > 0;
    survey_.halfTables[table] = files == 1;
    filesOf_[table] = files > 0;
  }

  void read(size_t table) {
    if (!filesOf_[table]) {
      if (table != idKeeper) {
        blame(std::string("table ") + tableFormats[table].name + " is missing");
      }
      return;
    }
    OpenFailure failure;
    const auto reader = TableReader::open(directory_, table, TableReader::Demand::table, &failure);
    if (reader == nullptr) return blame(failure.reason);
    const bool complete = quick_ ? count(table, *reader) : scan(table, *reader);
    if (table == idKeeper) survey_.hasIdKeeper = complete;
    if (!complete) {
      blame(std::string("table ") + tableFormats[table].name + " cannot be read to its end");
    }
  }

  bool count(size_t table, TableReader &reader) {
    const std::optional<uint64_t> counted = reader.count();
    survey_.records += counted.value_or(0);
    if (table == fieldInfo) definitions_ = counted.value_or(0);
    return counted.has_value();
  }

  bool scan(size_t table, TableReader &reader) {
    DbmRecord record;
    while (reader.next(&record)) {
      ++survey_.records;
      survey_.census.add(table, record.key, record.bytes);
      note(table, record);
    }
    return reader.isComplete();
  }

  // By the keys, which begin with the id of the object, or of the field: no record is decoded.
  void note(size_t table, const DbmRecord &record) {
    if (table == idKeeper) {
      survey_.counter = DecodedRecord(table, record.bytes).counter;
    } else if (table == fieldInfo || table == objInfo || table == valueInfo) {
      if (table == fieldInfo) ++definitions_;
      uint32_t id = 0;
      if (record.key.size() >= sizeof id) memcpy(&id, record.key.data(), sizeof id);
      survey_.highestId = std::max(survey_.highestId, id);
    }
  }

  const std::string &directory_;
  bool quick_;
  std::array<bool, tableCount> filesOf_{};
  uint64_t definitions_ = 0;
  Survey survey_;
};

}  // namespace

Survey surveyVersion(const std::string &directory) {
  return Surveyor(directory, false).survey();
}

Survey surveyQuickly(const std::string &directory) {
  return Surveyor(directory, true).survey();
}

uint32_t lowestCounter(uint32_t highestId) {
  return highestId == UINT32_MAX ? highestId : highestId + 1;
}
