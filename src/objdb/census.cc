#include "objdb/census.h"

#include <gdbm.h>

#include <cstdio>
#include <nlohmann/json.hpp>

#include "objdb/fnv64.h"

namespace {

uint64_t hashBytes(uint64_t hash, std::string_view bytes) {
  for (const char each : bytes) hash = fnv64Step(hash, static_cast<unsigned char>(each));
  return hash;
}

}  // namespace

void Census::add(size_t table, std::string_view key, std::string_view bytes) {
  ++records_[table];
  // The length of the key tells where it ends and the record begins.
  const std::string frame =
      keyOf({static_cast<uint32_t>(table), static_cast<uint32_t>(key.size())});
  digest_ += hashBytes(hashBytes(hashBytes(fnv64Start, frame), key), bytes);
}

std::string Census::digest() const {
  char digits[17];
  snprintf(digits, sizeof digits, "%016llx", static_cast<unsigned long long>(digest_));
  return digits;
}

Json Census::toJson() const {
  Json records = Json::object();
  for (size_t table = 0; table < tableCount; ++table) {
    records[tableFormats[table].name] = records_[table];
  }
  return {{"records", records}, {"digest", digest()}};
}

Json headerLine() {
  return {{"format", "objdb dump 1"},
          {"wordBits", 8 * sizeof(void *)},
          {"library",
           std::to_string(gdbm_version_number[0]) + "." + std::to_string(gdbm_version_number[1])}};
}

bool isHeaderLine(const Json &line) {
  // What made the dump does not matter.
  const Json header = headerLine();
  return line.is_object() && line.size() == header.size() && line.contains("wordBits") &&
         line.contains("library") && line.contains("format") && line["format"] == header["format"];
}

bool isTrailerLine(const Json &line) {
  return line.is_object() && line.contains("digest");
}
