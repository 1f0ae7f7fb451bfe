// What a run says and keeps when it cannot do all of its work, or when it is not alone with its
// tables.

#include <gmock/gmock.h>
#include <unistd.h>

#include <filesystem>

#include "sweep/sweep_runs.h"

namespace {

const std::string isTrue = R"("type":"Boolean","value":true)";

// A value record of object 7 and field 24, as its bytes.
std::string rawValue(const std::string &hex) {
  return valueLine(
      7, 24,
      R"("type":"Integer","value":1,"bytes":"00000001000000070000000100000018)" + hex + "\"");
}

const Lines network =
    emptyNetwork() + nameLines(7, 10, "gw1") + nameLines(8, 10, "gw2") +
    Lines{valueLine(7, 22, R"("type":"Integer","value":5)"), valueLine(8, 20, isTrue)};

class WayBack : public PlatformTest {
 protected:
  // Every line that has the text, in the order of a dump.
  static Lines linesWith(const std::string &text) {
    Lines found;
    for (const std::string &line : dump()) {
      if (line.find(text) != line.npos) found.push_back(line);
    }
    return found;
  }
};

TEST_F(WayBack, EveryReasonToKeepTheTablesIsSaid) {
  // A NUL in the name, and bytes after it.
  const std::string oddName =
      R"({"table":"obj_info","object":7,"field":11,"name":"x",)"
      R"("bytes":"0000000100000007000000010000000b0000000378007900ffffffff"})";
  const struct {
    Lines more;
    std::string damage;
    std::string reasons;
  } cases[] = {
      {{}, "true", ""},
      {{rawValue("00000001000000000000000100000005ffffffff")}, "true", "1 values were left out"},
      {{rawValue("000000010000000100000003000000030000000361006200000000000000000361006200000000"
                 "000000000361006200"
                 "00000000")},
       "true",
       "1 values were left out"},
      {{valueLine(7, 77, isTrue)}, "true", "1 values were left out"},
      {{oddName}, "true", "1 values were left out"},
      // What goes with its object is no loss.
      {{valueLine(8, 77, isTrue)}, "true", ""},
      {{rawValue("ff")}, "true", "1 records could not be read"},
      {{}, "rm obj_info.*", "table obj_info was missing"},
      {{rawValue("ff")},
       ": >id_keeper.pag",
       "1 records could not be read; table id_keeper was missing"},
      {{valueLine(7, 77, isTrue)},
       "rm id_keeper.*",
       "table id_keeper was missing; 1 values were left out"},
  };
  for (const auto &each : cases) {
    SCOPED_TRACE(each.damage + " " + each.reasons);
    std::filesystem::remove_all(root);
    load(network + each.more);
    ASSERT_EQ(run("cd " + currentDir + " && " + each.damage).status, 0);
    saveTables();
    const std::string inode = run("stat -c %i " + currentDir + "/value_info.pag").out;
    const Outcome outcome = sweep("-p 'QRT Session'");
    EXPECT_EQ(outcome.status, each.reasons.empty() ? 0 : 1);
    const std::string kept = each.reasons.empty() ? "" : keptMessage(each.reasons, onlyVersion());
    EXPECT_EQ(outcome.err, dialogue + loading + deleted(8) +
                               "dbsweep: 1 objects have been deleted from the objects database\n" +
                               rewriting + kept);
    EXPECT_EQ(linesWith(R"("name":"x")").size(), each.more == Lines{oddName} ? 2u : 0u);
    EXPECT_EQ(readFile("/usr/NQ/log/nqw.log").find("did not finish"), std::string::npos);
    if (each.reasons.empty()) {
      EXPECT_EQ(run("ls -A " + root).out, "current\n");
      continue;
    }
    EXPECT_EQ(run("stat -c %i " + onlyVersion() + "/value_info.pag").out, inode) << "copied";
    EXPECT_EQ(run("cd " + onlyVersion() + " && for each in *; do cmp $each " + saved +
                  "/current/$each || exit; done; [ -e value_info.pag ] && [ ! -e unfinished ]")
                  .status,
              0);
  }
}

// The counter alone tells that there was a database.
TEST_F(WayBack, TablesAreMissingBesideAnyOther) {
  load(network);
  ASSERT_EQ(run("rm " + currentDir + "/[!i]*").status, 0);
  const Outcome outcome = sweep("-m");
  EXPECT_EQ(outcome.err, dialogue + loading + rewriting +
                             keptMessage("table field_info was missing; table obj_info was "
                                         "missing; table value_info was missing",
                                         onlyVersion()));
}

TEST_F(WayBack, AnUnfinishedRunIsNamedWhereNothingCanBeOpened) {
  load(network);
  const std::string version = root + "/01012026.000000";
  ASSERT_EQ(run("cp -a " + currentDir + " " + version + " && : >" + version + "/unfinished").status,
            0);
  for (const std::string damage : {"seq 6000 >obj_info.pag", "rm -r $PWD"}) {
    ASSERT_EQ(run("cd " + currentDir + " && " + damage + " && mount --bind " + root + " " + root +
                  " && mount -o remount,bind,ro " + root)
                  .status,
              0);
    EXPECT_EQ(sweep("-m").err, dialogue + loading + unfinishedMessage(version)) << damage;
    run("umount " + root);
  }
}

// A disk that has just the room that is needed, and one with a block less.
TEST_F(WayBack, ARunTakesTheRoomThatItSays) {
  load(network);
  saveTables();
  for (const std::string arguments : {"-m", "-d 8"}) {
    run("mount -t tmpfs -o size=200k tmpfs " + root + "; cp -a " + saved + "/current " + root);
    const std::string said = sweep(arguments).err;
    unsigned needed = 0, left = 0;
    sscanf(said.c_str() + said.rfind(':'), ": %u bytes are needed, %u are free", &needed, &left);
    ASSERT_GT(left, 0u) << said;
    EXPECT_EQ(needed % 4096, 0u);
    for (const bool fits : {false, true}) {
      const unsigned size = 200 * 1024 - left + needed - (fits ? 0 : 4096);
      run("mount -o remount,size=" + std::to_string(size) + " " + root);
      const Outcome outcome = sweep(arguments);
      EXPECT_EQ(outcome.status, fits ? 0 : 1) << outcome.err;
      EXPECT_EQ(outcome.err.find("Cannot keep") == std::string::npos, fits) << outcome.err;
    }
    run("umount " + root);
  }
}

// What the load has not met is deleted by its keys: no object loses its name and keeps a value.
TEST_F(WayBack, WhatCouldNotBeReadGoesWithItsObject) {
  const std::string unreadableName =
      R"({"table":"obj_info","object":7,"field":11,"name":"x","bytes":"ff"})";
  for (const std::string &unreadable : {rawValue("ff"), unreadableName}) {
    std::filesystem::remove_all(root);
    load(network + Lines{unreadable});
    saveTables();
    const Outcome outcome = sweep("-d 7");
    EXPECT_EQ(outcome.status, 1);
    EXPECT_EQ(outcome.err, dialogue + loading + "dbsweep: Total number of objects in DB is 2\n" +
                               deleted(7) +
                               keptMessage("1 records could not be read", onlyVersion()));
    EXPECT_EQ(run("diff -r " + saved + "/current " + onlyVersion()).status, 0);
    EXPECT_EQ(sorted(dump()), sorted(without(network, {7})));
  }
}

TEST_F(WayBack, WhereItIsNotClearWhatToDeleteNothingIs) {
  const auto field = [](int id, const char *name, const char *type) {
    return R"({"table":"field_info","field":)" + std::to_string(id) + R"(,"name":")" + name +
           R"(","type":")" + type + R"(","flags":1})";
  };
  load(network + Lines{field(40, "isQRT Session", "Boolean"), valueLine(7, 40, isTrue),
                       field(41, "isWord", "String")});
  const Lines before = dump();
  const std::string end = ", nothing was deleted by protocol.\n";
  const std::string none = "dbsweep: No Boolean field \"is";
  for (const auto &[arguments, message] :
       {std::pair<std::string, std::string>{"-p 'QRT Session'",
                                            "dbsweep: 2 fields are named \"isQRT Session\"" + end},
        {"-p 'QRT Session' -d 7", "dbsweep: 2 fields are named \"isQRT Session\"" + end},
        {"-m -p Nope -d 7", none + "Nope\" in the objects database" + end},
        {"-p Word", none + "Word\" in the objects database" + end}}) {
    const Outcome outcome = sweep(arguments);
    EXPECT_EQ(outcome.status, 1) << arguments;
    EXPECT_EQ(outcome.err, dialogue + loading + message);
    EXPECT_EQ(dump(), before);
    EXPECT_EQ(run("ls -A " + root).out, "current\n");
    EXPECT_FALSE(exists("/usr/NQ/conf/dbsweep.lock"));
  }
}

TEST_F(WayBack, AnObjectGoesOnceAndANameStaysWithWhoBearsIt) {
  const std::string second = R"({"table":"value_info","object":8,"field":20,"type":"Boolean",)"
                             R"("value":true,"key":"0800000014000000ff"})";
  load(network + Lines{second});
  EXPECT_EQ(sweep("-p 'QRT Session'").err,
            dialogue + loading + deleted(8) +
                "dbsweep: 1 objects have been deleted from the objects database\n" + rewriting);

  // Three objects bear one name, which leads to one of them. To a fourth it is no name but a list.
  const Lines first = nameLines(1, 10, "same");
  const Lines bearers =
      emptyNetwork() + Lines{first[0], nameLines(2, 10, "same")[0], nameLines(3, 10, "same")[0],
                             valueLine(4, 10, R"("type":"String","list":["a"])")};
  const auto leadsTo = [](const std::string &id) {
    return Lines{R"({"table":"name_info","object":)" + id + R"(,"field":10,"name":"same"})"};
  };
  const auto loadLeadingTo = [&](const std::string &id) {
    std::filesystem::remove_all(root);
    load(bearers + leadsTo(id));
  };
  loadLeadingTo("2");
  ASSERT_EQ(sweep("-m").status, 0);
  const Lines afterRewrite = linesWith("name_info");
  const std::string oldest = afterRewrite[0].substr(afterRewrite[0].find("object") + 8, 1);
  for (const std::string leader : {"1", "2", "3"}) {
    for (const std::string id : {"1", "2", "3"}) {
      loadLeadingTo(leader);
      EXPECT_EQ(sweep("-d " + id).status, 0);
      const Lines now = linesWith("name_info");
      if (id != leader) {
        EXPECT_EQ(now, leadsTo(leader));
      } else if (id != oldest) {
        EXPECT_EQ(now, leadsTo(oldest));
      } else {
        EXPECT_TRUE(now.size() == 1 && now != leadsTo(id));
      }
    }
  }
  EXPECT_EQ(sweep("-d '1 2 3'").status, 0);
  EXPECT_EQ(linesWith("name_info"), Lines{});

  // A string under a name field that is no record of obj_info is no name, and becomes none.
  std::filesystem::remove_all(root);
  const Lines noName = {valueLine(4, 10, R"("type":"String","value":"same")")};
  load(emptyNetwork() + first + noName);
  EXPECT_EQ(sweep("-d 1").status, 0);
  EXPECT_EQ(sorted(dump()), sorted(emptyNetwork() + noName));
}

// Whatever stands in the place of a table, a run neither waits for it nor writes where it leads.
TEST_F(WayBack, OnlyRegularFilesAreTables) {
  load(network);
  saveTables();
  for (const std::string file :
       {"obj_info.pag", "value_info.dir", "field_info.dir", "id_keeper.pag"}) {
    for (const std::string put : {"mkfifo ", "ln -s /usr/NQ/tmp/elsewhere ", "mkdir "}) {
      putTablesBack();
      ASSERT_EQ(run("cd " + currentDir + " && rm " + file + " && " + put + file).status, 0);
      const Outcome outcome = run("timeout 10 dbsweep -m", "yes\n");
      EXPECT_EQ(outcome.status, 0) << put << file;
      EXPECT_THAT(outcome.err, testing::EndsWith(cannotOpen)) << put << file;
      EXPECT_FALSE(exists("/usr/NQ/tmp/elsewhere"));
    }
    // The super-user's own link to a file is as good as the file.
    putTablesBack();
    ASSERT_EQ(run("cd " + currentDir + " && mv " + file + " /usr/NQ/tmp/there && " +
                  "ln -s /usr/NQ/tmp/there " + file)
                  .status,
              0);
    const Outcome outcome = run("timeout 10 dbsweep -m", "yes\n");
    EXPECT_EQ(outcome.err, dialogue + loading + rewriting) << file;
    EXPECT_EQ(run("ls -A " + root).out, "current\n");
  }
  EXPECT_EQ(sorted(dump()), sorted(network));
  if (!hasOtherUsers()) return;
  putTablesBack();
  ASSERT_EQ(run("cd " + currentDir + " && mv value_info.pag /usr/NQ/tmp/there && " +
                "ln -s /usr/NQ/tmp/there value_info.pag && chown -h 1000 value_info.pag")
                .status,
            0);
  EXPECT_THAT(sweep("-m").err, testing::EndsWith(cannotOpen)) << "another user's link";
}

TEST_F(WayBack, TheLogSaysWhyATableDoesNotOpen) {
  load(network);
  saveTables();
  for (const auto &[damage, reason] :
       {std::pair<std::string, std::string>{"printf '\\315' | dd of=obj_info.pag conv=notrunc",
                                            "build of the other word size"},
        {"seq 6000 >value_info.pag", "not a dbm table"},
        {"seq 6 >value_info.dir", "not the .dir file of a dbm table"},
        {"rm value_info.dir; mkdir value_info.dir", "Invalid argument"}}) {
    putTablesBack();
    ASSERT_EQ(run("rm -f /usr/NQ/log/*; cd " + currentDir + " && " + damage).status, 0);
    EXPECT_THAT(sweep("-m").err, testing::EndsWith(cannotOpen)) << damage;
    EXPECT_THAT(readFile("/usr/NQ/log/nqw.log"), testing::HasSubstr(reason)) << damage;
  }
}

// A private database stays private, and nothing that another user has prepared is used.
TEST_F(WayBack, VersionsAreAsPrivateAsTheirTables) {
  load(network + Lines{rawValue("ff")});
  const std::string chown = hasOtherUsers() ? "chown -h 1000:1001 " : ": ";
  const std::string owner = hasOtherUsers() ? " 1000 1001\n" : " 0 0\n";
  const auto prepare = [&](const std::string &command) { ASSERT_EQ(run(command).status, 0); };
  prepare("cd " + currentDir + "; chmod 640 value_info.pag; " + chown +
          ". value_info.pag; chmod 2750 .");
  prepare("mkdir /usr/NQ/victim; : >/usr/NQ/victim/precious; cd " + root +
          "; ln -s /usr/NQ/victim .dbsweep-make; ln -s /usr/NQ/victim .dbsweep-abcdef; " + chown +
          ".dbsweep-abcdef; mkdir .dbsweep-opened; : >.dbsweep-opened/precious; mkdir -m 700 "
          ".dbsweep-dead");
  EXPECT_EQ(sweep("-d 8").status, 1);
  EXPECT_EQ(run("stat -c '%a %u %g' " + root + "/[0-9]* " + root + "/[0-9]*/value_info.pag").out,
            "2750" + owner + "640" + owner);
  EXPECT_TRUE(exists("/usr/NQ/victim/precious"));
  EXPECT_TRUE(exists(root + "/.dbsweep-opened/precious")) << "no directory that a run has made";
  EXPECT_FALSE(exists(root + "/.dbsweep-dead")) << "left by a run that was killed";
}

TEST_F(WayBack, TheTraceTellsWhatWasDoneAndAFullDiskWhatWasNot) {
  load(network);
  ASSERT_EQ(run("mount -t tmpfs -o size=4k tmpfs /usr/NQ/log; head -c 4k /dev/zero >/usr/NQ/log/x")
                .status,
            0);
  const Outcome outcome = sweep("-d '7 8'");
  EXPECT_EQ(outcome.status, 1);
  EXPECT_EQ(outcome.err, dialogue + loading + "dbsweep: Total number of objects in DB is 2\n" +
                             deleted(7) + deleted(8) + "dbsweep: Cannot write the log file\n");
  EXPECT_EQ(dump(), emptyNetwork());
  run("umount /usr/NQ/log");
}

}  // namespace
