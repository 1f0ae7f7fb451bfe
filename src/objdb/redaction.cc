#include "objdb/redaction.h"

#include <nlohmann/json.hpp>

#include "objdb/command.h"

namespace {

// What a token is made of: letters and digits as long as they suffice.
std::string alphabet() {
  std::string characters = "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789";
  for (int each = 1; each < 256; ++each) {
    const char character = static_cast<char>(each);
    if (characters.find(character) == std::string::npos) characters += character;
  }
  return characters;
}

constexpr size_t fewCharacters = 62;

// The number in digits of the alphabet; longer than asked for when it needs more.
std::string digits(uint64_t number, size_t length, size_t base) {
  static const std::string characters = alphabet();
  std::string text;
  while (number > 0 || text.size() < length) {
    text.insert(text.begin(), characters[number % base]);
    number /= base;
  }
  return text;
}

bool hasText(const Json &line) {
  return line.contains("name") || line.contains("constants") ||
         (line.contains("type") && line.at("type") == typeNames[String]);
}

}  // namespace

std::string Redaction::tokenOf(const std::string &text) {
  std::string &token = tokens_[text];
  while (token.empty() && !text.empty()) {
    std::string next = digits(next_[text.size()]++, text.size(), fewCharacters);
    if (next.size() > text.size()) {
      // Short texts run out of letters and digits; then any character serves, under a counter of
      // its own.
      next = digits(next_[text.size() + SIZE_MAX / 2]++, text.size(), 255);
    }
    if (used_.insert(next).second) token = next;
  }
  return token;
}

void Redaction::redactText(Json *text) {
  if (text->is_null()) return;
  const std::string token = tokenOf(textFromJson(*text).value());
  *text = textToJson(token.c_str());
}

StoredRecord Redaction::redact(size_t table, std::string_view key, std::string_view bytes) {
  std::optional<Json> line = recordToJson(table, key, bytes);
  if (!line || (line->contains("bytes") && hasText(*line))) {
    throw CommandFailure("could not redact the record with key " + toHex(key) + " in table \"" +
                         tableFormats[table].name + "\"; redact what 'objdb salvage' makes");
  }
  if (line->contains("name")) redactText(&(*line)["name"]);
  if (line->contains("type") && line->at("type") == typeNames[String]) {
    if (line->contains("value")) redactText(&(*line)["value"]);
    if (line->contains("list")) {
      for (Json &each : (*line)["list"]) redactText(&each);
    }
  }
  if (line->contains("constants")) {
    for (Json &each : (*line)["constants"]) redactText(&each);
  }
  // A key that is not the record's own may be anything.
  if (line->contains("key")) (*line)["key"] = toHex(tokenOf(std::string(key)));
  return recordFromJson(*line);
}
