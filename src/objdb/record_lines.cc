#include "objdb/record_lines.h"

#include <gdbm.h>

#include <algorithm>
#include <charconv>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>
#include <stdexcept>
#include <utility>

#include "objdb/decoded_record.h"

namespace {

constexpr const char *typeNames[] = {nullptr, "Integer", "Boolean", "String", "Enumeration"};

[[noreturn]] void complain(const std::string &what) {
  throw std::runtime_error(what);
}

bool isUtf8(const std::string &text) {
  const auto isAscii = [](char each) { return static_cast<unsigned char>(each) < 0x80; };
  if (std::all_of(text.begin(), text.end(), isAscii)) return true;
  try {
    Json(text).dump();
    return true;
  } catch (const Json::type_error &) {
    return false;
  }
}

Json textToJson(const char *text) {
  if (text == nullptr) return nullptr;
  if (isUtf8(text)) return text;
  return {{"hex", toHex(text)}};
}

std::string fromHex(const std::string &hex) {
  std::string bytes;
  if (hex.size() % 2 != 0) complain("odd number of hexadecimal digits");
  for (size_t i = 0; i < hex.size(); i += 2) {
    unsigned char byte = 0;
    const char *digits = hex.data() + i;
    if (std::from_chars(digits, digits + 2, byte, 16).ptr != digits + 2) {
      complain("not hexadecimal: " + hex);
    }
    bytes += static_cast<char>(byte);
  }
  return bytes;
}

// For messages. Deep nesting is not followed: that would use up the stack.
std::string shown(const Json &json) {
  return json.is_structured() ? json.type_name() : json.dump();
}

// What XDR and the keys take: characters up to the first NUL.
std::optional<std::string> textFromJson(const Json &json) {
  if (json.is_null()) return std::nullopt;
  std::string text =
      json.is_object() ? fromHex(json.at("hex").get<std::string>()) : json.get<std::string>();
  if (text.find('\0') != std::string::npos) complain("text with a NUL inside");
  return text;
}

// Storage from malloc, as the records' owners release it.
template <typename Storage>
Storage *taken(Storage *storage) {
  if (storage == nullptr) throw std::bad_alloc();
  return storage;
}

template <typename Record>
Record *zeroFilled(size_t count = 1) {
  return taken(static_cast<Record *>(calloc(count, sizeof(Record))));
}

char *mallocText(const Json &json) {
  const std::optional<std::string> text = textFromJson(json);
  return text ? taken(strdup(text->c_str())) : nullptr;
}

template <typename Number>
Number number(const Json &json) {
  if (!json.is_number_integer()) complain("not a whole number: " + shown(json));
  const bool fits = json.is_number_unsigned() ? std::in_range<Number>(json.get<uint64_t>())
                                              : std::in_range<Number>(json.get<int64_t>());
  if (!fits) complain("out of range: " + json.dump());
  return json.get<Number>();
}

uint32_t id(const Json &line, const char *member) {
  return number<uint32_t>(line.at(member));
}

Json typeToJson(int32_t type) {
  if (type >= Integer && type <= Enumeration) return typeNames[type];
  return type;
}

int32_t typeFromJson(const Json &json) {
  if (json.is_number()) return number<int32_t>(json);
  for (int32_t type = Integer; type <= Enumeration; ++type) {
    if (json == typeNames[type]) return type;
  }
  complain("unknown type: " + shown(json));
}

Json wordToJson(int32_t type, const ValueWord &word) {
  if (type == String) return textToJson(word.string);
  if (type == Boolean) return word.number != 0;
  return word.number;
}

ValueWord wordFromJson(int32_t type, const Json &json) {
  ValueWord word{};
  if (type == String) {
    word.string = mallocText(json);
  } else if (type == Boolean) {
    word.number = json.get<bool>() ? 1 : 0;
  } else {
    word.number = number<int32_t>(json);
  }
  return word;
}

void addValue(Json &line, const NQwFieldValue &value) {
  line["type"] = typeToJson(value.type);
  if (value.isList == 0) {
    line["value"] = wordToJson(value.type, value.value);
    return;
  }
  Json &entries = line["list"] = Json::array();
  Json flags = Json::array();
  bool anyFlag = false;
  for (uint32_t i = 0; i < value.value.list->count; ++i) {
    const ValueListEntry &entry = value.value.list->entries[i];
    entries.push_back(wordToJson(value.type, entry.value));
    flags.push_back(entry.entryFlag);
    anyFlag = anyFlag || entry.entryFlag != 0;
  }
  if (anyFlag) line["entryFlags"] = flags;
}

struct FreeValue {
  void operator()(NQwFieldValue *value) const { NQwDbFreeFieldValue(value); }
};

std::unique_ptr<NQwFieldValue, FreeValue> valueFromJson(const Json &line) {
  std::unique_ptr<NQwFieldValue, FreeValue> value(zeroFilled<NQwFieldValue>());
  value->type = typeFromJson(line.at("type"));
  if (!line.contains("list")) {
    value->value = wordFromJson(value->type, line.at("value"));
    return value;
  }
  const Json &entries = line.at("list");
  auto *list = zeroFilled<ValueList>();
  value->isList = 1;
  value->value.list = list;
  list->entries = zeroFilled<ValueListEntry>(entries.size() + 1);
  for (const Json &entry : entries) {
    list->entries[list->count++].value = wordFromJson(value->type, entry);
  }
  if (line.contains("entryFlags")) {
    for (uint32_t i = 0; i < list->count; ++i) {
      list->entries[i].entryFlag = number<int32_t>(line.at("entryFlags").at(i));
    }
  }
  return value;
}

StoredRecord definitionFromJson(const Json &line) {
  const std::optional<std::string> name = textFromJson(line.at("name"));
  NQwFieldInfo info{id(line, "field"), name ? const_cast<char *>(name->c_str()) : nullptr,
                    typeFromJson(line.at("type")), id(line, "flags")};
  const dbFieldInfo record{&info};
  return {fieldInfo, keyOf({info.fieldId}), encodedRecord(fieldInfo, &record)};
}

StoredRecord nameFromJson(size_t table, const Json &line) {
  dbObject record{id(line, "object"), id(line, "field"), {}};
  const std::optional<std::string> name = textFromJson(line.at("name"));
  if (!name || name->size() > longestString)
    complain("no name, or one of more than 256 characters");
  memcpy(record.name, name->c_str(), name->size() + 1);
  return {
      table,
      table == objInfo ? keyOf({record.objectId, record.fieldId}) : keyOf({record.fieldId}) + *name,
      encodedRecord(table, &record)};
}

StoredRecord constantsFromJson(const Json &line) {
  const uint32_t fieldId = id(line, "field");
  std::vector<std::string> texts;
  for (const Json &each : line.at("constants")) texts.push_back(textFromJson(each).value());
  std::vector<char *> names;
  names.reserve(texts.size());
  for (std::string &text : texts) names.push_back(text.data());
  enumConstants constants{static_cast<uint32_t>(names.size()), names.data()};
  const dbEnumConstants record{fieldId, &constants};
  return {enumInfo, keyOf({fieldId}), encodedRecord(enumInfo, &record)};
}

// The record as its members say.
StoredRecord plainRecord(const Json &line) {
  const auto name = line.at("table").get<std::string>();
  size_t table = 0;
  while (table < tableCount && name != tableFormats[table].name) ++table;
  switch (table) {
    case idKeeper: {
      const uint32_t counter = id(line, "counter");
      return {table, keyOf({0}), encodedRecord(table, &counter)};
    }
    case fieldInfo:
      return definitionFromJson(line);
    case objInfo:
    case nameInfo:
      return nameFromJson(table, line);
    case valueInfo: {
      const auto value = valueFromJson(line);
      const dbObjectValue record{id(line, "object"), id(line, "field"), value.get()};
      return {table, keyOf({record.objectId, record.fieldId}), encodedRecord(table, &record)};
    }
    case enumInfo:
      return constantsFromJson(line);
    default:
      complain("unknown table: " + name);
  }
}

void addMembers(Json &line, size_t table, const void *decoded) {
  switch (table) {
    case idKeeper:
      line["counter"] = *static_cast<const uint32_t *>(decoded);
      break;
    case fieldInfo: {
      const NQwFieldInfo *info = static_cast<const dbFieldInfo *>(decoded)->fieldInfo;
      line["field"] = info->fieldId;
      line["name"] = textToJson(info->name);
      line["type"] = typeToJson(info->type);
      line["flags"] = info->flags;
      break;
    }
    case objInfo:
    case nameInfo: {
      const auto *record = static_cast<const dbObject *>(decoded);
      line["object"] = record->objectId;
      line["field"] = record->fieldId;
      line["name"] = textToJson(record->name);
      break;
    }
    case valueInfo: {
      const auto *record = static_cast<const dbObjectValue *>(decoded);
      line["object"] = record->objectId;
      line["field"] = record->fieldId;
      addValue(line, *record->value);
      break;
    }
    default: {
      const auto *record = static_cast<const dbEnumConstants *>(decoded);
      line["field"] = record->fieldId;
      Json &constants = line["constants"] = Json::array();
      for (uint32_t i = 0; i < record->constants->count; ++i) {
        constants.push_back(textToJson(record->constants->names[i]));
      }
    }
  }
}

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

uint64_t hashBytes(uint64_t hash, std::string_view bytes) {
  for (const char each : bytes) hash = (hash ^ static_cast<unsigned char>(each)) * 1099511628211u;
  return hash;
}

}  // namespace

std::string keyOf(std::initializer_list<uint32_t> words) {
  std::string key;
  for (const uint32_t each : words) key.append(reinterpret_cast<const char *>(&each), sizeof each);
  return key;
}

std::string encodedRecord(size_t table, const void *record) {
  const char *bytes = nullptr;
  size_t length = 0;
  if (tableFormats[table].encode(record, &bytes, &length) < 0) complain("cannot be encoded");
  return {bytes, length};
}

std::optional<Json> recordToJson(size_t table, std::string_view key, std::string_view bytes) {
  DecodedRecord record(table, bytes);
  if (!record) return std::nullopt;
  Json line{{"table", tableFormats[table].name}};
  addMembers(line, table, record.get());
  if (record.properKey() != key) line["key"] = toHex(key);
  if (record.encoding() != bytes) line["bytes"] = toHex(bytes);
  return line;
}

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

StoredRecord recordFromJson(const Json &line) {
  StoredRecord record = plainRecord(line);
  if (line.contains("key")) record.key = fromHex(line.at("key").get<std::string>());
  if (line.contains("bytes")) record.bytes = fromHex(line.at("bytes").get<std::string>());
  return record;
}

std::optional<StoredRecord> recordFromPlainLine(std::string_view text) {
  PlainText at(text);
  if (!at.skip(R"({"table":")")) return std::nullopt;
  size_t table = objInfo;
  while (table <= nameInfo && !at.skip(tableFormats[table].name)) ++table;
  uint32_t objectId = 0;
  uint32_t fieldId = 0;
  if (table > nameInfo || !at.skip(R"(","object":)") || !at.number(&objectId) ||
      !at.skip(R"(,"field":)") || !at.number(&fieldId)) {
    return std::nullopt;
  }
  if (table != valueInfo) {
    dbObject record{objectId, fieldId, {}};
    if (!at.skip(R"(,"name":)") || !at.string(record.name) || !at.isEnd()) return std::nullopt;
    const std::string key =
        table == objInfo ? keyOf({objectId, fieldId}) : keyOf({fieldId}) + record.name;
    return StoredRecord{table, key, encodedRecord(table, &record)};
  }
  char characters[longestString + 1];
  NQwFieldValue value{};
  if (!at.skip(R"(,"type":")")) return std::nullopt;
  value.type = Integer;
  while (value.type <= Enumeration && !at.skip(typeNames[value.type])) ++value.type;
  if (value.type > Enumeration || !at.skip(R"(","value":)")) return std::nullopt;
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
  return StoredRecord{table, keyOf({objectId, fieldId}), encodedRecord(table, &record)};
}

void Census::add(size_t table, std::string_view key, std::string_view bytes) {
  ++records_[table];
  const std::string frame =
      keyOf({static_cast<uint32_t>(table), static_cast<uint32_t>(key.size())});
  digest_ += hashBytes(hashBytes(hashBytes(14695981039346656037u, frame), key), bytes);
}

Json Census::toJson() const {
  Json records = Json::object();
  for (size_t table = 0; table < tableCount; ++table) {
    records[tableFormats[table].name] = records_[table];
  }
  char digest[17];
  snprintf(digest, sizeof digest, "%016llx", static_cast<unsigned long long>(digest_));
  return {{"records", records}, {"digest", digest}};
}

Json headerLine() {
  return {{"format", "objdb dump 1"},
          {"wordBits", 8 * sizeof(void *)},
          {"library",
           std::to_string(gdbm_version_number[0]) + "." + std::to_string(gdbm_version_number[1])}};
}

bool isHeaderLine(const Json &line) {
  return line.value("format", "") == headerLine().at("format");
}

std::string toHex(std::string_view bytes) {
  constexpr char digits[] = "0123456789abcdef";
  std::string hex;
  for (const char each : bytes) {
    hex += digits[static_cast<unsigned char>(each) >> 4];
    hex += digits[static_cast<unsigned char>(each) & 15];
  }
  return hex;
}
