// The container library's string helpers and the base library's string hash.
#pragma once

#include <cstddef>
#include <cstdint>

// All of these take null pointers: null sorts before every string, has length 0, and copies and
// hashes as the empty string.
size_t strlen_new(const char *text);
char *strcpy_new(char *to, const char *from);                // to has room for strlen_new(from) + 1
int strcmp_new(const char *a, const char *b);                // by bytes
int strncmp_new(const char *a, const char *b, size_t most);  // by bytes, at most that many
int strcoll_new(const char *a, const char *b);               // by the locale's collation

// FNV-1a, 32 bits.
uint32_t _NQhash(const char *text);

// A hash under which strings that strcoll_new calls equal are equal. Where the locale collates by
// bytes it is _NQhash of the text itself, elsewhere of its collation key (strxfrm).
uint32_t collationHash(const char *text);
