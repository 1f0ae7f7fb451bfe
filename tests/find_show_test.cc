// What find and show say of a database, with all of it in the cache or a part, against what its
// lines say.

#include <gmock/gmock.h>

#include <algorithm>
#include <filesystem>
#include <map>
#include <nlohmann/json.hpp>
#include <random>
#include <sstream>

#include "support.h"

namespace {

using testing::ElementsAre;
using testing::HasSubstr;

using Ids = std::vector<uint32_t>;

// Fields of all types and of both kinds of list that can be searched.
const std::map<uint32_t, std::string> fieldNames = {
    {10, "Selection Name"}, {20, "isQRT Session"}, {22, "Speed"}, {23, "Status"},
    {24, "Description"},    {25, "Neighbours"},    {27, "Tags"}};

std::string randomValue(uint32_t field, std::mt19937 &random) {
  const auto number = [&](uint32_t below) { return std::to_string(random() % below); };
  switch (field) {
    case 20:
      return std::string(R"("type":"Boolean","value":)") + (random() % 2 == 0 ? "true" : "false");
    case 22:
      return R"("type":"Integer","value":-)" + number(3);
    case 23:
      return R"("type":"Enumeration","value":)" + number(2);
    case 24:
      return R"("type":"String","value":"text, )" + number(3) + "\"";
    case 25:
      return R"("type":"Integer","list":[)" + number(3) + "," + number(3) + "," + number(3) + "]";
    default:
      return R"("type":"String","list":["a,)" + number(3) + R"(","a,)" + number(3) + "\"]";
  }
}

// Field to value, as in a line of the database; object to these.
using Values = std::map<uint32_t, Json>;

class Ask : public PlatformTest {
 protected:
  // Some objects have no name, and some share one.
  Ask() {
    std::mt19937 random(7);
    Lines lines =
        emptyNetwork() +
        Lines{R"({"table":"field_info","field":27,"name":"Tags","type":"String","flags":1})"};
    for (uint32_t id = 1; id <= 200; ++id) {
      const bool isTwin = id % 33 == 0;
      Lines names = nameLines(id, 10, isTwin ? "twin" : "object " + std::to_string(id));
      if (isTwin && id > 33) names.pop_back();
      if (id % 20 != 0) lines = lines + names;
      for (const auto &[field, name] : fieldNames) {
        if (field == 10 || (field != 22 && random() % 4 == 0)) continue;
        lines.push_back(valueLine(id, field, randomValue(field, random)));
      }
    }
    // An id of four bytes, in case only the lower ones are read.
    lines = lines + nameLines(0x01020304, 10, "far") +
            Lines{valueLine(0x01020304, 22, R"("type":"Integer","value":1)")};
    load(lines);
    for (const std::string &text : lines) {
      const Json line = Json::parse(text);
      if (line["table"] == "value_info") model[line["object"]][line["field"]] = line;
      if (line["table"] == "obj_info") {
        model[line["object"]][10] = Json{{"type", "String"}, {"value", line["name"]}};
      }
    }
  }

  // A single value equals, a list contains: as the lines have them.
  static bool matches(const Json &stored, const Json &wanted) {
    if (!wanted.contains("list")) return stored == wanted || stored["value"] == wanted["value"];
    const auto &entries = stored["list"];
    return wanted["list"].size() <= entries.size() &&
           std::all_of(wanted["list"].begin(), wanted["list"].end(), [&](const Json &entry) {
             return std::find(entries.begin(), entries.end(), entry) != entries.end();
           });
  }

  Ids expected(const Values &wanted) const {
    Ids ids;
    for (const auto &object : model) {
      const Values &values = object.second;
      const bool all = std::all_of(wanted.begin(), wanted.end(), [&](const auto &each) {
        const auto value = values.find(each.first);
        return value != values.end() && matches(value->second, each.second);
      });
      if (all) ids.push_back(object.first);
    }
    return ids;
  }

  Values randomWish(size_t count, std::mt19937 &random) const {
    Values wanted;
    while (wanted.size() < count) {
      const auto &[field, name] = *std::next(fieldNames.begin(), static_cast<long>(random() % 7));
      const Values &values = model.at(1 + static_cast<uint32_t>(random() % 200));
      if (values.contains(field)) wanted[field] = values.at(field);
    }
    return wanted;
  }

  std::map<uint32_t, Values> model;
};

// A binding as the shell takes it.
std::string bindingText(uint32_t field, const Json &value) {
  const auto text = [field](const Json &word) {
    if (field == 23) return std::string(word == 0 ? "up" : "down");
    return word.is_string() ? word.get<std::string>() : word.dump();
  };
  std::string words = fieldNames.at(field) + (value.contains("list") ? "~" : "=");
  words += value.contains("list") ? value["list"].dump() : text(value["value"]);
  return " '" + words + "'";
}

Ids idsIn(const std::string &lines) {
  Ids ids;
  std::istringstream stream(lines);
  for (uint32_t id = 0; stream >> id;) ids.push_back(id);
  return ids;
}

TEST_F(Ask, FindSelectsWhatTheDatabaseSaysWhateverTheLimit) {
  std::mt19937 random(11);
  std::vector<Values> wishes = {{}};
  while (wishes.size() < 40) wishes.push_back(randomWish(1 + wishes.size() % 4, random));
  wishes.push_back({{10, Json{{"type", "String"}, {"value", "twin"}}}});
  wishes.push_back(wishes.back());
  wishes.back()[22] = model.at(66).at(22);
  for (const char *limit :
       {"", " --max-objects 1", " --max-objects 20", " --max-objects 4000000000"}) {
    SCOPED_TRACE(limit);
    std::string commands;
    for (const Values &wish : wishes) {
      commands += "objdb find";
      for (const auto &[field, value] : wish) commands += bindingText(field, value);
      commands += std::string(limit) + "; echo .\n";
    }
    const Outcome outcome = run(commands);
    ASSERT_EQ(outcome.err, "");
    std::istringstream answers(outcome.out);
    size_t hits = 0;
    for (const Values &wish : wishes) {
      std::string answer;
      std::getline(answers, answer, '.');
      Ids ids = idsIn(answer);
      std::sort(ids.begin(), ids.end());
      ASSERT_EQ(ids, expected(wish)) << Json(wish).dump();
      hits += ids.size();
    }
    EXPECT_GT(hits, 700u) << "the bindings select too little to tell anything";
  }
}

// The orders of the queries: of the values in their table; the newest object first, which is the
// one whose record was read last; with a limit that of the names.
TEST_F(Ask, FindKeepsTheOrderOfTheTables) {
  Ids newest, named, valued;
  for (const char *table : {"obj_info", "value_info"}) {
    for (const std::string &key : scanKeys(table)) {
      uint32_t words[2];
      memcpy(words, key.data(), sizeof words);
      std::erase(newest, words[0]);
      newest.insert(newest.begin(), words[0]);
      if (words[1] == 10) named.push_back(words[0]);
      if (words[1] == 20 && model[words[0]][20]["value"] == true) valued.push_back(words[0]);
    }
  }
  EXPECT_EQ(idsIn(run("objdb find").out), newest);
  EXPECT_EQ(idsIn(run("objdb find 'isQRT Session=true'").out), valued);
  for (uint32_t id = 20; id <= 200; id += 20) named.push_back(id);
  EXPECT_EQ(idsIn(run("objdb find --max-objects 7").out), named);
}

TEST_F(Ask, ShowWritesEveryValueWhateverTheLimit) {
  std::string all;
  for (const auto &[id, values] : model) all += " " + std::to_string(id);
  for (const char *limit : {"", " --max-objects 1", " --max-objects 50"}) {
    SCOPED_TRACE(limit);
    std::istringstream lines(run("objdb show --json" + all + limit).out);
    for (const auto &[id, values] : model) {
      std::string line;
      std::getline(lines, line);
      const Json object = Json::parse(line);
      ASSERT_EQ(object["object"], id);
      ASSERT_EQ(object["values"].size(), values.size());
      auto shown = object["values"].begin();
      for (const auto &[field, value] : values) {
        const char *member = value.contains("list") ? "list" : "value";
        ASSERT_EQ((*shown)["field"], field);
        ASSERT_EQ((*shown)["name"], fieldNames.at(field));
        ASSERT_EQ((*shown)["type"], value["type"]);
        ASSERT_EQ((*shown)[member], value[member]);
        ++shown;
      }
    }
  }
  for (const char *limit : {"", " --max-objects 1"}) {
    const Outcome named = run(std::string("objdb show 'object 42' 9999 'nobody' --json") + limit);
    EXPECT_EQ(named.status, 1);
    EXPECT_EQ(Json::parse(named.out)["object"], 42);
    EXPECT_EQ(named.err, "objdb: no object \"9999\"\nobjdb: no object \"nobody\"\n");
  }
}

class AskSmall : public PlatformTest {
 protected:
  AskSmall() {
    load(emptyNetwork() + nameLines(7, 10, "gw1") + nameLines(7, 11, "gw1.example") +
         nameLines(8, 10, "7") + nameLines(9, 11, "gw9.example") +
         Lines{R"({"table":"field_info","field":28,"name":"Speed","type":"Integer","flags":1})",
               R"({"table":"field_info","field":29,"name":"a=b","type":"Integer","flags":1})",
               R"({"table":"field_info","field":30,"name":null,"type":"String","flags":1})",
               R"({"table":"enum_info","field":29,"constants":["of","no use"]})",
               valueLine(7, 29, R"("type":"Integer","value":-5)"),
               valueLine(8, 29, R"("type":"Integer","value":1)"),
               valueLine(7, 20, R"("type":"Boolean","value":true)"),
               valueLine(7, 23, R"("type":"Enumeration","value":1)"),
               valueLine(7, 24, R"("type":"String","value":"two\nlines")"),
               valueLine(7, 30, R"("type":"String","list":["a","b,c",null,{"hex":"ff80"}])"),
               valueLine(8, 23, R"("type":"Enumeration","value":9)"),
               valueLine(8, 24, R"("type":"String","value":"a \"b\"")"),
               valueLine(8, 25, R"("type":"Integer","list":[])")});
  }

  // Of every file and directory, and whatever is left where the platform logs.
  static std::string stamps() {
    return run("find /usr/NQ/databases /usr/NQ/log -type f -printf '%p %s %A@ %T@ %C@\\n' -o "
               "-printf '%p %T@ %C@\\n' | sort")
        .out;
  }
};

TEST_F(AskSmall, WordsSayWhatIsThere) {
  EXPECT_EQ(
      run("objdb show gw1 8").out,
      "object 7\nSelection Name: gw1\nIP Hostname: gw1.example\nisQRT Session: true\n"
      "Status: down\nDescription: \"two\\nlines\"\na=b: -5\n"
      "30: [a,\"b,c\",null,{\"hex\":\"ff80\"}]\n\n"
      "object 8\nSelection Name: 7\nStatus: 9\nDescription: a \"b\"\nNeighbours: []\na=b: 1\n");
  EXPECT_EQ(run("objdb show --json gw1 8 | jq -c '[.values[].constant]'").out,
            R"([null,null,null,"down",null,null,null])"
            "\n[null,null,null,null,null]\n");
  // What is shown can be asked for.
  const struct {
    const char *command, *out;
  } cases[] = {
      {"find --names 'Description=two\nlines'", "7 gw1\n"},
      {"find '30~[\"b,c\",a]'", "7\n"},
      {"find 30~[b]; objdb find 25=1; objdb find Status=up", ""},
      {"find a=b=-5 Status=down --names --json", "{\"object\":7,\"name\":\"gw1\"}\n"},
      {"find 'Neighbours~[]' --count", "1\n"},
      {"find Status=up --count --json", "{\"objects\":0}\n"},
      {"find 28=1 --count", "0\n"},
      {"show 7 | head -n 1", "object 7\n"},
      {"show 9", "object 9\nIP Hostname: gw9.example\n"},
      {"show 9 --max-objects 1", "object 9\nIP Hostname: gw9.example\n"},
      {"show --field 'Selection Name' 7 | head -n 1", "object 8\n"},
      {"show --field 'IP Hostname' gw1.example | head -n 1", "object 7\n"},
  };
  for (const auto &each : cases) {
    EXPECT_EQ(run(std::string("objdb ") + each.command).out, each.out) << each.command;
  }
  EXPECT_EQ(run("objdb find Status=up").status, 1) << "nothing found";
}

TEST_F(AskSmall, WhatCannotBeAskedIsRefusedWithWhatCould) {
  const struct {
    const char *command, *reason;
  } cases[] = {
      {"find Sped=1", "no field \"Sped\"; there are Selection Name, IP Hostname, isQRT Session"},
      {"find 99=1", "no field \"99\""},
      {"find 0=1", "no field \"0\""},
      {"find \"Neighbours~[$(seq -s, 1001)]\"", "lists of 1000 values at most"},
      {"show 7 --max-objects 0", "must be 1 at least"},
      {"find Speed=1", "2 fields are named \"Speed\"; give the id of one"},
      {"find gw1", "\"gw1\" is neither FIELD=VALUE nor FIELD~[VALUE,...]"},
      {"find ''", "must not be empty"},
      {"find 22=1.5", "whole numbers from -2147483648 to 2147483647"},
      {"find 22=2147483648", "whole numbers"},
      {"find isOSPF=1", "\"1\" is no value of field \"isOSPF\": it has true and false"},
      {"find Status=1", "it has up, down"},
      {"find 'Neighbours~[1,x]'", "whole numbers"},
      {"find Neighbours~1", "a list is [VALUE,...]"},
      {"find '30~[\"a]'", "a list is [VALUE,...]"},
      {"find 'Status~[up]'", "only lists of numbers and of texts"},
      {"find \"Description=$(printf %257s)\"", "256 characters at most"},
      {"find --max-objects 0", "must be 1 at least"},
      {"show", "no object given"},
      {"show --field Status gw1",
       "no name field \"Status\"; there are Selection Name, IP Hostname"},
      {"find --version nothing", "no such version"},
      {"show 7 --dir /usr/NQ/nowhere", "no such version"},
  };
  const std::string before = stamps();
  for (const auto &each : cases) {
    const Outcome outcome = run(std::string("objdb ") + each.command);
    EXPECT_EQ(outcome.status, 2) << each.command;
    EXPECT_EQ(outcome.out, "") << each.command;
    EXPECT_THAT(outcome.err, HasSubstr(each.reason)) << each.command;
  }
  EXPECT_EQ(run("flock " + currentDir + "/value_info.pag objdb find").status, 3);
  EXPECT_EQ(stamps(), before);
  ObjectDatabase *db = open_nqwdb_ndbm(0);
  ASSERT_EQ(_NQ_dbm_db_store_raw(db->valueInfoDb, "damaged", "damaged"), 0);
  // One that says whose it is, and nothing after it.
  const std::string headed = bytes("00000001 00000007 00000001 00000014");
  ASSERT_EQ(_NQ_dbm_db_store_raw(db->valueInfoDb, "headed", headed), 0);
  close_nqwdb_ndbm(db);
  for (const auto &[command, lost] :
       {std::pair{"find", "1"}, {"show 7", "2"}, {"find --max-objects 1", "2"}}) {
    const Outcome outcome = run(std::string("objdb ") + command);
    EXPECT_EQ(outcome.status, 2) << "could not look is not the same as nothing found";
    EXPECT_THAT(outcome.err, HasSubstr(lost + std::string(" records could not be read")))
        << command;
    EXPECT_THAT(outcome.out, HasSubstr("7")) << command;
  }
  std::filesystem::remove(currentDir + "/enum_info.dir");
  EXPECT_EQ(run("objdb find").status, 2);
  EXPECT_FALSE(exists(currentDir + "/enum_info.dir")) << "a reading command made a file";
}

TEST_F(AskSmall, VersionsAreAskedAndLeftAsTheyAre) {
  const std::string name = run("objdb archive | tr -d '\\n'").out;
  std::filesystem::rename(currentDir, "/usr/NQ/databases/nqwdb/copy");
  load(emptyNetwork() + nameLines(9, 10, "other"));
  // An archived version of the platform may have no id keeper.
  std::filesystem::remove("/usr/NQ/databases/nqwdb/" + name + "/id_keeper.pag");
  const std::string before = stamps();
  for (const std::string &version : {name, std::string("copy")}) {
    for (const char *limit : {"", " --max-objects 1"}) {
      const std::string which = " --version " + version + limit;
      EXPECT_EQ(run("objdb find Status=down --names" + which).out, "7 gw1\n") << which;
      EXPECT_EQ(run("objdb find 'Selection Name=gw1'" + which).out, "7\n") << which;
      EXPECT_EQ(run("objdb find --count" + which).out, "3\n") << which;
      EXPECT_THAT(run("objdb show gw1" + which).out, HasSubstr("Status: down")) << which;
      EXPECT_EQ(run("objdb show other nothing" + which).status, 1) << which;
    }
  }
  EXPECT_EQ(run("objdb find").out, "9\n");
  EXPECT_EQ(stamps(), before);
}

// Characters that the locale does not know have no weight of their own, and collate equal.
TEST_F(AskSmall, NamesThatCollateEqualFindEachOther) {
  const auto field = [](int id, const std::string &name, const std::string &type) {
    return R"({"table":"field_info","field":)" + std::to_string(id) + R"(,"name":")" + name +
           R"(","type":")" + type + R"(","flags":1})";
  };
  const std::string locale = "LOCPATH=/usr/NQ/tmp LC_ALL=en_US.UTF-8 ";
  ASSERT_EQ(run("localedef --no-archive -i en_US -f UTF-8 /usr/NQ/tmp/en_US.UTF-8").status, 0)
      << "install the package locales";
  std::filesystem::remove_all(currentDir);
  load(emptyNetwork() + nameLines(7, 10, "gw\u0378") + nameLines(8, 10, "gw2") +
       Lines{valueLine(8, 24, "\"type\":\"String\",\"value\":\"\u0378\""),
             field(40, "isOne\u0378", "Boolean"), field(41, "isTwo\u0378", "Boolean"),
             field(42, "isTwo\u0379", "String")});
  EXPECT_EQ(run(locale + "objdb protocols --ids One\u0379").status, 0);
  EXPECT_THAT(run(locale + "objdb protocols --ids Two\u0380").err,
              HasSubstr("several fields sort as equal to it"))
      << "whatever the type of the other field";
  EXPECT_THAT(run(locale + "dbsweep -p Two\u0380", "yes").err,
              HasSubstr("2 fields are named \"isTwo\u0380\", nothing was deleted"));
  EXPECT_EQ(run(locale + "dbsweep -p Two\u0378", "yes").status, 0) << "one name is equal";
  for (const char *limit : {"", " --max-objects 1"}) {
    for (const char *question :
         {"find 'Selection Name=gw\u0379'", "show gw\u0379", "find 'Description=\u0379'",
          "find 'Selection Name=gw\u0379' 10=gw\u0378"}) {
      const std::string command = std::string("objdb ") + question + limit;
      EXPECT_EQ(run(command).status, 1) << command;
      EXPECT_EQ(run(locale + command).status, 0) << command;
    }
  }
}

}  // namespace
