// What the tests of whole runs share.
#pragma once

#include <string>

#include "support.h"

inline const std::string dialogue =
    "\n\nContinuation of this process requires that Corvane\n"
    "and its' applications be terminated if they are not \n"
    "already terminated. Do you wish to continue (yes/no)?\n"
    "Only 'yes' is accepted as a valid confirmation to continue.\n";
inline const std::string loading =
    "DEBUG: checking daemons...\nDEBUG: connect to object database...\n";
inline const std::string rewriting =
    "DEBUG: save clear files in dbdir...\nDEBUG: restore db contents...\n";

inline std::string deleted(uint32_t objectId) {
  return "dbsweep: Objectid " + std::to_string(static_cast<int32_t>(objectId)) +
         " has been deleted from the database.\n";
}

// A whole run that is answered with "yes". Standard output has to stay empty.
inline Outcome sweep(const std::string &arguments) {
  const Outcome outcome = run("dbsweep " + arguments, "yes\n");
  EXPECT_EQ(outcome.out, "");
  return outcome;
}
