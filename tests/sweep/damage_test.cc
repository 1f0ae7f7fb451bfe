// Damaged table files: whatever they hold, a run and a dump end by themselves, and what a run could
// not read is not lost.

#include <gmock/gmock.h>
#include <unistd.h>

#include <cstring>
#include <filesystem>
#include <nlohmann/json.hpp>
#include <random>
#include <set>
#include <string_view>
#include <unordered_set>

#include "faults/fault_loop.h"
#include "records/value_table.h"
#include "store/name_table.h"
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

// A table file as the layout of GNU dbm has it, read by nobody but this test.
class RawTable {
 public:
  explicit RawTable(std::string path) : path_(std::move(path)), bytes(readFile(path_)) {}
  void write() const { writeFile(path_, bytes); }

  template <typename Word>
  Word at(size_t offset) const {
    Word word{};
    if (offset + sizeof word <= bytes.size()) memcpy(&word, &bytes[offset], sizeof word);
    return word;
  }
  template <typename Word>
  void put(size_t offset, Word word) {
    if (offset + sizeof word <= bytes.size()) memcpy(&bytes[offset], &word, sizeof word);
  }
  size_t bucket(size_t entry) const {
    return static_cast<size_t>(at<uint64_t>(directory() + 8 * entry));
  }
  size_t directory() const { return static_cast<size_t>(at<uint64_t>(8)); }
  size_t entries() const { return at<uint32_t>(16) / sizeof(uint64_t); }

  // How many keys the buckets hold to which the directory leads, of records of plain objects.
  size_t keys() const {
    std::unordered_set<std::string_view> found;
    for (size_t i = 0; i < entries() && directory() + 8 * i < bytes.size(); ++i) {
      const auto bucket = static_cast<size_t>(at<uint64_t>(directory() + 8 * i));
      for (size_t r = 0; r < at<uint32_t>(28); ++r) {
        const size_t place = bucket + headBytes + 24 * r;
        const auto start = static_cast<size_t>(at<uint64_t>(place + 8));
        const auto length = at<uint32_t>(place + 16);
        if (at<int32_t>(place) < 0 || length != 8 || start > bytes.size()) continue;
        if (at<uint32_t>(start) >= 1 && at<uint32_t>(start) <= 2000) {
          found.insert(std::string_view(bytes).substr(start, length));
        }
      }
    }
    return found.size();
  }

  static constexpr size_t headBytes = sizeof(void *) == 8 ? 112 : 84;

 private:
  std::string path_;

 public:
  std::string bytes;
};

// An object whose values cannot all be looked for keeps its names too: it is whole, or it is gone.
TEST_F(Damage, NoObjectIsDeletedByHalf) {
  const RawTable whole(currentDir + "/value_info.pag");
  std::set<size_t> buckets;
  for (size_t entry = 0; entry < whole.entries(); ++entry) buckets.insert(whole.bucket(entry));
  ASSERT_GT(buckets.size(), 1u);
  const auto names = [] { return run("objdb dump --table obj_info --table name_info").out; };
  const std::string before = names();
  for (const size_t bucket : buckets) {
    SCOPED_TRACE("bucket at " + std::to_string(bucket));
    start.putBack();
    RawTable table = whole;
    table.put(bucket, ~0u);
    table.write();
    saveTables();
    const Outcome outcome = sweep("-d '3 20 41 58 75 92 110 127 139 150'");
    EXPECT_EQ(outcome.status, 1);
    EXPECT_THAT(outcome.err, testing::HasSubstr("kept in " + onlyVersion() + ": "));
    EXPECT_THAT(outcome.err, testing::HasSubstr(" could not be read; 10 objects could not be del"));
    EXPECT_EQ(run("diff -r " + saved + "/current " + onlyVersion()).status, 0);
    EXPECT_EQ(names(), before);
  }
}

// Puts one thing wrong that the library does not look at, or not always.
std::string damageStructure(RawTable &table, std::mt19937 &random) {
  const auto below = [&](size_t limit) { return static_cast<size_t>(random() % limit); };
  const auto entry = [&] { return table.directory() + 8 * below(table.entries()); };
  const size_t bucket = static_cast<size_t>(table.at<uint64_t>(entry()));
  const uint32_t values[] = {0, 1, 4, 0x7FFFFFFF, 0xFFFFFFFF, static_cast<uint32_t>(random())};
  switch (below(7)) {
    case 0:
      table.put(4 * below(12), values[below(std::size(values))]);
      return "header";
    case 1:
      table.put(entry(), table.at<uint64_t>(entry()));
      return "directory entry of another";
    case 2:
      table.put(entry(), static_cast<uint64_t>(random() % (2 * table.bytes.size())));
      return "directory entry of nothing";
    case 3:
      table.put(bucket + 4 * below(RawTable::headBytes / 4), values[below(std::size(values))]);
      return "head of a bucket";
    case 4:
      table.put(bucket + RawTable::headBytes + 24 * below(60) + 4 * below(6),
                values[below(std::size(values))]);
      return "record of a bucket";
    case 5:
      table.put(40 + 4 * below(40), values[below(std::size(values))]);
      return "list of free blocks";
    default:
      table.bytes.resize(below(table.bytes.size()));
      return "cut";
  }
}

// A database whose tables have many buckets.
Lines largeNetwork() {
  Lines lines = emptyNetwork();
  for (uint32_t id = 1; id <= 600; ++id) {
    lines = lines + nameLines(id, 10, "object " + std::to_string(id));
    for (const uint32_t field : {22u, 25u, 40u, 41u}) {
      lines.push_back(valueLine(id, field, R"("type":"Integer","value":5)"));
    }
  }
  for (const int field : {40, 41}) {
    lines.push_back(R"({"table":"field_info","field":)" + std::to_string(field) +
                    R"(,"name":"more )" + std::to_string(field) +
                    R"(","type":"Integer","flags":1})");
  }
  return lines;
}

// Whatever the structure of a table says, a run ends soon and by itself. When it says that all went
// well, it has all that the file leads to.
TEST_F(Damage, StructuresThatLie) {
  fs::remove_all(root);
  load(largeNetwork());
  ASSERT_EQ(run("dbsweep -d '600 599 10 11'", "yes\n").status, 0);  // so that space is free
  start = Snapshot::take();
  constexpr long most = sanitized ? 200 : 2000;
  const std::vector<long> tried = pointsToTry(most);
  size_t told = 0, whole = 0;
  for (const long number : tried) {
    std::mt19937 random(static_cast<unsigned>(number));
    start.putBack();
    const std::string name = number % 3 == 0 ? "obj_info" : "value_info";
    RawTable table(currentDir + "/" + name + ".pag");
    const std::string what = damageStructure(table, random);
    table.write();
    SCOPED_TRACE(name + ", " + what + ", number " + std::to_string(number));
    const bool inPlace = number % 4 == 1;
    const Outcome outcome =
        inPlace ? runAlone({"dbsweep", "-d", "5"}, "yes\n") : runAlone({"dbsweep", "-m"}, "yes\n");
    ASSERT_THAT(outcome.status, testing::AnyOf(0, 1)) << outcome.err;
    if (outcome.status == 1 || outcome.err.ends_with(cannotOpen)) {
      ++told;
      continue;
    }
    ++whole;
    const size_t gone = !inPlace ? 0 : name == "obj_info" ? 1 : 4;
    const RawTable after(currentDir + "/" + name + ".pag");
    ASSERT_GE(after.keys() + gone, table.keys()) << outcome.err;
    ASSERT_EQ(run("ls -A " + root).out, "current\n");
  }
  printf("%zu damaged structures: %zu told, %zu without a loss\n", tried.size(), told, whole);
  // A handful may well be of one kind.
  if (tried.size() >= 50) {
    EXPECT_GT(std::min(told, whole), tried.size() / 20);
  }
}

Lines salvagedLines(const std::string &damagedTable) {
  const Outcome salvaged = run("objdb salvage current");
  EXPECT_EQ(salvaged.status, 1);
  EXPECT_THAT(salvaged.err, testing::HasSubstr(damagedTable + ": "));
  const std::string version = onlyVersion().substr(root.size() + 1);
  return sorted(dumpLines(run("objdb dump --version " + version).out));
}

// The records of buckets that no entry of the directory leads to are all found, and no others.
// Where records were deleted before, some of those come back, too: which of the space is free, the
// hidden buckets alone may say. Where nothing is hidden, none do.
TEST_F(Damage, HiddenBucketsAreSalvaged) {
  fs::remove_all(root);
  load(largeNetwork());
  for (const bool hasDeletions : {false, true}) {
    ObjectDatabase *db = open_nqwdb_ndbm(0);
    for (uint32_t id = 1; hasDeletions && id <= 600; id += 2) {
      ASSERT_EQ(delNameObject(db, id, 10, ("object " + std::to_string(id)).c_str()), 1);
      for (const uint32_t field : {22u, 25u, 40u, 41u}) ASSERT_EQ(delValueObject(db, id, field), 1);
    }
    close_nqwdb_ndbm(db);
    const Lines before = sorted(dump());
    start = Snapshot::take();
    for (const std::string name : {"obj_info", "value_info"}) {
      start.putBack();
      RawTable table(currentDir + "/" + name + ".pag");
      std::set<size_t> hidden;
      for (size_t entry = 0; entry < table.entries(); ++entry) {
        const size_t bucket = table.bucket(entry);
        if (entry % 3 == 1 && bucket != table.bucket(entry - 1)) hidden.insert(bucket);
        if (hidden.contains(bucket)) {
          table.put(table.directory() + 8 * entry, uint64_t{table.bucket(0)});
        }
      }
      ASSERT_FALSE(hidden.empty());
      table.write();
      const Lines after = salvagedLines(name);
      EXPECT_TRUE(hasDeletions ? std::ranges::includes(after, before) : after == before) << name;
    }
    start.putBack();
    RawTable table(currentDir + "/value_info.pag");
    constexpr size_t nextBlock = 32;
    table.put(nextBlock, table.at<uint64_t>(nextBlock) + 4096);
    table.write();
    EXPECT_EQ(salvagedLines("value_info"), before);
    start.putBack();
  }
}

}  // namespace
