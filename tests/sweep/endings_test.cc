// Every way in which a run can end: signals, an exhausted memory, the abort on a duplicate name.

#include <fcntl.h>
#include <gmock/gmock.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <set>

#include "driver/signals.h"
#include "sweep/sweep_runs.h"

namespace {

using testing::EndsWith;
using testing::StartsWith;

const std::string savedDir = saved + "/current";
const std::vector<const char *> objectTables = {"obj_info", "value_info", "name_info"};

// Runs that take long enough to be aimed at; the sanitizers make smaller ones last as long.
constexpr int manyObjects = sanitized ? 4000 : 20000;

class Endings : public PlatformTest {
 protected:
  static bool tablesAreUnchanged() {
    return run("diff -r " + savedDir + " " + currentDir).status == 0;
  }

  static std::set<std::string> recordsOf(const std::string &directory, const char *table) {
    std::set<std::string> records;
    NQ_dbm_db *db = _NQ_dbm_db_open(directory.c_str(), table, O_RDONLY, 0, nullptr, nullptr);
    if (db == nullptr) return records;
    DbmRecord record;
    db->first = 1;
    while (_NQ_dbm_db_getnext_raw(db, &record)) {
      records.insert(std::string(record.key) + "=" + std::string(record.bytes));
    }
    _NQ_dbm_db_close(db);
    return records;
  }

  // Whether the tables hold nothing that was not there before, and not everything that was.
  static bool tablesAreAPart() {
    size_t missing = 0;
    for (const char *table : objectTables) {
      const std::set<std::string> before = recordsOf(savedDir, table);
      const std::set<std::string> after = recordsOf(currentDir, table);
      if (!std::includes(before.begin(), before.end(), after.begin(), after.end())) return false;
      missing += before.size() - after.size();
    }
    return missing > 0;
  }

  // Starts a migration, waits until it announces the phase, and sends the signals one after
  // another.
  static Outcome signalled(const std::string &phase, const std::vector<int> &signals) {
    writeFile("/usr/NQ/tmp/in", "yes\n");
    writeFile("/usr/NQ/tmp/err", "");
    const pid_t child = fork();
    if (child == 0) {
      dup2(open("/usr/NQ/tmp/in", O_RDONLY), 0);
      dup2(open("/usr/NQ/tmp/err", O_WRONLY), 2);
      execlp("dbsweep", "dbsweep", "-m", nullptr);
      _exit(127);
    }
    while (readFile("/usr/NQ/tmp/err").find("DEBUG: " + phase) == std::string::npos) usleep(500);
    usleep(20000);
    for (const int number : signals) kill(child, number);
    const int status = endOf(child);
    return {status, "", readFile("/usr/NQ/tmp/err")};
  }
};

TEST_F(Endings, AnInterruptDuringTheLoadLeavesTheTablesAlone) {
  loadSample(manyObjects);
  for (const int number : {SIGINT, SIGTERM, SIGHUP}) {
    EXPECT_EQ(signalled("connect", {number}).status, 128 + number);
    EXPECT_TRUE(tablesAreUnchanged());
    EXPECT_FALSE(exists("/usr/NQ/conf/dbsweep.lock"));
  }
}

TEST_F(Endings, NobodyBreaksOffTheRewrite) {
  loadSample(manyObjects);
  const Lines before = dump();
  const Outcome ignored = signalled("restore", {SIGINT, SIGTERM, SIGQUIT, SIGPIPE, SIGCHLD});
  EXPECT_EQ(ignored.status, 0);
  EXPECT_EQ(ignored.err, dialogue + loading + rewriting);
  EXPECT_EQ(dump(), before);

  putTablesBack();
  const Outcome held = signalled("restore", {SIGHUP});
  EXPECT_EQ(held.status, 1) << "a hang-up is acted on once the tables are complete";
  EXPECT_EQ(held.err, dialogue + loading + rewriting);
  EXPECT_EQ(run("ls -A " + root).out, "current\n");
  EXPECT_EQ(dump(), before);
  EXPECT_TRUE(exists("/usr/NQ/conf/dbsweep.lock"));
}

TEST_F(Endings, ACaughtSignalEndsTheRunThroughTheCleanup) {
  loadSample(manyObjects);
  for (const std::vector<int> &signals :
       {std::vector{SIGUSR1}, {SIGALRM}, {SIGWINCH}, {SIGRTMAX - 1}, {SIGUSR1, SIGUSR2, SIGUSR1}}) {
    putTablesBack();
    const Outcome outcome = signalled("restore", signals);
    EXPECT_EQ(outcome.status, 1) << "signal " << signals[0];
    EXPECT_EQ(outcome.err, dialogue + loading + rewriting);
    EXPECT_TRUE(tablesAreAPart()) << "signal " << signals[0];
    EXPECT_FALSE(exists("/usr/NQ/conf/dbsweep.lock"));

    // The next run sends the operator to the kept tables, and they are the ones from before.
    const std::string version = onlyVersion();
    EXPECT_EQ(sweep("-d 99").err, dialogue + loading + unfinishedMessage(version));
    const std::string restore = "objdb restore " + version.substr(version.rfind('/') + 1);
    EXPECT_THAT(readFile("/usr/NQ/log/nqw.log"), testing::HasSubstr(restore));
    EXPECT_EQ(run(restore).status, 0);
    EXPECT_TRUE(tablesAreUnchanged()) << "signal " << signals[0];
    std::filesystem::remove_all(version);
  }
}

int cleanups;

void faultyCleanup(int number) {
  if (++cleanups > 1) _exit(99);
  writeFile("/usr/NQ/tmp/cleaned", std::to_string(number));
  fputs("free(): invalid pointer\n", stderr);
  raise(SIGABRT);
}

void slowCleanup(int) {
  for (;;) pause();
}

pid_t startWith(void (*cleanup)(int), int number) {
  const pid_t child = fork();
  if (child == 0) {
    dup2(open("/usr/NQ/tmp/err", O_WRONLY | O_CREAT | O_APPEND, 0644), STDERR_FILENO);
    raise(installSignalHandlers(cleanup) + number);
    _exit(98);
  }
  return child;
}

int endWith(void (*cleanup)(int), int number) {
  return endOf(startWith(cleanup, number));
}

TEST_F(Endings, AFaultInTheCleanupEndsTheRunWithoutAnother) {
  EXPECT_EQ(endWith(faultyCleanup, SIGUSR1), 1);
  EXPECT_EQ(endWith(faultyCleanup, SIGSEGV), 1);
  EXPECT_EQ(readFile("/usr/NQ/tmp/err"), "") << "what the allocator says of it helps nobody";
  EXPECT_EQ(readFile("/usr/NQ/tmp/cleaned"), std::to_string(SIGSEGV));
  EXPECT_EQ(endWith(faultyCleanup, SIGTERM), 98) << "an ignored signal has no cleanup";
  EXPECT_EQ(endWith(faultyCleanup, SIGRTMAX), 128 + SIGRTMAX) << "signal 64 is nobody's business";
  const pid_t stuck = startWith(slowCleanup, SIGUSR1), late = startWith(slowCleanup, SIGALRM);
  EXPECT_EQ(endOf(stuck), 1) << "a cleanup that is stuck is given up";
  EXPECT_EQ(endOf(late), 1) << "and so is that of the alarm itself";
}

// From too little memory to load anything to more than enough. The processes that the run starts
// live under the same limit, so the smallest one lets them work.
TEST_F(Endings, AnExhaustedMemoryEndsTheRunOrTheRunCompletes) {
  if (sanitized) GTEST_SKIP() << "the address sanitizer needs all address space";
  loadSample(6000);
  const Lines before = dump();
  const Outcome smallest =
      run("n=4000; until (ulimit -v $n; /bin/ps -eo pid,comm | grep ps | /bin/awk '{print $1}' && "
          "dbsweep -c) >/dev/null 2>&1; do n=$((n + 250)); done; echo $n");
  const int start = std::stoi(smallest.out) + 2000;
  int endedInLoad = 0, endedInRewrite = 0, completed = 0;
  for (int limit = start; completed < 3; limit += 500) {
    SCOPED_TRACE("limit of " + std::to_string(limit) + " KiB");
    ASSERT_LT(limit, start + 100000);
    putTablesBack();
    const Outcome outcome = run("ulimit -v " + std::to_string(limit) + "; dbsweep -m", "yes");
    // Before the load, too little memory for a pipe is a pipe that cannot be opened.
    if (outcome.status == 1 && endedInLoad == 0) {
      ASSERT_THAT(outcome.err,
                  EndsWith("unable to open pipe with shell: Cannot allocate memory\n"));
      continue;
    }
    ASSERT_EQ(outcome.status, 0) << outcome.err;
    if (outcome.err == dialogue + loading + rewriting) {
      ++completed;
      ASSERT_EQ(dump(), before);
      continue;
    }
    ASSERT_THAT(outcome.err, StartsWith(dialogue + loading));
    ASSERT_THAT(outcome.err, EndsWith("\ndbsweep: Out of memory."));
    if (outcome.err.find("save clear files") != std::string::npos) {
      ++endedInRewrite;
    } else {
      ++endedInLoad;
      ASSERT_EQ(outcome.err, dialogue + loading + "dbsweep: Out of memory.");
      ASSERT_TRUE(tablesAreUnchanged());
    }
  }
  EXPECT_GT(endedInLoad, 3);
  RecordProperty("endedInLoad", endedInLoad);
  RecordProperty("endedInRewrite", endedInRewrite);
}

// Two daemons, and a process list that shows them with ids of at most five digits.
TEST_F(Endings, ADuplicateNameAbortsTheRewrite) {
  const pid_t polling = start("pollerd"), topology = start("nqtopmd");
  char list[200];
  snprintf(list, sizeof list,
           "#!/bin/sh\necho run >>/usr/NQ/tmp/lists\necho 'root    %6d  pollerd'\n"
           "echo 'root    %6d  nqtopmd'\n",
           polling, topology);
  writeFile("/usr/NQ/bin/ps", list);
  chmod("/usr/NQ/bin/ps", 0755);
  const std::string armed =
      "ulimit -c 0; PATH=/usr/NQ/bin:$PATH NQWDB_ABORT_ON_DUP_FID=10 dbsweep -m";

  // None of these is a duplicate: not at the end, not the first time, too short, another field.
  load(emptyNetwork() + nameLines(5001, 10, "router5000a") + nameLines(6001, 10, "r6000x6000") +
       nameLines(101, 10, "host100") + nameLines(7001, 11, "router7000"));
  const Lines before = dump();
  EXPECT_EQ(run(armed, "yes").status, 0);
  EXPECT_EQ(dump(), before);
  EXPECT_FALSE(exists("/usr/NQ/tmp/lists"));

  std::filesystem::remove_all(currentDir);
  std::filesystem::remove("/usr/NQ/conf/dbsweep.lock");
  load(emptyNetwork() + nameLines(5001, 10, "router5000"));
  const Outcome outcome = run(armed, "yes");
  EXPECT_EQ(outcome.status, 128 + SIGSEGV);
  EXPECT_EQ(readFile("/usr/NQ/tmp/lists"), "run\nrun\n") << "one command for each daemon";
  for (const pid_t daemon : {polling, topology}) EXPECT_EQ(endOf(daemon), 128 + SIGSEGV);
  EXPECT_TRUE(scanKeys("obj_info").empty() && scanKeys("name_info").empty());
  EXPECT_FALSE(exists("/usr/NQ/conf/dbsweep.lock"));
}

}  // namespace
