// Damaged table files: whatever they hold, a run and a dump end by themselves, and what a run could
// not read is not lost.

#include <gmock/gmock.h>
#include <unistd.h>

#include <filesystem>
#include <random>

#include "faults/fault_loop.h"
#include "sweep/sweep_runs.h"

namespace {

namespace fs = std::filesystem;

constexpr size_t flips = sanitized ? 200 : 1000;

class Damage : public PlatformTest {
 protected:
  Damage() {
    Lines lines = emptyNetwork();
    for (uint32_t id = 1; id <= 150; ++id) {
      lines = lines + nameLines(id, 10, "object " + std::to_string(id)) +
              Lines{valueLine(id, 22, R"("type":"Integer","value":5)"),
                    valueLine(id, 24, R"("type":"String","value":"some text")")};
    }
    load(lines);
    saveTables();
    start = Snapshot::take();
    for (const auto &entry : fs::directory_iterator(saved + "/current")) {
      files.push_back(entry.path().filename());
    }
    std::sort(files.begin(), files.end());
  }

  // What the two tables say from which a run takes its objects. A rewrite mends keys that are not
  // their records' own, and bytes that no encoder writes.
  static Lines objectLines(const Lines &lines) {
    Lines objects;
    for (const std::string &line : lines) {
      if (line.find("obj_info") != 10 && line.find("value_info") != 10) continue;
      if (line.find("\"key\":") == line.npos && line.find("\"bytes\":") == line.npos) {
        objects.push_back(line);
        continue;
      }
      Json members = Json::parse(line);
      members.erase("key");
      members.erase("bytes");
      objects.push_back(members.dump());
    }
    return sorted(objects);
  }

  // Whatever the files hold, a check ends with its findings and a salvaged version has none.
  static void salvage() {
    EXPECT_LE(runAlone({"objdb", "check"}).status, 1);
    const Outcome salvaged = runAlone({"objdb", "salvage", "current"});
    ASSERT_LE(salvaged.status, 1) << salvaged.err;
    const std::string version = salvaged.out.substr(0, salvaged.out.size() - 1);
    const Outcome checked = runAlone({"objdb", "check", "--version", version});
    EXPECT_EQ(checked.status, 0) << checked.out << salvaged.err;
    fs::remove_all(root + "/" + version);
  }

  // A dump and a run over damaged files. Returns whether the run was a clean one.
  static bool survive() {
    const Outcome dumped = runAlone({"objdb", "dump"});
    EXPECT_THAT(dumped.status, testing::AnyOf(0, 2)) << dumped.err;
    const Lines before = dumped.status == 0 ? objectLines(dumpLines(dumped.out)) : Lines{};
    const Outcome outcome = runAlone({"dbsweep", "-m"}, "yes\n");
    EXPECT_THAT(outcome.status, testing::AnyOf(0, 1)) << outcome.err;
    const bool clean = outcome.status == 0 && outcome.err.ends_with(rewriting);
    // What the run could read the dump could too, but for a .dir file, which an open for writing
    // makes anew.
    for (const char *table : {"obj_info\"", "value_info\""}) {
      if (clean && dumped.err.find("could not open") == std::string::npos) {
        EXPECT_EQ(dumped.err.find(table), std::string::npos) << dumped.err;
      }
    }
    if (clean && dumped.status == 0) {
      EXPECT_EQ(objectLines(dumpLines(runAlone({"objdb", "dump"}).out)), before);
    }
    if (outcome.err.find("are kept in") != std::string::npos) {
      EXPECT_NE(onlyVersion(), "");
    }
    return clean;
  }

  std::vector<std::string> files;
  Snapshot start;
};

TEST_F(Damage, TablesCutAtEveryBlock) {
  std::vector<std::pair<std::string, off_t>> cuts;
  for (const std::string &file : files) {
    const auto size = static_cast<off_t>(fs::file_size(saved + "/current/" + file));
    const off_t step = file.ends_with(".dir") ? 4 : 4096;
    for (off_t length = 0; length < size; length += step) cuts.emplace_back(file, length);
  }
  ASSERT_GT(cuts.size(), 50u);
  for (const long number : pointsToTry(static_cast<long>(cuts.size()))) {
    const auto &[file, length] = cuts[static_cast<size_t>(number - 1)];
    SCOPED_TRACE(file + " cut to " + std::to_string(length));
    start.putBack();
    ASSERT_EQ(truncate((currentDir + "/" + file).c_str(), length), 0);
    salvage();
    survive();
    ASSERT_FALSE(HasFailure());
  }
}

TEST_F(Damage, BytesFlippedAnywhere) {
  const std::vector<long> tried = pointsToTry(flips);
  const size_t rounds = std::min(flips, 8 * tried.size());
  std::mt19937 random(static_cast<unsigned>(tried[0]));
  size_t clean = 0;
  for (size_t round = 0; round < rounds; ++round) {
    const std::string &file = files[random() % files.size()];
    start.putBack();
    std::string content = readFile(currentDir + "/" + file);
    // Every other one in the header, the directory and the first bucket.
    const size_t range = round % 2 == 0 ? content.size() : std::min<size_t>(content.size(), 9000);
    const size_t at = random() % range;
    const int bit = static_cast<int>(random() % 8);
    content[at] = static_cast<char>(content[at] ^ (1 << bit));
    writeFile(currentDir + "/" + file, content);
    SCOPED_TRACE(file + ": bit " + std::to_string(bit) + " changed at " + std::to_string(at));
    if (round % 5 == 0) salvage();
    if (survive()) ++clean;
    ASSERT_FALSE(HasFailure());
  }
  printf("%zu flips, %zu did not matter to a run\n", rounds, clean);
  EXPECT_GT(clean, rounds / 10);
  EXPECT_LT(clean, rounds);
}

}  // namespace
