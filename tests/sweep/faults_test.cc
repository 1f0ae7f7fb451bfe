// Nothing is ever lost: a run is stopped, or a call that it makes fails, at its first call, at its
// second, and so on until it completes.

#include <gmock/gmock.h>
#include <signal.h>
#include <sys/mount.h>

#include <cerrno>
#include <chrono>
#include <filesystem>
#include <map>
#include <random>
#include <sstream>

#include "faults/fault_loop.h"
#include "sweep/sweep_runs.h"

namespace {

using testing::AnyOf;
using testing::EndsWith;
using testing::HasSubstr;

const Fault none{"none", "none"};

// Objects that stay count as a loss, each. A run that ends for want of memory cleans up, or the log
// says where the way back is.
void endsWell(const Round &round) {
  const std::string &said = round.outcome.err;
  if (round.fault.ends()) return;
  long stay = 0;
  for (const std::string *text : {&said, &round.trace}) {
    for (size_t at = 0; (at = text->find("Database failure, object ", at)) != said.npos; ++at)
      ++stay;
  }
  if (stay > 0) {
    ASSERT_TRUE(round.outcome.status == 1 || said.ends_with("Out of memory."));
    const bool isTold = said.find(" are kept in ") == said.npos ||
                        said.find("Cannot write the log file") != said.npos ||
                        said.find(" " + std::to_string(stay) + " objects could not") != said.npos;
    ASSERT_TRUE(isTold) << stay << " stay";
  }
  if (round.fault.points != Points::allocations) return;
  // Without any memory from then on no directory can be read, nor cleared.
  ASSERT_FALSE(round.leftovers && !round.fault.on && said.ends_with("Out of memory."));
  for (const auto &[name, version] : round.now) {
    if (!version.unfinished || name == "current") continue;
    ASSERT_THAT(readFile("/usr/NQ/log/nqw.log"), HasSubstr("objdb restore " + name));
  }
}

Command dbsweep(const std::string &label, std::vector<std::string> arguments) {
  arguments.insert(arguments.begin(), "dbsweep");
  return {label, arguments, "yes\n", [] {}, endsWell};
}

// The trace has every line that was said before the run ended, however it did.
void traceIsWhole(const Round &round) {
  std::istringstream said(round.outcome.err);
  for (std::string line; std::getline(said, line);) {
    if (line.find(" has been deleted from ") == line.npos) continue;
    if (round.outcome.err.find("Cannot write the log file") != std::string::npos) continue;
    ASSERT_NE(round.trace.find(line + "\n"), std::string::npos) << line;
  }
}

// Every command line that changes tables.
std::vector<Command> commands() {
  Command ids = dbsweep("ids", {"-d", "2 4 6"});
  ids.judge = [](const Round &round) {
    traceIsWhole(round);
    endsWell(round);
  };
  return {dbsweep("protocol", {"-p", "QRT Session"}), dbsweep("migrate", {"-m"}),
          dbsweep("protocolAndIds", {"-p", "QRT Session", "-d", "1 5"}),
          dbsweep("migrateAndIds", {"-m", "-d", "1 5"}), ids};
}

class Faults : public PlatformTest {
 protected:
  Faults() {
    std::filesystem::remove_all(root);
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
  }

  static Lines currentLines() {
    const Versions versions = versionsNow();
    const auto current = versions.find("current");
    return current == versions.end() ? Lines{} : current->second.lines;
  }

  Lines before;
};

class EveryFault : public Faults, public testing::WithParamInterface<std::tuple<Command, Fault>> {};

TEST_P(EveryFault, LosesNothing) {
  const auto &[command, fault] = GetParam();
  faultEverywhere(command, fault);
}

INSTANTIATE_TEST_SUITE_P(Dbsweep, EveryFault,
                         testing::Combine(testing::ValuesIn(commands()),
                                          testing::ValuesIn(faults())),
                         caseName);

// Another process works on the tables while the run stands at a call: at each.
struct Pair {
  Command first, second;
};

class TwoAtOnce : public Faults, public testing::WithParamInterface<Pair> {};

const Command tool{"tool",
                   {"/bin/sh", "-c",
                    "for table in field_info obj_info value_info name_info; do gdbmtool " +
                        currentDir + "/$table.pag reorganize || exit; done"}};

std::vector<Pair> pairs() {
  std::vector<Pair> result;
  for (const Command &first :
       {dbsweep("protocol", {"-p", "QRT Session"}), dbsweep("ids", {"-d", "2 4 6"})}) {
    result.push_back({first, dbsweep("ids", {"-d", "3"})});
    result.push_back({first, dbsweep("migrateAndIds", {"-m", "-d", "3"})});
    result.push_back({first, tool});
  }
  return result;
}

void PrintTo(const Pair &pair, std::ostream *stream) {
  *stream << pair.second.label << " in " << pair.first.label;
}

std::string pairName(const testing::TestParamInfo<Pair> &test) {
  return test.param.second.label + "In_" + test.param.first.label;
}

TEST_P(TwoAtOnce, OneWins) {
  const auto &[first, second] = GetParam();
  const bool isTool = second.label == tool.label;
  int refused = 0;
  letInEverywhere(first, second, [&](const Round &round, const Outcome &other, const Versions &) {
    const Outcome &outcome = round.outcome;
    const bool firstWon = outcome.err.find(deleted(2)) != std::string::npos;
    const bool secondWon = isTool ? other.err.find("cannot open") == std::string::npos
                                  : other.err.find(deleted(3)) != std::string::npos;
    ASSERT_TRUE(firstWon || secondWon);
    ASSERT_EQ(outcome.status, 0);
    const std::string refusal = dialogue + loading + cannotOpen;
    ASSERT_TRUE(firstWon || outcome.err == refusal);
    ASSERT_TRUE(secondWon || isTool || other.err == refusal);
    refused += secondWon ? 0 : 1;
    Lines expected = firstWon ? without(before, {2, 4, 6}) : before;
    if (secondWon && !isTool) expected = without(expected, {3});
    ASSERT_EQ(currentLines(), expected);
    ASSERT_EQ(round.now.size(), 1u);
  });
  EXPECT_GT(refused, 1);
}

INSTANTIATE_TEST_SUITE_P(Dbsweep, TwoAtOnce, testing::ValuesIn(pairs()), pairName);

// A deletion in place has no handlers: a signal ends it wherever it is. The log then tells where
// the tables from before are.
TEST_F(Faults, TheLogOfATerminatedDeletionNamesTheWayBack) {
  const Command command = dbsweep("ids", {"-d", "2 4 6"});
  const Fault terminate{"terminate", "terminate"};
  const Snapshot start = Snapshot::take();
  long points = 0;
  ASSERT_EQ(runWithFault(command, terminate, 0, &points).status, 0);
  size_t marked = 0, halfMade = 0;
  for (long at = 1; at <= points; ++at) {
    SCOPED_TRACE("point " + std::to_string(at));
    start.putBack();
    runWithFault(command, {"kill", "kill"}, at);
    const bool isHalfMade = !run("ls -A " + root + " | grep '^[.]'").out.empty();
    start.putBack();
    ASSERT_EQ(runWithFault(command, terminate, at).status, 128 + SIGTERM);
    if (isHalfMade) {
      ++halfMade;
      ASSERT_EQ(run("ls -A " + root).out, "current\n") << "the version goes with the run";
      continue;
    }
    const std::string version = onlyVersion(), log = readFile("/usr/NQ/log/nqw.log");
    const bool isMarked = exists(version + "/unfinished") && version.find("/.") == version.npos;
    marked += isMarked ? 1 : 0;
    ASSERT_EQ(log.find("objdb restore " + version.substr(version.rfind('/') + 1)) != log.npos,
              isMarked)
        << log;
  }
  EXPECT_GT(marked, 10u);
  EXPECT_GT(halfMade, 10u);
}

// Until the tables are about to go, a run that is interrupted leaves all as it was; from then on it
// goes on to its end.
TEST_F(Faults, AnInterruptedRewriteLeavesNothingBehind) {
  const Command command = dbsweep("protocol", {"-p", "QRT Session"});
  const Fault terminate{"terminate", "terminate"};
  const Snapshot start = Snapshot::take();
  long points = 0;
  ASSERT_EQ(runWithFault(command, terminate, 0, &points).status, 0);
  const Lines after = dump();
  int ended = 0, finished = 0;
  for (const long at : pointsToTry(points)) {
    start.putBack();
    SCOPED_TRACE("point " + std::to_string(at));
    const bool hasEnded = runWithFault(command, terminate, at).status == 128 + SIGTERM;
    ++(hasEnded ? ended : finished);
    ASSERT_EQ(currentLines(), hasEnded ? before : after);
    ASSERT_EQ(run("ls -A " + root).out, "current\n");
  }
  EXPECT_GT(std::min(ended, finished), 0);
}

// Counted, not timed. A run over four times the objects takes four times the memory requests,
// nearly all of them the library's, two a record. It takes no more calls that change the file
// system: the new tables are made as long as the old ones at once.
TEST_F(Faults, TheCostOfAValueDoesNotGrowWithTheirNumber) {
  if (sanitized) GTEST_SKIP() << "the sanitizers have their own allocations";
  std::map<int, std::map<std::string, long>> counts;
  for (const int objects : {1000, 4000}) {
    std::filesystem::remove_all(root);
    ASSERT_NO_FATAL_FAILURE(loadSample(objects));
    for (const Command &command :
         {dbsweep("migrate", {"-m"}), dbsweep("protocol", {"-p", "OSPF"})}) {
      for (const Points points : {Points::changes, Points::allocations}) {
        putTablesBack();
        const std::string what =
            command.label + (points == Points::changes ? " changes" : " allocations");
        ASSERT_EQ(runWithFault(command, {"none", "none", points}, 0, &counts[objects][what]).status,
                  0);
      }
    }
  }
  for (const auto &[what, few] : counts[1000]) {
    const long many = counts[4000][what];
    printf("%s: %ld and %ld\n", what.c_str(), few, many);
    EXPECT_GT(few, 60);
    EXPECT_LT(many - few, what.ends_with("changes") ? 4 : 3000 * 21);
  }
}

// With mapped files most stores are no calls; only the clock finds the moments between them.
TEST_F(Faults, ARunCanBeStoppedAtAnyMoment) {
  std::filesystem::remove_all(currentDir);
  loadSample(1500);
  const Command command = dbsweep("protocol", {"-p", "OSPF"});
  const Snapshot start = Snapshot::take();
  const Versions first = versionsNow();
  const auto started = std::chrono::steady_clock::now();
  const Outcome clean = runWithFault(command, none, 0);
  const auto whole = std::chrono::steady_clock::now() - started;
  ASSERT_EQ(clean.status, 0);
  const Versions after = versionsNow();
  std::mt19937 random(static_cast<unsigned>(pointsToTry(1000)[0]));
  const size_t moments = std::min<size_t>(pointsToTry(1000).size(), sanitized ? 20 : 200);
  size_t stopped = 0, mended = 0;
  for (size_t round = 0; round < moments; ++round) {
    start.putBack();
    const auto moment = whole * (random() % 1000) / 1000;
    SCOPED_TRACE("stopped after " + std::to_string(moment / std::chrono::microseconds(1)) + " us");
    const Outcome outcome = runAndKill(command, moment);
    const bool killed = outcome.status == 128 + SIGKILL;
    const Versions now = versionsNow();
    stopped += killed ? 1 : 0;
    mended +=
        currentLines() != first.at("current").lines && currentLines() != after.at("current").lines;
    const std::string call = killed ? "the clock" : "";
    nothingIsLost({command, {"kill", "kill"}, 0, call, outcome, clean, first, after, now});
    ASSERT_FALSE(HasFailure());
  }
  printf("%zu of %zu runs were stopped, %zu needed the kept tables\n", stopped, moments, mended);
  EXPECT_GT(stopped, moments / 3);
}

// A disk of every size. On one that has no room for the tables a run starts without any. Where
// there is room for a run, another writer takes some of it once the old tables are gone.
TEST_F(Faults, ADiskCanBeFull) {
  std::filesystem::remove_all(currentDir);
  loadSample(100);
  before = dump();
  const Snapshot start = Snapshot::take();
  std::vector<std::pair<Command, Lines>> runs;  // and what each leaves
  for (const Command &command : {dbsweep("protocol", {"-p", "OSPF"}), dbsweep("migrate", {"-m"}),
                                 dbsweep("protocolAndIds", {"-p", "OSPF", "-d", "1000"})}) {
    start.putBack();
    ASSERT_EQ(runWithFault(command, none, 0).status, 0);
    runs.emplace_back(command, dump());
  }
  // Blocks for the new tables, for what is copied of the old ones, and for the version itself.
  uint64_t needed = uint64_t{4} * 4096;
  for (const auto &file : std::filesystem::directory_iterator(saved + "/current")) {
    const std::string name = file.path().stem();
    const bool isRebuilt = name == "obj_info" || name == "value_info" || name == "name_info";
    const bool isCopiedToo = isRebuilt && file.path().extension() == ".dir";
    needed += (isCopiedToo ? 2 : 1) * ((file.file_size() + 4095) / 4096 * 4096);
  }
  const auto fill = [] {
    if (exists(currentDir + "/value_info.pag") || exists(root + "/filler")) return;
    writeFile(root + "/filler", std::string(200 * 1024, '\0'));
  };
  // In KiB; in larger steps no size would be one of those at which a run is broken off.
  const long step =
      std::min(100L, 4 * (300 / static_cast<long>(pointsToTry(sanitized ? 75 : 300).size())));
  int sizes = 0, tooSmall = 0, refused = 0, broken = 0, done = 0;
  for (long size = 4; done < 10; size += step, ++sizes) {
    const auto &[command, after] = runs[static_cast<size_t>(sizes) % 3];
    bool roomy = true;
    for (const bool shared : {false, true}) {
      if (!roomy) continue;
      SCOPED_TRACE(command.label + " on " + std::to_string(size) +
                   (shared ? " shared KiB" : " KiB"));
      std::filesystem::remove_all(root);
      std::filesystem::create_directory(root);
      const std::string options = "size=" + std::to_string(size) + "k";
      ASSERT_EQ(mount("tmpfs", root.c_str(), "tmpfs", 0, options.c_str()), 0);
      const bool fits = run("cp -a " + saved + "/current " + root).status == 0;
      if (!fits) std::filesystem::remove_all(currentDir);
      std::filesystem::remove("/usr/NQ/conf/dbsweep.lock");
      const Outcome outcome =
          shared ? runWithFault(command, {"stop", "stop", Points::changes, true}, 1, nullptr, fill)
                 : runWithFault(command, none, 0);
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
        ASSERT_THAT(outcome.err, HasSubstr("dbsweep: Cannot keep the previous tables in " + root +
                                           ": No space left on device: " + std::to_string(needed) +
                                           " bytes are needed, "));
        ASSERT_EQ(run("diff -r " + saved + " " + root).status, 0);
        ASSERT_FALSE(exists("/usr/NQ/conf/dbsweep.lock"));
      } else if (outcome.status == 0 && outcome.err.ends_with(rewriting)) {
        done += shared ? 1 : 0;
        ASSERT_EQ(currentLines(), after);
        ASSERT_EQ(versionsNow().size(), 1u);
      } else {
        ASSERT_TRUE(shared) << "only room that was there and is gone can be missing";
        ++broken;
        const std::string restore = "objdb restore " + versionsNow().begin()->first;
        const bool restored = run(restore).status == 0;
        ASSERT_EQ(restored, currentLines() == before) << "or it says that it is full, too";
        // What was written of the new tables takes room, too.
        std::filesystem::remove(root + "/filler");
        if (!restored) {
          ASSERT_EQ(mount("tmpfs", root.c_str(), "tmpfs", MS_REMOUNT, "size=4m"), 0);
          ASSERT_EQ(run(restore).status, 0);
        }
        ASSERT_EQ(currentLines(), before);
      }
      ASSERT_EQ(umount(root.c_str()), 0);
    }
  }
  printf(
      "%d sizes: %d too small for the tables, %d refused, %d broken off, %d done beside another\n",
      sizes, tooSmall, refused, broken, done);
  EXPECT_GT(std::min({tooSmall, refused, broken}), 0);
}

}  // namespace
