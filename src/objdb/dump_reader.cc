#include "objdb/dump_reader.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <functional>
#include <nlohmann/json.hpp>
#include <stdexcept>
#include <tuple>

#include "objdb/census.h"
#include "objdb/plain_lines.h"
#include "objdb/progress.h"

namespace {

class DumpReader {
 public:
  DumpReader(std::istream &input, bool sealed) : input_(input), sealed_(sealed) {}

  std::vector<StoredRecord> read() {
    Phase phase("reading the dump");
    errno = 0;
    for (std::string text; std::getline(input_, text); phase.count()) {
      ++line_;
      addLine(text);
    }
    // The end of the input and an error in it look alike.
    if (input_.bad()) complain(std::string("the input could not be read: ") + strerror(errno));
    if (sealed_ && !ended_) complain("the dump ends without its trailer");
    if (!sealed_ && records_.empty()) complain("no record in the input");
    refuseTwice();
    return std::move(records_);
  }

  size_t line() const { return line_; }

 private:
  [[noreturn]] static void complain(const std::string &what) { throw std::runtime_error(what); }

  void addLine(const std::string &text) {
    if (ended_) complain("a line after the trailer");
    const bool isHeader = sealed_ && line_ == 1;
    std::optional<StoredRecord> record;
    if (!isHeader) record = recordFromPlainLine(text);
    if (!record) {
      const Json line = parseLine(text);
      if (isHeader && !isHeaderLine(line)) complain("not the header of a dump");
      if (isHeader || (!sealed_ && isHeaderLine(line))) return;
      if (isTrailerLine(line)) return checkTrailer(line);
      record = recordFromJson(line);
    }
    if (sealed_) census_.add(record->table, record->key, record->bytes);  // for the trailer
    records_.push_back(std::move(*record));
    lines_.push_back(line_);
  }

  void checkTrailer(const Json &line) {
    if (!sealed_) return;
    if (line != census_.toJson()) complain("the trailer does not agree with the lines before it");
    ended_ = true;
  }

  // A table has one record for each key, and nothing says which of two should stay. Sorted by a
  // hash, which compares faster than keys that begin alike.
  void refuseTwice() {
    const Phase phase("comparing the keys");
    std::vector<std::pair<size_t, const StoredRecord *>> keys;
    keys.reserve(records_.size());
    for (const StoredRecord &record : records_) {
      keys.emplace_back(std::hash<std::string>()(record.key), &record);
    }
    std::sort(keys.begin(), keys.end(), [](const auto &a, const auto &b) {
      return std::tie(a.first, a.second->table, a.second->key, a.second) <
             std::tie(b.first, b.second->table, b.second->key, b.second);
    });
    const auto twice =
        std::adjacent_find(keys.begin(), keys.end(), [](const auto &a, const auto &b) {
          return a.first == b.first && a.second->table == b.second->table &&
                 a.second->key == b.second->key;
        });
    if (twice == keys.end()) return;
    const auto lineOf = [this](const StoredRecord *record) {
      return lines_[static_cast<size_t>(record - records_.data())];
    };
    line_ = lineOf((twice + 1)->second);
    complain("a record with the key of line " + std::to_string(lineOf(twice->second)));
  }

  std::istream &input_;
  bool sealed_;
  bool ended_ = false;
  Census census_;
  std::vector<StoredRecord> records_;
  std::vector<size_t> lines_;  // of the records
  size_t line_ = 0;            // which is read, or at fault
};

}  // namespace

std::vector<StoredRecord> readDump(std::istream &input, bool sealed) {
  DumpReader reader(input, sealed);
  try {
    return reader.read();
  } catch (const std::bad_alloc &) {
    throw;
  } catch (const std::exception &error) {
    throw std::runtime_error("line " + std::to_string(reader.line()) + ": " + error.what());
  }
}
