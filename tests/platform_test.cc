// The containers, paths, locks and the table layer.

#include <fcntl.h>
#include <gmock/gmock.h>
#include <sys/stat.h>
#include <unistd.h>

#include <random>
#include <unordered_map>

#include "internal/caches.h"
#include "platform/descriptor.h"
#include "platform/files.h"
#include "platform/paths.h"
#include "platform/report.h"
#include "platform/strings.h"
#include "platform/table_lock.h"
#include "platform/table_structure.h"
#include "records/codecs.h"
#include "support.h"

namespace {

using testing::ElementsAre;
using testing::HasSubstr;

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
  list.insert(d);
  list.insert(c, b);
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

  // A record that does not decode yields null and the scan goes on behind it.
  ASSERT_EQ(_NQ_dbm_db_store_raw(db, "bad", "x"), 0);
  uint64_t sum = 0;
  int refused = 0;
  db->first = 1;
  do {
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
  EXPECT_EQ(sum, 7u * (1999u * 2000u / 2u - 3u));
  EXPECT_EQ(_NQ_dbm_db_getnext(db), nullptr) << "a scan that has ended stays ended";
  _NQ_dbm_db_close(db);
}

TEST_F(Platform, AScanThatBreaksOffIsNotAtItsEnd) {
  NQ_dbm_db *db = open("t");
  for (uint32_t key = 0; key < 2000; ++key) {
    ASSERT_EQ(_NQ_dbm_db_store(db, &key, sizeof key, &key), 0);
  }
  _NQ_dbm_db_close(db);
  ASSERT_EQ(truncate("/usr/NQ/tmp/t.pag", 40000), 0);
  db = open("t", O_RDONLY);
  if (db == nullptr) return;  // refused outright is as good
  db->first = 1;
  int records = 0;
  do {
    if (_NQ_dbm_db_getnext(db) != nullptr) ++records;
  } while (_NQ_dbm_db_scan(db) == DbmScan::underWay);
  EXPECT_LT(records, 2000);
  EXPECT_EQ(_NQ_dbm_db_scan(db), DbmScan::broken);
  _NQ_dbm_db_close(db);
}

// A salvage knows records by it, and stores are quickest in its order.
TEST_F(Platform, TheOrderOfKeysIsTheLibrarysHash) {
  NQ_dbm_db *db = open("t");
  for (uint32_t key = 0; key < 1000; ++key) {
    const std::string bytes(reinterpret_cast<const char *>(&key), 1 + key % sizeof key);
    ASSERT_EQ(_NQ_dbm_db_store_raw(db, bytes + std::to_string(key * key), "x"), 0);
  }
  _NQ_dbm_db_close(db);
  const Descriptor file(openRegular("/usr/NQ/tmp/t.pag", O_RDONLY));
  TablePages pages(file.get());
  TableStructure structure;
  ASSERT_TRUE(pages.readHead(&structure));
  const std::string content = readFile("/usr/NQ/tmp/t.pag");
  size_t records = 0;
  for (const uint64_t offset : pages.directory()) {
    Bucket bucket;
    ASSERT_TRUE(pages.readBucket(offset, &bucket));
    for (const RecordPlace &record : bucket.records) {
      ASSERT_EQ(_NQ_dbm_db_order(&content[record.offset], record.keyBytes), record.hash);
      ++records;
    }
  }
  EXPECT_GE(records, 1000u);
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

TEST_F(Platform, WhatIsNoTableDoesNotOpen) {
  writeFile("/usr/NQ/tmp/t.pag", std::string(16384, 'x'));
  EXPECT_EQ(open("t"), nullptr);
  EXPECT_EQ(open("absent/t"), nullptr);
}

}  // namespace
