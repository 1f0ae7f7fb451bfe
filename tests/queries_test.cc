// What the queries promise beyond the answers that find and show give (find_show_test.cc): error
// codes, traces, one object for a name, and what a limited cache holds.

#include <gmock/gmock.h>

#include "internal/iGetFVs.h"
#include "internal/iListO.h"
#include "internal/iNameToOID.h"
#include "internal/loaders.h"
#include "internal/object_ids.h"
#include "internal/util.h"
#include "internal/value_search.h"
#include "maint/run.h"
#include "platform/report.h"
#include "support.h"

namespace {

using testing::AllOf;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;

using Ids = std::vector<uint32_t>;

Ids take(NQwObjectIdList *list) {
  EXPECT_NE(list, nullptr) << "error " << NQwError();
  const ObjectIds owned(list);
  return list == nullptr ? Ids{} : Ids(list->objectIds, list->objectIds + list->count);
}

class Queries : public CacheTest {
 protected:
  // Object 8 shares the name of 7.
  Queries() {
    Lines lines = emptyNetwork();
    for (uint32_t id = 1; id <= 30; ++id) {
      Lines names = nameLines(id, 10, "object " + std::to_string(id == 8 ? 7 : id));
      if (id == 8) names.pop_back();
      lines = lines + names + nameLines(id, 11, "host " + std::to_string(id)) +
              Lines{valueLine(id, 22, R"("type":"Integer","value":1)")};
    }
    load(lines);
  }
};

// Bindings of one number and one text each.
struct Bindings {
  Bindings(uint32_t numberField, int32_t number, uint32_t textField, std::string content)
      : text(std::move(content)),
        values{{0, Integer, {number}, 0}, {0, String, {.string = text.data()}, 0}},
        bindings{{numberField, &values[0]}, {textField, &values[1]}} {}

  std::string text;
  NQwFieldValue values[2];
  NQwFieldBinding bindings[2];
  NQwFieldBindList both{2, bindings}, onNumber{1, &bindings[0]}, onText{1, &bindings[1]};
};

TEST_F(Queries, ANameSelectsOneObjectUnlessItIsAskedForAlone) {
  ObjectDatabase *db = loadCaches();
  Bindings twins(22, 1, 10, "object 7"), other(22, 2, 10, "object 7");
  const Ids all = take(listObjects(&twins.onText));
  ASSERT_THAT(all, testing::UnorderedElementsAre(7, 8));
  EXPECT_THAT(take(objectsWithFieldValue(&twins.bindings[1])), ElementsAre(all[0]));
  EXPECT_EQ(take(listObjects(&twins.both)).size(), 1u);
  EXPECT_THAT(take(listObjects(&other.both)), IsEmpty());

  // Every binding sees all objects, so candidates do not stand in a name field's way.
  Bindings named(22, 1, 10, "object 5");
  uint32_t candidate = 3;
  const NQwObjectIdList candidates{1, &candidate};
  EXPECT_THAT(take(findObjectsWithValueIn(db, &candidates, &named.bindings[1])), ElementsAre(5));
  EXPECT_THAT(take(findObjectsWithValues(db, &named.both)), ElementsAre(5));
  EXPECT_EQ(take(findObjectsWithValues(db, nullptr)).size(), 30u);
  NQwFieldBindList none{0, nullptr};
  EXPECT_THAT(take(listObjects(&none)), IsEmpty());
  EXPECT_THAT(take(findObjectsWithValues(db, &none)), IsEmpty());
  int hasName = 7;
  EXPECT_EQ(checkBindings(&named.onNumber, &hasName), 1);
  EXPECT_EQ(hasName, 0);
  EXPECT_EQ(checkBindings(&named.both, &hasName), 1);
  EXPECT_EQ(hasName, 1);
}

TEST_F(Queries, BindingsThatCannotMatchAreRefused) {
  ObjectDatabase *db = loadCaches();
  Bindings unknown(22, 1, 99, "x"), mismatched(20, 1, 24, "x"), nobody(22, 1, 10, "nobody");
  const auto errorOf = [](const NQwObjectIdList *list) {
    EXPECT_EQ(list, nullptr);
    return std::exchange(_NQwError, 0);
  };
  EXPECT_EQ(errorOf(listObjects(&mismatched.both)), NQw_FIELD_TYPE_MISMATCH);
  EXPECT_THAT(readFile("/usr/NQ/log/nqw.trace"),
              AllOf(HasSubstr("NQw_FIELD_TYPE_MISMATCH"), Not(HasSubstr("NQw_FIELD_NOF_FOUND"))));
  EXPECT_EQ(errorOf(listObjects(&unknown.both)), NQw_FIELD_NOT_FOUND);
  EXPECT_THAT(readFile("/usr/NQ/log/nqw.trace"), HasSubstr("NQw_FIELD_NOF_FOUND"));
  EXPECT_EQ(errorOf(findObjectsWithValue(db, &unknown.bindings[1])), NQw_FIELD_NOT_FOUND);
  EXPECT_EQ(errorOf(objectsWithFieldValue(&mismatched.bindings[0])), NQw_FIELD_TYPE_MISMATCH);
  EXPECT_EQ(errorOf(findObjectsWithValues(db, &mismatched.onNumber)), NQw_FIELD_TYPE_MISMATCH);
  EXPECT_THAT(take(findObjectsWithValue(db, &nobody.bindings[1])), IsEmpty());
  EXPECT_EQ(NQwError(), NQw_FIELD_VALUE_NULL);
}

TEST_F(Queries, NamesLeadToTheirObjects) {
  loadCaches();
  EXPECT_EQ(nameToObjectId(10, "object 12"), 12u);
  EXPECT_EQ(NQwError(), 0);
  for (const char *name : {"object 4200", static_cast<const char *>(nullptr)}) {
    EXPECT_EQ(nameToObjectId(10, name), 0u);
    EXPECT_EQ(NQwError(), NQw_OBJECT_NOT_FOUND);
  }
  EXPECT_FALSE(exists("/usr/NQ/log/nqw.trace"));
  EXPECT_EQ(nameToObjectId(24, "text 1"), 0u);
  EXPECT_EQ(NQwError(), NQw_FIELD_INVALID_FLAG);
  EXPECT_EQ(nameToObjectId(99, "text 1"), 0u);
  EXPECT_EQ(NQwError(), NQw_FIELD_NOT_FOUND);
  EXPECT_THAT(readFile("/usr/NQ/log/nqw.trace"),
              HasSubstr("NQw_FIELD_NOT_FOUND\\nFIle: internal/iNameToOID\\noid: 99"));
}

TEST_F(Queries, ALimitedCacheKeepsToItsLimit) {
  max_objects_cached = 30;
  loadCaches();
  EXPECT_EQ(cache_overflow, 0) << "all have room";
  EXPECT_EQ(ObjValCache->find(7)->values->size(), 3) << "with their second names";
  EXPECT_EQ(nameToObjectId(11, "host 9"), 9u);
  cleanupCaches(1);
  max_objects_cached = 5;
  objcount = 0;
  ObjectDatabase *db = loadCaches();
  EXPECT_EQ(cache_overflow, 1);
  EXPECT_EQ(objcount, 5u);
  for (uint32_t id = 1; id <= 30; ++id) {
    _NQwError = NQw_OBJECT_NOT_FOUND;
    EXPECT_EQ(ensureObjectCached(db, id), 1) << id;
    EXPECT_EQ(NQwError(), NQw_NO_ERROR);
    EXPECT_EQ(ObjValCache->size(), 5);
    NQwFieldBindList *values = getFieldValues(id);
    EXPECT_EQ(values->count, 3);
    NQwDbFreeFieldBindList(values);
  }
  EXPECT_EQ(nameToObjectId(10, "object 9"), 9u);
  EXPECT_EQ(NQwError(), NQw_NO_ERROR);
  for (const char *name : {"nobody", static_cast<const char *>(nullptr)}) {
    EXPECT_EQ(nameToObjectId(10, name), 0u);
    EXPECT_EQ(NQwError(), NQw_OBJECT_NOT_FOUND);
  }

  EXPECT_EQ(ensureObjectCached(db, 4711), 0);
  EXPECT_EQ(NQwError(), NQw_OBJECT_NOT_FOUND);
  EXPECT_FALSE(ObjValCache->isIn(4711));
  EXPECT_EQ(getFieldValues(4711), nullptr);
  EXPECT_THAT(readFile("/usr/NQ/log/nqw.trace"),
              HasSubstr("NQw_OBJECT_NOT_FOUND\\nFIle: internal/iGetFVs\\noid: 4711"));
  EXPECT_THAT(readFile("/usr/NQ/log/nqw.trace"), Not(HasSubstr("ptr = null")));
  ++db->fieldCount;
  EXPECT_EQ(ensureObjectCached(db, 1), 1);
  --db->fieldCount;
  EXPECT_THAT(readFile("/usr/NQ/log/nqw.trace"),
              HasSubstr("ptr = null in file internal/util\\ni = 9, while fcache_cnt = 10"));
}

}  // namespace
