// What it costs to delete every object of a database, caches and tables included, for each value of
// 10,000 objects and of 100,000 with ten values each. Deleting must stay linear: the ratio is what
// counts, the times belong to the machine.
//
// Run it through script/bench: it works on the platform's real paths.

#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <vector>

#include "internal/iListO.h"
#include "internal/loaders.h"
#include "maint/delete_object.h"
#include "maint/run.h"
#include "records/value_table.h"
#include "store/id_keeper.h"
#include "store/name_table.h"
#include "store/shared_database.h"

namespace {

constexpr uint32_t valuesPerObject = 10;  // a name, the protocol's Boolean and eight Integers
constexpr uint32_t protocolField = 20;
constexpr uint32_t endOfFields = protocolField + valuesPerObject - 1;

int32_t typeOf(uint32_t field) {
  return field == protocolField ? Boolean : Integer;
}

constexpr int rounds = 5;

void build(ObjectDatabase *db, uint32_t objects) {
  char name[32];
  for (uint32_t field = protocolField; field < endOfFields; ++field) {
    snprintf(name, sizeof name, "Field %u", field);
    NQwFieldInfo info{field, name, typeOf(field), 1};
    storeFieldInfo(db, field, &info);
  }
  for (uint32_t object = 1; object <= objects; ++object) {
    snprintf(name, sizeof name, "object-%u", object);
    putNameObject(db, object, 10, name);
    for (uint32_t field = protocolField; field < endOfFields; ++field) {
      NQwFieldValue value{0, typeOf(field), {static_cast<int32_t>(object)}, 0};
      putValueObject(db, object, field, &value);
    }
  }
}

// Nanoseconds a value, in the order in which a sweep of the protocol deletes.
double deleteAll(uint32_t objects) {
  ObjectDatabase *db = nqwDbGetDb(0);
  ObjValCache = new ObjTable(1500, 3, 3, 0.333f);
  buildEnumTable(db);
  buildFieldInfoTable(db);
  loadObjectNames(db);
  loadObjectValues(db);
  NQwFieldValue isTrue{0, Boolean, {1}, 0};
  const NQwFieldBinding query{protocolField, &isTrue};
  NQwObjectIdList *ids = objectsWithFieldValue(&query);
  const auto start = std::chrono::steady_clock::now();
  for (int32_t i = 0; i < ids->count; ++i) {
    if (_nqwDbDeleteObject(ids->objectIds[i]) != 0) abort();
  }
  const std::chrono::duration<double, std::nano> taken = std::chrono::steady_clock::now() - start;
  if (ids->count != static_cast<int32_t>(objects) || ObjValCache->size() != 0) abort();
  return taken.count() / (static_cast<double>(objects) * valuesPerObject);
}

// One process makes the tables and another, like a run, opens and empties them.
double measure(uint32_t objects) {
  if (system("rm -rf /usr/NQ/databases") != 0) abort();
  if (fork() == 0) {
    build(nqwDbGetDb(0), objects);
    _exit(0);
  }
  wait(nullptr);
  int ends[2];
  if (pipe(ends) != 0) abort();
  if (fork() == 0) {
    const double cost = deleteAll(objects);
    if (write(ends[1], &cost, sizeof cost) != sizeof cost) abort();
    _exit(0);
  }
  double cost = 0;
  if (read(ends[0], &cost, sizeof cost) != sizeof cost) abort();
  close(ends[0]);
  close(ends[1]);
  wait(nullptr);
  return cost;
}

double median(std::vector<double> values) {
  std::sort(values.begin(), values.end());
  return values[values.size() / 2];
}

}  // namespace

int main() {
  std::vector<double> few, many, ratios;
  for (int round = 0; round < rounds; ++round) {
    few.push_back(measure(10'000));
    many.push_back(measure(100'000));
    ratios.push_back(many.back() / few.back());
    printf("round %d: %6.0f ns a value of 10,000 objects, %6.0f of 100,000, ratio %.2f\n",
           round + 1, few.back(), many.back(), ratios.back());
  }
  printf(
      "median:  %6.0f ns a value of 10,000 objects, %6.0f of 100,000, ratio %.2f (at most 1.5)\n",
      median(few), median(many), median(ratios));
}
