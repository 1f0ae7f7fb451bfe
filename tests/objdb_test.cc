// The companion command: dumps and loads, versions, and what they refuse.

#include <gmock/gmock.h>

#include <poll.h>
#include <pty.h>
#include <sys/time.h>

#include <algorithm>
#include <filesystem>
#include <functional>
#include <nlohmann/json.hpp>
#include <random>
#include <regex>

#include "objdb/census.h"
#include "objdb/plain_lines.h"
#include "objdb/progress.h"
#include "records/table_records.h"
#include "sweep/sweep_runs.h"

namespace {

using testing::HasSubstr;

class Objdb : public PlatformTest {
 protected:
  Objdb() {
    load(lines);
    sealed = run("objdb dump").out;
  }

  static std::string checksums() {
    return run("cd /usr/NQ/databases && ls -lR --full-time nqwdb/*; find . -type f | sort | xargs "
               "sha256sum")
        .out;
  }

  // Those of each table in the order of a dump: as numbers, and names by their bytes.
  const Lines lines =
      emptyNetwork() + nameLines(7, 10, "link 1") + nameLines(256, 10, "link 10") +
      nameLines(4294967295, 10, std::string(256, 'n')) +
      Lines{R"({"table":"name_info","object":7,"field":10,"name":{"hex":"e9"}})"} +
      nameLines(4294967295, 11, "a") +
      Lines{valueLine(7, 24,
                      R"("type":"String","list":[null,"",{"hex":"ff80"}],"entryFlags":[0,1,0])"),
            valueLine(7, 257, R"("type":"Integer","value":5)"),
            // With a Boolean that no encoder writes, and under a key that is not its own.
            valueLine(9, 20,
                      R"("type":"Boolean","value":true,"bytes":")"
                      "0000000100000009000000010000001400000001000000000000000200000007\""),
            valueLine(8, 20, R"("type":"Boolean","value":true,"key":"00ff")")};
  std::string sealed;
};

TEST_F(Objdb, ADumpComesBackByteForByte) {
  Lines inOrder;
  for (const TableFormat &format : tableFormats) {
    std::copy_if(lines.begin(), lines.end(), std::back_inserter(inOrder),
                 [&](const std::string &line) { return line.find(format.name) == 10; });
  }
  EXPECT_EQ(dump(), inOrder);
  EXPECT_THAT(sealed, HasSubstr(R"({"records":{"id_keeper":1,"field_info":9,"obj_info":4,)"
                                R"("value_info":4,"name_info":5,"enum_info":1},"digest":")"));
  const Outcome loaded = run("objdb load --dir /usr/NQ/copy", sealed);
  EXPECT_EQ(loaded.status, 0) << loaded.err;
  EXPECT_EQ(run("objdb dump --dir /usr/NQ/copy").out, sealed);
  EXPECT_EQ(run("objdb load --unsealed --dir /usr/NQ/other", sealed).status, 0)
      << "the lines around the records are no records";
  EXPECT_EQ(run("objdb dump --dir /usr/NQ/other").out, sealed);
}

TEST_F(Objdb, ADumpChoosesByTableObjectAndField) {
  const struct {
    const char *arguments;
    const char *text;  // of the lines that are chosen
  } cases[] = {
      {"--table name_info", "{\"table\":\"name_info\""},
      {"--object 007", "\"object\":7,"},
      {"--field 'Selection Name'", "\"field\":10,"},
      {"--field Status", "\"field\":23,"},
      {"--field 'Selection Name' --object 256 --table obj_info", "obj_info\",\"object\":256,"},
      {"--object 7 --table field_info", "no such text"}};
  for (const auto &each : cases) {
    const Outcome outcome = run(std::string("objdb dump ") + each.arguments);
    EXPECT_EQ(outcome.status, 0) << outcome.err;
    EXPECT_EQ(outcome.out, run(std::string("objdb dump | grep '") + each.text + "'").out);
  }
}

TEST_F(Objdb, ADigestTellsWhereAKeyEnds) {
  Census one, other;
  one.add(nameInfo, "ab", "c");
  other.add(nameInfo, "a", "bc");
  EXPECT_NE(one.digest(), other.digest());
}

// The short way of writing and reading lines and the general one.
TEST_F(Objdb, PlainLinesAreThoseOfTheGeneralWay) {
  std::mt19937 random(7);
  const auto upTo = [&](uint32_t most) { return random() % (most + 1); };
  int plain = 0;
  for (int i = 0; i < 20000; ++i) {
    std::string text(upTo(upTo(9) == 0 ? 256 : 12), '\0');
    for (char &each : text)
      each = static_cast<char>(upTo(19) == 0 ? 1 + upTo(254) : ' ' + upTo(94));
    const uint32_t object = random() >> upTo(31), field = random() >> upTo(31);
    NQwFieldValue value{0, static_cast<int32_t>(1 + upTo(3)), {}, 0};
    if (value.type == String)
      value.value.string = upTo(9) == 0 ? nullptr : text.data();
    else
      value.value.number =
          static_cast<int32_t>(value.type == Boolean ? upTo(2) : random() >> upTo(31));
    const dbObjectValue valueRecord{object, field, &value};
    dbObject name{object, field, {}};
    text.copy(name.name, longestString);
    const size_t table = std::array{objInfo, nameInfo, valueInfo}[upTo(2)];
    const std::string stored =
        encodedRecord(table, table == valueInfo ? static_cast<const void *>(&valueRecord) : &name);
    std::string key = table == nameInfo ? keyOf({field}) + name.name : keyOf({object, field});
    if (upTo(19) == 0) key += 'x';
    const std::string line = recordToJson(table, key, stored)->dump();
    ASSERT_EQ(recordToLine(table, key, stored), line);
    const std::optional<StoredRecord> read = recordFromPlainLine(line);
    if (read) ++plain;
    const StoredRecord back = read ? *read : recordFromJson(parseLine(line));
    ASSERT_EQ(std::tie(back.table, back.key, back.bytes), std::tie(table, key, stored)) << line;
  }
  EXPECT_GT(plain, 10000);
}

TEST_F(Objdb, SaysWhatIsWrongWithACommandLine) {
  const struct {
    const char *arguments;
    const char *reason;
  } cases[] = {{"", "no command; 'objdb --help' lists them"},
               {"chekc", "unknown command \"chekc\"; see 'objdb --help'"},
               {"--wrong", "unknown option \"--wrong\"; see 'objdb --help'"},
               {"check --wrong", "check: The following argument was not expected: --wrong; see"},
               {"restore", "restore: VERSION is required; see 'objdb restore --help'"},
               {"dump --object ''", "dump: --object: \"\" is no id; see 'objdb dump --help'"},
               {"dump --object 4294967296", "is no id"},
               {"dump --field ''", "must not be empty"},
               {"dump --table nothing", "no table \"nothing\""},
               {"dump --field nothing", "no field \"nothing\""},
               {"dump --version ''", "is no name of a version"},
               {"dump --version .hidden", "is no name of a version"},
               {"dump --version current/.", "is no name of a version"},
               {"dump --version nothing", "no such version: \"/usr/NQ/"},
               {"protocols --ids Speed", "no Boolean field \"isSpeed\""}};
  for (const auto &each : cases) {
    const Outcome outcome = run(std::string("objdb ") + each.arguments);
    EXPECT_EQ(outcome.status, 2) << each.arguments;
    EXPECT_EQ(outcome.out, "");
    EXPECT_THAT(outcome.err, testing::StartsWith("objdb: "));
    EXPECT_EQ(std::count(outcome.err.begin(), outcome.err.end(), '\n'), 1) << outcome.err;
    EXPECT_THAT(outcome.err, HasSubstr(each.reason));
  }
  EXPECT_THAT(run("objdb --help").out, HasSubstr("  check "));
  EXPECT_THAT(run("objdb -h").out, HasSubstr("  check "));
  EXPECT_THAT(run("objdb --version").out,
              testing::MatchesRegex("objdb [0-9.]+, (32|64) bits, GNU dbm [0-9.]+\n"));
  EXPECT_THAT(run("objdb check --help").out, HasSubstr("\nExample: objdb check "));
}

TEST_F(Objdb, AnOutputThatCannotBeWrittenIsAFailure) {
  for (const char *command : {"dump", "check", "protocols", "archive", "versions"}) {
    const Outcome outcome = run(std::string("objdb ") + command + " >/dev/full");
    EXPECT_EQ(outcome.status, 2) << command;
    EXPECT_THAT(outcome.err, HasSubstr("could not write the output")) << command;
  }
}

TEST_F(Objdb, NothingIsLoadedFromADumpThatWasCutOrChanged) {
  const size_t lastLine = sealed.rfind("\n", sealed.size() - 2) + 1;
  const std::string other = R"({"table":"id_keeper","counter":5001})";
  std::string changed = sealed;
  changed.replace(changed.find(lines[0]), lines[0].size(), other);
  const struct {
    std::string input;
    const char *reason;
  } cases[] = {{"", "line 0: the dump ends without its trailer"},
               {sealed.substr(0, lastLine), "the dump ends without its trailer"},
               {sealed.substr(sealed.find('\n') + 1), "line 1: not the header of a dump"},
               {sealed + lines[0] + "\n", "a line after the trailer"},
               {changed, "the trailer does not agree"},
               {sealed.substr(0, 200), "line 4: "}};
  for (const auto &each : cases) {
    const Outcome outcome = run("objdb load --dir /usr/NQ/copy", each.input);
    EXPECT_EQ(outcome.status, 2);
    EXPECT_THAT(outcome.err, HasSubstr(each.reason));
    EXPECT_EQ(run("ls -A /usr/NQ/copy").out, "");
  }
  const std::string sealedTwice = sealed.substr(0, lastLine) + sealed;
  EXPECT_THAT(run("objdb load --dir /usr/NQ/copy", sealedTwice).err,
              HasSubstr("no member \"table\""));
  EXPECT_THAT(run("objdb load --unsealed --dir /usr/NQ/copy").err,
              HasSubstr("no record in the input"));
  const Outcome directory = run("objdb load --unsealed --dir /usr/NQ/copy </usr/NQ");
  EXPECT_EQ(directory.status, 2);
  EXPECT_THAT(directory.err, HasSubstr("the input could not be read: Is a directory"));
  const std::string deep = std::string(200'000, '[') + std::string(200'000, ']');
  for (const std::string &bad :
       Lines{R"({"table":"nothing"})",
             R"({"table":"id_keeper","counter":-1})",
             R"({"table":"id_keeper","counter":4294967296})",
             R"({"table":"id_keeper","counter":)" + deep + "}",
             R"({"table":"id_keeper","counter":1,"bytes":"-1+1 1"})",
             valueLine(1, 1, R"("type":"Integer","value":18446744073709551615)"),
             R"({"table":"id_keeper","counter":1,"bytes":"123"})",
             R"({"table":"obj_info","object":1,"field":10,"name":null})",
             R"({"table":"obj_info","object":1,"field":10,"name":"a\u0000b"})",
             R"({"table":"field_info","field":1,"name":"a","type":"Text","flags":1})",
             "[]",
             "{",
             "\n",
             R"({"table":"id_keeper","counter":1,"counter":2})",
             R"({"table":"id_keeper","counter":1,"object":2})",
             R"({"table":"id_keeper","counter":1.0})",
             R"({"table":"id_keeper"})",
             R"({"table":["id_keeper"],"counter":1})",
             R"({"table":"enum_info","field":1,"constants":"a"})",
             R"({"table":"enum_info","field":1,"constants":[null]})",
             valueLine(1, 1, R"("type":"Integer","value":05)"),
             valueLine(1, 1, R"("type":"Integer","list":5)"),
             valueLine(1, 1, R"("type":"Integer","list":[5],"value":5)"),
             valueLine(1, 1, R"("type":"Integer","list":[5],"entryFlags":[1,1])"),
             valueLine(1, 1, R"("type":"Integer","value":5,"entryFlags":[1])"),
             valueLine(1, 1, R"("type":"Boolean","value":1)"),
             valueLine(1, 1, R"("type":"String","value":{"hex":"ff","text":"a"})"),
             valueLine(1, 1, R"("type":"String","value":{"hex":"41","hex":"42"})"),
             valueLine(1, 1, R"("type":"String","value":"a")") + "}"}) {
    const Outcome outcome = run("objdb load --unsealed --dir /usr/NQ/copy", bad);
    EXPECT_EQ(outcome.status, 2) << bad.substr(0, 100);
    EXPECT_THAT(outcome.err, HasSubstr("line 1: ")) << bad.substr(0, 100);
  }
  EXPECT_THAT(
      run("objdb load --unsealed --dir /usr/NQ/copy", lines[1] + "\n" + lines[0] + "\n" + lines[1])
          .err,
      HasSubstr("line 3: a record with the key of line 1"));
  EXPECT_EQ(run("ls -A /usr/NQ/copy").out, "");
  const std::string before = checksums();
  EXPECT_EQ(run("objdb load", sealed).status, 2) << "the database holds something";
  EXPECT_EQ(checksums(), before);
}

TEST_F(Objdb, ADumpEndsWithAnErrorAtWhatItCannotRead) {
  ObjectDatabase *db = open_nqwdb_ndbm(0);
  ASSERT_EQ(_NQ_dbm_db_store_raw(db->nameInfoDb, "damaged", "damaged"), 0);
  close_nqwdb_ndbm(db);
  const std::string before = checksums();
  EXPECT_EQ(run("objdb dump").status, 2);
  EXPECT_THAT(run("objdb dump").err,
              HasSubstr("could not decode the record with key 64616d61676564"));
  EXPECT_EQ(run("objdb dump --object 7").status, 2) << "it may have been the object's";
  EXPECT_EQ(checksums(), before);
  run("rm " + currentDir + "/name_info.dir " + currentDir + "/enum_info.dir");
  EXPECT_THAT(run("objdb dump").err,
              testing::AllOf(HasSubstr("name_info.dir\": No"), HasSubstr("enum_info.dir\": No")));
  EXPECT_FALSE(exists(currentDir + "/enum_info.dir")) << "a reading command made a file";
}

// Each row works in the database directory, where $V is an archived version of "current".
TEST_F(Objdb, TheWayBackIsNeitherLostNorFaked) {
  const std::string owner = hasOtherUsers() ? "1000 1001" : "0 0";
  const struct {
    const char *command;
    int status;
    std::string text;  // of what is said, on either output
    int versions;      // that there are afterwards
    bool changed = false;
  } cases[] = {
      {"rm current/value_info.*; objdb archive", 2, "table value_info is missing; nothing was", 1,
       true},
      {"rm current/value_info.dir; objdb archive", 2, "value_info.dir\": No such file", 1, true},
      {": >current/obj_info.pag; objdb archive", 2, "the file is empty; nothing was archived", 1,
       true},
      {"rm -r current; objdb archive", 2, "it holds no table; nothing was archived", 1, true},
      {"rm current/value_info.*; objdb archive --partial", 0, "", 2, true},
      {"objdb archive --dir $PWD/current", 2, "is a version; --dir names the directory above", 1},
      {"objdb versions --dir nothing || objdb versions --dir current/id_keeper.pag", 2,
       "directory \"nothing\": No such file or directory\n"
       "objdb: no database directory \"current/id_keeper.pag\": Not a directory",
       1},
      {"rm $V/value_info.*; objdb restore $V", 2, "not whole: table value_info is missing", 1},
      {"rm $V/value_info.*; objdb restore --dry-run $V", 2, "nothing was changed", 1},
      {"rm $V/value_info.pag; objdb restore --partial $V", 0, "", 2, true},
      {"touch $V/unfinished; rm $V/obj_info.*; objdb restore $V || objdb restore --partial $V", 0,
       "; --partial restores what there is", 1, true},
      {"rm current/obj_info.pag; objdb restore --dry-run $V", 0, "would put the tables of", 1,
       true},
      {"rm current/obj_info.pag; objdb restore $V", 0, "", 2},
      {"rm -r current; [ $(objdb restore $V | wc -c) = 0 ]", 0, "", 1},
      {"rm -r current; chmod 2770 .; objdb restore $V; stat -c %a current; chmod 777 .", 0,
       "2770\n", 1},
      {"rm $V/id_keeper.*; objdb restore $V; objdb dump --table id_keeper", 0,
       "\"counter\":4294967295}", 2, true},
      {"objdb dump | grep -v 4294967295 | sed s/5000/9/ | objdb load --unsealed --dir $PWD/x; "
       "A=$(objdb archive --dir $PWD/x); rm x/$A/id_keeper.*; objdb restore --dir $PWD/x $A; "
       "objdb dump --dir $PWD/x --table id_keeper",
       0, "\"counter\":257}", 1},
      {"rm $V/id_keeper.*; objdb dump --version $V | objdb load --dir /usr/NQ/other; objdb diff $V "
       "/usr/NQ/other/current; objdb diff $V current",
       1, "+ {\"table\":\"id_keeper\",\"counter\":5000}", 1},
      {"mv current x; ln -s x current; objdb restore $V", 2,
       "current\" is no directory; nothing was", 2},
      {"touch $V/unfinished; mkdir current/sub; objdb restore $V; ls */", 0, "sub", 2},
      {"touch $V/unfinished; rm current/name_info.*; [ $(objdb restore $V | wc -c) = 0 ] && objdb "
       "versions",
       0, "", 1},
      {"chown 1000:1001 current; chmod 2775 current; objdb restore $V; stat -c '%a %u %g' current",
       0, "2775 " + owner, 2},
      {"chown 1000:1001 current; chmod 750 current; touch $V/unfinished; objdb restore $V; stat -c "
       "'%a %u %g' current",
       0, "750 " + owner, 1},
      {"chown 1000:1001 current; objdb archive >x; stat -c '%a %u %g' $(cat x); stat -c %u "
       "$(cat x)/id_keeper.pag",
       0, "777 " + owner + "\n0\n", 2},
      {"mkdir -m 700 .dbsweep-dead; objdb restore $V; [ ! -e .dbsweep-dead ]", 0, "", 2},
      {"flock $V/obj_info.pag objdb restore $V", 3, "(flock); nothing was changed", 1},
      {"objdb restore nothing", 2, "no version \"nothing\"", 1},
      {"touch $V/unfinished; objdb remove $V", 2, "with --force", 1},
      {"touch $V/unfinished; objdb remove --force $V", 0, "", 0},
      {"mkdir $V/sub; objdb remove $V", 2, "holds more than tables", 1},
      {"objdb remove $V", 0, "", 0},
      {"objdb remove current", 2, "no version \"current\"", 1},
      {"flock current/obj_info.pag objdb archive", 3, "(flock); nothing was changed", 1},
      {"flock current/obj_info.pag objdb restore $V", 3, "(flock); nothing was changed", 1},
      {"flock $V/obj_info.pag objdb remove $V", 3, "(flock); nothing was changed", 1},
      {"flock $V objdb remove --force $V", 3, "(flock); nothing was changed", 1},
      {"rm current/obj_info.pag; mkfifo current/obj_info.pag; timeout 9 objdb archive", 2,
       "not a file", 1, true},
      {"rm current/obj_info.pag; mkfifo current/obj_info.pag; timeout 9 objdb restore $V", 0, "",
       2},
      {"rm $V/obj_info.pag; mkfifo $V/obj_info.pag; timeout 9 objdb restore $V", 2, "not a file",
       1},
      {"rm $V/obj_info.pag; objdb versions", 1, "not whole: could not open table", 1},
      {"rm $V/obj_info.*; objdb versions --json | jq -r .reason", 0, "table obj_info is missing",
       1},
      {"objdb archive; touch -d 2001-01-01 $V; mv $V 01122025.000000; objdb versions | tail -1 | "
       "grep -c $(date +%Y)-; objdb versions --json | jq .time",
       0, "2025-12-01T00:00:00", 2},
      // The platform's daemons share the tables, whoever they run as.
      {"umask 077; cd $(objdb salvage current); stat -c %a * | uniq", 0, "777\n", 2},
      {"mkdir -p x/current; objdb dump >y; objdb load --dir $PWD/x <y && objdb dump --dir $PWD/x | "
       "cmp - y",
       0, "", 1},
      {"umask 077; objdb dump | objdb load --dir x/y; stat -c %a x x/y x/y/*/* | uniq", 0, "777\n",
       1},
      {"objdb dump | objdb load --dir /proc/x/y", 2,
       "could not make \"/proc/x\": No such file or directory", 1},
      // An empty record is not the same as none.
      {R"((objdb dump; echo '{"table":"id_keeper","counter":0,"key":"05","bytes":""}') | )"
       "objdb load --unsealed --dir x; objdb diff current x/current",
       2, "could not decode the record with key 05", 1},
      {"mv $V 01122025.000000; cp -a 01122025.000000 011225.000000; objdb versions | cut -d ' ' -f "
       "1 | "
       "xargs",
       0, "01122025.000000 011225.000000\n", 2},
      {"touch $V/unfinished; objdb check", 1, "unfinished-version: version ", 1},
      {"touch $V/unfinished; objdb versions", 1, " unfinished", 1},
      {"mv $V 221126.231500; objdb versions", 0, "221126.231500 2026-11-22T23:15:00 ", 1},
      {"objdb versions --digest --json | jq -r .digest >x; objdb dump | grep -c $(cat x)", 0, "1\n",
       1},
  };
  ASSERT_EQ(run("objdb archive").status, 0);
  saveTables();
  for (const auto &each : cases) {
    SCOPED_TRACE(each.command);
    putTablesBack();
    const Outcome outcome = run("cd " + root + "; V=$(ls | grep -v current); " + each.command);
    EXPECT_EQ(outcome.status, each.status) << outcome.err;
    EXPECT_THAT(outcome.out + outcome.err, HasSubstr(each.text));
    EXPECT_EQ(run("objdb versions | wc -l").out, std::to_string(each.versions) + "\n");
    EXPECT_EQ(run("ls -A " + root + " | grep -c '^[.]'").out, "0\n") << "something is left behind";
    if (!each.changed) {
      EXPECT_EQ(run("objdb dump").out, sealed);
    }
  }
}

// With everything in it that a dump can have, and nothing that a check finds.
TEST_F(Objdb, ARedactedDumpTellsNoTextAndChecksAlike) {
  std::filesystem::remove_all(root);
  std::string many;  // more texts of one character than there are letters and digits
  for (char each = ' '; each <= '~'; ++each) {
    many += Json(std::string{each}).dump() + "," + Json(std::string{'x', each}).dump() + ",";
  }
  load(emptyNetwork() + nameLines(7, 10, "secret 1") + nameLines(8, 10, "secret 2") +
       Lines{valueLine(7, 24, R"("type":"String","list":["secret 1",null,"secret é","x"])"),
             valueLine(8, 24, R"("type":"String","value":{"hex":"736563726574ff"})"),
             valueLine(8, 20, R"("type":"Boolean","value":true)"),
             valueLine(9, 24, R"("type":"String","list":[)" + many + "null]"),
             valueLine(9, 99, R"("type":"Integer","value":5)")});
  const std::string redacted = run("objdb dump --redact").out;
  EXPECT_EQ(run("objdb load --dir /usr/NQ/copy", redacted).status, 0);
  const std::string same =
      " | jq -c '{finding, severity, table, object, field, records, findings}'";
  EXPECT_EQ(run("objdb check --json --dir /usr/NQ/copy" + same).out,
            run("objdb check --json" + same).out);
  for (const char *text : {"secret", "736563726574", "Session", "OSPF", "Speed", "down"}) {
    EXPECT_EQ(redacted.find(text), std::string::npos) << text;
  }
  const auto texts = [](const std::string &directory) {
    return run("for id in 7 9; do objdb dump --object $id --dir " + directory +
               " | jq -c '[.name, .list] | .. | strings | utf8bytelength'; done")
        .out;
  };
  EXPECT_EQ(run("objdb dump --redact --object 9 --field Description | jq -c '.list | length, "
                "(unique | length), all(.[] | strings; length == 1 or test(\"^[A-Za-z0-9]*$\"))'")
                .out,
            "191\n191\ntrue\n");
  EXPECT_EQ(texts("/usr/NQ/copy"), texts(root));
  EXPECT_EQ(
      run("objdb dump --object 7 --dir /usr/NQ/copy | jq -r '.name // .list[0]' | uniq | wc -l")
          .out,
      "1\n")
      << "equal texts have equal tokens";
  EXPECT_EQ(run("objdb dump --object 70000").status, 2);
  // Bytes that the members do not tell could be text.
  const auto redactedStatus = [](const std::string &line) {
    run("rm -rf /usr/NQ/odd; objdb load --unsealed --dir /usr/NQ/odd", line);
    return run("objdb dump --redact --dir /usr/NQ/odd").status;
  };
  EXPECT_EQ(redactedStatus(lines[lines.size() - 2]), 0) << "a Boolean has no text";
  EXPECT_EQ(redactedStatus(valueLine(7, 24, R"("type":"String","value":"a","bytes":"7365")")), 2);
}

TEST_F(Objdb, ProtocolsAreThoseThatASweepTakes) {
  const auto field = [](int id, const std::string &name) {
    return R"({"table":"field_info","field":)" + std::to_string(id) + R"(,"name":")" + name +
           R"(","type":"Boolean","flags":1})";
  };
  std::filesystem::remove_all(root);
  load(emptyNetwork() + Lines{field(40, "is3Com"), field(41, "is" + std::string(78, 'x')),
                              field(42, R"(isBell\u0007)"), field(43, "isTwice"),
                              field(44, "isTwice"), field(45, "is" + std::string(77, 'x')),
                              field(0, "isZero"), field(46, "is"), field(47, "Plain"),
                              valueLine(9, 20, R"("type":"Boolean","value":true)"),
                              valueLine(9, 42, R"("type":"Boolean","value":false)")});
  writeFile("/usr/NQ/conf/capability_map", "OSPF\n\x1b[2J\n# a remark\n \t\n  Token Ring \t\r\n");
  EXPECT_EQ(run("objdb protocols | sed 's/x\\{77\\}/77x/'").out,
            R"(       1 QRT Session
       0 ""
       0 3Com, which dbsweep refuses: it begins with a digit
       0 "Bell\u0007"
       0 OSPF
       0 Twice, which dbsweep refuses: several fields have it
       0 Twice, which dbsweep refuses: several fields have it
       0 Zero, which dbsweep refuses: its field has the id 0
       0 77x
       0 77xx, which dbsweep refuses: it has more than 77 characters
no field "\u001b[2J"
no field Token Ring
)");
  EXPECT_EQ(run("objdb protocols --json | jq -r '.field // .protocol' | xargs").out,
            "20 46 40 42 21 43 44 0 45 41 \x1b[2J Token Ring\n");
  EXPECT_THAT(run("objdb protocols --ids 3Com").err,
              HasSubstr("dbsweep refuses the protocol \"3Com\""));
  EXPECT_EQ(run("objdb protocols --ids 'QRT Session' --json").out, "{\"object\":9}\n");
}

// What a terminal has been sent while the work was done on it, the timer of the progress line being
// helped along with its own signal.
std::string sentToTerminal(const std::function<void()> &work, bool alarms) {
  int terminal = -1;
  signal(SIGALRM, SIG_IGN);  // until the work expects it
  const pid_t child = forkpty(&terminal, nullptr, nullptr, nullptr);
  if (child == 0) {
    work();
    _exit(127);
  }
  std::string sent;
  char buffer[4096];
  for (pollfd ready{terminal, POLLIN, 0};;) {
    if (alarms) kill(child, SIGALRM);
    if (poll(&ready, 1, 1) == 0) continue;
    const ssize_t got = read(terminal, buffer, sizeof buffer);
    if (got <= 0) break;
    sent.append(buffer, static_cast<size_t>(got));
  }
  close(terminal);
  waitpid(child, nullptr, 0);
  return sent;
}

// What then stands on it.
std::string shownBy(const std::string &sent) {
  std::string screen, line;
  size_t column = 0;
  for (size_t i = 0; i < sent.size(); ++i) {
    if (sent.compare(i, 3, "\033[K") == 0) {
      line.resize(column);
      i += 2;
    } else if (sent[i] == '\r') {
      column = 0;
    } else if (sent[i] == '\n') {
      screen += line + "\n";
      line.clear();
      column = 0;
    } else {
      line.resize(std::max(line.size(), column + 1));
      line[column++] = sent[i];
    }
  }
  return screen + line;
}

TEST(Progress, SaysHowFarTheLastPhaseIs) {
  const auto work = [] {
    {
      Phase reading("reading", 8);
      constexpr itimerval never{};
      setitimer(ITIMER_REAL, &never, nullptr);  // on a busy machine it would tick as well
      raise(SIGALRM);
      reading.count();
      reading.count();
      raise(SIGALRM);
      {
        Phase sorting("sorting");
        sorting.count();
        raise(SIGALRM);
        const ProgressPause pause;
        raise(SIGALRM);
      }
      for (int i = 0; i < 7; ++i) reading.count();  // one more than there should be
      raise(SIGALRM);
    }
    raise(SIGALRM);
    _exit(0);
  };
  EXPECT_EQ(sentToTerminal(work, false),
            "\r\033[Kreading\r\033[Kreading: 2 of 8 records (25 %)\r\033[K"
            "\r\033[Ksorting: 1 records\r\033[K\r\033[Kreading: 9 records\r\033[K");
}

TEST_F(Objdb, ATerminalSeesProgressAndThenAResultWithoutIt) {
  std::filesystem::remove_all(root);
  loadSample(sanitized ? 2000 : 10000);
  run("objdb dump >/usr/NQ/tmp/dump");
  const struct {
    const char *command;
    std::regex phase;
  } cases[] = {
      {"objdb check", std::regex("\r\033\\[Kreading value_info: \\d\\d+ of \\d+ records")},
      {"objdb protocols", std::regex("\r\033\\[Kreading the values")},
      {"objdb dump --object 2000", std::regex("\\[Kreading value_info: \\d\\d+ of \\d+ rec")},
      {"objdb load --dir /usr/NQ/copy </usr/NQ/tmp/dump",
       std::regex("\033\\[Kreading the dump: \\d\\d+ records")}};
  for (const auto &each : cases) {
    std::string sent;
    // On a busy machine a phase may be over before its alarm comes.
    for (int attempt = 0; attempt < 20 && !std::regex_search(sent, each.phase); ++attempt) {
      run("rm -rf /usr/NQ/copy");
      sent = sentToTerminal(
          [&] {
            execl("/bin/sh", "sh", "-c", (std::string("exec ") + each.command).c_str(), nullptr);
          },
          true);
    }
    EXPECT_TRUE(std::regex_search(sent, each.phase)) << each.command;
    run("rm -rf /usr/NQ/copy");
    const Outcome piped = run(each.command);
    EXPECT_EQ(shownBy(sent), piped.out) << each.command;
    EXPECT_EQ(piped.err, "");
  }
}

}  // namespace
