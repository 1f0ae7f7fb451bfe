// dbsweep: deletes objects from the platform's object database and rewrites its tables.

#include <unistd.h>

#include <clocale>
#include <cstdio>
#include <cstdlib>
#include <new>

#include "driver/daemons.h"
#include "driver/options.h"
#include "driver/signals.h"
#include "driver/surroundings.h"
#include "maint/load_purge.h"
#include "maint/rewrite.h"
#include "maint/run.h"
#include "platform/out_of_memory.h"
#include "platform/strings.h"

namespace {

bool confirmed() {
  fputs("\n\nContinuation of this process requires that Corvane\n", stderr);
  fputs("and its' applications be terminated if they are not \n", stderr);
  fputs("already terminated. Do you wish to continue (yes/no)?\n", stderr);
  fputs("Only 'yes' is accepted as a valid confirmation to continue.\n", stderr);
  char answer[80] = "";
  return scanf("%79s", answer) == 1 && strncmp_new(answer, "yes", 3) == 0;
}

void announce(const char *phase) {
  fprintf(stderr, "DEBUG: %s...\n", phase);
}

void run(const Options &options) {
  announce("checking daemons");
  checkDaemons();

  std::set_new_handler(nqwDbOutOfMemory);
  announce("connect to object database");
  loadAndPurge(options.dflag, options.pflag, options.mflag);
  if (options.dflag != 0 && options.mflag == 0 && options.pflag == 0) return;

  installSignalHandlers(cleanupCaches);
  announce("save clear files in dbdir");
  removeCurrentFiles();
  blockSignals();
  announce("restore db contents");
  rewriteDatabase(options.mflag);
  unblockSignals();
}

}  // namespace

int main(int argc, char **argv) {
  openStandardStreams();
  setlocale(LC_ALL, "");
  const char *programName = programNameOf(argc > 0 ? argv[0] : "dbsweep");
  if (geteuid() != 0) {
    fprintf(stderr, "%s: must be run as super-user\n", programName);
    exit(exitRefused);
  }
  distrustEnvironment();
  const Options options = parseOptions(argc, argv, programName);
  if (options.cflag != 0) {
    fputs("The -c option is no longer supported since corvaneTurboDatabase is standard.\n", stderr);
    exit(exitNormal);
  }
  if (!confirmed()) exit(exitNormal);
  run(options);
  cleanupCaches(1);
  exit(runStatus);
}
