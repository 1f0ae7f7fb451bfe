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
  return {{"load", {"objdb", "load", "--unsealed"}, asInput(network()), nothingThere},
          {"archive", {"objdb", "archive"}, ""},
          {"salvage", {"objdb", "salvage", "current"}, ""},
          {"restore", {"objdb", "restore", "VERSION"}, "", archivedAndChanged},
          {"restoreMarked", {"objdb", "restore", "VERSION"}, "", cutShort}};
}

// What has no cure yet.
const std::vector<std::string> uncured = {"load_error",
                                          "load_powerCut",
                                          "load_powerCutEntries",
                                          "load_powerCutCreations",
                                          "salvage_error",
                                          "_noMemory",
                                          "_noMemoryFromThenOn",
                                          "restore_noSpace",
                                          "restore_error",
                                          "restore_errorsFromThenOn",
                                          "restore_kill",
                                          "restore_killUnmapped",
                                          "restore_powerCut",
                                          "restore_powerCutEntries",
                                          "restore_powerCutContents",
                                          "restore_powerCutCreations"};

class EveryFaultOfObjdb : public PlatformTest,
                          public testing::WithParamInterface<std::tuple<Command, Fault>> {};

TEST_P(EveryFaultOfObjdb, LosesNothing) {
  const auto &[command, fault] = GetParam();
  if (isOneOf(uncured, command, fault)) GTEST_SKIP() << "has no cure yet";
  std::filesystem::remove_all(root);
  load(network());
  faultEverywhere(command, fault);
}

INSTANTIATE_TEST_SUITE_P(Objdb, EveryFaultOfObjdb,
                         testing::Combine(testing::ValuesIn(commands()),
                                          testing::ValuesIn(faults())),
                         caseName);

}  // namespace
