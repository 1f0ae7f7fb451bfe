// dbsweep: deletes objects from the platform's object database and rewrites its tables.

#include <malloc.h>
#include <unistd.h>

#include <clocale>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <new>

#include "driver/daemons.h"
#include "driver/inherited_state.h"
#include "driver/options.h"
#include "driver/signals.h"
#include "maint/load_purge.h"
#include "maint/rewrite.h"
#include "maint/run.h"
#include "platform/out_of_memory.h"
#include "platform/report.h"
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

void sayPhase(const char *phase) {
  fprintf(stderr, "DEBUG: %s...\n", phase);
}

void run(const Options &options) {
  // First: what the daemons still hold in memory would be written over the new tables.
  sayPhase("checking daemons");
  checkDaemons();

  std::set_new_handler(nqwDbOutOfMemory);
  sayPhase("connect to object database");
  loadAndPurge(options.dflag, options.pflag, options.mflag);
  // A list of ids alone is deleted from the tables as they stand; nothing is rewritten.
  if (!options.mflag && !options.pflag) return;

  // From here on an interruption would leave tables half removed or half written.
  installSignalHandlers(cleanupCaches);
  sayPhase("save clear files in dbdir");
  removeCurrentFiles();
  blockSignals();
  sayPhase("restore db contents");
  rewriteDatabase(options.mflag);
  unblockSignals();
}

// What no new-handler could end: before it is installed, or where even a failure takes memory.
[[noreturn]] void endUncaught() {
  const std::exception_ptr caught = std::current_exception();
  if (caught != nullptr) {
    try {
      std::rethrow_exception(caught);
    } catch (const std::bad_alloc &) {
    } catch (...) {
      abort();
    }
  }
  nqwDbOutOfMemory();
}

}  // namespace

int main(int argc, char **argv) {
  std::set_terminate(endUncaught);
  std::atexit(sayLastWords);  // many functions below end the process with exit
  openStandardStreams();      // before the first message
  setlocale(LC_ALL, "");
  // What is large goes back to the system when it is freed. Without this malloc raises the limit
  // as it meets such pieces.
  mallopt(M_MMAP_THRESHOLD, 128 * 1024);
  const char *programName = programNameOf(argc > 0 ? argv[0] : "dbsweep");
  if (geteuid() != 0) {
    fprintf(stderr, "%s: must be run as super-user\n", programName);
    exit(exitRefused);
  }
  sanitizeEnvironment();  // before the first shell command
  const Options options = parseOptions(argc, argv, programName);
  if (options.cflag) {
    fputs("The -c option is no longer supported since corvaneTurboDatabase is standard.\n", stderr);
    exit(exitNormal);
  }
  if (!confirmed()) exit(exitNormal);
  run(options);
  cleanupCaches(1);
  exit(runStatus);
}
