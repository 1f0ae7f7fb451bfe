// Opening and seeding databases, the shared handle, archived versions, names.

#include <fcntl.h>
#include <gmock/gmock.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <utility>

#include "records/codecs.h"
#include "records/field_codec.h"
#include "records/value_table.h"
#include "store/directory.h"
#include "store/error_report.h"
#include "store/id_keeper.h"
#include "store/name_table.h"
#include "store/shared_database.h"
#include "store/tables.h"
#include "support.h"

namespace {

using testing::ElementsAre;
using testing::HasSubstr;

class Store : public PlatformTest {};

const Lines seeded = {
    R"({"table":"id_keeper","counter":14})",
    R"({"table":"field_info","field":10,"name":"Selection Name","type":"String","flags":10})",
    R"({"table":"field_info","field":11,"name":"IP Hostname","type":"String","flags":10})",
    R"({"table":"field_info","field":12,"name":"OSI Name","type":"String","flags":10})",
    R"({"table":"field_info","field":13,"name":"Syntax List","type":"Integer","flags":1})"};

TEST_F(Store, ANewDatabaseIsSeededInEitherFormat) {
  umask(0);
  for (const auto open : {open_nqwdb_ndbm, open_nqwdb_ndbm_old}) {
    std::filesystem::remove_all(currentDir);
    ObjectDatabase *db = open(0);
    ASSERT_NE(db, nullptr);
    EXPECT_EQ(db->bufferCount, 156u);
    close_nqwdb_ndbm(db);
    EXPECT_EQ(dump(), seeded);
    for (const auto &file : std::filesystem::recursive_directory_iterator("/usr/NQ/databases")) {
      EXPECT_EQ(file.status().permissions(), std::filesystem::perms::all) << file.path();
    }
    // Another open finds the tables there and leaves them alone.
    db = open(0);
    storeIdKeeper(db, 77);
    close_nqwdb_ndbm(db);
    close_nqwdb_ndbm_old(open(0));
    EXPECT_EQ(dump()[0], R"({"table":"id_keeper","counter":77})");
  }
}

// A table file of 0 bytes is what a copy that ran out of space leaves: it counts as new.
TEST_F(Store, AnEmptyPageFileIsSeeded) {
  std::filesystem::create_directories(currentDir);
  writeFile(currentDir + "/field_info.pag", "");
  close_nqwdb_ndbm(open_nqwdb_ndbm(0));
  EXPECT_EQ(dump(), seeded);
}

TEST_F(Store, TheBufferCountFollowsTheBufferSize) {
  for (const auto &[size, count] : {std::pair{81919u, 0u}, {81920u, 1u}, {0xFFFFFFFFu, ~0u}}) {
    ndbm_buffersize = size;
    ObjectDatabase *db = open_nqwdb_ndbm(0);
    EXPECT_EQ(db->bufferCount, count);
    close_nqwdb_ndbm(db);
  }
}

TEST_F(Store, AllTablesButTheIdKeeperAreLockedUntilTheLastHandleCloses) {
  ObjectDatabase *first = open_nqwdb_ndbm(0);
  ObjectDatabase *second = open_nqwdb_ndbm_old(0);
  ASSERT_NE(second, nullptr);
  const auto lockedElsewhere = [] {
    int locked = 0;
    for (const char *table :
         {"id_keeper", "field_info", "obj_info", "value_info", "name_info", "enum_info"}) {
      locked += run("flock -n " + currentDir + "/" + table + ".pag true").status;
    }
    return locked;
  };
  EXPECT_EQ(lockedElsewhere(), 5);
  close_nqwdb_ndbm(first);
  EXPECT_EQ(lockedElsewhere(), 5);
  close_nqwdb_ndbm_old(second);
  EXPECT_EQ(lockedElsewhere(), 0);
}

TEST_F(Store, TheSharedHandleIsOpenedOnceAndRefreshedOnDemand) {
  writeFile("/usr/NQ/databases", "");  // no directory can be made here
  const pid_t child = fork();
  if (child == 0) _exit((nqwDbGetDb(0), 7));
  int status = 0;
  waitpid(child, &status, 0);
  EXPECT_EQ(WEXITSTATUS(status), 0) << "directories that cannot be made end the process with 0";
  EXPECT_THAT(readFile("/usr/NQ/log/nqw.log"), HasSubstr("Unable to create directory."));

  std::filesystem::remove("/usr/NQ/databases");
  std::filesystem::create_directories(currentDir);
  writeFile(currentDir + "/obj_info.pag", "no table");
  const auto openFiles = [] { return run("ls /proc/$PPID/fd | wc -l").out; };
  const std::string before = openFiles();
  EXPECT_EQ(nqwDbGetDb(0), nullptr);
  EXPECT_EQ(openFiles(), before) << "an open that fails leaves nothing open";
  EXPECT_EQ(NQwError(), NQw_DB_OPEN_FAILED);
  EXPECT_THAT(readFile("/usr/NQ/log/nqw.trace"), HasSubstr("0x2000000 nqw NQw_DB_OPEN_FAILED\n"));
  std::filesystem::remove(currentDir + "/obj_info.pag");

  ObjectDatabase *db = nqwDbGetDb(0);
  ASSERT_NE(db, nullptr);
  EXPECT_EQ(db->fieldCount, 4);
  char name[] = "Fifth";
  NQwFieldInfo info{14, name, Integer, 0};
  EXPECT_EQ(storeFieldInfo(db, 14, &info), 0);
  EXPECT_EQ(nqwDbGetDb(0), db);
  EXPECT_EQ(db->fieldCount, 4);
  update_fcache = 1;
  EXPECT_EQ(nqwDbGetDb(0), db);
  EXPECT_EQ(db->fieldCount, 5);
  EXPECT_EQ(update_fcache, 0);
}

TEST_F(Store, VersionsAreNamedByTheirLocalTime) {
  int flags = 0;
  EXPECT_STREQ(dbVersionName(0, &flags), "current");
  setenv("TZ", "UTC", 1);
  EXPECT_STREQ(dbVersionName(1000000000, &flags), "09092001.014640");
  EXPECT_STREQ(dbVersionNameOld(1000000000, &flags), "090901.014640");
  EXPECT_EQ(flags, 0x42);
  setenv("TZ", "XYZ-2", 1);
  EXPECT_STREQ(dbVersionName(1000000000, &flags), "09092001.034640");

  const std::string current = dbPath(nullptr, nullptr);
  EXPECT_EQ(current, currentDir);
  EXPECT_EQ(current, dbPath("current", nullptr));
  EXPECT_STREQ(dbPath("", nullptr), "/usr/NQ/databases/nqwdb");
  EXPECT_EQ(dbPath(std::string(1000, 'x').c_str(), nullptr), nullptr);
}

TEST_F(Store, OneArchivedVersionIsOpenAtATime) {
  setenv("TZ", "UTC", 1);
  constexpr time_t versions[] = {1000000000, 1100000000, 1200000000};
  int flags = 0;
  for (const time_t version : versions) {
    const Outcome made = run(
        "objdb load --unsealed --version " + std::string(dbVersionName(version, &flags)),
        seeded[0] + "\n" + nameLines(static_cast<uint32_t>(version), 10, "of that day")[1] + "\n");
    ASSERT_EQ(made.status, 0) << made.err;
  }
  // Each in a fresh process.
  for (const time_t version : versions) {
    const pid_t child = fork();
    if (child == 0) {
      ObjectDatabase *db = nqwDbGetDb(version);
      _exit(db != nullptr && db->version == version && db->idKeeperDb == nullptr &&
                    getNameObjectId(db, 10, "of that day") == static_cast<uint32_t>(version)
                ? 0
                : 1);
    }
    int status = 0;
    waitpid(child, &status, 0);
    EXPECT_EQ(status, 0) << version;
  }
  ObjectDatabase *db = openArchiveDb(versions[0]);
  ASSERT_NE(db, nullptr);
  EXPECT_EQ(snapstruct, db);
  EXPECT_EQ(nqwDbGetDb(versions[0]), db);
  EXPECT_EQ(_NQW_NDBM_snapshot_open, versions[0]);
  EXPECT_EQ(openArchiveDb(versions[1]), nullptr);
  EXPECT_EQ(NQwError(), NQw_DB_VERSION_NOT_FOUND);
  const std::string trace = readFile("/usr/NQ/log/nqw.trace");
  EXPECT_THAT(trace, HasSubstr("NQw_VERSION_ALREADY_EXISTS"));
  EXPECT_THAT(trace, HasSubstr("NQw_DB_VERSION_NOT_FOUND"));

  EXPECT_EQ(versionExists(currentDir.c_str()), 0);
  EXPECT_EQ(NQwError(), 0);
  EXPECT_EQ(versionExists("/usr/NQ"), 0);
  EXPECT_EQ(NQwError(), NQw_VERSION_ALREADY_EXISTS);
  freeFieldList(db);
  close_nqwdb_ndbm(db);
}

TEST_F(Store, AnArchivedVersionThatDoesNotOpenCanBeAskedForAgain) {
  setenv("TZ", "UTC", 1);
  const std::string directory = "/usr/NQ/databases/nqwdb/09092001.014640";
  std::filesystem::create_directories(directory);
  writeFile(directory + "/enum_info.pag", "no table");
  EXPECT_EQ(openArchiveDb(1000000000), nullptr);
  EXPECT_EQ(NQwError(), NQw_DB_OPEN_FAILED);
  std::filesystem::remove(directory + "/enum_info.pag");
  umask(022);
  ObjectDatabase *db = openArchiveDb(1000000000);
  ASSERT_NE(db, nullptr);
  for (const auto &file : std::filesystem::directory_iterator(directory)) {
    EXPECT_EQ(file.status().permissions(), std::filesystem::perms::all) << file.path();
  }
  close_nqwdb_ndbm(db);
}

TEST_F(Store, NamesStandInBothTables) {
  ObjectDatabase *db = open_nqwdb_ndbm(0);
  ASSERT_EQ(putNameObject(db, 7, 10, "gw1"), 0);
  EXPECT_THAT(scanKeys("obj_info"), ElementsAre(bytes("07000000 0a000000")));
  EXPECT_THAT(scanKeys("name_info"), ElementsAre(bytes("0a000000 677731")));
  EXPECT_EQ(getNameObjectId(db, 10, "gw1"), 7u);
  EXPECT_EQ(getNameObjectId(db, 10, "gw2"), 0u);
  EXPECT_EQ(getNameRecord(db, 11, "gw1"), nullptr);

  // A second object of the name takes it over; the first keeps its own record.
  ASSERT_EQ(putNameObject(db, 8, 10, "gw1"), 0);
  EXPECT_EQ(getNameObjectId(db, 10, "gw1"), 8u);
  EXPECT_STREQ(getObjectName(db, 7, 10), "gw1");

  const std::string longest(256, 'n');
  ASSERT_EQ(putNameObject(db, 9, 10, longest.c_str()), 0);
  EXPECT_EQ(getNameObjectId(db, 10, longest.c_str()), 9u);
  EXPECT_EQ(putNameObject(db, 9, 10, std::string(257, 'n').c_str()), -1);
  for (const size_t table : {objInfo, nameInfo}) {
    NQ_dbm_db *writable = tableOf(db, table);
    tableOf(db, table) = _NQ_dbm_db_open(currentDir.c_str(), tableFormats[table].name, O_RDONLY, 0,
                                         nullptr, encodeDbObject);
    EXPECT_EQ(putNameObject(db, 9, 10, "unwritten"), -1);
    EXPECT_EQ(delNameObject(db, 9, 10, longest.c_str()), 0);
    EXPECT_THAT(readFile("/usr/NQ/log/nqw.trace"), HasSubstr("Error in delNameObject"));
    std::filesystem::remove("/usr/NQ/log/nqw.trace");
    _NQ_dbm_db_close(std::exchange(tableOf(db, table), writable));
  }

  EXPECT_EQ(delNameObject(db, 8, 10, "gw1"), 1);
  EXPECT_EQ(getNameObjectId(db, 10, "gw1"), 0u);
  EXPECT_EQ(getObjectName(db, 8, 10), nullptr);
  EXPECT_EQ(delNameObject(db, 8, 10, "gw1"), 1) << "gone is what was asked for";
  close_nqwdb_ndbm(db);
}

TEST_F(Store, ValuesAreStoredReadAndDeletedOneByOne) {
  ObjectDatabase *db = open_nqwdb_ndbm(0);
  NQwFieldValue value{0, Integer, {42}, 0};
  ASSERT_EQ(putValueObject(db, 1234, 10, &value), 0);
  EXPECT_THAT(scanKeys("value_info"), ElementsAre(bytes("d2040000 0a000000")));
  NQwFieldValue *read = getObjectFieldValue(db, 1234, 10);
  ASSERT_NE(read, nullptr);
  EXPECT_EQ(read->value.number, 42);
  freeFieldValue(read);
  EXPECT_EQ(delValueObject(db, 1234, 10), 1);
  EXPECT_EQ(getValueObject(db, 1234, 10), nullptr);
  EXPECT_EQ(delValueObject(db, 1234, 10), 1);
  value.type = 9;
  EXPECT_LT(putValueObject(db, 1234, 10, &value), 0);
  close_nqwdb_ndbm(db);
}

}  // namespace
