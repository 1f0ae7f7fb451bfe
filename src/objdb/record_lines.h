// Records as lines of JSON (RFC 8259, one object a line), and back.
//
//   {"table":"id_keeper","counter":14}
//   {"table":"field_info","field":10,"name":"Selection Name","type":"String","flags":10}
//   {"table":"obj_info","object":7,"field":10,"name":"gw1"}           name_info alike
//   {"table":"value_info","object":7,"field":20,"type":"Integer","value":5}
//   {"table":"value_info","object":7,"field":21,"type":"String","list":["a",null],"entryFlags":[0,1]}
//   {"table":"enum_info","field":30,"constants":["up","down"]}
//
// entryFlags stands only where one is set. Text that is not UTF-8 is {"hex":"..."}. A key that is
// not the one its record calls for is added as "key":"HEX", and a record that would not be encoded
// as it lies in the table as "bytes":"HEX", which then holds alone: every record that decodes comes
// back byte for byte.
#pragma once

#include <array>
#include <cstdint>
#include <initializer_list>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <string_view>

#include "store/tables.h"

using Json = nlohmann::ordered_json;

struct StoredRecord {
  size_t table;  // index into tableFormats
  std::string key;
  std::string bytes;
};

// Null when the record does not decode.
std::optional<Json> recordToJson(size_t table, std::string_view key, std::string_view bytes);

// The text of that line.
std::optional<std::string> recordToLine(size_t table, std::string_view key, std::string_view bytes);

// Throws std::exception with what is wrong with the line.
StoredRecord recordFromJson(const Json &line);

// The same for the text of a line, if it is one of a single value or a name in plain characters,
// exactly as a dump has it: most lines are, and neither way needs a document made of them.
std::optional<StoredRecord> recordFromPlainLine(std::string_view text);

// A key that is made of these words.
std::string keyOf(std::initializer_list<uint32_t> words);

// A record as the table's encoder takes it, encoded. Throws std::exception when it cannot be.
std::string encodedRecord(size_t table, const void *record);

// How many records each table has, and a digest of keys and records that does not depend on their
// order: the sum of the records' 64-bit FNV-1a hashes.
class Census {
 public:
  void add(size_t table, std::string_view key, std::string_view bytes);
  Json toJson() const;

 private:
  std::array<uint64_t, tableCount> records_{};
  uint64_t digest_ = 0;
};

// The line before the records.
Json headerLine();
bool isHeaderLine(const Json &line);

std::string toHex(std::string_view bytes);
