// Queries over values and names: with every object in the cache, with most left out of it, and
// against answers computed from the lines of the database alone.

#include <gmock/gmock.h>

#include <algorithm>
#include <map>
#include <random>

#include "internal/iGetFVs.h"
#include "internal/iListO.h"
#include "internal/iNameToOID.h"
#include "internal/loaders.h"
#include "internal/object_ids.h"
#include "internal/util.h"
#include "internal/value_search.h"
#include "maint/run.h"
#include "platform/report.h"
#include "records/field_codec.h"
#include "records/table_records.h"
#include "store/shared_database.h"
#include "support.h"

namespace {

using testing::ElementsAre;
using testing::ElementsAreArray;
using testing::HasSubstr;
using testing::IsEmpty;

using Ids = std::vector<uint32_t>;

Ids take(NQwObjectIdList *list) {
  EXPECT_NE(list, nullptr) << "error " << NQwError();
  if (list == nullptr) return {};
  const Ids ids(list->objectIds, list->objectIds + list->count);
  NQwDbFreeObjectIdList(list);
  return ids;
}

Ids ordered(Ids ids) {
  std::sort(ids.begin(), ids.end());
  return ids;
}

// Fields of all four types and of two kinds of list; every object has a name.
constexpr uint32_t fields[] = {10, 20, 22, 23, 24, 25, 27};

std::string randomValue(uint32_t field, std::mt19937 &random) {
  const auto number = [&](uint32_t below) { return std::to_string(random() % below); };
  switch (field) {
    case 20:
      return std::string(R"("type":"Boolean","value":)") + (random() % 2 == 0 ? "true" : "false");
    case 22:
      return R"("type":"Integer","value":-)" + number(3);
    case 23:
      return R"("type":"Enumeration","value":)" + number(3);
    case 24:
      return R"("type":"String","value":"text )" + number(3) + "\"";
    case 25:
      return R"("type":"Integer","list":[)" + number(3) + "," + number(3) + "," + number(3) + "]";
    default:
      return R"("type":"String","list":["a)" + number(3) + R"(","a)" + number(3) + "\"]";
  }
}

// Field to value, as in a line of the database; object to these.
using Model = std::map<uint32_t, std::map<uint32_t, Json>>;

class Queries : public CacheTest {
 protected:
  Queries() {
    std::mt19937 random(7);
    Lines lines =
        emptyNetwork() +
        Lines{R"({"table":"field_info","field":27,"name":"Tags","type":"String","flags":1})"};
    for (uint32_t id = 1; id <= 300; ++id) {
      lines = lines + nameLines(id, 10, "object " + std::to_string(id));
      for (const uint32_t field : fields) {
        if (field == 10 || random() % 4 == 0) continue;
        lines.push_back(valueLine(id, field, randomValue(field, random)));
      }
    }
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
    if (stored.contains("list") != wanted.contains("list")) return false;
    if (!stored.contains("list")) return stored["value"] == wanted["value"];
    const auto &entries = stored["list"];
    return wanted["list"].size() <= entries.size() &&
           std::all_of(wanted["list"].begin(), wanted["list"].end(), [&](const Json &entry) {
             return std::find(entries.begin(), entries.end(), entry) != entries.end();
           });
  }

  // The objects that have all these values, in the given order.
  Ids expected(const Ids &order, const std::map<uint32_t, Json> &wanted) const {
    Ids ids;
    for (const uint32_t id : order) {
      const auto &values = model.at(id);
      const bool all = std::all_of(wanted.begin(), wanted.end(), [&](const auto &each) {
        const auto value = values.find(each.first);
        return value != values.end() && matches(value->second, each.second);
      });
      if (all) ids.push_back(id);
    }
    return ids;
  }

  Model model;
};

// Bindings with values of their own, made from lines; in the order of the fields or against it.
class Bindings {
 public:
  explicit Bindings(const std::map<uint32_t, Json> &wanted, bool reversed = false) {
    for (const auto &[field, value] : wanted) {
      Json line = value;
      line["table"] = "value_info";
      line["object"] = 1;
      line["field"] = field;
      const StoredRecord record = recordFromJson(line);
      auto *decoded = static_cast<dbObjectValue *>(
          tableFormats[3].decode(record.bytes.data(), record.bytes.size()));
      bindings_.push_back({field, decoded->value});
      free(decoded);
    }
    if (reversed) std::reverse(bindings_.begin(), bindings_.end());
    list_ = {static_cast<int32_t>(bindings_.size()), bindings_.data()};
  }
  ~Bindings() {
    for (const NQwFieldBinding &binding : bindings_) freeFieldValue(binding.value);
  }
  Bindings(const Bindings &) = delete;
  Bindings &operator=(const Bindings &) = delete;

  NQwFieldBindList *list() { return &list_; }
  const NQwFieldBinding *first() { return bindings_.data(); }

 private:
  std::vector<NQwFieldBinding> bindings_;
  NQwFieldBindList list_{};
};

std::map<uint32_t, Json> randomWish(const Model &model, size_t count, std::mt19937 &random) {
  std::map<uint32_t, Json> wanted;
  while (wanted.size() < count) {
    const uint32_t field = fields[1 + random() % (std::size(fields) - 1)];
    const auto &values = std::next(model.begin(), static_cast<long>(random() % 300))->second;
    if (values.contains(field)) wanted[field] = values.at(field);
  }
  return wanted;
}

TEST_F(Queries, BindListsSelectWhatTheDatabaseSays) {
  loadCaches();
  std::mt19937 random(11);
  const Ids all = take(listObjects(nullptr));
  EXPECT_EQ(all.size(), 300u);
  size_t hits = 0;
  for (int round = 0; round < 200; ++round) {
    for (const size_t count : {2u, 5u}) {
      const auto wanted = randomWish(model, count, random);
      Bindings bindings(wanted, round % 2 == 1);
      const Ids found = take(listObjects(bindings.list()));
      ASSERT_THAT(found, ElementsAreArray(expected(all, wanted)));
      ASSERT_EQ(NQwError(), 0);
      hits += found.size();
    }
  }
  EXPECT_GT(hits, 500u) << "the bindings select too little to tell anything";

  // One binding: in the order in which the values were loaded, the same through either query.
  for (int round = 0; round < 100; ++round) {
    const auto wanted = randomWish(model, 1, random);
    Bindings bindings(wanted);
    Ids order;
    for (FieldValIter item(FieldInfoCache->find(bindings.first()->fieldId)->values);
         item() != nullptr; item++) {
      order.push_back(*item()->objectId);
    }
    const Ids found = expected(order, wanted);
    ASSERT_THAT(take(listObjects(bindings.list())), ElementsAreArray(found));
    ASSERT_THAT(take(objectsWithFieldValue(bindings.first())), ElementsAreArray(found));
  }

  Bindings none({});
  EXPECT_THAT(take(listObjects(none.list())), IsEmpty());
  // A name field among the bindings: at most the one object, and only if the rest fits too.
  const uint32_t id = expected(all, {{22, model[1].contains(22) ? model[1][22] : model[2][22]}})[0];
  const Json name{{"type", "String"}, {"value", "object " + std::to_string(id)}};
  Bindings named({{10, name}, {22, model[id][22]}}), byName({{10, name}});
  EXPECT_THAT(take(listObjects(named.list())), ElementsAre(id));
  EXPECT_THAT(take(objectsWithFieldValue(byName.first())), ElementsAre(id));
  Bindings other({{10, name}, {22, Json{{"type", "Integer"}, {"value", 77}}}});
  EXPECT_THAT(take(listObjects(other.list())), IsEmpty());
}

TEST_F(Queries, BindingsThatCannotMatchAreRefused) {
  loadCaches();
  const Json number{{"type", "Integer"}, {"value", 1}};
  Bindings unknown({{22, number}, {99, number}});
  EXPECT_EQ(listObjects(unknown.list()), nullptr);
  EXPECT_EQ(NQwError(), NQw_FIELD_NOT_FOUND);
  EXPECT_THAT(readFile("/usr/NQ/log/nqw.trace"), HasSubstr("NQw_FIELD_NOF_FOUND"));
  Bindings mismatched({{20, number}, {22, number}}), single({{20, number}});
  EXPECT_EQ(objectsWithFieldValue(single.first()), nullptr);
  EXPECT_EQ(NQwError(), NQw_FIELD_TYPE_MISMATCH);
  EXPECT_EQ(listObjects(mismatched.list()), nullptr);
  EXPECT_EQ(NQwError(), NQw_FIELD_TYPE_MISMATCH);
  int hasName = 7;
  Bindings fine({{22, number}});
  EXPECT_EQ(checkBindings(fine.list(), &hasName), 1);
  EXPECT_EQ(hasName, 0);
}

TEST_F(Queries, NamesLeadToTheirObjects) {
  loadCaches();
  EXPECT_EQ(nameToObjectId(10, "object 42"), 42u);
  EXPECT_EQ(NQwError(), 0);
  EXPECT_EQ(nameToObjectId(10, "object 4200"), 0u);
  EXPECT_EQ(NQwError(), NQw_OBJECT_NOT_FOUND);
  EXPECT_FALSE(exists("/usr/NQ/log/nqw.trace"));
  EXPECT_EQ(nameToObjectId(24, "text 1"), 0u);
  EXPECT_EQ(NQwError(), NQw_FIELD_INVALID_FLAG);
  EXPECT_EQ(nameToObjectId(99, "text 1"), 0u);
  EXPECT_EQ(NQwError(), NQw_FIELD_NOT_FOUND);
  EXPECT_THAT(readFile("/usr/NQ/log/nqw.trace"),
              HasSubstr("NQw_FIELD_NOT_FOUND\\nFIle: internal/iNameToOID\\noid: 99"));
}

TEST_F(Queries, TableSearchesKnowTheirFields) {
  ObjectDatabase *db = loadCaches();
  const Json text{{"type", "String"}, {"value", "nobody"}};
  Bindings nobody({{10, text}}), unknown({{99, text}}), mismatched({{22, text}});
  EXPECT_THAT(take(findObjectsWithValue(db, nobody.first())), IsEmpty());
  EXPECT_EQ(NQwError(), NQw_FIELD_VALUE_NULL);
  EXPECT_EQ(findObjectsWithValue(db, unknown.first()), nullptr);
  EXPECT_EQ(NQwError(), NQw_FIELD_NOT_FOUND);
  EXPECT_EQ(findObjectsWithValues(db, mismatched.list()), nullptr);
  EXPECT_EQ(NQwError(), NQw_FIELD_TYPE_MISMATCH);
  EXPECT_EQ(take(findObjectsWithValues(db, nullptr)).size(), 300u);

  // Every binding sees all objects, so candidates do not stand in a name field's way.
  uint32_t candidate = 3;
  const NQwObjectIdList candidates{1, &candidate};
  Bindings named({{10, Json{{"type", "String"}, {"value", "object 5"}}}});
  EXPECT_THAT(take(findObjectsWithValueIn(db, &candidates, named.first())), ElementsAre(5));
}

// Everything that queries say of a database: with most of it left out of the cache, nothing else
// may come out than with all of it inside.
struct Answers {
  Ids objects;
  std::vector<Ids> byValue, byBindings;
  std::map<uint32_t, uint32_t> byName;
  std::map<uint32_t, std::string> values;

  bool operator==(const Answers &) const = default;
};

Answers askEverything(const Model &model, ObjectDatabase *db) {
  Answers answers;
  // Before the searches, which sort the lists that they compare.
  for (const auto &[id, values] : model) {
    answers.byName[id] = nameToObjectId(10, ("object " + std::to_string(id)).c_str());
    _NQwError = NQw_OBJECT_NOT_FOUND;
    EXPECT_EQ(ensureObjectCached(db, id), 1) << id;
    EXPECT_EQ(NQwError(), NQw_NO_ERROR);
    NQwFieldBindList *bindings = getFieldValues(id);
    for (int32_t i = 0; i < bindings->count; ++i) {
      const dbObjectValue record{id, bindings->bindings[i].fieldId, bindings->bindings[i].value};
      const char *encoded = nullptr;
      size_t length = 0;
      tableFormats[3].encode(&record, &encoded, &length);
      answers.values[id].append(encoded, length);
    }
    NQwDbFreeFieldBindList(bindings);
  }
  std::mt19937 random(13);
  answers.objects = ordered(take(listObjects(nullptr)));
  EXPECT_EQ(ordered(take(objectsWithFieldValue(nullptr))), answers.objects);
  for (int round = 0; round < 40; ++round) {
    Bindings one(randomWish(model, 1, random));
    answers.byValue.push_back(ordered(take(objectsWithFieldValue(one.first()))));
    Bindings three(randomWish(model, 3, random));
    answers.byBindings.push_back(ordered(take(listObjects(three.list()))));
  }
  EXPECT_EQ(nameToObjectId(10, nullptr), 0u);
  EXPECT_EQ(nameToObjectId(10, "object 0"), 0u);
  EXPECT_EQ(NQwError(), NQw_OBJECT_NOT_FOUND);
  return answers;
}

TEST_F(Queries, ALimitedCacheAnswersLikeAWholeOne) {
  const Answers whole = askEverything(model, loadCaches());
  EXPECT_EQ(whole.objects.size(), 300u);
  for (const uint32_t limit : {1u, 20u, 299u, 300u}) {
    SCOPED_TRACE("limit " + std::to_string(limit));
    cleanupCaches(1);
    max_objects_cached = limit;
    objcount = 0;
    cache_overflow = 0;
    ObjectDatabase *db = loadCaches();
    EXPECT_EQ(cache_overflow, limit < 300 ? 1 : 0);
    EXPECT_EQ(objcount, limit);
    EXPECT_EQ(ObjValCache->size(), static_cast<int>(limit));
    EXPECT_TRUE(askEverything(model, db) == whole);
    EXPECT_EQ(ObjValCache->size(), static_cast<int>(limit)) << "eviction keeps to the limit";
    verifyCaches();
  }
}

TEST_F(Queries, WhatIsNotInTheTablesIsNotLoadedOnDemand) {
  max_objects_cached = 20;
  ObjectDatabase *db = loadCaches();
  const Ids before = ordered(take(objectsWithFieldValue(nullptr)));
  EXPECT_EQ(ensureObjectCached(db, 4711), 0);
  EXPECT_EQ(NQwError(), NQw_OBJECT_NOT_FOUND);
  EXPECT_FALSE(ObjValCache->isIn(4711));
  EXPECT_EQ(getFieldValues(4711), nullptr);
  EXPECT_THAT(readFile("/usr/NQ/log/nqw.trace"),
              HasSubstr("NQw_OBJECT_NOT_FOUND\\nFIle: internal/iGetFVs\\noid: 4711"));

  uint32_t absent = 1;
  while (ObjValCache->isIn(absent)) ++absent;
  ++db->fieldCount;
  EXPECT_EQ(ensureObjectCached(db, absent), 1);
  --db->fieldCount;
  EXPECT_THAT(readFile("/usr/NQ/log/nqw.trace"),
              HasSubstr("ptr = null in file internal/util\\ni = 10, while fcache_cnt = 11"));
}

}  // namespace
