// The command line and the process checks of the real binary, to the byte.

#include <gmock/gmock.h>
#include <signal.h>
#include <sys/stat.h>

#include <filesystem>

#include "driver/options.h"
#include "maint/run.h"
#include "sweep/sweep_runs.h"

namespace {

using testing::ElementsAreArray;

class CommandLine : public PlatformTest {};

const std::string usageText =
    "Usage:\tdbsweep  [-m] [-p protocol name]\n"
    "\t-m Migrate objects database to new data format\n"
    "\t-p protocol name\n"
    "\t\t where protocol name is a valid protocol taken from the\n"
    "\t\t /usr/NQ/conf/capability_map file and specified exactly as \n"
    "\t\t written in this file. If name contains blank(s), then \n"
    "\t\t enclose name with double quotes.\n"
    "\t   This option is used to delete protocol specific objects.\n"
    "\t   For example, to delete all QRT objects use \"QRT Session\".\n"
    "\t   For best results use the linkgwd provided cleanup tool first\n"
    "\t   and in the event of failure, use this to clean objects in\n"
    "\t   the objects database.\n"
    "\tYOU MUST BE A SUPER-USER TO RUN THIS PROGRAM! \n"
    "\tAfter completion, the user is advised to restart \n"
    "\tCorvane and all other applications that were  \n"
    "\tpreviously running.  \n"
    "\tBefore running this program, the user is adviced to  \n"
    "\tmake a backup copy of the databases so that if in the \n"
    "\tmiddle of processing the program aborts because it could \n"
    "\tnot open the database for writing, the user can restore \n"
    "\tthe databases. If this occurs, you will be told to restore\n"
    "\tthe archive databases to continue. \n"
    "\tIf program aborts due to shortage of memory, before a restart, \n"
    "\tyou should do either or both of these: \n\n"
    "\t\t(1) Stop some processes to free up memory \n"
    "\t\t(2) Increase the virtual memory size of the system \n\n";
const std::string notSupported =
    "The -c option is no longer supported since corvaneTurboDatabase is standard.\n";
const std::string badProtocol = "dbsweep: this is not a valid protocol name.\n";
const std::string migratedBefore =
    "dbsweep: Migration has previously been done on this database.\n"
    "dbsweep: This is a normal program exit.\n";

std::string times(int count, const std::string &text) {
  std::string all;
  for (int i = 0; i < count; ++i) all += text;
  return all;
}

struct Case {
  std::string command;
  int status;
  std::string err;
  std::string input;
};

void expectAll(const std::vector<Case> &cases) {
  for (const Case &each : cases) {
    SCOPED_TRACE(each.command + " < " + each.input);
    const Outcome outcome = run(each.command, each.input);
    EXPECT_EQ(outcome.status, each.status);
    EXPECT_EQ(outcome.err, each.err);
    EXPECT_EQ(outcome.out, "");
    EXPECT_FALSE(exists(currentDir)) << "a refused run touched the database";
  }
}

TEST_F(CommandLine, RefusesWhatMakesNoSense) {
  const std::string fifty = times(50, "7 ");
  expectAll({
      {"dbsweep", 255, usageText, "yes"},
      {"dbsweep -n 5", 255, usageText, "yes"},
      {"dbsweep -?", 255, usageText, "yes"},
      {"dbsweep -c -m -p X", 255, usageText, "yes"},
      {"dbsweep -x", 255, "dbsweep: invalid option -- 'x'\n" + usageText, "yes"},
      {"dbsweep -p", 255, "dbsweep: option requires an argument -- 'p'\n" + usageText, "yes"},
      {"dbsweep -p 3X", 255, badProtocol + usageText, "yes"},
      {"dbsweep -p " + times(77, "x"), 0, dialogue, "no"},
      {"dbsweep -p " + times(78, "x"), 255, badProtocol + usageText, "yes"},
      {"dbsweep -d '" + fifty + "'", 0, dialogue, "no"},
      {"dbsweep -d '" + fifty + "8'", 255, usageText, "yes"},
      {"dbsweep -d 0000000000000007", 255, usageText, "yes"},
      {"dbsweep -d 4294967296", 255, usageText, "yes"},
      {"dbsweep -c", 0, notSupported, "yes"},
      {"dbsweep -c -m", 0, notSupported, "yes"},
      {"dbsweep -c -p X", 0, notSupported, "yes"},
      {"dbsweep -d 5 -c", 0, notSupported, "yes"},
      {"dbsweep -c -m -p X -d 5", 0, notSupported, "yes"},
  });
}

TEST_F(CommandLine, GoesOnOnlyAfterYes) {
  std::vector<Case> cases;
  for (const char *answer : {"no", "YES", "y", "ye", "", "\n\n", "no yes"}) {
    cases.push_back({"dbsweep -p X", 0, dialogue, answer});
  }
  cases.push_back({"dbsweep -p X", 0, dialogue, times(100000, "n")});
  expectAll(cases);
  for (const char *answer : {"yes", " \n yesterday", "yes no"}) {
    EXPECT_EQ(run("dbsweep -d 99", answer).err,
              dialogue + loading + "dbsweep: Total number of objects in DB is 0\n");
  }
}

TEST_F(CommandLine, MigratesOnlyOnce) {
  writeFile("/usr/NQ/conf/dbsweep.lock", "1");
  expectAll({{"dbsweep -m", 0, migratedBefore, "yes"},
             {"dbsweep -m -x", 0, migratedBefore, "yes"},
             {"dbsweep -x -m", 255, "dbsweep: invalid option -- 'x'\n" + usageText, "yes"}});
}

TEST_F(CommandLine, IsForTheSuperUser) {
  std::vector<Case> cases;
  for (const char *arguments : {"", " -c", " -x", " -p X"}) {
    cases.push_back({std::string("unshare --user dbsweep") + arguments, 1,
                     "dbsweep: must be run as super-user\n", "yes"});
  }
  cases.push_back(
      {"ln -s $(command -v dbsweep) /usr/NQ/tmp/other; unshare --user /usr/NQ/tmp/other", 1,
       "other: must be run as super-user\n", "yes"});
  expectAll(cases);
  EXPECT_STREQ(programNameOf("odd/"), "odd/");
}

TEST_F(CommandLine, ReadsIdLists) {
  const struct {
    const char *text;
    std::vector<uint32_t> ids;
  } lists[] = {{"5 17\t42", {5, 17, 42}},
               {" 7 ", {7}},
               {"", {0}},
               {" \t ", {0}},
               {"5\n17", {5, 17}},
               {"12abc x -1", {12, 0, 4294967295u}},
               {"\v\f\r99", {99}},
               {"000000000000007 -2147483648", {7, 2147483648u}},
               {"2147483648 4294967295", {2147483648u, 4294967295u}}};
  for (const auto &list : lists) {
    ASSERT_TRUE(parseObjectIdList(list.text)) << list.text;
    EXPECT_THAT(std::vector<uint32_t>(objectids, objectids + numofobj), ElementsAreArray(list.ids));
  }
  EXPECT_FALSE(parseObjectIdList("1 -2147483649"));
  EXPECT_EQ(numofobj, 2) << "a refused list changed what was there";
}

TEST_F(CommandLine, StopsThePlatformFirst) {
  writeFile("/usr/NQ/bin/nqstop",
            "#!/bin/sh\necho stopped $(ps -eo stat,comm | grep nqw_binary | grep -cv ^Z) left"
            " >>/usr/NQ/tmp/stops\n");
  chmod("/usr/NQ/bin/nqstop", 0755);
  const pid_t other = start("nqw_other");
  sweep("-d 99");
  EXPECT_FALSE(exists("/usr/NQ/tmp/stops")) << "stopped a platform that does not run";

  const pid_t first = start("nqw_binary"), second = start("nqw_binary");
  const pid_t daemon = start("nqwdb");
  EXPECT_EQ(sweep("-d 99").status, 0);
  EXPECT_EQ(endOf(first), 128 + SIGTERM);
  EXPECT_EQ(endOf(second), 128 + SIGTERM);
  EXPECT_EQ(endOf(daemon, WNOHANG), -1) << "the service is only stopped by its own command";
  EXPECT_EQ(endOf(other, WNOHANG), -1);
  EXPECT_EQ(readFile("/usr/NQ/tmp/stops"), "stopped 0 left\n");
  std::filesystem::remove("/usr/NQ/bin/nqstop");
  EXPECT_EQ(sweep("-d 99").status, 0) << "goes on when the platform cannot be stopped";
  kill(daemon, SIGKILL);
  kill(other, SIGKILL);
}

// Where the first process has the name of those that are ended, as in a container of its own. The
// second one is ended.
TEST_F(CommandLine, NeverEndsTheFirstProcess) {
  std::filesystem::copy_file("/bin/sh", "/usr/NQ/bin/nqw_binary");
  const Outcome outcome =
      run("unshare --pid --fork --mount-proc /usr/NQ/bin/nqw_binary -c "
          "'trap \": >/usr/NQ/tmp/ended\" TERM; (sleep 9; exit 0) & echo yes | dbsweep -d 99; wait "
          "$!'");
  EXPECT_EQ(outcome.status, 128 + SIGTERM) << outcome.err;
  EXPECT_FALSE(exists("/usr/NQ/tmp/ended"));
}

// As a program with the bit for the super-user's rights would be: by somebody else, with a PATH and
// libraries of his.
TEST_F(CommandLine, TrustsNoEnvironmentOfAnotherUser) {
  for (const auto &[file, script] :
       {std::pair{"bin/nqstop", "#!/bin/sh\nenv >/usr/NQ/tmp/environment\n"},
        {"tmp/grep", "#!/bin/sh\n: >/usr/NQ/tmp/used\nexec /bin/grep \"$@\"\n"}}) {
    writeFile(std::string("/usr/NQ/") + file, script);
    chmod((std::string("/usr/NQ/") + file).c_str(), 0755);
  }
  const pid_t daemon = start("nqwdb");
  const std::string environment = "PATH=/usr/NQ/tmp:$PATH LD_BIND_NOW=1 LD_PRELOAD=" FAULT_PRELOAD
                                  " ASAN_OPTIONS=verify_asan_link_order=0 ";
  for (const bool isOther : {false, true}) {
    std::filesystem::remove("/usr/NQ/tmp/used");
    const Outcome outcome =
        run(environment + (isOther ? "FAULT_USER=1000 " : "") + "dbsweep -d 99", "yes");
    EXPECT_EQ(outcome.status, 0) << outcome.err;
    EXPECT_EQ(exists("/usr/NQ/tmp/used"), !isOther);
    const std::string seen = readFile("/usr/NQ/tmp/environment");
    EXPECT_EQ(seen.find("LD_") == seen.npos, isOther) << seen;
    EXPECT_EQ(seen.find("PATH=/usr/sbin:/usr/bin:/sbin:/bin\n") != seen.npos, isOther) << seen;
  }
  kill(daemon, SIGKILL);
}

TEST_F(CommandLine, SaysWhenTheProcessListCannotBeRead) {
  // As many descriptors as it takes to start: one too few for a pipe.
  const Outcome noPipes =
      run("n=3; until (ulimit -n $n; dbsweep -c) 2>/dev/null; do n=$((n + 1)); done\n"
          "ulimit -n $n; dbsweep -d 99",
          "yes");
  EXPECT_EQ(noPipes.status, 1);
  EXPECT_EQ(noPipes.err, dialogue +
                             "DEBUG: checking daemons...\n"
                             "dbsweep: unable to open pipe with shell: Too many open files\n");
}

}  // namespace
