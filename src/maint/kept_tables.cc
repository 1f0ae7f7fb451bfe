#include "maint/kept_tables.h"

#include <signal.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>

#include "maint/outcome.h"
#include "maint/run.h"
#include "platform/files.h"
#include "platform/out_of_memory.h"
#include "platform/report.h"
#include "store/directory.h"
#include "store/versions.h"

namespace {

Version keptVersion;
std::unique_ptr<WorkDirectory> keptDirectory;  // null: nothing is kept

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

// Holds all signals back while it lives. A signal that arrives meanwhile ends the run, but only
// after we have cleaned up.
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
          action.sa_handler != SIG_IGN) {
        return true;
      }
    }
    return false;
  }

 private:
  sigset_t before_{};
};

VersionContent contentOf(KeepBy how) {
  VersionContent content;
  content.unfinished = true;
  content.linksRebuilt = how == KeepBy::linking;
  for (size_t table = 0; table < tableCount; ++table) {
    content.leftOut[table] = std::find(outcome.missing.begin(), outcome.missing.end(),
                                       tableFormats[table].name) != outcome.missing.end();
  }
  return content;
}

// For the version, and for the new tables of a run that rebuilds them.
bool hasRoom(const std::string &database, const VersionContent &content, std::string *error) {
  uint64_t needed = 0;
  uint64_t rebuilt = 0;
  uint64_t available = 0;
  if (!bytesToKeep(database, content, &needed, error) ||
      (content.linksRebuilt && !bytesToRebuild(database, &rebuilt, error))) {
    return false;
  }
  needed += rebuilt;
  if (freeBytes(database, &available) != 0) {
    *error = strerror(errno);
    return false;
  }
  if (available >= needed) return true;
  *error = std::string(strerror(ENOSPC)) + ": " + std::to_string(needed) + " bytes are needed, " +
           std::to_string(available) + " are free";
  return false;
}

// False when a signal is about to end the run: then nothing is kept. The signal is let through when
// this returns.
bool makeKeptVersion(KeepBy how) {
  const std::string database = databaseDirectory();
  const VersionContent content = contentOf(how);
  std::string error;
  const SignalsHeld held;
  removeLeftovers(database);
  if (hasRoom(database, content, &error)) {
    keptDirectory = keepCurrent(database, content, &keptVersion, &error);
  }
  if (keptDirectory == nullptr) endUnkept(database, error);
  if (held.interrupted()) {
    keptDirectory->retract(&error);
    keptDirectory.reset();
    return false;
  }
  // While the signals are still held back: from now on every end of the run has to say this.
  prepareLastWords(
      "The run did not finish. The previous tables are kept in %s; restore them with 'objdb "
      "restore %s'.",
      keptVersion.directory.c_str(), keptVersion.name.c_str());
  sayLastWordsBySignal();
  return true;
}

}  // namespace

void refuseUnfinished() {
  for (const Version &version : listVersions(databaseDirectory())) {
    if (!version.unfinished) continue;
    fprintf(stderr,
            "dbsweep: An earlier run did not finish. Its tables are kept in %s; restore them with "
            "'objdb restore %s' first.\n",
            version.directory.c_str(), version.name.c_str());
    cleanupCaches(1);
    exit(exitRefused);
  }
}

void keepTables(KeepBy how) {
  if (keptDirectory != nullptr) return;
  // Without the handler an exhausted memory comes back here as an exception, and the destructors
  // remove what is half made.
  const std::new_handler handler = std::set_new_handler(nullptr);
  try {
    while (!makeKeptVersion(how)) {
      // The pending signal has not ended the run after all: once more.
    }
  } catch (const std::bad_alloc &) {
    nqwDbOutOfMemory();
  }
  std::set_new_handler(handler);
}

void keepCopyOf(size_t table) {
  std::string error;
  if (!replaceLinkByCopy(*keptDirectory, table, &error)) endUnkept(keptVersion.directory, error);
}

void removeOrReportKeptVersion() {
  if (keptDirectory == nullptr) return;
  const SignalsHeld held;  // the last words are true as long as the mark stands, and no longer
  std::string reasons = reasonsToKeep();
  std::string error;
  if (reasons.empty()) {
    // First the name, at once: a version that can be seen is whole. The files go with the object.
    keptDirectory->retract(&error);
    if (!keptDirectory->isPublished()) {
      keptDirectory.reset();
      forgetLastWords();
      return;
    }
    reasons = keptVersion.directory + " could not be removed";
  }
  removeMark(keptVersion, &error);
  forgetLastWords();  // from here on the line on standard error says where the version is
  fprintf(stderr, "dbsweep: The previous tables are kept in %s: %s.\n",
          keptVersion.directory.c_str(), reasons.c_str());
  runStatus = exitRefused;
}
