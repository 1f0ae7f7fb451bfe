// The caches, how they are filled, and what is asked of them.

#include <gmock/gmock.h>

#include <algorithm>
#include <numeric>
#include <random>
#include <utility>
#include <vector>

#include "internal/bulk_load.h"
#include "internal/iGetFV.h"
#include "internal/iGetFVs.h"
#include "internal/iListO.h"
#include "internal/iNameToOID.h"
#include "internal/loaders.h"
#include "internal/object_ids.h"
#include "internal/stored_values.h"
#include "internal/util.h"
#include "platform/report.h"
#include "records/table_records.h"
#include "support.h"

namespace {

using testing::ElementsAre;
using testing::HasSubstr;

class Caches : public CacheTest {};

std::vector<uint32_t> idsOf(NQwObjectIdList *list) {
  if (list == nullptr) return {0};  // no object has this id
  std::vector<uint32_t> ids(list->objectIds, list->objectIds + list->count);
  NQwDbFreeObjectIdList(list);
  return ids;
}

std::vector<uint32_t> fieldsOf(uint32_t objectId) {
  std::vector<uint32_t> fields;
  for (FieldValIter item(ObjValCache->find(objectId)->values); item() != nullptr; item++) {
    fields.push_back(item()->field->fieldId);
  }
  return fields;
}

std::vector<int32_t> numbersOf(uint32_t objectId) {
  std::vector<int32_t> numbers;
  for (FieldValIter item(ObjValCache->look(objectId)->values); item() != nullptr; item++) {
    numbers.push_back(item()->value->value.number);
  }
  return numbers;
}

std::vector<uint32_t> recency() {
  std::vector<uint32_t> ids;
  for (RecencyIter object(ObjValCache); object() != nullptr; object++) {
    ids.push_back(*object()->objectId);
  }
  return ids;
}

void add(uint32_t objectId, uint32_t fieldId, int32_t number) {
  enterOrRelease(objectId, fieldId, newFieldValue(Integer, &number));
}

const Lines network = emptyNetwork() + nameLines(1, 10, "alpha") + nameLines(2, 10, "beta") +
                      nameLines(2, 11, "beta.example") +
                      Lines{valueLine(1, 20, R"("type":"Boolean","value":true)"),
                            valueLine(2, 20, R"("type":"Boolean","value":false)"),
                            valueLine(3, 20, R"("type":"Boolean","value":true)"),
                            valueLine(1, 22, R"("type":"Integer","value":100)"),
                            valueLine(1, 25, R"("type":"Integer","list":[3,1,2])")};

TEST_F(Caches, TheNewestObjectIsTheOneLastFound) {
  load(emptyNetwork());
  loadCaches();
  EXPECT_EQ(ObjValCache->oldest(), nullptr);
  EXPECT_EQ(ObjValCache->newest(), nullptr);
  EXPECT_TRUE(recency().empty());
  for (const uint32_t id : {1u, 2u, 3u, 4u}) add(id, 22, 0);
  EXPECT_THAT(recency(), ElementsAre(4, 3, 2, 1));
  ObjValCache->find(4);
  EXPECT_THAT(recency(), ElementsAre(4, 3, 2, 1));
  ObjValCache->find(2);
  EXPECT_THAT(recency(), ElementsAre(2, 4, 3, 1));
  EXPECT_TRUE(ObjValCache->isIn(1));
  EXPECT_EQ(ObjValCache->find(9), nullptr);
  EXPECT_THAT(recency(), ElementsAre(2, 4, 3, 1));
  EXPECT_EQ(*ObjValCache->oldest()->objectId, 1u);

  CachedValue *item = FieldValIter(ObjValCache->find(4)->values)();
  ObjCacheEntry *object = ObjValCache->newest();
  unlinkCachedValue(object, FieldInfoCache->find(22), item);
  NQwDbFreeFieldValue(item->value);
  free(item);
  ObjValCache->remove(object);
  EXPECT_EQ(object->next, nullptr);
  ObjValCache->insert(object);
  destroyCachedObject(object);
  EXPECT_THAT(recency(), ElementsAre(2, 3, 1));

  // An entry that its maker has put together of pieces is the table's like any other.
  auto *made = static_cast<ObjCacheEntry *>(calloc(1, sizeof(ObjCacheEntry)));
  made->objectId = static_cast<uint32_t *>(calloc(1, sizeof(uint32_t)));
  *made->objectId = 8;
  made->values = new FieldValList(&CachedValue::inObject);
  ObjValCache->insert(made);
  add(8, 22, 0);
  EXPECT_THAT(recency(), ElementsAre(8, 2, 3, 1));
  CachedValue stranger{};
  made->values->remove(&stranger);  // is in no list: nothing happens
  EXPECT_THAT(fieldsOf(8), ElementsAre(22));
}

TEST_F(Caches, AnObjectsValuesAscendAndSecondValuesGoToTheEnd) {
  load(emptyNetwork());
  loadCaches();
  for (const uint32_t field : {24u, 22u, 25u, 23u, 22u, 24u, 10u}) add(1, field, 0);
  EXPECT_THAT(fieldsOf(1), ElementsAre(10, 22, 23, 24, 25, 22, 24));
  add(1, 99, 0);  // no definition: counted, not entered
  add(2, 99, 0);
  EXPECT_EQ(loadLosses.leftOut.size(), 2u);
  EXPECT_TRUE(fieldsOf(2).empty()) << "the object is there all the same";
}

// The orders that a load leaves are those of adding one value after the other.
TEST_F(Caches, ManyValuesAtOnceHaveTheOrdersOfOneByOne) {
  constexpr uint32_t shift = 1000;  // from an object to its twin that is loaded at once
  load(emptyNetwork());
  loadCaches();
  std::mt19937 random(5);
  for (int round = 0; round < 100; ++round) {
    const uint32_t first = 10'000 * (round + 1), objects = 1 + random() % 40;
    std::vector<std::pair<uint32_t, uint32_t>> values(random() % 200);
    for (auto &[object, field] : values) {
      object = first + random() % objects;
      field = 22 + random() % (round % 2 == 0 ? 5 : 6);  // 27 has no definition
    }
    for (int32_t i = 0; const auto &[object, field] : values) add(object, field, i++);
    std::vector<uint32_t> oneByOne = recency();
    oneByOne.resize(std::min<size_t>(oneByOne.size(), objects));
    std::vector<uint32_t> leftOut;
    BulkLoad load(&leftOut);
    for (int32_t i = 0; const auto &[object, field] : values) {
      load.add(object + shift, field, storeValue(ObjValCache, {0, Integer, {i++}, 0}));
    }
    load.finish();
    const auto isUnknown = [](const auto &value) { return value.second == 27; };
    ASSERT_EQ(leftOut.size(), std::count_if(values.begin(), values.end(), isUnknown));
    const std::vector<uint32_t> atOnce = recency();
    for (size_t i = 0; i < oneByOne.size() && oneByOne[i] >= first; ++i) {
      ASSERT_EQ(atOnce[i], oneByOne[i] + shift);
      EXPECT_EQ(numbersOf(oneByOne[i] + shift), numbersOf(oneByOne[i])) << round;
    }
  }
  verifyCaches();
}

TEST_F(Caches, ALoadTakesTheWholeDatabase) {
  load(network + Lines{valueLine(4, 99, R"("type":"Integer","value":1)")});
  loadCaches();
  EXPECT_EQ(ObjValCache->size(), 4);
  EXPECT_THAT(fieldsOf(1), ElementsAre(10, 20, 22, 25));
  EXPECT_THAT(fieldsOf(2), ElementsAre(10, 11, 20));
  EXPECT_TRUE(fieldsOf(4).empty());
  EXPECT_EQ(loadLosses.unreadable, 0u);
  EXPECT_EQ(loadLosses.leftOut.size(), 1u);
  const auto *status = static_cast<enumConstants *>(enumconstantstable->find(wordKey(23))->data());
  ASSERT_EQ(status->count, 2u);
  EXPECT_STREQ(status->names[1], "down");
  EXPECT_EQ(SFieldInfoCache->size() + cache_snapshots, 0);
  EXPECT_EQ(mapsManagedFldId + mapsExistsFldId, 0u);

  // A field's list keeps the order of the scan.
  std::vector<uint32_t> scanned, listed;
  for (const std::string &key : scanKeys("value_info")) {
    uint32_t words[2];
    memcpy(words, key.data(), sizeof words);
    if (words[1] == 20) scanned.push_back(words[0]);
  }
  for (FieldValIter item(FieldInfoCache->find(20)->values); item() != nullptr; item++) {
    listed.push_back(*item()->objectId);
  }
  EXPECT_EQ(listed, scanned);
}

TEST_F(Caches, OddDefinitionsAndUnreadableRecordsDoNotStopALoad) {
  load(network +
       Lines{R"({"table":"field_info","field":40,"name":null,"type":1,"flags":2})",
             R"({"table":"field_info","field":41,"name":"NQW Maps Managed","type":1,"flags":0})",
             R"({"table":"field_info","field":42,"name":"NQW Maps Exists","type":1,"flags":0})",
             R"({"table":"field_info","field":24,"name":"again","type":1,"flags":0,"key":"00"})",
             R"({"table":"enum_info","field":23,"constants":["x"],"key":"00"})"});
  ObjectDatabase *db = open_nqwdb_ndbm(0);
  for (NQ_dbm_db *table : {db->objInfoDb, db->valueInfoDb, db->fieldInfoDb, db->enumInfoDb}) {
    ASSERT_EQ(_NQ_dbm_db_store_raw(table, "damaged", "damaged"), 0);
  }
  close_nqwdb_ndbm(db);
  loadCaches();
  EXPECT_EQ(loadLosses.unreadable, 4u);
  EXPECT_EQ(ObjValCache->size(), 3);
  EXPECT_EQ(mapsManagedFldId, 41u);
  EXPECT_EQ(mapsExistsFldId, 42u);
  EXPECT_NE(FieldInfoCache->find(40), nullptr);
}

TEST_F(Caches, FieldsAreFoundByNameAndId) {
  load(network);
  loadCaches();
  EXPECT_EQ(fieldNameToId("isQRT Session"), 20u);
  EXPECT_EQ(NQwError(), 0);
  for (const char *name : {"isqrt session", static_cast<const char *>(nullptr)}) {
    EXPECT_EQ(fieldNameToId(name), 0u);
    EXPECT_EQ(NQwError(), NQw_FIELD_NOT_FOUND);
  }
  EXPECT_FALSE(exists("/usr/NQ/log/nqw.trace"));
  EXPECT_STREQ(getCachedFieldInfo(22)->name, "Speed");
  EXPECT_EQ(getCachedFieldInfo(9), nullptr);
  EXPECT_THAT(readFile("/usr/NQ/log/nqw.trace"), HasSubstr("NQw_FIELD_NOT_FOUND"));

  for (const char *name : {"first", "second"}) {
    auto *info = static_cast<NQwFieldInfo *>(malloc(sizeof(NQwFieldInfo)));
    *info = {77, strdup(name), Integer, 0};
    EXPECT_EQ(addFieldInfo(info), 1);
  }
  EXPECT_EQ(fieldNameToId("first"), 77u);
  EXPECT_EQ(fieldNameToId("second"), 0u);
  FieldCacheEntry *entry = FieldInfoCache->find(77);
  FieldInfoCache->remove(77);
  EXPECT_EQ(FieldInfoCache->find(77), nullptr);
  FieldInfoCache->insert(entry);
}

TEST_F(Caches, ValuesMatchByTypeFirst) {
  load(network);
  loadCaches();
  const auto value = [](int32_t isList, int32_t type, ValueWord word) {
    return NQwFieldValue{isList, type, word, 0};
  };
  char a[] = "a", sameA[] = "a", b[] = "b";
  NQwFieldValue values[] = {value(0, Integer, {1}), value(0, Boolean, {1}),
                            value(0, Enumeration, {1}), value(0, String, {.string = a}),
                            value(0, String, {.string = b})};
  for (size_t i = 0; i < std::size(values); ++i) {
    for (size_t j = 0; j < std::size(values); ++j) {
      EXPECT_EQ(fieldValuesMatch(&values[i], &values[j]), i == j) << i << " against " << j;
    }
  }
  NQwFieldValue same = value(0, String, {.string = sameA}), null = value(0, String, {});
  EXPECT_TRUE(fieldValuesMatch(&values[3], &same));
  EXPECT_FALSE(fieldValuesMatch(&null, &null) || fieldValuesMatch(&values[3], &null));
  NQwFieldValue unknown = value(0, 9, {1}), unknownList = value(1, 9, {});
  EXPECT_FALSE(fieldValuesMatch(&unknownList, &unknownList));
  EXPECT_FALSE(exists("/usr/NQ/log/nqw.trace")) << "only single values are traced";
  EXPECT_FALSE(fieldValuesMatch(&unknown, &unknown));
  EXPECT_THAT(readFile("/usr/NQ/log/nqw.trace"), HasSubstr("NQW_FIELD_INVALID_TYPE."));
}

TEST_F(Caches, AListMatchesWhenItContainsTheOther) {
  load(network);
  loadCaches();
  struct Case {
    int32_t type;
    std::vector<int32_t> have, want;
    bool matches;
  };
  const Case cases[] = {
      {Integer, {3, -1, 2}, {3, 2}, true}, {Integer, {3, -1, 2}, {}, true},
      {Integer, {3, -1, 2}, {4}, false},   {Integer, {1}, {1, 1}, false},
      {Integer, {5, 5}, {5, 5}, true},     {Integer, {}, {}, true},
      {Integer, {9, 8}, {0}, false},       {Boolean, {1}, {1}, false},
      {Enumeration, {1, 2}, {1}, false},
  };
  for (const Case &each : cases) {
    std::vector<ValueListEntry> have, want;
    for (const int32_t number : each.have) have.push_back({{number}, 0});
    for (const int32_t number : each.want) want.push_back({{number}, 0});
    ValueList haveList{static_cast<uint32_t>(have.size()), have.data()};
    ValueList wantList{static_cast<uint32_t>(want.size()), want.data()};
    NQwFieldValue cached{1, each.type, {.list = &haveList}, 0};
    NQwFieldValue query{1, each.type, {.list = &wantList}, 0};
    EXPECT_EQ(fieldValuesMatch(&cached, &query), each.matches);
    NQwFieldValue single{0, each.type, {1}, 0};
    EXPECT_FALSE(fieldValuesMatch(&cached, &single) || fieldValuesMatch(&single, &query));
  }
  char x[] = "x", y[] = "y";
  ValueListEntry have[] = {{{.string = y}, 0}, {{.string = nullptr}, 0}, {{.string = x}, 0}};
  ValueListEntry want[] = {{{.string = x}, 0}};
  ValueList haveList{3, have}, wantList{1, want};
  NQwFieldValue cached{1, String, {.list = &haveList}, 0}, query{1, String, {.list = &wantList}, 0};
  EXPECT_TRUE(listContains(&cached, &query));
  EXPECT_EQ(have[0].value.string, nullptr);
  EXPECT_EQ(have[2].value.string, y) << "the cached list stays sorted";
  query.type = Integer;
  EXPECT_FALSE(listContains(&cached, &query));
  query.type = String;
  want[0].value.string = nullptr;
  EXPECT_FALSE(listContains(&cached, &query)) << "a null string is like nothing";
}

TEST_F(Caches, ObjectsAreListedNewestFirst) {
  load(network);
  loadCaches();
  for (const uint32_t id : {3u, 1u, 2u}) ObjValCache->find(id);
  EXPECT_THAT(idsOf(listObjects(nullptr)), ElementsAre(2, 1, 3));
  EXPECT_THAT(idsOf(objectsWithFieldValue(nullptr)), ElementsAre(2, 1, 3));
}

TEST_F(Caches, SingleValuesComeFromTheCache) {
  load(network);
  loadCaches();
  CachedValue *item = findObjectValue(1, 22);
  ASSERT_NE(item, nullptr);
  EXPECT_EQ(item->value->value.number, 100);
  EXPECT_EQ(NQwError(), 0);
  EXPECT_EQ(*ObjValCache->newest()->objectId, 1u);
  EXPECT_EQ(getCachedFieldValue(1, 22), item->value);
  EXPECT_EQ(getCachedFieldValue(1, 24), nullptr);
  EXPECT_EQ(getCachedFieldValue(9, 22), nullptr);
  EXPECT_EQ(findObjectValue(1, 24), nullptr);
  EXPECT_EQ(NQwError(), NQw_FIELD_VALUE_NULL);
  EXPECT_FALSE(exists("/usr/NQ/log/nqw.trace"));
  EXPECT_EQ(findObjectValue(9, 22), nullptr);
  EXPECT_EQ(NQwError(), NQw_OBJECT_NOT_FOUND);
  EXPECT_THAT(readFile("/usr/NQ/log/nqw.trace"),
              HasSubstr("NQw_OBJECT_NOT_FOUND\\nFIle: internal/iGetFV\\noid: 9"));
}

}  // namespace
