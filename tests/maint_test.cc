// Deleting objects from caches and tables.

#include <fcntl.h>
#include <gmock/gmock.h>

#include <filesystem>
#include <utility>

#include "internal/iNameToOID.h"
#include "internal/loaders.h"
#include "maint/delete_object.h"
#include "maint/outcome.h"
#include "maint/proof.h"
#include "maint/rewrite_plan.h"
#include "maint/run.h"
#include "store/shared_database.h"
#include "store/tables.h"
#include "support.h"

namespace {

using testing::HasSubstr;

class Maintenance : public CacheTest {};
class Proof : public PlatformTest {};

const Lines network = emptyNetwork() + nameLines(1, 10, "alpha") + nameLines(2, 10, "beta") +
                      Lines{valueLine(1, 20, R"("type":"Boolean","value":true)"),
                            valueLine(1, 24, R"("type":"String","list":["x","y"])"),
                            valueLine(2, 20, R"("type":"Boolean","value":true)"),
                            // A name field's value that is no name stands in value_info.
                            valueLine(2, 11, R"("type":"Integer","value":5)"),
                            valueLine(3, 22, R"("type":"Integer","value":5)")};

TEST_F(Maintenance, ADeletedObjectLeavesCachesAndTables) {
  load(network);
  const Lines before = dump();
  loadCaches();
  ASSERT_EQ(lookupNameInIndex(10, "beta"), 2u);
  for (const uint32_t id : {2u, 2u, 77u}) EXPECT_EQ(_nqwDbDeleteObject(id), 0) << id;
  EXPECT_FALSE(ObjValCache->isIn(2));
  EXPECT_EQ(lookupNameInIndex(10, "beta"), 0u);
  EXPECT_FALSE(exists("/usr/NQ/log/nqw.log"));

  enterOrRelease(5, 99, newFieldValue(String, "of no field"));  // an object without values
  EXPECT_EQ(_nqwDbDeleteObject(5), 0);
  EXPECT_FALSE(ObjValCache->isIn(5));

  close_nqwdb_ndbm(freeFieldList(nqwDbGetDb(0)));  // and with it the locks that hold the dump off
  EXPECT_EQ(dump(), without(before, {2}));
}

TEST_F(Maintenance, AFailingTableLeavesTheRestOfTheObject) {
  load(network);
  loadCaches();
  ObjectDatabase *db = nqwDbGetDb(0);
  NQ_dbm_db *writable = db->valueInfoDb;
  db->valueInfoDb =
      _NQ_dbm_db_open(currentDir.c_str(), "value_info", O_RDONLY, 0, nullptr, nullptr);
  EXPECT_EQ(deleteObjectEntries(77, ObjValCache->find(1)), 0) << "not the object of the entry";
  EXPECT_THAT(readFile("/usr/NQ/log/nqw.log"), HasSubstr("Cache failure in nqwDbDeleteObject."));
  EXPECT_EQ(_nqwDbDeleteObject(1), -1);
  EXPECT_THAT(readFile("/usr/NQ/log/nqw.trace"), HasSubstr("Error in delValueObject."));
  EXPECT_THAT(
      readFile("/usr/NQ/log/nqw.log"),
      HasSubstr(" 85 4 nqw Database failure in nqwDbDeleteObject.\\nFile: internal/iDeleteO\\n"));
  // Its name and the value that failed are out of the cache, the list behind them is not.
  ASSERT_TRUE(ObjValCache->isIn(1));
  EXPECT_EQ(ObjValCache->find(1)->values->size(), 1);
  verifyCaches();
  _NQ_dbm_db_close(db->valueInfoDb);
  db->valueInfoDb = writable;
  EXPECT_EQ(_nqwDbDeleteObject(1), 0);
}

TEST_F(Maintenance, EveryValueThatCannotBeStoredIsCounted) {
  Lines lines = network;
  for (uint32_t id = 100; id < 400; ++id) {
    lines.push_back(valueLine(id, 22, R"("type":"Integer","value":5)"));
  }
  load(lines);
  runDb = loadCaches();
  planRewrite();
  const struct {
    size_t table;
    uint32_t values;
  } cases[] = {{objInfo, 2}, {nameInfo, 2}, {valueInfo, 305}};
  for (const auto &[table, values] : cases) {
    const TableFormat &format = tableFormats[table];
    NQ_dbm_db *writable = tableOf(runDb, table);
    tableOf(runDb, table) =
        _NQ_dbm_db_open(currentDir.c_str(), format.name, O_RDONLY, 0, format.decode, format.encode);
    EXPECT_EQ(storePlanned(runDb), values) << format.name;
    _NQ_dbm_db_close(std::exchange(tableOf(runDb, table), writable));
  }
  EXPECT_EQ(storePlanned(runDb), 0u);
  runDb = nullptr;
}

TEST(Reasons, HaveTheirPlaces) {
  outcome = {1, {"id_keeper", "obj_info"}, 2, 3, 4, {"a.pag", "b.dir"}, true, true};
  EXPECT_EQ(reasonsToKeep(),
            "1 records could not be read; table id_keeper was missing; table obj_info was missing; "
            "2 values were left out; 3 values could not be written; 4 objects could not be "
            "deleted; a.pag could not be removed; b.dir could not be removed; the new tables could "
            "not be synced; the new tables are not complete");
  outcome = {};
  EXPECT_EQ(reasonsToKeep(), "");
}

TEST_F(Proof, TablesAreCompleteWhenTheirFilesSayTheSame) {
  load(network);
  ObjectDatabase *db = open_nqwdb_ndbm(0);
  const RecordCounts counts = countRecords(db);
  close_nqwdb_ndbm(db);
  EXPECT_TRUE(areComplete(currentDir.c_str(), counts));
  for (const size_t table : rebuiltTables) {
    RecordCounts more = counts;
    ++more[table];
    EXPECT_FALSE(areComplete(currentDir.c_str(), more));
    const std::string path = tablePath(currentDir, table, pageSuffix), sound = readFile(path);
    std::string damaged = sound;
    damaged[34] = 1;  // the next free block lies beyond the end
    writeFile(path, damaged);
    EXPECT_FALSE(areComplete(currentDir.c_str(), counts));
    std::filesystem::remove(path);
    EXPECT_FALSE(areComplete(currentDir.c_str(), counts));
    writeFile(path, sound);
  }
}

}  // namespace
