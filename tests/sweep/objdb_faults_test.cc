// The commands of objdb that change versions, stopped and failing everywhere as in faults_test.cc.

#include <filesystem>

#include "faults/fault_loop.h"
#include "sweep/sweep_runs.h"

namespace {

Lines network() {
  Lines lines = emptyNetwork();
  for (uint32_t id = 1; id <= 4; ++id) {
    lines = lines + nameLines(id, 10, "object " + std::to_string(id)) +
            Lines{valueLine(id, 20, R"("type":"Boolean","value":true)")};
  }
  return lines;
}

// A "current" of the platform's own user, where there are other users than root.
void loadNetwork() {
  std::filesystem::remove_all(root);
  load(network());
  if (hasOtherUsers()) run("chown 1000:1001 " + currentDir);
}

std::string asInput(const Lines &lines) {
  std::string input;
  for (const std::string &line : lines) input += line + "\n";
  return input;
}

void nothingThere() {
  std::filesystem::remove_all(root);
}

void archived() {
  ASSERT_EQ(run("objdb archive").status, 0);
}

// A run stopped where the tables are gone and only the marked version has them.
void cutShort() {
  const Snapshot start = Snapshot::take();
  const Command sweep{"sweep", {"dbsweep", "-p", "QRT Session"}};
  for (long at = 1; exists(currentDir + "/obj_info.pag"); ++at) {
    start.putBack();
    const Outcome outcome = runWithFault(sweep, {"kill", "kill"}, at);
    ASSERT_NE(outcome.status, 0) << "the tables never go";
  }
}

// The tables of an archive, and other ones in "current".
void archivedAndChanged() {
  archived();
  ASSERT_EQ(run("dbsweep -d 1", "yes\n").status, 0);
}

std::vector<Command> commands() {
  Command salvage{"salvage", {"objdb", "salvage", "current"}, ""};
  salvage.salvages = true;
  return {{"load", {"objdb", "load", "--unsealed"}, asInput(network()), nothingThere},
          {"archive", {"objdb", "archive"}, ""},
          salvage,
          {"restore", {"objdb", "restore", "VERSION"}, "", archivedAndChanged},
          {"restoreMarked", {"objdb", "restore", "VERSION"}, "", cutShort},
          {"remove", {"objdb", "remove", "VERSION"}, "", archivedAndChanged}};
}

class EveryFaultOfObjdb : public PlatformTest,
                          public testing::WithParamInterface<std::tuple<Command, Fault>> {};

TEST_P(EveryFaultOfObjdb, LosesNothing) {
  const auto &[command, fault] = GetParam();
  loadNetwork();
  faultEverywhere(command, fault);
}

INSTANTIATE_TEST_SUITE_P(Objdb, EveryFaultOfObjdb,
                         testing::Combine(testing::ValuesIn(commands()),
                                          testing::ValuesIn(faults())),
                         caseName);

// A sweep, or an archive, at every point of a command: "current" is whole whenever it comes.
using Pair = std::tuple<Command, Command>;

std::string pairName(const testing::TestParamInfo<Pair> &test) {
  return std::get<1>(test.param).label + "In_" + std::get<0>(test.param).label;
}

class SecondProgramInObjdb : public PlatformTest, public testing::WithParamInterface<Pair> {};

TEST_P(SecondProgramInObjdb, MeetsAWholeDatabase) {
  const Command &first = std::get<0>(GetParam());
  const Command &second = std::get<1>(GetParam());
  loadNetwork();
  letInEverywhere(first, second,
                  [&](const Round &round, const Outcome &other, const Versions &before) {
                    const bool isSweep = second.line[0] == "dbsweep";
                    // Where the first one has yet to make a whole "current", there is none to
                    // archive.
                    const bool isMaking = first.label == "load" || first.label == "restoreMarked";
                    ASSERT_TRUE(other.status == 0 || other.status == (isSweep ? 1 : 3) ||
                                (isMaking && !isSweep && other.status == 2))
                        << other.status << other.err;
                    ASSERT_TRUE(round.outcome.status == 0 || round.outcome.status == 2 ||
                                round.outcome.status == 3)
                        << round.outcome.err;
                    // Each takes the other's work directory for a leftover while it has no lock.
                    ASSERT_TRUE(first.label != "archive" || isSweep || round.outcome.status == 0);
                    for (const auto &[name, version] : round.now) {
                      ASSERT_TRUE(version.whole) << name << " after " << round.outcome.err;
                    }
                    ASSERT_TRUE(round.now.contains("current"));
                    ASSERT_GE(round.now.size() + (first.label == "remove"), before.size());
                  });
}

INSTANTIATE_TEST_SUITE_P(
    Objdb, SecondProgramInObjdb,
    testing::Combine(
        testing::Values(
            Command{"archive", {"objdb", "archive"}, ""},
            Command{"restore", {"objdb", "restore", "VERSION"}, "", archivedAndChanged},
            Command{"restoreMarked", {"objdb", "restore", "VERSION"}, "", cutShort},
            Command{"load", {"objdb", "load", "--unsealed"}, asInput(network()), nothingThere},
            Command{"salvage", {"objdb", "salvage", "current"}, ""},
            Command{"remove", {"objdb", "remove", "VERSION"}, "", archivedAndChanged}),
        testing::Values(Command{"sweep", {"dbsweep", "-m"}},
                        Command{"otherArchive", {"objdb", "archive"}, ""})),
    pairName);

}  // namespace
