#include "objdb/plain_lines.h"

#include <algorithm>
#include <charconv>
#include <cstring>
#include <nlohmann/json.hpp>

#include "objdb/decoded_record.h"
#include "records/table_records.h"

namespace {

// Whether a character stands for itself in JSON, and is one of printable ASCII.
bool isPlain(char each) {
  return each >= ' ' && each <= '~' && each != '"' && each != '\\';
}

bool isPlain(const char *text) {
  return text != nullptr &&
         std::all_of(text, text + strlen(text), [](char c) { return isPlain(c); });
}

// The line of a single value or a name in plain characters; empty for any other record.
std::string plainLine(size_t table, const void *decoded) {
  const auto start = [table](uint32_t objectId, uint32_t fieldId) {
    std::string line;
    line.reserve(128);
    line.append(R"({"table":")").append(tableFormats[table].name);
    line.append(R"(","object":)").append(std::to_string(objectId));
    return line.append(R"(,"field":)").append(std::to_string(fieldId));
  };
  if (table == objInfo || table == nameInfo) {
    const auto *record = static_cast<const dbObject *>(decoded);
    if (!isPlain(record->name)) return "";
    std::string line = start(record->objectId, record->fieldId);
    return line.append(R"(,"name":")").append(record->name).append("\"}");
  }
  if (table != valueInfo) return "";
  const auto *record = static_cast<const dbObjectValue *>(decoded);
  const NQwFieldValue &value = *record->value;
  if (value.isList != 0 || (value.type == String && !isPlain(value.value.string))) return "";
  std::string line = start(record->objectId, record->fieldId);
  line.append(R"(,"type":")").append(typeNames[value.type]).append(R"(","value":)");
  if (value.type == String) return line.append("\"").append(value.value.string).append("\"}");
  if (value.type == Boolean) return line.append(value.value.number != 0 ? "true}" : "false}");
  return line.append(std::to_string(value.value.number)).append("}");
}

// Reads a line from its front, as far as it is as expected.
class PlainText {
 public:
  explicit PlainText(std::string_view text) : rest_(text) {}

  bool skip(std::string_view expected) {
    if (!rest_.starts_with(expected)) return false;
    rest_.remove_prefix(expected.size());
    return true;
  }

  template <typename Number>
  bool number(Number *result) {
    const char *begin = rest_.data();
    const auto [end, error] = std::from_chars(begin, begin + rest_.size(), *result);
    const auto length = static_cast<size_t>(end - begin);
    // Written in another way ("007", "-0"), it is for the reader of JSON to take or refuse.
    if (error != std::errc() || rest_.substr(0, length) != std::to_string(*result)) return false;
    rest_.remove_prefix(length);
    return true;
  }

  // A quoted string of printable ASCII without an escape; the room is for the longest string.
  bool string(char *characters) {
    if (!skip("\"")) return false;
    const size_t length = rest_.find('"');
    if (length > longestString) return false;
    for (const char each : rest_.substr(0, length)) {
      if (!isPlain(each)) return false;
    }
    rest_.copy(characters, length);
    characters[length] = '\0';
    rest_.remove_prefix(length + 1);
    return true;
  }

  bool isEnd() { return skip("}") && rest_.empty(); }

 private:
  std::string_view rest_;
};

// The type whose name comes next; 0 when no type has it.
int32_t skipType(PlainText &at) {
  for (int32_t type = Integer; type <= Enumeration; ++type) {
    if (at.skip(typeNames[type])) return type;
  }
  return 0;
}

// The rest of a line, from the value's type or the name on.
std::optional<StoredRecord> readName(PlainText &at, size_t table, uint32_t objectId,
                                     uint32_t fieldId) {
  dbObject record{objectId, fieldId, {}};
  if (!at.skip(R"(,"name":)") || !at.string(record.name) || !at.isEnd()) return std::nullopt;
  const std::string key =
      table == objInfo ? keyOf({objectId, fieldId}) : keyOf({fieldId}) + record.name;
  return StoredRecord{table, key, encodedRecord(table, &record)};
}

std::optional<StoredRecord> readValue(PlainText &at, uint32_t objectId, uint32_t fieldId) {
  char characters[longestString + 1];
  NQwFieldValue value{};
  if (!at.skip(R"(,"type":")")) return std::nullopt;
  value.type = skipType(at);
  if (value.type == 0 || !at.skip(R"(","value":)")) return std::nullopt;
  if (value.type == String) {
    if (!at.string(characters)) return std::nullopt;
    value.value.string = characters;
  } else if (value.type == Boolean) {
    value.value.number = at.skip("true") ? 1 : 0;
    if (value.value.number == 0 && !at.skip("false")) return std::nullopt;
  } else if (!at.number(&value.value.number)) {
    return std::nullopt;
  }
  if (!at.isEnd()) return std::nullopt;
  const dbObjectValue record{objectId, fieldId, &value};
  return StoredRecord{valueInfo, keyOf({objectId, fieldId}), encodedRecord(valueInfo, &record)};
}

}  // namespace

std::optional<std::string> recordToLine(size_t table, std::string_view key,
                                        std::string_view bytes) {
  {
    DecodedRecord record(table, bytes);
    if (!record) return std::nullopt;
    if (record.properKey() == key && record.encoding() == bytes) {
      std::string line = plainLine(table, record.get());
      if (!line.empty()) return line;
    }
  }
  return recordToJson(table, key, bytes)->dump();
}

std::optional<StoredRecord> recordFromPlainLine(std::string_view text) {
  PlainText at(text);
  if (!at.skip(R"({"table":")")) return std::nullopt;
  for (const size_t table : {valueInfo, objInfo, nameInfo}) {
    if (!at.skip(tableFormats[table].name)) continue;
    uint32_t objectId = 0;
    uint32_t fieldId = 0;
    if (!at.skip(R"(","object":)") || !at.number(&objectId) || !at.skip(R"(,"field":)") ||
        !at.number(&fieldId)) {
      return std::nullopt;
    }
    return table == valueInfo ? readValue(at, objectId, fieldId)
                              : readName(at, table, objectId, fieldId);
  }
  return std::nullopt;
}
