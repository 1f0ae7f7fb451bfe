// What the parts of a sweep cost for each value: decoding, entering the cache, storing, deleting.

#include <benchmark/benchmark.h>
#include <malloc.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <vector>

#include "internal/loaders.h"
#include "maint/run.h"
#include "network.h"
#include "records/codecs.h"
#include "records/value_table.h"

namespace {

constexpr uint32_t fields = valuesAnObject;
constexpr uint32_t firstField = everyField;

NQwFieldValue number(uint32_t of) {
  return {0, Integer, {static_cast<int32_t>(of)}, 0};
}

void decodeValue(benchmark::State &state) {
  char text[] = "a value of some length";
  NQwFieldValue value{0, String, {}, 0};
  value.value.string = text;
  const dbObjectValue record{7, firstField, &value};
  const char *bytes = nullptr;
  size_t length = 0;
  encodeDbObjectValue(&record, &bytes, &length);
  const std::vector<char> stored(bytes, bytes + length);
  for (auto _ : state) {
    freeDbObjectValue(static_cast<dbObjectValue *>(decodeDbObjectValue(stored.data(), length)));
  }
}
BENCHMARK(decodeValue);

// Values come in the order of a table's scan: every next one is of another object.
void enterCache(benchmark::State &state) {
  const auto objects = static_cast<uint32_t>(state.range(0));
  size_t heap = 0;
  for (auto _ : state) {
    state.PauseTiming();
    const size_t before = mallinfo2().uordblks;
    ObjValCache = new ObjTable(1500, 3, 3, 0.333f);
    FieldInfoCache = new FieldTable(200, 0, 3, 0.333f);
    FieldNameCache = new FieldNameTbl(200, 3, 3, 0.333f);
    for (uint32_t field = firstField; field < firstField + fields; ++field) {
      auto *info = static_cast<NQwFieldInfo *>(calloc(1, sizeof(NQwFieldInfo)));
      *info = {field, nullptr, Integer, 0};
      addFieldInfo(info);
    }
    state.ResumeTiming();
    for (uint32_t field = firstField; field < firstField + fields; ++field) {
      for (uint32_t i = 0; i < objects; ++i) {
        addObjectValue(1 + i * 7919u % objects, field, newFieldValue(Integer, &i));
      }
    }
    state.PauseTiming();
    heap = mallinfo2().uordblks - before;
    cleanupCaches(1);
    state.ResumeTiming();
  }
  const double values = static_cast<double>(objects) * fields;
  state.counters["a_value"] = benchmark::Counter(
      values, benchmark::Counter::kIsIterationInvariantRate | benchmark::Counter::kInvert);
  state.counters["heap_bytes_a_value"] = static_cast<double>(heap) / values;
}
BENCHMARK(enterCache)->Arg(1'000)->Arg(10'000)->Arg(100'000)->Unit(benchmark::kMillisecond);

struct Key {
  uint32_t objectId;
  uint32_t fieldId;
};

enum Order { byObject, byPlace };

std::vector<Key> keysIn(Order order, uint32_t objects) {
  std::vector<Key> keys;
  for (uint32_t object = 1; object <= objects; ++object) {
    for (uint32_t field = firstField; field < firstField + fields; ++field) {
      keys.push_back({object, field});
    }
  }
  if (order == byPlace) {
    std::stable_sort(keys.begin(), keys.end(), [](const Key &a, const Key &b) {
      return _NQ_dbm_db_order(&a, sizeof a) < _NQ_dbm_db_order(&b, sizeof b);
    });
  }
  return keys;
}

void storeAll(ObjectDatabase *db, const std::vector<Key> &keys) {
  for (const Key &key : keys) {
    NQwFieldValue value = number(key.objectId);
    putValueObject(db, key.objectId, key.fieldId, &value);
  }
}

void setCost(benchmark::State &state, size_t values) {
  state.counters["a_value"] = benchmark::Counter(
      static_cast<double>(values),
      benchmark::Counter::kIsIterationInvariantRate | benchmark::Counter::kInvert);
}

constexpr uint32_t tableObjects = 50'000;

// The arguments: whether under bulk access, and the order.
void storeValues(benchmark::State &state) {
  const std::vector<Key> keys = keysIn(static_cast<Order>(state.range(1)), tableObjects);
  for (auto _ : state) {
    std::filesystem::remove_all("/usr/NQ/databases");
    ObjectDatabase *db = open_nqwdb_ndbm(0);
    if (state.range(0) != 0) startBuffering(db);
    storeAll(db, keys);
    if (state.range(0) != 0) stopBuffering(db);
    close_nqwdb_ndbm(db);
  }
  setCost(state, keys.size());
}
BENCHMARK(storeValues)
    ->ArgNames({"bulk", "by_place"})
    ->Args({0, byObject})
    ->Args({1, byObject})
    ->Args({1, byPlace})
    ->Unit(benchmark::kMillisecond);

// The argument: whether under bulk access, which carries deletions out when it stops.
void deleteValues(benchmark::State &state) {
  const std::vector<Key> keys = keysIn(byObject, tableObjects);
  for (auto _ : state) {
    state.PauseTiming();
    std::filesystem::remove_all("/usr/NQ/databases");
    ObjectDatabase *db = open_nqwdb_ndbm(0);
    startBuffering(db);
    storeAll(db, keys);
    stopBuffering(db);
    close_nqwdb_ndbm(db);
    db = open_nqwdb_ndbm(0);
    state.ResumeTiming();
    if (state.range(0) != 0) startBuffering(db);
    for (const Key &key : keys) delValueObject(db, key.objectId, key.fieldId);
    if (state.range(0) != 0) stopBuffering(db);
    close_nqwdb_ndbm(db);
  }
  setCost(state, keys.size());
}
BENCHMARK(deleteValues)->ArgName("bulk")->Arg(0)->Arg(1)->Unit(benchmark::kMillisecond);

// What a load of value_info takes, and what of that is the look at the structure of its file.
void readValues(benchmark::State &state) {
  std::filesystem::remove_all("/usr/NQ/databases");
  ObjectDatabase *db = open_nqwdb_ndbm(0);
  startBuffering(db);
  storeAll(db, keysIn(byPlace, tableObjects));
  stopBuffering(db);
  for (auto _ : state) {
    uint64_t values = 0;
    if (state.range(0) != 0) {
      _NQ_dbm_db_count(db->valueInfoDb, &values);
    } else {
      DbmRecord record;
      db->valueInfoDb->first = 1;
      while (_NQ_dbm_db_getnext_raw(db->valueInfoDb, &record)) ++values;
    }
    benchmark::DoNotOptimize(values);
  }
  close_nqwdb_ndbm(db);
  setCost(state, size_t{tableObjects} * fields);
}
BENCHMARK(readValues)->ArgName("structure_alone")->Arg(0)->Arg(1)->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
