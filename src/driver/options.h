// The command line.
#pragma once

struct Options {
  bool dflag = false;  // delete the objects in objectids, or count
  bool cflag = false;  // obsolete
  bool mflag = false;  // migrate
  bool pflag = false;  // delete the objects of a protocol
};

// What follows the last "/" of argv[0]; the whole of it where it has none or ends with one.
const char *programNameOf(const char *invokedAs);

// Writes the usage text to standard error and exits with status 255.
[[noreturn]] void usage();

// Fills objectids and numofobj with the ids of a list: numbers (as atoi reads them) between blanks,
// tabs and newlines; white space alone is the single id 0. False, and nothing is changed, for a
// list that would be misread: more than 50 ids, an id of more than 15 characters or outside 32
// bits.
bool parseObjectIdList(const char *text);

// Reads the options in the order given and refuses what makes no sense: the messages and the usage
// text with status 255, or status 0 for a migration that was done before.
Options parseOptions(int argc, char **argv, const char *programName);
