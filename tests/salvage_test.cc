// Databases that are damaged, each in its own way: what a check finds, how a sweep ends, and that
// what is salvaged is sound. And that looking at a database leaves no trace on it.

#include <gmock/gmock.h>
#include <sys/stat.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <nlohmann/json.hpp>
#include <optional>
#include <regex>
#include <sstream>

#include "objdb/salvaged_tables.h"
#include "sweep/sweep_runs.h"

namespace {

namespace fs = std::filesystem;

class Salvage : public PlatformTest {
 protected:
  // What a look at the files could change: their times, sizes and numbers. Listing the directories
  // here leaves an access time itself, so that those count from the second time on.
  static std::string footprint(const std::string &below) {
    std::ostringstream text;
    std::vector<std::string> paths{root + below};
    for (const auto &entry : fs::recursive_directory_iterator(root + below))
      paths.push_back(entry.path());
    std::sort(paths.begin(), paths.end());
    for (const std::string &path : paths) {
      struct stat status {};
      lstat(path.c_str(), &status);
      text << path << ' ' << status.st_ino << ' ' << status.st_size << ' ' << status.st_atim.tv_sec
           << '.' << status.st_atim.tv_nsec << ' ' << status.st_mtim.tv_nsec << ' '
           << status.st_ctim.tv_nsec << '\n';
    }
    return text.str();
  }

  static std::string findings(const std::string &version) {
    const Outcome outcome = run("timeout 20 objdb check --json --version " + version);
    std::istringstream stream(outcome.out);
    std::vector<std::string> names;
    for (std::string line; std::getline(stream, line);) {
      const Json members = Json::parse(line);
      if (members.contains("finding")) names.push_back(members.at("finding"));
    }
    EXPECT_EQ(outcome.status, names.empty() ? 0 : 1) << outcome.err;
    std::string text;
    std::sort(names.begin(), names.end());
    for (const std::string &name : names) text += (text.empty() ? "" : " ") + name;
    return text;
  }
};

// A paragraph of damaged_databases.txt.
struct Damaged {
  std::string what;
  std::string findings;
  int sweep;
  int salvage;
  Lines lines;
  std::string command;
  std::string said = "";
};

void change(Damaged &database, const std::string &line) {
  const std::string rest = line.substr(2);
  if (line[0] == '+') {
    const StoredRecord fresh = recordFromJson(parseLine(rest));
    std::erase_if(database.lines, [&fresh](const std::string &each) {
      const StoredRecord record = recordFromJson(parseLine(each));
      return record.table == fresh.table && record.key == fresh.key;
    });
    database.lines.push_back(rest);
  }
  if (line[0] == '$') database.command = rest;
  if (line[0] == '!') database.said += "objdb: " + rest + "\n";
  for (int id = 100; line[0] == '*' && id < 100 + std::stoi(rest); ++id) {
    database.lines.push_back(valueLine(id, 22, R"("type":"Integer","value":5)"));
  }
  if (line[0] == '-') {
    std::erase_if(database.lines, [&](const auto &each) { return each.find(rest) != each.npos; });
  }
}

std::vector<Damaged> damagedDatabases() {
  const Lines sound = emptyNetwork() + nameLines(7, 10, "gw1") + nameLines(8, 10, "gw2") +
                      Lines{valueLine(7, 22, R"("type":"Integer","value":5)"),
                            valueLine(7, 20, R"("type":"Boolean","value":true)"),
                            valueLine(8, 23, R"("type":"Enumeration","value":1)"),
                            valueLine(8, 24, R"("type":"String","value":"text")")};
  std::vector<Damaged> databases;
  std::ifstream file(DBSWEEP_SOURCE_DIR "/tests/damaged_databases.txt");
  for (std::string line; std::getline(file, line);) {
    if (line.empty() || line[0] == '#') continue;
    if (std::string("+-*$!").find(line[0]) != std::string::npos) {
      change(databases.back(), line);
      continue;
    }
    const size_t first = line.find(": ");
    const size_t second = line.find(": ", first + 2);
    const std::string found = line.substr(first + 2, second - first - 2);
    databases.push_back({line.substr(0, first), found == "nothing" ? "" : found,
                         line[second + 2] - '0', line[second + 4] - '0', sound, "true"});
  }
  return databases;
}

TEST_F(Salvage, EveryDamageIsFoundSweptAndMended) {
  const std::regex undecodable("undecodable"), unreadable("unopened|unreached");
  const std::regex others("objdb: (lost|could not).*\n");
  const std::string withoutIds = "no id keeper";  // as in an archive of the platform's
  const std::vector<Damaged> databases = damagedDatabases();
  EXPECT_GE(databases.size(), 60u);
  for (const Damaged &row : databases) {
    SCOPED_TRACE(row.what);
    fs::remove_all(root);
    load(row.lines);
    ASSERT_EQ(run("cd " + currentDir + " && " + row.command).status, 0);
    saveTables();
    EXPECT_EQ(run("timeout 20 dbsweep -m", "yes").status, row.sweep);

    putTablesBack();
    run("find " + root + " -exec touch -h -a -d 2001-01-01 {} +");
    const std::string before = footprint("");
    EXPECT_EQ(findings("current"), row.findings);
    for (const char *command : {"dump --field Speed --object 7", "protocols", "versions",
                                "protocols --ids OSPF", "check"}) {
      EXPECT_LE(run(std::string("timeout 20 objdb ") + command).status, 2) << command;
    }
    // Two versions are compared as they are, whether or not their records mean anything.
    const bool isRead = !std::regex_search(row.findings, unreadable) || row.what == withoutIds;
    const bool isDumped = isRead && !std::regex_search(row.findings, undecodable);
    EXPECT_EQ(run("timeout 20 objdb dump").status, isDumped ? 0 : 2);
    EXPECT_EQ(run("timeout 20 objdb diff current " + currentDir).status, isRead ? 0 : 2);
    EXPECT_EQ(footprint(""), before);

    const std::string tablesBefore = footprint("/current");
    const Outcome salvaged = run("timeout 20 objdb salvage current");
    EXPECT_EQ(salvaged.status, row.salvage) << salvaged.err;
    ASSERT_NE(salvaged.out, "");
    if (!row.said.empty() || row.findings.empty()) {
      EXPECT_EQ(std::regex_replace(salvaged.err, others, ""), row.said);
    }
    const std::string version = salvaged.out.substr(0, salvaged.out.size() - 1);
    EXPECT_EQ(findings(version), "") << salvaged.err;
    EXPECT_EQ(run("ls -A " + root + "/" + version + " | grep -v _").out, "") << "more than tables";
    EXPECT_EQ(footprint("/current"), tablesBefore);
    EXPECT_EQ(run("diff -r " + saved + "/current " + currentDir).status, 0);
    if (salvaged.status == 0 && row.findings.empty()) {
      EXPECT_EQ(run("objdb diff current " + salvaged.out).out, "");
    }
  }
}

TEST(SalvagedTables, ALossHasTheIdsThatItsKeyTells) {
  const struct {
    size_t table;
    std::string key;
    std::optional<uint32_t> object, field;
  } rows[] = {{fieldInfo, keyOf({31}), {}, 31},   {nameInfo, keyOf({31}) + "name", {}, 31},
              {valueInfo, keyOf({7, 31}), 7, 31}, {objInfo, keyOf({7, 31}), 7, 31},
              {valueInfo, keyOf({7}), {}, {}},    {enumInfo, "abc", {}, {}},
              {idKeeper, keyOf({0}), {}, {}}};
  for (const auto &row : rows) {
    SalvagedTables tables;
    tables.loseByKey(row.table, "lost", row.key);
    const Loss &loss = tables[row.table].losses.at(0);
    EXPECT_EQ(std::pair(loss.object, loss.field), std::pair(row.object, row.field)) << row.key;
  }
}

// Which record it is, in the words of both forms of output.
TEST_F(Salvage, FindingsAndLossesNameTheirRecords) {
  load(emptyNetwork() + nameLines(8, 10, "gw1") + nameLines(9, 11, "gw1") +
       nameLines(9, 10, "gw1#7") +
       Lines{R"({"table":"obj_info","object":7,"field":10,"name":"gw1"})",
             R"({"table":"field_info","field":27,"name":"Speed","type":"Integer","flags":1})",
             R"({"table":"field_info","field":28,"name":"Odd\u0007","type":9,"flags":1})",
             R"({"table":"enum_info","field":22,"constants":["up"]})",
             R"({"table":"obj_info","object":8,"field":99,"name":"gw1"})",
             R"({"table":"name_info","object":8,"field":10,"name":"gw3"})",
             valueLine(7, 22, R"("type":"Boolean","value":true)"),
             valueLine(7, 23, R"("type":"Enumeration","value":-1)"),
             valueLine(8, 23, R"("type":"Enumeration","value":2)"),
             valueLine(8, 24, R"("type":"String","value":"a")"),
             valueLine(8, 24, R"("type":"String","value":"b","key":"00ff")"),
             valueLine(9, 22, R"("type":"Integer","value":1,"bytes":"00")"),
             valueLine(6000, 98, R"("type":"Integer","value":1)")});
  // Of two definitions with one name the one that the scan meets later is the finding.
  const std::string plainWords =
      " | grep -v ^cure | sed 's/: [^:]*$//; s/22, name Sp/27, name Sp/'";
  EXPECT_EQ(run("objdb check" + plainWords + " | LC_ALL=C sort").out,
            R"(30 records looked at, 14 findings
duplicate-name: obj_info, object 7, field 10, name gw1
id-beyond-counter: value_info, object 6000, field 98
same-field-name: field_info, field 27, name Speed
stray-index: name_info, object 8, field 10, name gw1
undecodable: value_info, key 0900000016000000
unindexed-name: obj_info, object 8, field 99, name gw1
unknown-constant: value_info, object 7, field 23, name gw1
unknown-constant: value_info, object 8, field 23, name gw1
unknown-field: obj_info, object 8, field 99, name gw1
unknown-field: value_info, object 6000, field 98
unknown-type: field_info, field 28
wrong-key: value_info, object 8, field 24, name gw1, key 00ff
wrong-type: enum_info, field 22
wrong-type: value_info, object 7, field 22, name gw1
)");
  EXPECT_EQ(run("objdb check | grep -c '^cure of '").out, "11\n");
  EXPECT_EQ(run("objdb check --json | jq -c 'select(.key == \"00ff\") | del(.text, .cure)'").out,
            R"({"finding":"wrong-key","severity":"fault","table":"value_info","object":8,)"
            R"("field":24,"name":"gw1","key":"00ff"})"
            "\n");
  const Outcome salvaged = run("objdb salvage current");
  EXPECT_EQ(
      salvaged.err,
      R"(objdb: field_info: 1 of an unknown type left out, 1 renamed because another has the name
objdb: lost: {"lost":"its name, which another field has","table":"field_info","field":27}
objdb: lost: {"lost":"has an unknown type","table":"field_info","field":28}
objdb: obj_info: 1 of unknown fields left out, 1 renamed because another has the name
objdb: lost: {"lost":"its field has no definition","table":"obj_info","object":8,"field":99}
objdb: lost: {"lost":"its name, which another object has","table":"obj_info","object":7,"field":10}
objdb: value_info: 1 cannot be decoded, 1 of unknown fields left out, 2 with another type than their field left out, 1 left out because another record has their key
objdb: lost: {"lost":"another record has its key","table":"value_info","object":8,"field":24,"key":"0800000018000000"}
objdb: lost: {"lost":"cannot be decoded","table":"value_info","object":9,"field":22,"key":"0900000016000000"}
objdb: lost: {"lost":"has another type than its field","table":"value_info","object":7,"field":22}
objdb: lost: {"lost":"its field has no definition","table":"value_info","object":6000,"field":98}
objdb: lost: {"lost":"its enumeration cannot have its number","table":"value_info","object":7,"field":23}
objdb: name_info: 1 made again
objdb: enum_info: 1 with another type than their field left out, 1 made again
objdb: lost: {"lost":"has another type than its field","table":"enum_info","field":22}
)");
  EXPECT_EQ(run("objdb salvage current --json | tail -n +2 | sed 's/^/objdb: lost: /'").out,
            std::regex_replace(salvaged.err, std::regex("objdb: [a-z]*_[a-z]*: .*\n"), ""));
  Lines mended = emptyNetwork();
  mended.back() =
      R"({"table":"enum_info","field":23,"constants":["up","down","recovered constant 2"]})";
  EXPECT_EQ(
      sorted(dumpLines(run("objdb dump --version " + salvaged.out).out)),
      sorted(
          mended + nameLines(7, 10, "gw1#7-1") + nameLines(8, 10, "gw1") + nameLines(9, 11, "gw1") +
          nameLines(9, 10, "gw1#7") +
          Lines{R"({"table":"field_info","field":27,"name":"Speed#27","type":"Integer","flags":1})",
                valueLine(8, 23, R"("type":"Enumeration","value":2)"),
                valueLine(8, 24, R"("type":"String","value":"a")")}));
}

// What is lost is no more than what is damaged.
TEST_F(Salvage, WhatTheOtherTablesKnowComesBack) {
  const Lines names = nameLines(7, 10, "gw1") + nameLines(8, 10, "gw2");
  const Lines values = {valueLine(7, 22, R"("type":"Integer","value":5)")};
  load(emptyNetwork() + names + values);
  run("cd " + currentDir + " && rm obj_info.pag field_info.pag");
  Outcome salvaged = run("objdb salvage current");
  EXPECT_THAT(salvaged.err, testing::HasSubstr("obj_info: 0 records read"));
  const Outcome restored = run("objdb restore " + salvaged.out);
  EXPECT_EQ(restored.status, 0) << restored.err;
  const Lines after = dump();
  for (const std::string &line : names + values) EXPECT_THAT(after, testing::Contains(line));
  EXPECT_THAT(after, testing::Contains(emptyNetwork()[1]));
  EXPECT_THAT(after, testing::Contains(testing::HasSubstr("recovered field 22")));
}

TEST_F(Salvage, ADryRunNamesWhatASweepDeletesAndADiffWhatItDeleted) {
  Lines lines = emptyNetwork();
  for (uint32_t id = 100; id < 1000; ++id) {
    lines = lines + nameLines(id, 10, "object " + std::to_string(id)) +
            Lines{valueLine(id, 20,
                            id % 3 == 0 ? R"("type":"Boolean","value":true)"
                                        : R"("type":"Boolean","value":false)")};
  }
  load(lines);
  EXPECT_EQ(run("objdb check").out,
            std::to_string(lines.size()) + " records looked at, 0 findings\n");
  writeFile("/usr/NQ/conf/capability_map", "OSPF\nQRT Session\nToken Ring\n");
  EXPECT_EQ(run("objdb protocols").out,
            "     300 QRT Session\n       0 OSPF\nno field Token Ring\n");
  std::istringstream listed(run("objdb protocols --ids 'QRT Session'").out);
  std::string expected = dialogue + loading;
  std::vector<uint32_t> objects;
  for (uint32_t id = 0; listed >> id;) {
    objects.push_back(id);
    expected += deleted(id);
  }
  EXPECT_EQ(objects.size(), 300u);
  const std::string archived = run("objdb archive").out;
  const std::string name = archived.substr(0, archived.size() - 1);
  EXPECT_EQ(
      sweep("-p 'QRT Session'").err,
      expected + "dbsweep: 300 objects have been deleted from the objects database\n" + rewriting);

  Lines gone;
  Lines all = sorted(lines);
  Lines left = sorted(without(lines, objects));
  std::set_difference(all.begin(), all.end(), left.begin(), left.end(), std::back_inserter(gone));
  for (std::string &line : gone) line.insert(0, "- ");
  const Outcome compared = run("objdb diff " + name + " current");
  EXPECT_EQ(compared.status, 1);
  std::istringstream stream(compared.out);
  Lines differences;
  for (std::string line; std::getline(stream, line);) differences.push_back(line);
  EXPECT_EQ(sorted(differences), sorted(gone));
  EXPECT_EQ(run("objdb diff --json " + name + " current | jq -r .in | uniq").out, "A\n");
  EXPECT_EQ(run("objdb diff --json current " + name + " | jq -r .in | uniq").out, "B\n");
  EXPECT_EQ(run("objdb diff " + name + " nothing").status, 2);
}

TEST_F(Salvage, ACheckTellsTheNameThatItIsAbout) {
  Lines host = nameLines(7, 11, "gw1.example");
  host.pop_back();  // from name_info
  load(emptyNetwork() + nameLines(7, 10, "gw1") + host);
  EXPECT_THAT(run("objdb check").out, testing::HasSubstr("object 7, field 11, name gw1.example: "));
}

TEST_F(Salvage, WhyItCannotLookIsSaidInWords) {
  load(emptyNetwork());
  const struct {
    const char *command;
    int status;
    const char *reason;
  } cases[] = {
      {"objdb check --version nothing", 2, "no such version"},
      {"objdb salvage nothing", 2, "no version"},
      {"objdb salvage ../nqwdb/current", 2, "no version"},
      {"flock obj_info.pag objdb check", 3, "(flock)"},
      {"flock -s obj_info.pag objdb check", 0, ""},
      {"flock obj_info.pag objdb salvage current", 3, "held by process "},
      // The two word sizes differ in how many records they put into a bucket.
      {sizeof(void *) == 8
           ? "printf '\\247' | dd of=enum_info.pag bs=1 seek=28 conv=notrunc; objdb dump"
           : "printf '\\246' | dd of=enum_info.pag bs=1 seek=28 conv=notrunc; objdb dump",
       2, "made by a build of the other word size"},
      {"rm enum_info.dir; objdb dump", 2, "enum_info.dir\": No such file"},
      {"mv obj_info.pag x; ln -s x obj_info.pag; objdb check", 1, ""},
      {"rm *; objdb salvage current", 2, "nothing can be read"},
  };
  for (const auto &each : cases) {
    const Outcome outcome = run(std::string("cd ") + currentDir + " && " + each.command);
    EXPECT_EQ(outcome.status, each.status) << each.command << outcome.err;
    EXPECT_THAT(outcome.err, testing::HasSubstr(each.reason));
  }
  EXPECT_EQ(run("ls -A " + root).out, "current\n");
}

}  // namespace
