#include "maint/kept_tables.h"

#include <signal.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>

#include "maint/run.h"
#include "platform/files.h"
#include "platform/out_of_memory.h"
#include "store/directory.h"
#include "store/versions.h"

namespace {

bool kept = false;
Version keptVersion;
std::unique_ptr<WorkDirectory> keptDirectory;

std::string databaseDirectory() {
  const char *path = dbPath("", nullptr);
  return path == nullptr ? "" : path;
}

[[noreturn]] void endUnkept(const std::string &directory, const std::string &reason) {
  fprintf(stderr, "dbsweep: Cannot keep the previous tables in %s: %s\n", directory.c_str(),
          reason.c_str());
  cleanupCaches(1);
  exit(exitRefused);
}

// Holds all signals back while it lives. Whoever has interrupted the run by then gets it ended, and
// before that the chance to leave nothing behind.
class SignalsHeld {
 public:
  SignalsHeld() {
    sigset_t all;
    sigfillset(&all);
    sigprocmask(SIG_BLOCK, &all, &before_);
  }
  ~SignalsHeld() { sigprocmask(SIG_SETMASK, &before_, nullptr); }
  SignalsHeld(const SignalsHeld &) = delete;
  SignalsHeld &operator=(const SignalsHeld &) = delete;

  // Whether a signal waits that will end the process as soon as it is let through.
  bool interrupted() const {
    sigset_t pending;
    sigpending(&pending);
    for (const int number :
         {SIGHUP, SIGINT, SIGQUIT, SIGPIPE, SIGALRM, SIGTERM, SIGUSR1, SIGUSR2}) {
      struct sigaction action {};
      sigaction(number, nullptr, &action);
      if (sigismember(&pending, number) == 1 && sigismember(&before_, number) == 0 &&
          action.sa_handler == SIG_DFL) {
        return true;
      }
    }
    return false;
  }

 private:
  sigset_t before_{};
};

bool hasRoom(const std::string &database, std::string *error) {
  uint64_t needed = 0;
  uint64_t available = 0;
  uint64_t rebuilt = 0;
  if (!bytesToKeep(database, {}, &needed, error) || !bytesToRebuild(database, &rebuilt, error)) {
    return false;
  }
  needed += rebuilt;
  if (freeBytes(database, &available) != 0) {
    *error = strerror(errno);
    return false;
  }
  if (available >= needed) return true;
  *error = "No space left on device";
  return false;
}

void makeCopy() {
  const std::string database = databaseDirectory();
  std::string error;
  const SignalsHeld held;
  removeLeftovers(database);
  VersionContent content;
  content.unfinished = true;
  if (hasRoom(database, &error)) {
    keptDirectory = keepCurrent(database, content, &keptVersion, &error);
  }
  if (keptDirectory == nullptr) {
    endUnkept(keptVersion.directory.empty() ? database : keptVersion.directory, error);
  }
  if (held.interrupted()) {
    keptDirectory->retract(&error);
    keptDirectory.reset();
    return;  // to the signal that ends the run
  }
  kept = true;
}

}  // namespace

void refuseUnfinished() {
  for (const Version &version : listVersions(databaseDirectory())) {
    if (!version.unfinished) continue;
    fprintf(stderr,
            "dbsweep: An earlier run did not finish. Its tables are kept in %s; restore them with "
            "'objdb restore' first.\n",
            version.directory.c_str());
    cleanupCaches(1);
    exit(exitRefused);
  }
}

void keepTables() {
  // Without the handler an exhausted memory comes back here, and the copy does not stay half made.
  const std::new_handler handler = std::set_new_handler(nullptr);
  try {
    while (!kept) makeCopy();
  } catch (const std::bad_alloc &) {
    removeLeftovers(databaseDirectory());
    nqwDbOutOfMemory();
  }
  std::set_new_handler(handler);
}

void settleKeptTables(const RewriteOutcome &outcome) {
  if (!kept) return;
  std::string error;
  if (outcome.unread == 0 && outcome.unwritten == 0 && outcome.synced &&
      keptDirectory->retract(&error)) {
    keptDirectory.reset();
    return;
  }
  finishVersion(keptVersion, &error);
  fprintf(stderr,
          "dbsweep: %u records could not be read and %u could not be written; the previous tables "
          "are kept in %s\n",
          outcome.unread, outcome.unwritten, keptVersion.directory.c_str());
  runStatus = exitRefused;
}
