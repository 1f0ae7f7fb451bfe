// Fault loops: one command over one database, with a fault at its first call of some kind, at its
// second, and so on until it completes; after each the tables are judged.
//
// To have another command tried, add a row to commands() in the test file of its program, with a
// judge of its own where nothingIsLost says too little.
#pragma once

#include <sys/stat.h>

#include <chrono>
#include <functional>
#include <map>
#include <ostream>
#include <string>
#include <tuple>
#include <vector>

#include "support.h"

// What the loops start from: all files below /usr/NQ/databases, kept in memory.
class Snapshot {
 public:
  static Snapshot take();
  // Puts the files back, and removes what else a run leaves (lock file, logs).
  void putBack() const;

 private:
  struct File {
    std::string path;
    struct stat status;
    bool isDirectory;
    std::string content;
  };
  std::vector<File> files_;
};

// A version of the database as its dump tells it. Not whole: it cannot be dumped.
struct VersionLines {
  Lines lines;
  bool whole = false;
  bool unfinished = false;
  auto operator<=>(const VersionLines &) const = default;
};

// "current", when its directory is there, and every archived version, by name.
using Versions = std::map<std::string, VersionLines>;
Versions versionsNow();

struct Round;

struct Command {
  std::string label;  // letters and digits: a part of the tests' names
  std::vector<std::string>
      line;  // program and arguments; "VERSION" stands for the one that is there
  std::string input = "yes\n";
  // Makes the databases that the command starts from out of the one that the test has loaded.
  std::function<void()> prepare = [] {};
  // Looks at the tables after a round, beyond nothingIsLost. May change them.
  std::function<void(const Round &)> judge = [](const Round &) {};
  // Makes a version of what can be read, and reports the rest as lost.
  bool salvages = false;
};

enum class Points {
  changes,      // calls that change the file system
  calls,        // those, and calls that look at it or lock it
  allocations,  // requests for memory
};

struct Fault {
  std::string label;  // as in Command
  std::string how;    // as fault_preload.cc has it
  Points points = Points::changes;
  bool on = false;     // from then on
  bool mapped = true;  // whether the table library maps its files

  bool ends() const { return how == "kill" || how.starts_with("forget"); }
  bool fails() const { return !ends() && how != "stop"; }
};

// Every kind that ends a run or makes a call fail.
const std::vector<Fault> &faults();

struct Round {
  const Command &command;
  const Fault &fault;
  long at;
  std::string call;      // that the command made there; empty when it did not come to the point
  Outcome outcome;       // of the command
  const Outcome &clean;  // of the command without a fault
  const Versions &before, &after;  // the command, and the command without a fault
  Versions now;
  std::string trace = {};  // of the deletions
  bool leftovers = false;  // work directories that it has left

  bool reached() const { return !call.empty(); }
};

// How the tests show their parameters.
inline void PrintTo(const Command &command, std::ostream *stream) {
  *stream << command.label;
}
inline void PrintTo(const Fault &fault, std::ostream *stream) {
  *stream << fault.label;
}

// How CTest names the test of a command and a fault.
std::string caseName(const testing::TestParamInfo<std::tuple<Command, Fault>> &test);

// The fault at point `at`, or 0 for none. Counts the points of the run in *points, where that is
// given. `meanwhile` runs each time that the command stops.
Outcome runWithFault(const Command &command, const Fault &fault, long at, long *points = nullptr,
                     const std::function<void()> &meanwhile = {});

// The same without a fault, for many short runs: no shell, and no look for processes.
Outcome runAlone(const std::vector<std::string> &line, const std::string &input = "");

// The same, killed after that time, whatever it does then.
Outcome runAndKill(const Command &command, std::chrono::nanoseconds after);

// The points of a loop that has so many. Every one, or with DBSWEEP_POINTS in the environment that
// many at even distances, which begin elsewhere with another DBSWEEP_SEED.
std::vector<long> pointsToTry(long points);

// Runs the command with the fault at every point, from the tables that are there, and judges.
// Fails with the command, the fault and the point.
void faultEverywhere(const Command &command, const Fault &fault);

// At every point of the first command the second one runs, from start to end. Both outcomes go to
// the judge.
using JudgeTwo =
    std::function<void(const Round &first, const Outcome &second, const Versions &before)>;
void letInEverywhere(const Command &first, const Command &second, const JudgeTwo &judge);

// What holds after any command and any fault: "current" is as before or as after, or the marked
// version holds it as before; the other versions are as before or as after; every version that has
// a name is whole; a failure is not silent, that of a sync least of all, and a run that reports
// nothing has done all of its work. The next run then names the marked version, if there is one,
// and objdb brings it back; after that the database is ready for use.
void nothingIsLost(const Round &round);
