// The containers, paths, locks and the table layer.

#include <fcntl.h>
#include <gmock/gmock.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <filesystem>
#include <random>
#include <unordered_map>

#include "internal/caches.h"
#include "platform/descriptor.h"
#include "platform/files.h"
#include "platform/paths.h"
#include "platform/report.h"
#include "platform/strings.h"
#include "platform/table_growth.h"
#include "platform/table_lock.h"
#include "platform/table_structure.h"
#include "records/codecs.h"
#include "support.h"

namespace {

using testing::ContainsRegex;
using testing::ElementsAre;
using testing::EndsWith;
using testing::HasSubstr;
using testing::MatchesRegex;

std::vector<const char *> elements(const _List &list) {
  std::vector<const char *> all;
  for (_ListIter walk(&list); walk() != nullptr; walk++) {
    all.push_back(static_cast<const char *>(walk()));
  }
  return all;
}

TEST(List, KeepsTheOrderItIsGiven) {
  const char *a = "a", *b = "b", *c = "c", *d = "d";
  _List list;
  list.insert(b);
  list.insert(d, nullptr, 0);
  list.insert(c, b, 1);
  list.insert(a, nullptr, 1);
  EXPECT_THAT(elements(list), ElementsAre(a, b, c, d));

  // The walk has moved on before the current element goes, from either end and the middle.
  for (_ListIter walk(&list); walk() != nullptr;) {
    const void *element = walk();
    walk++;
    if (element != c) list.remove(element);
  }
  EXPECT_THAT(elements(list), ElementsAre(c));
  list.remove(a);
  list.remove(c);
  EXPECT_EQ(list.size(), 0);
  list.insert(a);
  EXPECT_THAT(elements(list), ElementsAre(a));
}

// Removal from a field's list of any length costs the same: a million from the middle outwards
// would never end if each one walked.
TEST(List, RemovesValuesWithoutWalking) {
  constexpr size_t count = 1'000'000;
  std::vector<CachedValue> values(count);
  FieldValList list(&CachedValue::inField);
  for (CachedValue &value : values) list.insert(&value);
  for (size_t i = 0; i < count; ++i) list.remove(&values[(i + count / 2) % count]);
  list.remove(&values[0]);  // is in no list
  EXPECT_EQ(list.size(), 0);
  EXPECT_EQ(_ListIter(&list)(), nullptr);
}

TEST(Hash, AgreesWithAMapUnderRandomWork) {
  _Hash table(1, 3, 3, 0.333f);
  std::unordered_map<uint32_t, int> model;
  std::vector<int> data(5000);
  std::mt19937 random(1);
  for (int step = 0; step < 20000; ++step) {
    const uint32_t key = random() % 3000;
    if (random() % 3 == 0) {
      table.remove(wordKey(key));
      model.erase(key);
    } else {
      model[key] = step % 5000;
      table.insert(wordKey(key), &data[static_cast<size_t>(step % 5000)]);
    }
  }
  ASSERT_EQ(table.size(), static_cast<int>(model.size()));
  size_t seen = 0;
  for (_HashIter item(&table); item() != nullptr; item++, ++seen) {
    EXPECT_EQ(item()->data(), &data[static_cast<size_t>(model.at(keyNumber(item()->key())))]);
  }
  EXPECT_EQ(seen, model.size());
  EXPECT_FALSE(table.isIn(wordKey(3000)));
}

TEST(Hash, TheNewerStringReplacesTheOneItEquals) {
  FieldNameTbl table(200, 3, 3, 0.333f);
  char older[] = "router", newer[] = "router";
  table.insert(older, wordKey(1));
  table.insert(newer, wordKey(2));
  ASSERT_EQ(table.size(), 1);
  EXPECT_EQ(table.find(older)->key(), newer);
  EXPECT_EQ(keyNumber(table.find(older)->data()), 2u);
}

TEST(Strings, NullSortsFirstAndHasNoLength) {
  EXPECT_EQ(strcmp_new(nullptr, nullptr), 0);
  EXPECT_LT(strcoll_new(nullptr, ""), 0);
  EXPECT_GT(strncmp_new("a", nullptr, 3), 0);
  EXPECT_EQ(strlen_new(nullptr), 0u);
  EXPECT_EQ(_NQhash("foobar"), 0xBF9CF968u);
}

TEST(Paths, NothingGrowsPastItsBuffer) {
  EXPECT_STREQ(_NQwDbBuildDbPath(nullptr, "nqwdb"), "/usr/NQ/databases/nqwdb");
  EXPECT_STREQ(_NQwDbBuildDbPath("lab", "nqwdb"), "/usr/NQ/databases/lab/nqwdb");
  const size_t fixed = strlen("/usr/NQ/databases//nqwdb") + 1;
  EXPECT_NE(_NQwDbBuildDbPath(std::string(1024 - fixed, 'x').c_str(), "nqwdb"), nullptr);
  EXPECT_EQ(_NQwDbBuildDbPath(std::string(1025 - fixed, 'x').c_str(), "nqwdb"), nullptr);

  char path[8] = "/a";
  EXPECT_EQ(_NQConcatPath(path, sizeof path, ""), 0);
  EXPECT_EQ(_NQConcatPath(path, sizeof path, nullptr), 0);
  EXPECT_EQ(_NQConcatPath(path, sizeof path, "12345"), -1);
  EXPECT_STREQ(path, "/a");
  EXPECT_EQ(_NQConcatPath(path, sizeof path, "1234"), 0);
  EXPECT_STREQ(path, "/a/1234");
}

class Platform : public PlatformTest {
 protected:
  static NQ_dbm_db *open(const char *name, int flags = O_RDWR | O_CREAT) {
    return _NQ_dbm_db_open("/usr/NQ/tmp", name, flags, 0777, decodeDbKey, encodeDbKey);
  }

  // Whether another process gets the lock.
  static bool lockElsewhere(const std::string &name) {
    return run("flock -n /usr/NQ/tmp/" + name + ".pag true").status == 0;
  }
};

TEST_F(Platform, DirectoriesAreMadeWithTheirParents) {
  EXPECT_EQ(_NQwDbMakeDbDir("lab"), 0);
  EXPECT_EQ(_NQwDbMakeDbDir("lab"), 0);
  EXPECT_TRUE(exists("/usr/NQ/databases/lab/nqwdb"));
  EXPECT_EQ(_NQMakeDir("/usr/NQ/databases/lab", 0777, 0), -1);
  writeFile("/usr/NQ/databases/file", "");
  EXPECT_LT(_NQwDbMakeDbDir("file"), 0);
}

TEST_F(Platform, ReportsAreSingleLinesAndNeverFail) {
  EXPECT_EQ(NQwError(), 0) << "none was reported";
  NQuLogS(85, 8, "nqw", 1, 0, "two\r\nlines of %s", std::string(5000, 'x').c_str());
  const std::string log = readFile("/usr/NQ/log/nqw.log");
  EXPECT_THAT(log, HasSubstr(" 85 8 nqw two\\r\\nlines of xxx"));
  EXPECT_EQ(std::count(log.begin(), log.end(), '\n'), 1);
  symlink("/usr/NQ/tmp/elsewhere", "/usr/NQ/log/nqw.trace");
  errno = 77;
  NQuTraceS(85, 0x2000000, "nqw", 1, 0, "lost");
  EXPECT_EQ(errno, 77);
  EXPECT_FALSE(exists("/usr/NQ/tmp/elsewhere")) << "a report followed a link";
}

// A signal that is ignored stays so; one that ends the process has the words said first, once.
TEST_F(Platform, LastWordsAreSaidBeforeASignalEndsTheProcess) {
  const pid_t child = fork();
  if (child == 0) {
    signal(SIGHUP, SIG_IGN);
    prepareLastWords("forgotten");
    sayLastWordsBySignal();
    raise(SIGHUP);
    forgetLastWords();
    sayLastWords();
    prepareLastWords("two\nlines");
    raise(SIGTERM);
    _exit(0);
  }
  int status = 0;
  waitpid(child, &status, 0);
  EXPECT_EQ(status, SIGTERM);
  EXPECT_THAT(
      readFile("/usr/NQ/log/nqw.log"),
      MatchesRegex("[-0-9]{10} [:0-9]{8} " + std::to_string(child) + " 85 8 nqw two[\\]nlines\n"));
}

TEST_F(Platform, FailuresAreToldWithTheirKeysAndNotForEver) {
  _NQ_dbm_db_close(open("t"));
  NQ_dbm_db *db = open("t", O_RDONLY);
  for (int i = 0; i < 25; ++i) {
    EXPECT_EQ(_NQ_dbm_db_store_raw(db, "\x01\xAF" + std::string(63, 'k'), "x"), -1);
  }
  _NQ_dbm_db_close(db);
  const std::string log = readFile("/usr/NQ/log/nqw.log");
  EXPECT_EQ(std::count(log.begin(), log.end(), '\n'), 20);
  EXPECT_THAT(log, ContainsRegex("Could not store in table \"/usr/NQ/tmp/t\", key 01af(6b){62}: "));
  EXPECT_THAT(log, EndsWith(" Further failures on this table are not listed.\n"));
}

TEST_F(Platform, TablesStoreReadDeleteAndScan) {
  NQ_dbm_db *db = open("t");
  ASSERT_NE(db, nullptr);
  for (uint32_t key = 0; key < 2000; ++key) {
    const uint32_t record = key * 7;
    ASSERT_EQ(_NQ_dbm_db_store(db, &key, sizeof key, &record), 0);
  }
  uint32_t key = 3;
  EXPECT_EQ(*static_cast<uint32_t *>(_NQ_dbm_db_get(db, &key, sizeof key)), 21u);
  EXPECT_EQ(_NQ_dbm_db_delete(db, &key, sizeof key), 0);
  EXPECT_EQ(_NQ_dbm_db_delete(db, &key, sizeof key), 0) << "absent is what was asked for";
  EXPECT_EQ(_NQ_dbm_db_get(db, &key, sizeof key), nullptr);
  _NQ_dbm_db_start_buffering(db, 1);
  EXPECT_EQ(_NQ_dbm_db_delete(db, &++key, sizeof key), 0);
  EXPECT_EQ(_NQ_dbm_db_get(db, &key, sizeof key), nullptr) << "held back, and gone all the same";
  _NQ_dbm_db_stop_buffering(db);
  EXPECT_EQ(_NQ_dbm_db_sync(db), 0);

  // A record that does not decode yields null and the scan goes on behind it.
  ASSERT_EQ(_NQ_dbm_db_store_raw(db, "bad", "x"), 0);
  uint64_t sum = 0;
  int refused = 0;
  db->first = 1;
  do {
    errno = ENOMEM;  // of an earlier call: this one has all the memory that it wants
    const auto *record = static_cast<uint32_t *>(_NQ_dbm_db_getnext(db));
    if (record != nullptr) {
      sum += *record;
    } else if (_NQ_dbm_db_scan(db) == DbmScan::underWay) {
      ++refused;
    }
  } while (_NQ_dbm_db_scan(db) == DbmScan::underWay);
  EXPECT_EQ(_NQ_dbm_db_scan(db), DbmScan::complete);
  EXPECT_EQ(db->first, 0);
  EXPECT_EQ(refused, 1);
  EXPECT_EQ(sum, 7u * (1999u * 2000u / 2u - 3u - 4u));
  EXPECT_EQ(_NQ_dbm_db_getnext(db), nullptr) << "a scan that has ended stays ended";
  EXPECT_EQ(_NQ_dbm_db_decode(db, "x"), nullptr);
  _NQ_dbm_db_close(db);
}

// What a file says of itself is believed up to its limits. Each row has pairs: an offset in a sound
// table, and the number to put there. A salvage knows records by their hashes.
TEST_F(Platform, AStructureIsBelievedUpToItsLimits) {
  NQ_dbm_db *db = open("t");
  for (const std::string more : {"", "more"}) {  // the second time in another place
    for (uint32_t key = 0; key < 1000; ++key) {
      const std::string bytes(reinterpret_cast<const char *>(&key), 1 + key % sizeof key);
      ASSERT_EQ(_NQ_dbm_db_store_raw(db, bytes + std::to_string(key * key), "x" + more), 0);
    }
  }
  _NQ_dbm_db_close(db);
  std::string sound = readFile("/usr/NQ/tmp/t.pag");
  const auto word = [&](uint64_t offset) {
    uint32_t value = 0;
    memcpy(&value, &sound[offset], sizeof value);
    return value;
  };
  const Descriptor table(openRegular("/usr/NQ/tmp/t.pag", O_RDONLY));
  TablePages pages(table.get());
  TableStructure head;
  ASSERT_TRUE(pages.readHead(&head));
  for (const uint64_t offset : pages.directory()) {
    Bucket content;
    ASSERT_TRUE(pages.readBucket(offset, &content));
    for (const RecordPlace &each : content.records) {
      ASSERT_EQ(_NQ_dbm_db_order(&sound[each.offset], each.keyBytes), each.hash);
    }
  }
  constexpr bool wide = sizeof(void *) == 8;
  const uint64_t size = sound.size(), directory = word(8), bucket = word(directory);
  const uint64_t hole = bucket + (wide ? 8 : 4), place = hole + hole - bucket;
  const uint64_t bits = bucket + (wide ? 104 : 76), count = bits + 4;
  uint64_t record = count + 4;
  while (word(record) == ~0u) record += 24;
  const uint64_t length = word(record + 16) + word(record + 20);
  sound.replace(hole, 4, std::string("\1\0\0", 4));  // one byte of free space
  const std::pair<StructureFault, std::vector<uint64_t>> rows[] = {
      {StructureFault::none, {0, 0x13579ACE, 32, size, record + 16, 0}},
      {StructureFault::header, {0,  0x13579ACD,   4,  0,
                                4,  size + 1,     8,  4095,
                                8,  size,         8,  size + 1,
                                16, word(16) + 8, 20, 32,
                                24, 4097,         24, bits + 8 - bucket,
                                28, word(28) + 1}},
      {StructureFault::nextBlock, {32, size + 1}},
      {StructureFault::directory,
       {directory, word(directory + word(16) / 2), bits, word(bits) + 1, record,
        word(record) ^ 0x40000000}},
      {StructureFault::bucket, {directory,   4095,
                                directory,   size,
                                directory,   ~uint64_t{0},
                                bits,        ~0u,
                                bits,        word(20) + 1,
                                count,       ~0u,
                                count,       word(28) + 1,
                                count,       word(count) + 1,
                                record,      ~1u,
                                record + 8,  4095,
                                record + 8,  size - length + 1,
                                record + 16, ~0u,
                                record + 20, ~0u}},
      {StructureFault::space, {record + 8, size - length,
                               32,         8192,
                               bucket,     ~0u,
                               bucket,     7,
                               hole,       0,
                               place,      word(record + 8) + length - 1,
                               place,      4095,
                               place,      size,
                               44,         ~0u,
                               44,         4096,
                               56,         0,
                               48,         4095,
                               48,         size + 1}}};
  for (const auto &[fault, changes] : rows) {
    for (size_t i = 0; i < changes.size(); i += 2) {
      std::string changed = sound;
      memcpy(&changed[changes[i]], &changes[i + 1], changes[i + 1] >> 32 != 0 ? 8 : 4);
      writeFile("/usr/NQ/tmp/t.pag", changed);
      const TableStructure structure = readStructureAndSpace(table.get());
      EXPECT_EQ(structure.fault, fault)
          << changes[i + 1] << " at " << changes[i] << ": " << structure.detail;
    }
  }
}

TEST_F(Platform, LocksBelongToTheProcessAndItsLastHandle) {
  NQ_dbm_db *first = open("t");
  NQ_dbm_db *second = open("t");
  EXPECT_TRUE(lockElsewhere("t"));
  ASSERT_EQ(_NQ_lock_dbm_db(first, 0), 0);
  ASSERT_EQ(_NQ_lock_dbm_db(second, 0), 0);
  EXPECT_FALSE(lockElsewhere("t"));
  _NQ_dbm_db_close(first);
  EXPECT_FALSE(lockElsewhere("t")) << "closing one handle dropped the other's lock";
  _NQ_dbm_db_close(second);
  EXPECT_TRUE(lockElsewhere("t"));

  NQ_dbm_db *replaced = open("t");
  run("cd /usr/NQ/tmp && mv t.pag other.pag && cp other.pag t.pag");
  EXPECT_LT(_NQ_lock_dbm_db(replaced, 0), 0) << "what stands there now is another file";
  _NQ_dbm_db_close(replaced);
  EXPECT_FALSE(TableLock().acquire("/usr/NQ/tmp/absent.pag"));
}

// A process may give itself any name.
TEST_F(Platform, TheHolderOfALockCannotControlATerminal) {
  run("cd /usr/NQ/tmp; : >t.pag; cp $(command -v flock) '\x1b[ ~\x7f'; '/usr/NQ/tmp/\x1b[ ~\x7f' "
      "t.pag sleep 1 & while flock -n t.pag true; do :; done");
  EXPECT_THAT(lockHolder("/usr/NQ/tmp/t.pag"), MatchesRegex("process [0-9]+ [(][?][[] ~[?][)]"));
}

TEST_F(Platform, ACopyTakesNoOtherFilesPlace) {
  for (const std::string file : {"a", "b"}) writeFile("/usr/NQ/tmp/" + file, file);
  const Descriptor from(openRegular("/usr/NQ/tmp/a", O_RDONLY));
  const Descriptor directory(openQuietly("/usr/NQ/tmp", O_DIRECTORY));
  EXPECT_EQ(copyFileSynced(from.get(), directory.get(), "b"), -1);
  EXPECT_EQ(readFile("/usr/NQ/tmp/b"), "b");
}

TEST_F(Platform, ATableFileGrowsAheadAndIsTrimmed) {
  const std::string file = "/usr/NQ/tmp/t.pag";
  // In KiB. The second header is a damaged one: more was in use.
  for (const auto &[before, used, expected, reserved] : {std::array{1024, 1024, 0, 1536},
                                                         {1024, 512, 0, 1024},
                                                         {64, 64, 700, 800},
                                                         {64, 64, 0, 256}}) {
    SCOPED_TRACE(reserved);
    std::string content(before * size_t{1024}, '\0');
    const uint32_t magic = 0x13579ACF, end = used * 1024u, later = reserved * 1024u;
    memcpy(&content[0], &magic, sizeof magic);
    memcpy(&content[32], &end, sizeof end);
    writeFile(file, content);
    const Descriptor table(openRegular(file, O_RDWR));
    TableGrowth growth;
    growth.expect(expected * uint64_t{1024});
    EXPECT_TRUE(growth.reserve(table.get(), 100));
    EXPECT_EQ(std::filesystem::file_size(file), later);
    EXPECT_FALSE(growth.reserve(table.get(), 100)) << "there is room";
    EXPECT_FALSE(growth.reserve(table.get(), later)) << "less was used than it was charged with";
    EXPECT_EQ(pwrite(table.get(), &later, sizeof later, 32), 4);
    EXPECT_TRUE(growth.reserve(table.get(), later));
    EXPECT_EQ(std::filesystem::file_size(file), std::max(later + later / 2, 256u * 1024));
    EXPECT_EQ(pwrite(table.get(), &end, sizeof end, 32), 4);
    EXPECT_TRUE(growth.isReserved() && growth.trim(table.get()) && !growth.isReserved());
    EXPECT_EQ(std::filesystem::file_size(file), before * 1024u) << "never less than it was";
    EXPECT_FALSE(growth.reserve(table.get(), later)) << "the map is off for good";
  }
}

}  // namespace
