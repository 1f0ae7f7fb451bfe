// What a version holds, found by reading it: whether it can be trusted as a whole, and whether two
// versions hold the same.
#pragma once

#include <array>
#include <cstdint>
#include <string>

#include "objdb/census.h"

struct Survey {
  bool isThere = false;                       // holds the file of a table
  bool isWhole = false;                       // see surveyVersion
  std::string whatIsWrong;                    // when it is not whole: the first reason met
  std::array<bool, tableCount> halfTables{};  // of which one of the two files is not there
  bool hasIdKeeper = false;                   // which archives of the platform itself do not have
  uint32_t counter = 0;                       // of the id keeper; 0 for none
  uint32_t highestId = 0;  // of a field or an object, and so never to be handed out again
  uint64_t bytes = 0;      // of its files
  uint64_t records = 0;
  Census census;  // of the records that were read
};

// A version is whole when each table but the id keeper is there with both files, is sound and reads
// to its end, and there is a field definition, as there is in every database from its beginning on.
// The lock is the caller's business. A quick look reads no record and believes the counters in the
// files: enough for a list of versions, and never for a copy.
Survey surveyVersion(const std::string &directory);
Survey surveyQuickly(const std::string &directory);

// The smallest number that the id keeper of a version with that highest id may have.
uint32_t lowestCounter(uint32_t highestId);
