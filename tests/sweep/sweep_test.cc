// Whole runs of the real binary: what they print, what they leave in the tables.

#include <gmock/gmock.h>

#include <filesystem>

#include "sweep/sweep_runs.h"

namespace {

using testing::StartsWith;

const std::string isTrue = R"("type":"Boolean","value":true)";
const std::string isFalse = R"("type":"Boolean","value":false)";

Lines router(uint32_t id, const std::string &name) {
  return nameLines(id, 10, name) + nameLines(id, 11, name + ".example") +
         Lines{valueLine(id, 22, R"("type":"Integer","value":-1)"),
               valueLine(id, 23, R"("type":"Enumeration","value":1)"),
               valueLine(id, 24, R"("type":"String","value":"a \"router\"")"),
               valueLine(id, 25, R"("type":"Integer","list":[1,2,3],"entryFlags":[0,1,0])")};
}

const Lines network = emptyNetwork() + router(1, "r1") + router(2, "r2") + router(3, "r3") +
                      router(99, "r99") + router(4000000000, "far") +
                      Lines{valueLine(1, 20, isTrue),
                            valueLine(2, 20, isTrue),
                            valueLine(3, 20, isFalse),
                            valueLine(2, 21, isFalse),
                            valueLine(4000000000, 20, isTrue),
                            valueLine(12, 20, R"("type":"Integer","value":1)"),
                            valueLine(12, 24, R"("type":"String","value":null)")};

const std::vector<const char *> rewrittenTables = {"name_info", "obj_info", "value_info"};
const std::vector<const char *> untouchedTables = {"id_keeper", "field_info", "enum_info"};

std::string filesOf(const std::vector<const char *> &tables) {
  std::string all;
  for (const char *table : tables) {
    for (const char *suffix : {".dir", ".pag"}) all += readFile(currentDir + "/" + table + suffix);
  }
  return all;
}

class Sweep : public PlatformTest {
 protected:
  Sweep() {
    load(network);
    before = dump();
    untouched = filesOf(untouchedTables);
  }
  // After whatever a run did, the tables that are not its business hold the same bytes, and a run
  // that went well has left nothing behind.
  ~Sweep() override {
    EXPECT_EQ(filesOf(untouchedTables), untouched);
    if (!keptExpected) {
      EXPECT_EQ(run("ls -A /usr/NQ/databases/nqwdb").out, "current\n");
    }
  }

  // What `-p` prints for these objects: in the order in which the values of the field were loaded.
  static std::string deletions(uint32_t fieldId, const std::vector<uint32_t> &ids) {
    std::string all;
    for (const std::string &key : scanKeys("value_info")) {
      uint32_t words[2];
      memcpy(words, key.data(), sizeof words);
      if (words[1] == fieldId && std::find(ids.begin(), ids.end(), words[0]) != ids.end()) {
        all += deleted(words[0]);
      }
    }
    return all + "dbsweep: " + std::to_string(ids.size()) +
           " objects have been deleted from the objects database\n";
  }

  Lines before;
  std::string untouched;
  bool keptExpected = false;
};

std::string count(int objects) {
  return "dbsweep: Total number of objects in DB is " + std::to_string(objects) + "\n";
}

TEST_F(Sweep, DeletesEveryObjectOfAProtocol) {
  const std::string lines = deletions(20, {1, 2, 4000000000});
  const Outcome outcome = sweep("-p 'QRT Session'");
  EXPECT_EQ(outcome.status, 0);
  EXPECT_EQ(outcome.err, dialogue + loading + lines + rewriting);
  EXPECT_EQ(dump(), without(before, {1, 2, 4000000000}));
  EXPECT_FALSE(exists("/usr/NQ/conf/dbsweep.lock") || exists("/usr/NQ/log/nqw.log"));

  const Outcome again = sweep("-n 3 -p 'QRT Session'");
  EXPECT_EQ(again.err, dialogue + loading + rewriting) << "nothing is left to delete";
  EXPECT_EQ(dump(), without(before, {1, 2, 4000000000}));
}

TEST_F(Sweep, RewritesTheTablesWhenNoObjectHasTheProtocol) {
  const std::string look = "stat -c '%i %a' " + currentDir + "/value_info.pag";
  const std::string old = run(look).out;
  const Outcome outcome = sweep("-p X -p OSPF");  // the last one counts
  EXPECT_EQ(outcome.status, 0);
  EXPECT_EQ(outcome.err, dialogue + loading + rewriting);
  EXPECT_EQ(dump(), before);
  EXPECT_NE(run(look).out, old);
  EXPECT_THAT(run(look).out, testing::EndsWith(" 777\n"));
}

TEST_F(Sweep, ChangesNothingForAProtocolWithoutABooleanField) {
  const std::string tables = filesOf(rewrittenTables);
  for (const char *protocol : {"Nothing", "Number", "ospf", ""}) {
    const Outcome outcome = sweep("-p '" + std::string(protocol) + "'");
    EXPECT_EQ(outcome.status, 1);
    EXPECT_EQ(outcome.err, dialogue + loading + "dbsweep: No Boolean field \"is" + protocol +
                               "\" in the objects database, nothing was deleted by protocol.\n");
    EXPECT_EQ(filesOf(rewrittenTables), tables);
  }
}

TEST_F(Sweep, DeletesListedObjectsInPlace) {
  const Outcome outcome = sweep("-d '3 77 99 4000000000'");
  EXPECT_EQ(outcome.status, 0);
  const std::string lines = count(6) + deleted(3) + deleted(77) + deleted(99) + deleted(4000000000);
  EXPECT_EQ(outcome.err, dialogue + loading + lines);
  EXPECT_EQ(readFile("/usr/NQ/log/objectsdb.trace"), lines);
  EXPECT_EQ(run("stat -c %a /usr/NQ/log/objectsdb.trace").out, "644\n");
  EXPECT_EQ(dump(), without(before, {3, 99, 4000000000}));

  EXPECT_EQ(sweep("-d 12").err, dialogue + loading + count(3) + deleted(12));
  EXPECT_EQ(readFile("/usr/NQ/log/objectsdb.trace"), count(3) + deleted(12)) << "an earlier trace";
  EXPECT_EQ(dump(), without(before, {3, 12, 99, 4000000000}));
}

TEST_F(Sweep, OnlyCountsWhen99ComesFirst) {
  const std::string tables = filesOf(rewrittenTables);
  for (const char *arguments : {"-d 99", "-d '99 1 2'", "-d 1 -d 99 -m", "-d 99 -p OSPF"}) {
    const Outcome outcome = sweep(arguments);
    EXPECT_EQ(outcome.status, 0);
    EXPECT_EQ(outcome.err, dialogue + loading + count(6)) << arguments;
    EXPECT_EQ(readFile("/usr/NQ/log/objectsdb.trace"), count(6));
    EXPECT_EQ(filesOf(rewrittenTables), tables);
  }
}

TEST_F(Sweep, DeletesByListAndThenByProtocol) {
  const std::string lines = deletions(20, {2, 4000000000});
  const Outcome outcome = sweep("-p 'QRT Session' -d '1 3'");
  EXPECT_EQ(outcome.status, 0);
  EXPECT_EQ(outcome.err,
            dialogue + loading + count(6) + deleted(1) + deleted(3) + lines + rewriting);
  EXPECT_EQ(dump(), without(before, {1, 2, 3, 4000000000}));
}

TEST_F(Sweep, MigratesOnce) {
  const Outcome outcome = run("sh -c 'echo $$ >/usr/NQ/tmp/id; exec dbsweep -m'", "yes");
  EXPECT_EQ(outcome.status, 0);
  EXPECT_EQ(outcome.err, dialogue + loading + rewriting);
  EXPECT_EQ(dump(), before);
  EXPECT_EQ(readFile("/usr/NQ/conf/dbsweep.lock") + "\n", readFile("/usr/NQ/tmp/id"));
  EXPECT_EQ(run("stat -c %a /usr/NQ/conf/dbsweep.lock").out, "600\n");
  EXPECT_THAT(sweep("-m").err, StartsWith("dbsweep: Migration has previously been done"));
}

TEST_F(Sweep, MigratesAndDeletesInOneRun) {
  const Outcome outcome = sweep("-m -p 'QRT Session' -d 3");
  EXPECT_EQ(outcome.status, 0);
  EXPECT_EQ(dump(), without(before, {1, 2, 3, 4000000000}));
  EXPECT_TRUE(exists("/usr/NQ/conf/dbsweep.lock"));
}

TEST_F(Sweep, RefusesADatabaseThatItCannotOpen) {
  const std::string refusal = dialogue + loading + cannotOpen;
  const std::string page = currentDir + "/obj_info.pag";
  const std::string tables = filesOf(rewrittenTables);
  for (const char *arguments : {"-p OSPF", "-d 1", "-m", "-d 1 -p OSPF"}) {
    const Outcome held = run("flock " + page + " dbsweep " + arguments, "yes");
    EXPECT_EQ(held.status, 0);
    EXPECT_EQ(held.err, refusal) << "held by another process: " << arguments;
  }
  EXPECT_THAT(
      readFile("/usr/NQ/log/nqw.log"),
      testing::ContainsRegex("Table \"" + page + "\" is locked by process [0-9]+ \\(flock\\)"));
  EXPECT_EQ(filesOf(rewrittenTables), tables);

  writeFile(page, std::string(50000, 'x'));
  const std::string damaged = filesOf(rewrittenTables);
  for (const char *arguments : {"-p OSPF", "-d 1", "-m"}) {
    const Outcome outcome = sweep(arguments);
    EXPECT_EQ(outcome.status, 0);
    EXPECT_EQ(outcome.err, refusal) << "no dbm file: " << arguments;
  }
  EXPECT_EQ(filesOf(rewrittenTables), damaged);
}

// 32-bit libraries refuse files whose times do not fit into their 32 bits.
TEST_F(Sweep, TablesMayBeFromBeyond2038) {
  ASSERT_EQ(run("touch -d 2040-01-01 " + currentDir + "/*").status, 0);
  const Outcome outcome = sweep("-m");
  EXPECT_EQ(outcome.status, 0);
  EXPECT_EQ(outcome.err, dialogue + loading + rewriting);
}

TEST_F(Sweep, NeedsItsTraceFile) {
  const std::string tables = filesOf(rewrittenTables);
  std::filesystem::remove_all("/usr/NQ/log");
  const Outcome outcome = sweep("-d 1");
  EXPECT_EQ(outcome.status, 1);
  EXPECT_EQ(outcome.err, dialogue + loading + "dbsweep: Cann't open log file for writing\n");
  EXPECT_EQ(filesOf(rewrittenTables), tables);
}

// A file that cannot be removed is reported, and the deletions are carried out in it.
TEST_F(Sweep, SaysWhichFileItCouldNotRemoveAndDeletesFromItToo) {
  keptExpected = true;
  saveTables();
  const std::string lines = deletions(20, {1, 2, 4000000000});
  for (const char *table : rewrittenTables) {
    putTablesBack();
    const std::string path = currentDir + "/" + table + ".pag";
    const Outcome outcome =
        run("mount --bind " + path + " " + path + "; dbsweep -p 'QRT Session'; status=$?; umount " +
                path + "; exit $status",
            "yes");
    EXPECT_EQ(outcome.status, 1);
    EXPECT_EQ(outcome.err, dialogue + loading + lines + "DEBUG: save clear files in dbdir...\n" +
                               "\nDatabase file " + path + " couldn't be removed.\n" +
                               "File will be written over, check permission for correctness\n" +
                               "DEBUG: restore db contents...\n" +
                               keptMessage(path + " could not be removed", onlyVersion()));
    EXPECT_EQ(dump(), without(before, {1, 2, 4000000000})) << table;
  }
}

// The first table file that was opened got the number of standard error, and with it the messages.
TEST_F(Sweep, KeepsItsMessagesOutOfTheTablesWhenStandardErrorIsClosed) {
  const std::string tables = filesOf(rewrittenTables);
  EXPECT_EQ(sweep("-d 99 2>&-").status, 0);
  EXPECT_EQ(filesOf(rewrittenTables), tables);
  EXPECT_EQ(filesOf(untouchedTables), untouched);
}

// What cannot be read is counted, and never lost without a way back.
TEST_F(Sweep, KeepsThePreviousTablesWhenNotEverythingWasRead) {
  keptExpected = true;
  ObjectDatabase *db = open_nqwdb_ndbm(0);
  ASSERT_EQ(_NQ_dbm_db_store_raw(db->valueInfoDb, "damaged", "damaged"), 0);
  ASSERT_EQ(_NQ_dbm_db_store_raw(db->objInfoDb, "damaged", "damaged"), 0);
  close_nqwdb_ndbm(db);
  const std::string tables = filesOf(rewrittenTables);

  const Outcome counted = sweep("-d 99");
  EXPECT_EQ(counted.status, 1);
  EXPECT_EQ(counted.err, dialogue + loading + count(6) + "dbsweep: 2 records could not be read.\n");

  const Outcome outcome = sweep("-p OSPF");
  EXPECT_EQ(outcome.status, 1);
  EXPECT_EQ(outcome.err, dialogue + loading + rewriting +
                             keptMessage("2 records could not be read", onlyVersion()));
  EXPECT_EQ(dump(), before) << "all that could be read";
  const std::string version = onlyVersion();
  EXPECT_EQ(run("objdb restore " + version.substr(version.rfind('/') + 1)).status, 0);
  EXPECT_EQ(filesOf(rewrittenTables), tables);
}

class EmptyPlatform : public PlatformTest {};

TEST_F(EmptyPlatform, IsSeededByTheFirstRun) {
  const Outcome outcome = sweep("-m");
  EXPECT_EQ(outcome.status, 0);
  EXPECT_EQ(outcome.err, dialogue + loading + rewriting);
  const Lines lines = dump();
  ASSERT_EQ(lines.size(), 5u);
  EXPECT_EQ(lines[0], R"({"table":"id_keeper","counter":14})");
}

// A definition with id 0 must not answer for a protocol that has no field.
TEST_F(EmptyPlatform, FieldZeroIsNoProtocol) {
  load({R"({"table":"field_info","field":0,"name":"isZero","type":"Boolean","flags":1})",
        valueLine(1, 0, isTrue)});
  const Lines before = dump();
  EXPECT_EQ(sweep("-p Nothing").status, 1);
  EXPECT_EQ(sweep("-p Zero").status, 1);
  EXPECT_EQ(dump(), before);
}

// What a database should not hold and existing ones do: loaded, swept and rewritten without turning
// one value into another.
TEST_F(EmptyPlatform, OddValuesSurviveTheRewriteAsTheyAre) {
  const std::string longName(256, 'n');
  const Lines odd = {
      valueLine(1, 20, R"("type":"String","value":"not a Boolean")"),
      valueLine(2, 20, R"("type":"Boolean","list":[true])"),
      valueLine(3, 22, R"("type":"Boolean","value":true)"),
      valueLine(4, 24, R"("type":"Integer","value":1094795585)"),
      valueLine(5, 10, R"("type":"String","value":null)"),
      valueLine(6, 10, R"("type":"String","list":["a","b"])"),
      valueLine(7, 11, R"("type":"Integer","value":77)"),
      valueLine(8, 24, R"("type":"String","list":[null,""])"),
      valueLine(9, 24, R"("type":"String","value":{"hex":"fffe"})"),
  };
  // One name of two objects: name_info can lead to one of them only.
  Lines sameName = nameLines(11, 10, "twin");
  sameName.push_back(nameLines(12, 10, "twin")[0]);
  // A second value of one field in one object, under a key that is not its own.
  const std::string second = R"({"table":"value_info","object":13,"field":22,"type":"Integer",)"
                             R"("value":2,"key":"0d0000001600000000"})";
  load(
      emptyNetwork() + odd + sameName + nameLines(14, 10, longName) + nameLines(15, 10, "") +
      Lines{valueLine(13, 22, R"("type":"Integer","value":1)"), second, valueLine(16, 20, isTrue)});

  const Outcome outcome = sweep("-p 'QRT Session'");
  EXPECT_EQ(outcome.status, 1) << "of two values of one field only one has room";
  EXPECT_EQ(outcome.err, dialogue + loading + deleted(16) +
                             "dbsweep: 1 objects have been deleted from the objects database\n" +
                             rewriting + keptMessage("1 values were left out", onlyVersion()));
  Lines after = dump();
  std::erase_if(after, [](const std::string &line) {
    return line.find("\"object\":13,") != line.npos || line.find("\"name\":\"twin\"") != line.npos;
  });
  EXPECT_EQ(sorted(after),
            sorted(emptyNetwork() + odd + nameLines(14, 10, longName) + nameLines(15, 10, "")));
  int twins = 0, values = 0;
  for (const std::string &line : dump()) {
    twins += line.find("\"name\":\"twin\"") != line.npos;
    values += line.find("\"object\":13,") != line.npos;
  }
  EXPECT_EQ(twins, 3) << "both objects keep their name, the name leads to one";
  EXPECT_EQ(values, 1) << "one key holds one value";

  // Objects like these are deleted like any other.
  EXPECT_EQ(sweep("-d '1 2 3 4 5 6 7 8 9 11 12 13 14 15'").status, 0);
  EXPECT_EQ(dump(), emptyNetwork());
}

}  // namespace
