// What a check finds: each finding is a row of one table, with its severity, its text and its cure.
// The code that finds something names the row and hands over what tells the place.
#pragma once

#include <array>
#include <cstdint>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>

#include "objdb/record_lines.h"

enum class Finding : size_t {
  unfinishedVersion,
  unopened,
  damagedStructure,
  needsRecovery,
  unreached,
  undecodable,
  cutString,
  trailingBytes,
  wrongKey,
  noCounter,
  idBeyondCounter,
  unknownType,
  sameFieldName,
  unknownField,
  wrongType,
  unknownConstant,
  wrongTable,
  duplicateName,
  unindexedName,
  strayIndex,
};
constexpr size_t findingCount = static_cast<size_t>(Finding::strayIndex) + 1;

// Writes the findings to standard output as they come, in words or as lines of JSON, and counts
// them.
class Findings {
 public:
  explicit Findings(bool json) : json_(json) {}

  // A finding about a table, or about a record if members are given that tell which; or about a
  // whole version, if they tell that.
  void add(Finding finding, std::optional<size_t> table, const Json &members = Json::object(),
           const std::string &detail = "");

  // Writes the cures of what was found, and the last line.
  void finish(uint64_t records) const;

  uint64_t total() const;

 private:
  bool json_;
  std::array<uint64_t, findingCount> counts_{};
};
