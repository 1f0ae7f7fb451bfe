#include "records/record_views.h"

#include <arpa/inet.h>

#include <cstring>

namespace {

constexpr size_t wordSize = 4;
constexpr uint32_t nullMarker = 0xFFFFFFFF;

uint32_t wordAt(std::string_view bytes, size_t index) {
  uint32_t word = 0;
  memcpy(&word, bytes.data() + index * wordSize, wordSize);
  return ntohl(word);
}

// Reads the string that follows `words` words: its length, its characters, and padding up to the
// end of the record. A string with a NUL inside is left to the decoder, which counts it.
bool viewText(std::string_view bytes, size_t words, RecordView *view) {
  const uint32_t length = wordAt(bytes, words);
  const size_t start = (words + 1) * wordSize;
  if (length > longestString || bytes.size() - start != (length + 3) / wordSize * wordSize) {
    return false;
  }
  view->text = bytes.substr(start, length);
  view->hasText = true;
  return length == 0 || memchr(view->text.data(), '\0', length) == nullptr;
}

// Both ids, each after its version word.
bool viewIds(std::string_view bytes, RecordView *view) {
  view->objectId = wordAt(bytes, 1);
  view->fieldId = wordAt(bytes, 3);
  return wordAt(bytes, 0) == 1 && wordAt(bytes, 2) == 1;
}

}  // namespace

bool viewDbObject(std::string_view bytes, RecordView *view) {
  if (bytes.size() < 5 * wordSize || !viewIds(bytes, view)) return false;
  view->value = {0, String, {}, 0};
  return viewText(bytes, 4, view);
}

bool viewDbObjectValue(std::string_view bytes, RecordView *view) {
  if (bytes.size() < 8 * wordSize || !viewIds(bytes, view)) return false;
  const bool isPlain = wordAt(bytes, 4) == 1 && wordAt(bytes, 5) == 0;
  const auto type = static_cast<int32_t>(wordAt(bytes, 6));
  const uint32_t word = wordAt(bytes, 7);
  if (!isPlain || type < Integer || type > Enumeration) return false;
  view->value = {0, type, {}, 0};
  view->hasText = false;
  if (type == String && word != nullMarker) return viewText(bytes, 7, view);
  if (bytes.size() != 8 * wordSize)
    return false;  // what follows the record is the decoder's to tell
  if (type == String) return true;
  view->value.value.number = type == Boolean ? word != 0 : static_cast<int32_t>(word);
  return true;
}

size_t writeDbObjectValue(const dbObjectValue &record, char *bytes) {
  const NQwFieldValue *value = record.value;
  if (value == nullptr || value->isList != 0) return 0;
  if (value->type < Integer || value->type > Enumeration) return 0;
  const char *text = value->type == String ? value->value.string : nullptr;
  const size_t length = text == nullptr ? 0 : strnlen(text, longestString + 1);
  if (length > longestString) return 0;

  auto last = static_cast<uint32_t>(value->value.number);
  if (value->type == Boolean) last = last != 0;
  if (value->type == String) last = text == nullptr ? nullMarker : static_cast<uint32_t>(length);
  const uint32_t words[] = {
      1, record.objectId, 1, record.fieldId, 1, 0, static_cast<uint32_t>(value->type), last};
  for (const uint32_t word : words) {
    const uint32_t bigEndian = htonl(word);
    memcpy(bytes, &bigEndian, wordSize);
    bytes += wordSize;
  }
  const size_t padded = (length + 3) / wordSize * wordSize;
  if (length > 0) {
    memset(bytes + padded - wordSize, 0, wordSize);  // the padding lies in the last word
    memcpy(bytes, text, length);
  }
  return sizeof words + padded;
}
