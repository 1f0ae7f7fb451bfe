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

#include <cstdint>
#include <initializer_list>
#include <nlohmann/json_fwd.hpp>
#include <optional>
#include <string>
#include <string_view>

#include "platform/field_values.h"
#include "store/tables.h"

// Who looks into one includes <nlohmann/json.hpp>, which costs seconds of compilation.
using Json = nlohmann::ordered_json;

extern const char *const typeNames[];  // by FieldType; null for 0, which is no type

struct StoredRecord {
  size_t table;  // index into tableFormats
  std::string key;
  std::string bytes;
};

// Nothing when the record does not decode.
std::optional<Json> recordToJson(size_t table, std::string_view key, std::string_view bytes);

// Throws std::exception with what is wrong with the line: a member that is missing, unknown, of
// another type or out of range.
StoredRecord recordFromJson(const Json &line);

// The document of a line. Throws std::exception when the line is no document, or has a member
// twice: readers of JSON differ in which of the two they take.
Json parseLine(std::string_view text);

// A key that is made of these words.
std::string keyOf(std::initializer_list<uint32_t> words);

// A record as the table's encoder takes it, encoded. Throws std::exception when it cannot be.
std::string encodedRecord(size_t table, const void *record);

// A text as the lines have it; it may be null, or not UTF-8.
Json textToJson(const char *text);

// The text of such a member, without a NUL inside, which neither XDR nor the keys take; nothing for
// null. Throws std::exception for anything else.
std::optional<std::string> textFromJson(const Json &json);

// Adds the members "type" and "value", or "type" and "list" with its flags.
void addValue(Json &line, const NQwFieldValue &value);

std::string toHex(std::string_view bytes);
