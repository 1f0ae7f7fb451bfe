#include "objdb/field_text.h"

#include <algorithm>
#include <charconv>
#include <cstring>
#include <map>
#include <nlohmann/json.hpp>

#include "internal/caches.h"
#include "internal/util.h"
#include "objdb/command.h"
#include "records/table_records.h"

namespace {

[[noreturn]] void refuse(const NQwFieldInfo &field, const std::string &text,
                         const std::string &possible) {
  throw CommandFailure("\"" + text + "\" is no value of field \"" + fieldText(field) +
                       "\": " + possible);
}

// Null when the field has none.
const enumConstants *constantsOf(uint32_t fieldId) {
  const _HashItem *item = enumconstantstable->find(wordKey(fieldId));
  return item == nullptr ? nullptr : static_cast<const enumConstants *>(item->data());
}

const char *constantName(uint32_t fieldId, int32_t number) {
  const enumConstants *constants = constantsOf(fieldId);
  const bool hasName =
      constants != nullptr && number >= 0 && static_cast<uint32_t>(number) < constants->count;
  return hasName ? constants->names[number] : nullptr;
}

int32_t parseNumber(const NQwFieldInfo &field, const std::string &text) {
  int32_t number = 0;
  const char *end = text.data() + text.size();
  const auto [read, error] = std::from_chars(text.data(), end, number);
  if (error != std::errc() || read != end) {
    refuse(field, text, "it has whole numbers from -2147483648 to 2147483647");
  }
  return number;
}

// A field without constants has bare numbers.
int32_t parseConstant(const NQwFieldInfo &field, const std::string &text) {
  const enumConstants *constants = constantsOf(field.fieldId);
  if (constants == nullptr || constants->count == 0) return parseNumber(field, text);
  std::string all;
  for (uint32_t i = 0; i < constants->count; ++i) {
    if (text == constants->names[i]) return static_cast<int32_t>(i);
    all += (i == 0 ? "" : ", ") + plainText(constants->names[i]);
  }
  refuse(field, text, "it has " + all);
}

ValueWord parseWord(const NQwFieldInfo &field, const std::string &text) {
  ValueWord word{};
  switch (field.type) {
    case Integer:
      word.number = parseNumber(field, text);
      break;
    case Boolean:
      if (text != "true" && text != "false") refuse(field, text, "it has true and false");
      word.number = text == "true" ? 1 : 0;
      break;
    case String:
      if (text.size() > longestString)
        refuse(field, text, "it has texts of 256 characters at most");
      word.string = allocated(strdup(text.c_str()));
      break;
    case Enumeration:
      word.number = parseConstant(field, text);
      break;
    default:
      refuse(field, text, "its type is unknown");
  }
  return word;
}

FieldValue newValue(const NQwFieldInfo &field) {
  FieldValue value(zeroFilled<NQwFieldValue>());
  value->type = field.type;
  return value;
}

// Takes the next entry off the front of a list: up to a comma, or a string of JSON.
std::string popEntry(std::string &rest) {
  size_t end = 0;
  if (rest[0] == '"') {
    for (end = 1; end < rest.size() && rest[end] != '"'; ++end) {
      if (rest[end] == '\\') ++end;
    }
    ++end;
  }
  end = std::min(rest.find(',', std::min(end, rest.size())), rest.size());
  std::string entry = rest.substr(0, end);
  rest.erase(0, end + 1);
  return entry[0] == '"' ? Json::parse(entry).get<std::string>() : entry;
}

std::vector<std::string> splitList(const NQwFieldInfo &field, const std::string &text) {
  constexpr char form[] = "a list is [VALUE,...], with a text that has a comma in double quotes";
  if (text.size() < 2 || text.front() != '[' || text.back() != ']') refuse(field, text, form);
  std::vector<std::string> entries;
  if (text == "[]") return entries;
  std::string rest = text.substr(1, text.size() - 2) + ",";  // each entry ends with one
  try {
    while (!rest.empty()) entries.push_back(popEntry(rest));
  } catch (const Json::exception &) {
    refuse(field, text, form);
  }
  return entries;
}

// Whether a text can stand for itself, alone or among the entries of a list.
bool isPlainText(const std::string &text, bool inList) {
  const auto isControl = [](char c) { return static_cast<unsigned char>(c) < ' ' || c == 127; };
  if (text.empty() || text == "null" || std::any_of(text.begin(), text.end(), isControl)) {
    return false;
  }
  if (text.front() == ' ' || text.back() == ' ') return false;
  return inList ? text.find_first_of("\",[]{}") == text.npos : text.find_first_of("\"[{") != 0;
}

std::string textOrJson(const char *text, bool inList) {
  const Json json = textToJson(text);
  return json.is_string() && isPlainText(text, inList) ? text : json.dump();
}

std::string wordText(const NQwFieldBinding &binding, const ValueWord &word, bool inList) {
  switch (binding.value->type) {
    case String:
      return textOrJson(word.string, inList);
    case Boolean:
      return word.number != 0 ? "true" : "false";
    case Enumeration: {
      const char *name = constantName(binding.fieldId, word.number);
      return name == nullptr ? std::to_string(word.number) : textOrJson(name, inList);
    }
    default:
      return std::to_string(word.number);
  }
}

}  // namespace

const NQwFieldInfo *findField(const std::string &name) {
  const NQwFieldInfo *found = nullptr;
  int count = 0;
  for (_HashIter item(FieldInfoCache); item() != nullptr; item++) {
    const NQwFieldInfo *info = static_cast<const FieldCacheEntry *>(item()->data())->info;
    if (info->name == nullptr || name != info->name) continue;
    found = info;
    ++count;
  }
  if (count > 1) {
    throw CommandFailure(std::to_string(count) + " fields are named \"" + name +
                         "\"; give the id of one");
  }
  if (found != nullptr) return found;
  // No name is equal byte by byte. One that collates equal comes next, then an id.
  uint32_t fieldId = fieldNameToId(name.c_str());
  if (fieldId == 0) {
    const char *end = name.data() + name.size();
    if (std::from_chars(name.data(), end, fieldId).ptr != end) return nullptr;
  }
  return getCachedFieldInfo(fieldId);
}

std::string unknownField(const std::string &name, uint32_t flags) {
  std::map<uint32_t, std::string> fields;
  for (_HashIter item(FieldInfoCache); item() != nullptr; item++) {
    const NQwFieldInfo *info = static_cast<const FieldCacheEntry *>(item()->data())->info;
    if ((info->flags & flags) == flags) fields[info->fieldId] = fieldText(*info);
  }
  std::string all;
  for (const auto &[id, text] : fields) all += (all.empty() ? "" : ", ") + text;
  const char *kind = (flags & nameFieldFlag) != 0 ? "name field" : "field";
  return std::string("no ") + kind + " \"" + name + "\"; there are " + (all.empty() ? "none" : all);
}

FieldValue parseValue(const NQwFieldInfo &field, const std::string &text) {
  FieldValue value = newValue(field);
  value->value = parseWord(field, text);
  return value;
}

FieldValue parseList(const NQwFieldInfo &field, const std::string &text) {
  if (field.type != Integer && field.type != String) {
    refuse(field, text, "only lists of numbers and of texts can be searched");
  }
  const std::vector<std::string> entries = splitList(field, text);
  if (entries.size() > longestValueList) refuse(field, text, "it has lists of 1000 values at most");
  FieldValue value = newValue(field);
  auto *list = zeroFilled<ValueList>();
  value->isList = 1;
  value->value.list = list;
  list->entries = zeroFilled<ValueListEntry>(entries.size() + 1);  // 1 more: calloc(0) may be null
  for (const std::string &entry : entries) {
    // Counted only afterwards, so that a refused entry releases those before it and no other.
    list->entries[list->count].value = parseWord(field, entry);
    ++list->count;
  }
  return value;
}

std::string fieldText(const NQwFieldInfo &field) {
  return field.name == nullptr ? std::to_string(field.fieldId) : plainText(field.name);
}

std::string plainText(const char *text) {
  return textOrJson(text, false);
}

std::string valueText(const NQwFieldBinding &binding) {
  const NQwFieldValue &value = *binding.value;
  if (value.isList == 0) return wordText(binding, value.value, false);
  std::string text;
  for (uint32_t i = 0; i < value.value.list->count; ++i) {
    text += (i == 0 ? "" : ",") + wordText(binding, value.value.list->entries[i].value, true);
  }
  return "[" + text + "]";
}

Json valueToJson(const NQwFieldBinding &binding) {
  const NQwFieldInfo *field = getCachedFieldInfo(binding.fieldId);
  Json json{{"field", binding.fieldId}, {"name", textToJson(field->name)}};
  addValue(json, *binding.value);
  if (binding.value->type != Enumeration || binding.value->isList != 0) return json;
  const char *constant = constantName(binding.fieldId, binding.value->value.number);
  if (constant != nullptr) json["constant"] = textToJson(constant);
  return json;
}
