// A record of any table, decoded, with what the commands that judge records ask of it.
#pragma once

#include <cstdint>
#include <string_view>
#include <vector>

#include "objdb/record_lines.h"
#include "records/table_records.h"

class DecodedRecord {
 public:
  // Decodes; the bytes may be null. The decoded record lives as long as this one, in obj_info and
  // name_info until the next decoding of one of theirs.
  DecodedRecord(size_t table, std::string_view bytes);
  ~DecodedRecord();
  DecodedRecord(const DecodedRecord &) = delete;
  DecodedRecord &operator=(const DecodedRecord &) = delete;

  explicit operator bool() const { return decoded_ != nullptr; }
  const void *get() const { return decoded_; }  // as the table's decoder gives it

  // The key under which the record belongs; valid as long as this one.
  std::string_view properKey();

  // Bytes that encode the record as it was understood; valid until the next encoding.
  std::string_view encoding() const;

  // The length of that.
  size_t encodedBytes() const;

  bool hasObject = false;  // whether the table's records are of objects
  uint32_t objectId = 0;
  uint32_t fieldId = 0;
  uint32_t counter = 0;        // id_keeper
  int32_t type = 0;            // of a value or a definition; a name is a String
  uint32_t flags = 0;          // of a definition
  const char *name = nullptr;  // of the name tables, or a value that is a single string
  bool isCut = false;          // a string has a NUL inside, and what follows it is not read

 private:
  bool readPlain(std::string_view bytes);

  size_t table_;
  void *decoded_ = nullptr;
  char key_[sizeof(uint32_t) + longestString];
  // A single value, as most records are one, is decoded into these, without storage of its own.
  dbObjectValue plain_;
  NQwFieldValue plainValue_;
  char text_[longestString + 1];
};

// The number of a single value, or those of all entries of a list. Not of texts.
std::vector<int32_t> numbersOf(const NQwFieldValue &value);
