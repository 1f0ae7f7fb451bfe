// Nothing is ever lost: a run is stopped, or its file system fails, at its first change of the file
// system, at its second, and so on until it completes.

#include <gmock/gmock.h>
#include <signal.h>

#include <cerrno>
#include <chrono>
#include <filesystem>
#include <map>
#include <random>

#include "sweep/sweep_runs.h"

namespace {

using testing::AnyOf;
using testing::EndsWith;

// How many random moments; DBSWEEP_MOMENTS asks for another number.
constexpr int fewMoments = sanitized ? 15 : 150;

struct Fault {
  std::string how;     // as fault_preload.cc has it
  bool on = false;     // from then on at every change
  bool mapped = true;  // whether the table library maps its files
  std::string preload = FAULT_PRELOAD;
};

// What another process does while the run stands at a change.
const std::string meanwhile = "/usr/NQ/tmp/meanwhile";

void writeMeanwhile(const std::string &commands) {
  writeFile(meanwhile, "#!/bin/sh\nunset LD_PRELOAD\n" + commands + "\n");
  ASSERT_EQ(run("chmod +x " + meanwhile).status, 0);
}

class Faults : public PlatformTest {
 protected:
  Faults() {
    Lines lines = emptyNetwork();
    for (uint32_t id = 1; id <= 6; ++id) {
      const char *value =
          id % 2 == 0 ? R"("type":"Boolean","value":true)" : R"("type":"Boolean","value":false)";
      lines =
          lines + nameLines(id, 10, "object " + std::to_string(id)) +
          Lines{valueLine(id, 20, value), valueLine(id, 24, R"("type":"String","list":["a","b"])")};
    }
    load(lines);
    before = dump();
    saveTables();
  }

  // Runs a command with the fault at its n-th change of the file system.
  static Outcome runWith(const Fault &fault, const std::string &program,
                         const std::string &arguments, int at) {
    std::filesystem::remove("/usr/NQ/tmp/count");
    return run("FAULT_IN=" + program + " FAULT_AT=" + std::to_string(at) +
                   " FAULT_HOW=" + fault.how + (fault.on ? " FAULT_ON=1" : "") +
                   (fault.mapped ? "" : " FAULT_NOMAP=1") +
                   " FAULT_COUNT=/usr/NQ/tmp/count FAULT_DISK=" + root +
                   " ASAN_OPTIONS=verify_asan_link_order=0" + " LD_PRELOAD=" + fault.preload + " " +
                   program + " " + arguments,
               "yes\n");
  }

  // Whether the fault lay behind the last change that the command made.
  static bool wasBehindTheEnd(int at) {
    return std::stoi("0" + readFile("/usr/NQ/tmp/count")) < at;
  }

  static bool contains(const Lines &whole, const Lines &part) {
    const Lines a = sorted(whole), b = sorted(part);
    return std::includes(a.begin(), a.end(), b.begin(), b.end());
  }

  static Lines currentLines() { return run("objdb dump").status == 0 ? dump() : Lines{}; }

  static std::string versionName() {
    const std::string names = run("objdb versions").out;
    return names.substr(0, names.find_first_of(" \n"));
  }

  // "current" holds the old or the new database whole, or the kept version brings the old one back.
  // A deletion that failed, and said so, may have left an object in part.
  void expectNothingLost(const Lines &after, bool partsAllowed) {
    const Lines current = currentLines();
    if (current == before || current == after) return;
    if (partsAllowed && contains(before, current) && contains(current, after)) return;
    const std::string version = versionName();
    ASSERT_NE(version, "") << "no whole database anywhere";
    const Outcome restored = run("objdb restore " + version);
    ASSERT_EQ(restored.status, 0) << restored.err;
    ASSERT_EQ(dump(), before);
  }

  void stopEverywhere(const Fault &fault, const std::string &arguments, int step = 1) {
    const Lines after = arguments == "-m" ? before : without(before, {2, 4, 6});
    for (int at = 1;; at += step) {
      SCOPED_TRACE(arguments + ": " + fault.how + " at " + std::to_string(at));
      putTablesBack();
      const Outcome outcome = runWith(fault, "dbsweep", arguments, at);
      if (wasBehindTheEnd(at)) {
        ASSERT_EQ(outcome.status, 0);
        ASSERT_EQ(dump(), after);
        ASSERT_EQ(versionName(), "");
        printf("%s: %s at %d points%s\n", arguments.c_str(), fault.how.c_str(), at - 1,
               fault.mapped ? "" : ", files not mapped");
        ASSERT_GT(at, 60);
        break;
      }
      ASSERT_EQ(outcome.status, 128 + SIGKILL);
      ASSERT_NO_FATAL_FAILURE(expectNothingLost(after, false));
    }
  }

  Lines before;
};

// Counted, not timed: a run over four times the objects takes four times the memory requests, and
// but a few more calls that change the file system, since the tables grow in large steps.
TEST_F(Faults, TheCostOfAValueDoesNotGrowWithTheirNumber) {
  if (sanitized) GTEST_SKIP() << "the sanitizers have their own allocations";
  std::map<int, std::map<std::string, int>> counts;
  for (const int objects : {1000, 4000}) {
    std::filesystem::remove_all(root);
    ASSERT_NO_FATAL_FAILURE(loadSample(objects));
    for (const std::string arguments : {"-m", "-p OSPF"}) {
      for (const std::string preload : {FAULT_PRELOAD, ALLOCATION_FAULT_PRELOAD}) {
        putTablesBack();
        constexpr int never = 1'000'000'000;
        ASSERT_EQ(runWith({"12", false, true, preload}, "dbsweep", arguments, never).status, 0);
        counts[objects][arguments + preload] = std::stoi("0" + readFile("/usr/NQ/tmp/count"));
      }
    }
  }
  for (const auto &[what, few] : counts[1000]) {
    const int many = counts[4000][what];
    printf("%s: %d and %d\n", what.c_str(), few, many);
    EXPECT_GT(few, 60);
    EXPECT_LT(many, what.ends_with(FAULT_PRELOAD) ? few + 200 : few * 4.1);
  }
}

// A disk between two syncs forgets what it forgets just behind the first of them.
const std::vector<Fault> powerCuts = {
    {"forget"}, {"forget-entries"}, {"forget-contents"}, {"forget-creations"}};

TEST_F(Faults, ARunCanBeStoppedAnywhere) {
  for (const char *arguments : {"-p 'QRT Session'", "-m"}) {
    stopEverywhere({"kill"}, arguments);
    stopEverywhere({"kill", false, false}, arguments);
  }
}

TEST_F(Faults, ARunCanLoseItsPowerAnywhere) {
  for (const Fault &cut : powerCuts) stopEverywhere(cut, "-p 'QRT Session'", sanitized ? 5 : 1);
}

// With mapped files most stores are no calls; only the clock finds the moments between them.
TEST_F(Faults, ARunCanBeStoppedAtAnyMoment) {
  std::filesystem::remove_all(currentDir);
  loadSample(1500);
  before = dump();
  const auto start = std::chrono::steady_clock::now();
  ASSERT_EQ(sweep("-p OSPF").status, 0);
  const std::chrono::duration<double> whole = std::chrono::steady_clock::now() - start;
  const Lines after = dump();
  const char *wanted = getenv("DBSWEEP_MOMENTS");
  const int moments = wanted == nullptr ? fewMoments : atoi(wanted);
  std::mt19937 random(17);
  int stopped = 0, mended = 0;
  for (int round = 0; round < moments; ++round) {
    putTablesBack();
    const std::string seconds =
        std::to_string(whole.count() * static_cast<double>(random() % 1000) / 1000);
    SCOPED_TRACE("stopped after " + seconds + " s");
    stopped += run("timeout -s KILL " + seconds + " dbsweep -p OSPF", "yes\n").status == 137;
    const Lines current = currentLines();
    mended += current != before && current != after;
    ASSERT_NO_FATAL_FAILURE(expectNothingLost(after, false));
  }
  printf("%d of %d runs were stopped, %d needed the kept tables\n", stopped, moments, mended);
  EXPECT_GT(stopped, moments / 3);
}

TEST_F(Faults, ARestoreCanBeStoppedAnywhere) {
  // A run stopped where the tables are gone and only the kept version has them.
  int at = 1;
  do {
    putTablesBack();
    runWith({"kill"}, "dbsweep", "-p 'QRT Session'", at++);
  } while (exists(currentDir + "/obj_info.pag"));
  saveTables();
  const std::string version = versionName();
  std::vector<Fault> faults = powerCuts;
  faults.push_back({"kill"});
  for (const Fault &fault : faults) {
    for (at = 1;; at += sanitized && fault.how != "kill" ? 5 : 1) {
      SCOPED_TRACE("restore: " + fault.how + " at " + std::to_string(at));
      putTablesBack();
      runWith(fault, "objdb", "restore " + version, at);
      if (!wasBehindTheEnd(at)) {
        ASSERT_EQ(run("objdb restore " + version).status, 0);
      }
      ASSERT_EQ(dump(), before);
      ASSERT_EQ(sweep("-d 99").status, 0) << "the restored database is ready for use";
      if (wasBehindTheEnd(at)) break;
    }
    printf("restore: %s at %d points\n", fault.how.c_str(), at - 1);
    ASSERT_GT(at, 30);
  }
}

// Another process works on the tables while the run stands at a change of the file system: at each.
TEST_F(Faults, OfTwoAtOnceOneWins) {
  const std::string tool = "for table in field_info obj_info value_info name_info; do gdbmtool " +
                           currentDir + "/$table.pag reorganize; done >/usr/NQ/tmp/tool";
  ASSERT_EQ(run("gdbmtool --version").status, 0) << "script/bootstrap installs it";
  for (const std::string first : {"-p 'QRT Session'", "-d '2 4 6'"}) {
    for (const std::string &second : {std::string("echo yes | dbsweep -d 3"),
                                      std::string("echo yes | dbsweep -m -d 3"), tool}) {
      writeMeanwhile("exec 2>/usr/NQ/tmp/second\n" + second);
      int refused = 0;
      for (int at = 1;; at += sanitized ? 7 : 1) {
        SCOPED_TRACE(second + " in " + first + " at " + std::to_string(at));
        putTablesBack();
        const Outcome outcome = runWith({meanwhile}, "dbsweep", first, at);
        if (wasBehindTheEnd(at)) break;
        const std::string other = readFile("/usr/NQ/tmp/second");
        SCOPED_TRACE(outcome.err + other);
        const bool firstWon = outcome.err.find(deleted(2)) != std::string::npos;
        const bool secondWon = second == tool ? other.find("cannot open") == std::string::npos
                                              : other.find(deleted(3)) != std::string::npos;
        ASSERT_TRUE(firstWon || secondWon);
        ASSERT_EQ(outcome.status, 0);
        const std::string refusal = dialogue + loading + cannotOpen;
        ASSERT_TRUE(firstWon || outcome.err == refusal);
        ASSERT_TRUE(secondWon || second == tool || other == refusal);
        refused += secondWon ? 0 : 1;
        Lines expected = firstWon ? without(before, {2, 4, 6}) : before;
        if (secondWon && second != tool) expected = without(expected, {3});
        ASSERT_EQ(dump(), expected);
        ASSERT_EQ(versionName(), "");
      }
      printf("%s in %s: refused %d times\n", second.c_str(), first.c_str(), refused);
      EXPECT_GT(refused, 1);
    }
  }
}

TEST_F(Faults, AFailingFileSystemIsReportedAndLosesNothing) {
  const Lines after = without(before, {2, 4, 6});
  for (const Fault &fault : {Fault{std::to_string(ENOSPC), false, false},
                             Fault{std::to_string(EIO)}, Fault{std::to_string(EIO), true, false}}) {
    for (int at = 1;; ++at) {
      SCOPED_TRACE("error " + fault.how + (fault.on ? " from " : " at ") + std::to_string(at));
      putTablesBack();
      const Outcome outcome = runWith(fault, "dbsweep", "-p 'QRT Session'", at);
      SCOPED_TRACE(outcome.err);
      ASSERT_THAT(outcome.status, AnyOf(0, 1, 255));
      const bool failedToDelete = outcome.err.find("could not be deleted") != std::string::npos;
      ASSERT_NO_FATAL_FAILURE(expectNothingLost(after, failedToDelete));
      // A run that reports nothing unusual has done all of its work.
      if (outcome.err.ends_with(rewriting) && outcome.status == 0 && !failedToDelete) {
        ASSERT_EQ(currentLines(), after);
      }
      if (wasBehindTheEnd(at)) break;
    }
  }
}

// A disk of every size. On one that has no room for the tables a run starts without any. Where
// there is room for a run, another writer takes some of it once the old tables are gone.
TEST_F(Faults, ADiskCanBeFull) {
  std::filesystem::remove_all(currentDir);
  loadSample(100);
  before = dump();
  std::map<std::string, Lines> runs;  // what each leaves
  for (const char *arguments : {"-p OSPF", "-m", "-p OSPF -d 1000"}) {
    putTablesBack();
    ASSERT_EQ(sweep(arguments).status, 0);
    runs[arguments] = dump();
  }
  writeMeanwhile("cd " + root + "; [ -e current/value_info.pag ] || [ -e filler ] || " +
                 "head -c 200k /dev/zero >filler");
  int sizes = 0, tooSmall = 0, refused = 0, broken = 0, done = 0;
  for (int size = 4; done < 10; size += sanitized ? 16 : 4, ++sizes) {
    const auto &[arguments, after] = *std::next(runs.begin(), sizes % 3);
    bool roomy = true;
    for (const bool shared : {false, true}) {
      if (!roomy) continue;
      SCOPED_TRACE(arguments + " on " + std::to_string(size) + (shared ? " shared KiB" : " KiB"));
      putTablesBack();
      ASSERT_EQ(run("mount -t tmpfs -o size=" + std::to_string(size) + "k tmpfs " + root).status,
                0);
      const bool fits = run("cp -a " + saved + "/current " + root).status == 0;
      if (!fits) std::filesystem::remove_all(currentDir);
      const Outcome outcome =
          shared ? runWith({meanwhile, true}, "dbsweep", arguments, 1) : sweep(arguments);
      SCOPED_TRACE(outcome.err);
      ASSERT_THAT(outcome.status, AnyOf(0, 1));
      if (!fits) {
        roomy = false;
        ++tooSmall;
        ASSERT_GT(outcome.err.size(), (dialogue + loading).size());
      } else if (outcome.err.find("Cannot keep") != std::string::npos) {
        roomy = false;
        ++refused;
        ASSERT_EQ(outcome.status, 1);
        ASSERT_THAT(outcome.err, EndsWith("dbsweep: Cannot keep the previous tables in " + root +
                                          ": No space left on device\n"));
        ASSERT_EQ(run("diff -r " + saved + " " + root).status, 0);
        ASSERT_FALSE(exists("/usr/NQ/conf/dbsweep.lock"));
      } else if (outcome.status == 0 && outcome.err.ends_with(rewriting)) {
        done += shared ? 1 : 0;
        ASSERT_EQ(currentLines(), after);
        ASSERT_EQ(versionName(), "");
      } else {
        ASSERT_TRUE(shared) << "only room that was there and is gone can be missing";
        ++broken;
        const bool restored = run("objdb restore " + versionName()).status == 0;
        ASSERT_EQ(restored, currentLines() == before) << "or it says that it is full, too";
        std::filesystem::remove(root + "/filler");
        ASSERT_NO_FATAL_FAILURE(expectNothingLost(after, false));
      }
      ASSERT_EQ(run("umount " + root).status, 0);
    }
  }
  printf(
      "%d sizes: %d too small for the tables, %d refused, %d broken off, %d done beside another\n",
      sizes, tooSmall, refused, broken, done);
  EXPECT_GT(sizes, sanitized ? 40 : 150);
  EXPECT_GT(std::min({tooSmall, refused, broken}), sanitized ? 5 : 20);
}

// Before the load the C library alone allocates, and does without where it can.
TEST_F(Faults, AnAllocationThatFailsEndsTheRunOrIsDoneWithout) {
  if (sanitized) GTEST_SKIP() << "the address sanitizer has an allocator of its own";
  const Lines after = without(before, {2, 4, 6});
  const std::string number = std::to_string(ENOMEM);
  int ended = 0;
  for (int at = 1;; ++at) {
    SCOPED_TRACE("allocation " + std::to_string(at));
    putTablesBack();
    const Outcome outcome =
        runWith({number, false, true, ALLOCATION_FAULT_PRELOAD}, "dbsweep", "-p 'QRT Session'", at);
    SCOPED_TRACE(outcome.err);
    ASSERT_THAT(outcome.status, AnyOf(0, 1));
    ASSERT_NO_FATAL_FAILURE(expectNothingLost(after, false));
    ended += outcome.err.ends_with("dbsweep: Out of memory.") ? 1 : 0;
    if (wasBehindTheEnd(at)) break;
  }
  EXPECT_GT(ended, 100);
}

}  // namespace
