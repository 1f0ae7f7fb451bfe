// What the tests of whole runs share.
#pragma once

#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
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
inline const std::string cannotOpen = "dbsweep: Cannot open objects database.\n";

// The sanitizers make everything slower, and smaller numbers tell as much.
#ifdef DBSWEEP_SANITIZED
constexpr bool sanitized = true;
#else
constexpr bool sanitized = false;
#endif

// The database directory and a copy of it, to start every round of a test from the same tables.
inline const std::string root = "/usr/NQ/databases/nqwdb";
inline const std::string saved = "/usr/NQ/saved";

inline void saveTables() {
  ASSERT_EQ(run("rm -rf " + saved + " && cp -a " + root + " " + saved).status, 0);
}

inline void putTablesBack() {
  ASSERT_EQ(run("rm -rf " + root + " && cp -a " + saved + " " + root).status, 0);
  std::filesystem::remove("/usr/NQ/conf/dbsweep.lock");
}

inline void loadSample(int objects) {
  const Outcome outcome = run(DBSWEEP_SOURCE_DIR "/script/sample-network " +
                              std::to_string(objects) + " | objdb load --unsealed");
  ASSERT_EQ(outcome.status, 0) << outcome.err;
  saveTables();
}

// Whether files can be another user's here: not in namespaces that were not made by root.
inline bool hasOtherUsers() {
  return run(": >/usr/NQ/tmp/owned && chown 1000:1001 /usr/NQ/tmp/owned").status == 0;
}

// A process of the platform: its name in the process list is the file's.
inline pid_t start(const std::string &name) {
  const std::string path = "/usr/NQ/bin/" + name;
  if (!exists(path)) std::filesystem::copy_file("/bin/sleep", path);
  const pid_t child = fork();
  if (child == 0) execl(path.c_str(), path.c_str(), "60", nullptr);
  while (readFile("/proc/" + std::to_string(child) + "/comm") != name + "\n") usleep(1000);
  return child;
}

// Its exit status, or 128 + the signal that ended it; -1 while it runs, if the options do not wait.
inline int endOf(pid_t child, int options = 0) {
  int status = 0;
  if (waitpid(child, &status, options) != child) return -1;
  return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

// What a run says that could not do all of its work.
inline std::string keptMessage(const std::string &reasons, const std::string &directory) {
  return "dbsweep: The previous tables are kept in " + directory + ": " + reasons + ".\n";
}

inline std::string unfinishedMessage(const std::string &directory) {
  return "dbsweep: An earlier run did not finish. Its tables are kept in " + directory +
         "; restore them with 'objdb restore " + directory.substr(directory.rfind('/') + 1) +
         "' first.\n";
}

// The directory of the one archived version; empty when there is not exactly one.
inline std::string onlyVersion() {
  std::string found;
  int entries = 0;
  for (const auto &entry : std::filesystem::directory_iterator("/usr/NQ/databases/nqwdb")) {
    ++entries;
    if (entry.path().filename() != "current") found = entry.path();
  }
  return entries == 2 ? found : "";
}

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
