#include "objdb/dump_reader.h"

#include <stdexcept>

#include "objdb/progress.h"

std::vector<StoredRecord> readDump(std::istream &input, bool sealed) {
  std::vector<StoredRecord> records;
  Census census;
  std::string text;
  size_t lineNumber = 0;
  bool ended = false;
  const auto take = [&](StoredRecord record) {
    census.add(record.table, record.key, record.bytes);
    records.push_back(std::move(record));
  };
  Phase phase("reading the dump");
  try {
    while (std::getline(input, text)) {
      ++lineNumber;
      phase.count();
      if (ended) throw std::runtime_error("a line behind the trailer");
      const bool isFirst = sealed && lineNumber == 1;
      if (std::optional<StoredRecord> record; !isFirst && (record = recordFromPlainLine(text))) {
        take(std::move(*record));
        continue;
      }
      const Json line = Json::parse(text);
      if (isFirst) {
        if (!isHeaderLine(line)) throw std::runtime_error("not the header of a dump");
      } else if (sealed && line.contains("digest")) {
        if (line != census.toJson()) {
          throw std::runtime_error("the trailer does not agree with the lines before it");
        }
        ended = true;
      } else {
        take(recordFromJson(line));
      }
    }
    if (sealed && !ended) throw std::runtime_error("the dump ends without its trailer");
  } catch (const std::exception &error) {
    throw std::runtime_error("line " + std::to_string(lineNumber) + ": " + error.what());
  }
  return records;
}
