#include "driver/options.h"

#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <string>

#include "maint/rewrite.h"
#include "maint/run.h"

namespace {

constexpr size_t longestId = 15;

constexpr const char *usageText[] = {
    "Usage:\tdbsweep  [-m] [-p protocol name]\n",
    "\t-m Migrate objects database to new data format\n",
    "\t-p protocol name\n",
    "\t\t where protocol name is a valid protocol taken from the\n",
    "\t\t /usr/NQ/conf/capability_map file and specified exactly as \n",
    "\t\t written in this file. If name contains blank(s), then \n",
    "\t\t enclose name with double quotes.\n",
    "\t   This option is used to delete protocol specific objects.\n",
    "\t   For example, to delete all QRT objects use \"QRT Session\".\n",
    "\t   For best results use the linkgwd provided cleanup tool first\n",
    "\t   and in the event of failure, use this to clean objects in\n",
    "\t   the objects database.\n",
    "\tYOU MUST BE A SUPER-USER TO RUN THIS PROGRAM! \n",
    "\tAfter completion, the user is advised to restart \n",
    "\tCorvane and all other applications that were  \n",
    "\tpreviously running.  \n",
    "\tBefore running this program, the user is adviced to  \n",
    "\tmake a backup copy of the databases so that if in the \n",
    "\tmiddle of processing the program aborts because it could \n",
    "\tnot open the database for writing, the user can restore \n",
    "\tthe databases. If this occurs, you will be told to restore\n",
    "\tthe archive databases to continue. \n",
    "\tIf program aborts due to shortage of memory, before a restart, \n",
    "\tyou should do either or both of these: \n\n",
    "\t\t(1) Stop some processes to free up memory \n",
    "\t\t(2) Increase the virtual memory size of the system \n\n",
};

bool separatesIds(char c) {
  return c == ' ' || c == '\t' || c == '\n';
}

// One id: the number at its start, 0 when there is none. Ids up to 2^32 - 1 may be given as such.
bool parseObjectId(const char *text, size_t length, uint32_t *id) {
  if (length > longestId) return false;
  // Wider than an id on either word size, so that an id above 2^31 - 1 is read as it stands.
  const long long number = strtoll(std::string(text, length).c_str(), nullptr, 10);
  if (number < std::numeric_limits<int32_t>::min() ||
      number > std::numeric_limits<uint32_t>::max()) {
    return false;
  }
  *id = static_cast<uint32_t>(number);
  return true;
}

bool isReadable(const char *path) {
  FILE *file = fopen(path, "r");
  if (file != nullptr) fclose(file);
  return file != nullptr;
}

void setProtocol(const char *argument, const char *programName) {
  constexpr char prefix[] = "is";
  if (isdigit(static_cast<unsigned char>(argument[0])) != 0 ||
      strlen(argument) + sizeof prefix > protocolNameSize) {
    fprintf(stderr, "%s: this is not a valid protocol name.\n", programName);
    usage();
  }
  snprintf(protocolName, protocolNameSize, "%s%s", prefix, argument);
}

void refuseSecondMigration(const char *programName) {
  if (!isReadable(migrationLockFile)) return;
  fprintf(stderr, "%s: Migration has previously been done on this database.\n", programName);
  fprintf(stderr, "%s: This is a normal program exit.\n", programName);
  exit(exitNormal);
}

}  // namespace

const char *programNameOf(const char *invokedAs) {
  const char *slash = strrchr(invokedAs, '/');
  return slash == nullptr || slash[1] == '\0' ? invokedAs : slash + 1;
}

void usage() {
  for (const char *line : usageText) fputs(line, stderr);
  exit(exitUsage);
}

// Into an array of its own first: a list that is refused leaves no half of it in objectids.
bool parseObjectIdList(const char *text) {
  uint32_t ids[mostObjectIds];
  int32_t count = 0;
  while (isspace(static_cast<unsigned char>(*text)) != 0) ++text;
  do {
    const char *end = text;
    while (*end != '\0' && !separatesIds(*end)) ++end;
    if (count == mostObjectIds ||
        !parseObjectId(text, static_cast<size_t>(end - text), &ids[count])) {
      return false;
    }
    ++count;
    text = end;
    while (separatesIds(*text)) ++text;
  } while (*text != '\0');
  std::copy_n(ids, count, objectids);
  numofobj = count;
  return true;
}

Options parseOptions(int argc, char **argv, const char *programName) {
  Options options;
  for (int letter; (letter = getopt(argc, argv, "?cmd:n:p:")) != -1;) {
    switch (letter) {
      case 'c':
        options.cflag = true;
        break;
      case 'm':
        // At once, in the order of the options: what stands before -m has been judged by then.
        refuseSecondMigration(programName);
        options.mflag = true;
        break;
      case 'd':
        if (!parseObjectIdList(optarg)) usage();
        options.dflag = true;
        break;
      case 'n':  // a count that older releases used
        break;
      case 'p':
        setProtocol(optarg, programName);
        options.pflag = true;
        break;
      default:
        usage();
    }
  }
  if (!options.dflag) {
    // Nothing to do, or all three at once. -c with one other action is refused later, in main.
    const int actions = options.cflag + options.mflag + options.pflag;
    if (actions == 0 || actions == 3) usage();
  }
  return options;
}
