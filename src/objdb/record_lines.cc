#include "objdb/record_lines.h"

#include <gdbm.h>

#include <charconv>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>
#include <stdexcept>
#include <utility>

#include "records/codecs.h"

namespace {

constexpr const char *typeNames[] = {nullptr, "Integer", "Boolean", "String", "Enumeration"};

[[noreturn]] void complain(const std::string &what) {
  throw std::runtime_error(what);
}

bool isUtf8(const std::string &text) {
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

std::string words(std::initializer_list<uint32_t> numbers) {
  std::string key;
  for (const uint32_t each : numbers)
    key.append(reinterpret_cast<const char *>(&each), sizeof each);
  return key;
}

std::string encoded(size_t table, const void *record) {
  const char *bytes = nullptr;
  size_t length = 0;
  if (tableFormats[table].encode(record, &bytes, &length) < 0) complain("cannot be encoded");
  return {bytes, length};
}

StoredRecord definitionFromJson(const Json &line) {
  const std::optional<std::string> name = textFromJson(line.at("name"));
  NQwFieldInfo info{id(line, "field"), name ? const_cast<char *>(name->c_str()) : nullptr,
                    typeFromJson(line.at("type")), id(line, "flags")};
  const dbFieldInfo record{&info};
  return {fieldInfo, words({info.fieldId}), encoded(fieldInfo, &record)};
}

StoredRecord nameFromJson(size_t table, const Json &line) {
  dbObject record{id(line, "object"), id(line, "field"), {}};
  const std::optional<std::string> name = textFromJson(line.at("name"));
  if (!name || name->size() > longestString)
    complain("no name, or one of more than 256 characters");
  memcpy(record.name, name->c_str(), name->size() + 1);
  return {
      table,
      table == objInfo ? words({record.objectId, record.fieldId}) : words({record.fieldId}) + *name,
      encoded(table, &record)};
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
  return {enumInfo, words({fieldId}), encoded(enumInfo, &record)};
}

// The record as its members say.
StoredRecord plainRecord(const Json &line) {
  const auto name = line.at("table").get<std::string>();
  size_t table = 0;
  while (table < tableCount && name != tableFormats[table].name) ++table;
  switch (table) {
    case idKeeper: {
      const uint32_t counter = id(line, "counter");
      return {table, words({0}), encoded(table, &counter)};
    }
    case fieldInfo:
      return definitionFromJson(line);
    case objInfo:
    case nameInfo:
      return nameFromJson(table, line);
    case valueInfo: {
      const auto value = valueFromJson(line);
      const dbObjectValue record{id(line, "object"), id(line, "field"), value.get()};
      return {table, words({record.objectId, record.fieldId}), encoded(table, &record)};
    }
    case enumInfo:
      return constantsFromJson(line);
    default:
      complain("unknown table: " + name);
  }
}

// The members of a decoded record, which is released.
void addMembers(Json &line, size_t table, void *decoded) {
  switch (table) {
    case idKeeper:
      line["counter"] = *static_cast<const uint32_t *>(decoded);
      break;
    case fieldInfo: {
      auto *record = static_cast<dbFieldInfo *>(decoded);
      line["field"] = record->fieldInfo->fieldId;
      line["name"] = textToJson(record->fieldInfo->name);
      line["type"] = typeToJson(record->fieldInfo->type);
      line["flags"] = record->fieldInfo->flags;
      freeDbFieldInfo(record);
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
      auto *record = static_cast<dbObjectValue *>(decoded);
      line["object"] = record->objectId;
      line["field"] = record->fieldId;
      addValue(line, *record->value);
      freeDbObjectValue(record);
      break;
    }
    default: {
      auto *record = static_cast<dbEnumConstants *>(decoded);
      line["field"] = record->fieldId;
      Json &constants = line["constants"] = Json::array();
      for (uint32_t i = 0; i < record->constants->count; ++i) {
        constants.push_back(textToJson(record->constants->names[i]));
      }
      freeEnumConstants(record->constants);
      free(record);
    }
  }
}

uint64_t hashBytes(uint64_t hash, std::string_view bytes) {
  for (const char each : bytes) hash = (hash ^ static_cast<unsigned char>(each)) * 1099511628211u;
  return hash;
}

}  // namespace

const std::array<TableFormat, tableCount> tableFormats{{
    {"id_keeper", decodeDbKey, encodeDbKey},
    {"field_info", decodeDbFieldInfo, encodeDbFieldInfo},
    {"obj_info", decodeDbObject, encodeDbObject},
    {"value_info", decodeDbObjectValue, encodeDbObjectValue},
    {"name_info", decodeDbObject, encodeDbObject},
    {"enum_info", decodeDbEnumConstants, encodeDbEnumConstants},
}};

std::optional<Json> recordToJson(size_t table, std::string_view key, std::string_view bytes) {
  void *decoded = tableFormats[table].decode(bytes.data(), bytes.size());
  if (decoded == nullptr) return std::nullopt;
  Json line{{"table", tableFormats[table].name}};
  addMembers(line, table, decoded);
  const StoredRecord plain = plainRecord(line);
  if (plain.key != key) line["key"] = toHex(key);
  if (plain.bytes != bytes) line["bytes"] = toHex(bytes);
  return line;
}

StoredRecord recordFromJson(const Json &line) {
  StoredRecord record = plainRecord(line);
  if (line.contains("key")) record.key = fromHex(line.at("key").get<std::string>());
  if (line.contains("bytes")) record.bytes = fromHex(line.at("bytes").get<std::string>());
  return record;
}

void Census::add(size_t table, std::string_view key, std::string_view bytes) {
  ++records_[table];
  const std::string frame =
      words({static_cast<uint32_t>(table), static_cast<uint32_t>(key.size())});
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
