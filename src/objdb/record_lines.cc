#include "objdb/record_lines.h"

#include <algorithm>
#include <charconv>
#include <cstring>
#include <nlohmann/json.hpp>
#include <set>
#include <stdexcept>
#include <utility>
#include <vector>

#include "objdb/decoded_record.h"
#include "objdb/owned_values.h"

namespace {

[[noreturn]] void complain(const std::string &what) {
  throw std::runtime_error(what);
}

// By the judgement of the library that writes the line: it throws for what it cannot write.
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

}  // namespace

Json textToJson(const char *text) {
  if (text == nullptr) return nullptr;
  if (isUtf8(text)) return text;
  return {{"hex", toHex(text)}};
}

namespace {

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

template <typename Number>
Number number(const Json &json) {
  if (!json.is_number_integer()) complain("not a whole number: " + shown(json));
  // Looked at before it is taken: the library would wrap a number around that does not fit.
  const bool fits = json.is_number_unsigned() ? std::in_range<Number>(json.get<uint64_t>())
                                              : std::in_range<Number>(json.get<int64_t>());
  if (!fits) complain("out of range: " + json.dump());
  return json.get<Number>();
}

const std::string &stringOf(const Json &json) {
  if (!json.is_string()) complain("not a text: " + shown(json));
  return json.get_ref<const std::string &>();
}

const Json &arrayOf(const Json &json) {
  if (!json.is_array()) complain("not a list: " + shown(json));
  return json;
}

// The members of a line, each of which has to be asked for.
class Members {
 public:
  explicit Members(const Json &line) : line_(line) {
    if (!line.is_object()) complain("not a record: " + shown(line));
  }

  const Json *find(const char *name) {
    const auto found = line_.find(name);
    if (found == line_.end()) return nullptr;
    ++asked_;
    return &*found;
  }
  const Json &at(const char *name) {
    const Json *found = find(name);
    if (found == nullptr) complain(std::string("no member \"") + name + "\"");
    return *found;
  }
  uint32_t id(const char *name) { return number<uint32_t>(at(name)); }

  // Called when every member that may be there has been asked for once: one that is left over would
  // be dropped without a word.
  void finish() const {
    if (asked_ != line_.size()) complain("a member that the record has not");
  }

 private:
  const Json &line_;
  size_t asked_ = 0;
};

}  // namespace

std::optional<std::string> textFromJson(const Json &json) {
  if (json.is_null()) return std::nullopt;
  std::string text;
  if (json.is_object()) {
    Members members(json);
    text = fromHex(stringOf(members.at("hex")));
    members.finish();
  } else {
    text = stringOf(json);
  }
  if (text.find('\0') != std::string::npos) complain("text with a NUL inside");
  return text;
}

namespace {

char *mallocText(const Json &json) {
  const std::optional<std::string> text = textFromJson(json);
  return text ? allocated(strdup(text->c_str())) : nullptr;
}

// A definition may have any number for a type, and has to come back with it.
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
    if (!json.is_boolean()) complain("neither true nor false: " + shown(json));
    word.number = json.get<bool>() ? 1 : 0;
  } else {
    word.number = number<int32_t>(json);
  }
  return word;
}

}  // namespace

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

namespace {

FieldValue valueFromJson(Members &line) {
  FieldValue value(zeroFilled<NQwFieldValue>());
  value->type = typeFromJson(line.at("type"));
  const Json *entries = line.find("list");
  if (entries == nullptr) {
    value->value = wordFromJson(value->type, line.at("value"));
    return value;
  }
  auto *list = zeroFilled<ValueList>();
  value->isList = 1;
  value->value.list = list;
  list->entries =
      zeroFilled<ValueListEntry>(arrayOf(*entries).size() + 1);  // 1 more: calloc(0) may be null
  for (const Json &entry : *entries) {
    list->entries[list->count++].value = wordFromJson(value->type, entry);
  }
  if (const Json *flags = line.find("entryFlags"); flags != nullptr) {
    if (arrayOf(*flags).size() != list->count) complain("not as many entryFlags as values");
    for (uint32_t i = 0; i < list->count; ++i) {
      list->entries[i].entryFlag = number<int32_t>((*flags)[i]);
    }
  }
  return value;
}

StoredRecord definitionFromJson(Members &line) {
  const std::optional<std::string> name = textFromJson(line.at("name"));
  NQwFieldInfo info{line.id("field"), name ? const_cast<char *>(name->c_str()) : nullptr,
                    typeFromJson(line.at("type")), line.id("flags")};
  const dbFieldInfo record{&info};
  return {fieldInfo, keyOf({info.fieldId}), encodedRecord(fieldInfo, &record)};
}

StoredRecord nameFromJson(size_t table, Members &line) {
  dbObject record{line.id("object"), line.id("field"), {}};
  const std::optional<std::string> name = textFromJson(line.at("name"));
  if (!name || name->size() > longestString)
    complain("no name, or one of more than 256 characters");
  memcpy(record.name, name->c_str(), name->size() + 1);
  return {
      table,
      table == objInfo ? keyOf({record.objectId, record.fieldId}) : keyOf({record.fieldId}) + *name,
      encodedRecord(table, &record)};
}

StoredRecord constantsFromJson(Members &line) {
  const uint32_t fieldId = line.id("field");
  std::vector<std::string> texts;
  for (const Json &each : arrayOf(line.at("constants"))) {
    std::optional<std::string> text = textFromJson(each);
    if (!text) complain("a constant without a text");
    texts.push_back(std::move(*text));
  }
  std::vector<char *> names;
  names.reserve(texts.size());
  for (std::string &text : texts) names.push_back(text.data());
  enumConstants constants{static_cast<uint32_t>(names.size()), names.data()};
  const dbEnumConstants record{fieldId, &constants};
  return {enumInfo, keyOf({fieldId}), encodedRecord(enumInfo, &record)};
}

// The record as its members say.
StoredRecord plainRecord(Members &line) {
  const std::string &name = stringOf(line.at("table"));
  size_t table = 0;
  while (table < tableCount && name != tableFormats[table].name) ++table;
  switch (table) {
    case idKeeper: {
      const uint32_t counter = line.id("counter");
      return {table, keyOf({0}), encodedRecord(table, &counter)};
    }
    case fieldInfo:
      return definitionFromJson(line);
    case objInfo:
    case nameInfo:
      return nameFromJson(table, line);
    case valueInfo: {
      const auto value = valueFromJson(line);
      const dbObjectValue record{line.id("object"), line.id("field"), value.get()};
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

}  // namespace

const char *const typeNames[] = {nullptr, "Integer", "Boolean", "String", "Enumeration"};

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

StoredRecord recordFromJson(const Json &line) {
  Members members(line);
  StoredRecord record = plainRecord(members);
  if (const Json *key = members.find("key"); key != nullptr) record.key = fromHex(stringOf(*key));
  if (const Json *bytes = members.find("bytes"); bytes != nullptr) {
    record.bytes = fromHex(stringOf(*bytes));
  }
  members.finish();
  return record;
}

// Looks for members that stand twice while the library parses: afterwards only one of them is left.
Json parseLine(std::string_view text) {
  std::vector<std::set<std::string>> names;  // of the objects around the present place
  const auto look = [&names](int, Json::parse_event_t event, const Json &parsed) {
    if (event == Json::parse_event_t::object_start) names.emplace_back();
    if (event == Json::parse_event_t::object_end) names.pop_back();
    if (event == Json::parse_event_t::key &&
        !names.back().insert(parsed.get_ref<const std::string &>()).second) {
      complain("a member twice: " + parsed.dump());
    }
    return true;
  };
  return Json::parse(text, look);
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
