#include "platform/strings.h"

#include <clocale>
#include <cstring>
#include <string>

namespace {

// Both null 0, one null its order, else the given comparison.
template <typename Compare>
int compareNullable(const char *a, const char *b, Compare compare) {
  if (a == nullptr || b == nullptr) return (a != nullptr) - (b != nullptr);
  return compare(a, b);
}

// Looked up each time: a program may set its locale after the first hash.
bool collatesByBytes() {
  const char *locale = setlocale(LC_COLLATE, nullptr);
  return strcmp(locale, "C") == 0 || strcmp(locale, "POSIX") == 0 || strncmp(locale, "C.", 2) == 0;
}

}  // namespace

size_t strlen_new(const char *text) {
  return text == nullptr ? 0 : strlen(text);
}

char *strcpy_new(char *to, const char *from) {
  if (from == nullptr) from = "";
  return static_cast<char *>(memcpy(to, from, strlen(from) + 1));
}

int strcmp_new(const char *a, const char *b) {
  return compareNullable(a, b, strcmp);
}

int strncmp_new(const char *a, const char *b, size_t most) {
  return compareNullable(a, b,
                         [most](const char *x, const char *y) { return strncmp(x, y, most); });
}

int strcoll_new(const char *a, const char *b) {
  return compareNullable(a, b, strcoll);
}

uint32_t _NQhash(const char *text) {
  if (text == nullptr) text = "";
  uint32_t hash = 2166136261u;
  for (; *text != '\0'; ++text) hash = (hash ^ static_cast<unsigned char>(*text)) * 16777619u;
  return hash;
}

uint32_t collationHash(const char *text) {
  if (text == nullptr || collatesByBytes()) return _NQhash(text);
  std::string key(strxfrm(nullptr, text, 0) + 1, '\0');
  strxfrm(key.data(), text, key.size());
  return _NQhash(key.c_str());
}
