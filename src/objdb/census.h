// The lines around the records of a dump, which tell whether it was truncated or changed.
#pragma once

#include <array>

#include "objdb/record_lines.h"

// How many records each table has, and a digest of keys and records that does not depend on their
// order: the sum of the records' 64-bit FNV-1a hashes.
class Census {
 public:
  void add(size_t table, std::string_view key, std::string_view bytes);

  std::string digest() const;  // in hexadecimal
  Json toJson() const;         // the trailer line

  bool operator==(const Census &) const = default;

 private:
  std::array<uint64_t, tableCount> records_{};
  uint64_t digest_ = 0;
};

// The line before the records.
Json headerLine();

bool isHeaderLine(const Json &line);
bool isTrailerLine(const Json &line);
