// What a run could not do although it went on: each is a reason to keep the previous tables. Noted
// by load_purge.cc (unread, missing, undeleted), rewrite.cc and proof.h.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

struct RunOutcome {
  uint32_t unread = 0;               // records
  std::vector<std::string> missing;  // tables that were not there, beside others with records
  uint32_t leftOut = 0;              // values of remaining objects that a rewrite drops or changes
  uint32_t unwritten = 0;            // values
  uint32_t undeleted = 0;            // objects
  std::vector<std::string> unremoved;  // files
  bool unsynced = false;               // the changed tables are not known to be on the disk
  bool incomplete = false;             // they do not hold what was stored
};

extern RunOutcome outcome;

// The reasons that apply, joined by "; "; empty when there are none.
std::string reasonsToKeep();
