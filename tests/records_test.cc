// The byte formats of keys and records, their limits, and damaged records.

#include "records/codecs.h"

#include <gmock/gmock.h>

#include <cstring>
#include <nlohmann/json.hpp>
#include <utility>

#include "platform/report.h"
#include "records/field_codec.h"
#include "records/record_views.h"
#include "records/table_records.h"
#include "support.h"

static int allocationsLeft = -1;  // until one fails; negative when none does
static size_t largestAllocation = 0;

// In front of the C library's and of the address sanitizer's, for every library in the process.
extern "C" {
void *__libc_calloc(size_t count, size_t size);
[[gnu::weak]] void *__interceptor_calloc(size_t count, size_t size);

void *calloc(size_t count, size_t size) noexcept {
  // No call and no reference: the sanitizer that calls this first cannot yet follow them.
  if (count * size > largestAllocation) largestAllocation = count * size;
  if (allocationsLeft >= 0 && allocationsLeft-- == 0) return nullptr;
  return (__interceptor_calloc != nullptr ? __interceptor_calloc : __libc_calloc)(count, size);
}

void *malloc(size_t size) noexcept {
  return calloc(1, size);
}
}

namespace {

struct Golden {
  const char *line;
  const char *key;
  const char *bytes;
};

// Every kind of record and every kind of value, as they lie in existing databases.
const Golden goldens[] = {
    {R"({"table":"id_keeper","counter":5000})", "00000000", "00000001 00001388"},
    {R"({"table":"id_keeper","counter":0})", "00000000", "00000001 00000000"},
    {R"({"table":"field_info","field":20,"name":"abc","type":"Integer","flags":0})", "14000000",
     "00000001 00000001 00000014 00000003 61626300 00000001 00000000"},
    {R"({"table":"field_info","field":20,"name":null,"type":7,"flags":4294967295})", "14000000",
     "00000001 00000001 00000014 ffffffff 00000007 ffffffff"},
    {R"({"table":"obj_info","object":1234,"field":10,"name":"r1"})", "d2040000 0a000000",
     "00000001 000004d2 00000001 0000000a 00000002 72310000"},
    {R"({"table":"name_info","object":7,"field":10,"name":"gw1"})", "0a000000 677731",
     "00000001 00000007 00000001 0000000a 00000003 67773100"},
    {R"({"table":"name_info","object":7,"field":10,"name":""})", "0a000000",
     "00000001 00000007 00000001 0000000a 00000000"},
    {R"({"table":"value_info","object":1234,"field":10,"type":"Integer","value":7})",
     "d2040000 0a000000",
     "00000001 000004d2 00000001 0000000a 00000001 00000000 00000001 00000007"},
    {R"({"table":"value_info","object":4294967295,"field":1,"type":"Boolean","value":true})",
     "ffffffff 01000000",
     "00000001 ffffffff 00000001 00000001 00000001 00000000 00000002 00000001"},
    {R"({"table":"value_info","object":1,"field":1,"type":"Enumeration","value":-2})",
     "01000000 01000000",
     "00000001 00000001 00000001 00000001 00000001 00000000 00000004 fffffffe"},
    {R"({"table":"value_info","object":1,"field":1,"type":"String","value":null})",
     "01000000 01000000",
     "00000001 00000001 00000001 00000001 00000001 00000000 00000003 ffffffff"},
    {R"({"table":"value_info","object":1,"field":1,"type":"String","value":{"hex":"ff"}})",
     "01000000 01000000",
     "00000001 00000001 00000001 00000001 00000001 00000000 00000003 00000001 ff000000"},
    {R"({"table":"value_info","object":1,"field":1,"type":"String","list":["a",""]})",
     "01000000 01000000",
     "00000001 00000001 00000001 00000001 00000001 00000001 00000003 00000002"
     "00000001 61000000 00000000 00000000 00000000"},
    {R"({"table":"value_info","object":1,"field":1,"type":"Integer","list":[3],"entryFlags":[1]})",
     "01000000 01000000",
     "00000001 00000001 00000001 00000001 00000001 00000001 00000001 00000001 00000003 00000001"},
    {R"({"table":"value_info","object":1,"field":1,"type":"Integer","list":[]})",
     "01000000 01000000",
     "00000001 00000001 00000001 00000001 00000001 00000001 00000001 00000000"},
    {R"({"table":"enum_info","field":30,"constants":["up","down"]})", "1e000000",
     "00000001 0000001e 00000002 00000002 75700000 00000004 646f776e"},
};

TEST(Records, LieInTheTablesAsTheyAlwaysHave) {
  for (const Golden &golden : goldens) {
    SCOPED_TRACE(golden.line);
    const StoredRecord record = recordFromJson(Json::parse(golden.line));
    EXPECT_EQ(toHex(record.key), toHex(bytes(golden.key)));
    EXPECT_EQ(toHex(record.bytes), toHex(bytes(golden.bytes)));
    const auto line = recordToJson(record.table, bytes(golden.key), bytes(golden.bytes));
    ASSERT_TRUE(line);
    EXPECT_EQ(line->dump(), golden.line);
  }
}

bool decodes(size_t table, std::string_view stored) {
  // Storage of exactly the record's size lets the address sanitizer see a read behind it.
  const std::vector<char> exact(stored.begin(), stored.end());
  return recordToJson(table, "", {exact.data(), exact.size()}).has_value();
}

TEST(Records, NoTruncatedRecordDecodes) {
  size_t prefixes = 0;
  for (const Golden &golden : goldens) {
    const StoredRecord record = recordFromJson(Json::parse(golden.line));
    for (size_t length = 0; length < record.bytes.size(); ++length, ++prefixes) {
      EXPECT_FALSE(decodes(record.table, record.bytes.substr(0, length)))
          << golden.line << " cut to " << length;
    }
  }
  EXPECT_GT(prefixes, 400u);
}

// Every word of every record replaced by values that a damaged file may hold: nothing but a refusal
// or a record may come of it, and no more memory be asked for than the record may take.
TEST(Records, NoDamagedWordIsFollowed) {
  largestAllocation = 0;
  for (const Golden &golden : goldens) {
    const StoredRecord record = recordFromJson(Json::parse(golden.line));
    for (size_t at = 0; at < record.bytes.size(); at += 4) {
      for (const uint32_t word : {0u, 1u, 2u, 3u, 4u, 5u, 257u, 1001u, 2001u, 0x7FFFFFFFu,
                                  0x80000000u, 0xFFFFFFF0u, 0xFFFFFFFEu, 0xFFFFFFFFu}) {
        std::string damaged = record.bytes;
        for (size_t i = 0; i < 4; ++i) damaged[at + i] = static_cast<char>(word >> (24 - 8 * i));
        decodes(record.table, damaged);
      }
    }
  }
  EXPECT_LT(largestAllocation, 1'000'000u);
}

TEST(Records, OtherVersionsAndTypesAreRefused) {
  const Golden &value = goldens[7];
  const std::string stored = bytes(value.bytes);
  for (const size_t at : {0u, 8u, 16u}) {  // the version words of both ids and of the value
    for (const char version : {0, 2}) {
      std::string other = stored;
      other[at + 3] = version;
      EXPECT_FALSE(decodes(3, other)) << "version " << int{version} << " at " << at;
    }
  }
  for (const char type : {0, 5}) {
    std::string other = stored;
    other[27] = type;
    EXPECT_FALSE(decodes(3, other)) << "type " << int{type};
  }
  EXPECT_FALSE(decodes(2, bytes("00000001 000004d2 00000001 0000000a ffffffff"))) << "no name";
}

bool encodes(const std::string &line) {
  try {
    const StoredRecord record = recordFromJson(Json::parse(line));
    return decodes(record.table, record.bytes);
  } catch (const std::runtime_error &) {
    return false;
  }
}

std::string listOf(size_t count, const char *entry) {
  std::string list;
  for (size_t i = 0; i < count; ++i) list += (i == 0 ? "" : ",") + std::string(entry);
  return "[" + list + "]";
}

TEST(Records, LimitsHoldAtTheirNeighbours) {
  const auto text = [](size_t length) { return R"(")" + std::string(length, 'x') + R"(")"; };
  const auto string = [&](size_t length) {
    return valueLine(1, 1, R"("type":"String","value":)" + text(length));
  };
  const auto definition = [&](size_t length) {
    return R"({"table":"field_info","field":1,"type":1,"flags":0,"name":)" + text(length) + "}";
  };
  const auto name = [&](size_t length) {
    return R"({"table":"name_info","object":1,"field":1,"name":)" + text(length) + "}";
  };
  const auto list = [&](size_t count) {
    return valueLine(1, 1, R"("type":"String","list":)" + listOf(count, R"("y")"));
  };
  const auto constants = [&](size_t count) {
    return R"({"table":"enum_info","field":1,"constants":)" + listOf(count, R"("y")") + "}";
  };
  for (const size_t length : {0u, 1u, 3u, 4u, 5u, 255u, 256u}) {
    EXPECT_TRUE(encodes(string(length)) && encodes(definition(length)) && encodes(name(length)))
        << length;
  }
  EXPECT_FALSE(encodes(string(257)) || encodes(definition(257)) || encodes(name(257)));
  EXPECT_TRUE(encodes(list(0)) && encodes(list(999)) && encodes(list(1000)));
  EXPECT_FALSE(encodes(list(1001)));
  EXPECT_TRUE(encodes(constants(0)) && encodes(constants(1999)) && encodes(constants(2000)));
  EXPECT_FALSE(encodes(constants(2001)));
}

// A single constant may be longer than any buffer that was made ahead.
TEST(Records, ConstantsHaveNoLengthLimit) {
  const std::string line =
      R"({"table":"enum_info","field":1,"constants":[")" + std::string(3'000'000, 'z') + R"("]})";
  const StoredRecord record = recordFromJson(Json::parse(line));
  EXPECT_EQ(recordToJson(record.table, record.key, record.bytes)->dump(), line);
}

TEST(Records, StaticRecordsAreOverwrittenByTheNext) {
  const std::string one = bytes("00000001 00000005");
  const std::string two = bytes("00000001 00000006");
  const auto *first = static_cast<uint32_t *>(decodeDbKey(one.data(), one.size()));
  EXPECT_EQ(decodeDbKey(two.data(), two.size()), first);
  EXPECT_EQ(*first, 6u);

  const std::string a = bytes(goldens[4].bytes);
  const std::string b = bytes(goldens[5].bytes);
  const auto *object = static_cast<dbObject *>(decodeDbObject(a.data(), a.size()));
  EXPECT_STREQ(object->name, "r1");
  EXPECT_EQ(decodeDbObject(b.data(), b.size()), object);
  EXPECT_STREQ(object->name, "gw1");
}

TEST(Records, BothDataFormatsAreTheSameBytes) {
  for (const Golden &golden : goldens) {
    const StoredRecord record = recordFromJson(Json::parse(golden.line));
    if (record.table != 3) continue;
    auto *old = static_cast<dbObjectValue *>(
        decodeDbObjectValueOf(record.bytes.data(), record.bytes.size()));
    ASSERT_NE(old, nullptr);
    // What is read where it lies reads the same.
    const NQwFieldValue &value = *old->value;
    RecordView view{};
    EXPECT_EQ(viewDbObjectValue(record.bytes, &view), value.isList == 0);
    EXPECT_EQ(view.objectId, old->objectId);
    EXPECT_EQ(view.fieldId, old->fieldId);
    if (value.isList == 0) {
      EXPECT_EQ(view.hasText, singleString(&value) != nullptr);
      EXPECT_EQ(view.text, view.hasText ? value.value.string : "");
      EXPECT_EQ(view.value.value.number, view.hasText ? 0 : value.value.number);
    }
    const char *encoded = nullptr;
    size_t length = 0;
    ASSERT_EQ(encodeDbObjectValueOf(old, &encoded, &length), 0);
    EXPECT_EQ(std::string(encoded, length), record.bytes);
    freeDbObjectValueOld(old);
  }
}

// What a client may hold in memory and the wire form changes: flags of single values do not travel,
// and any number but 0 is a Boolean's true.
TEST(Records, OnlyTheWireFormTravels) {
  NQwFieldValue value{0, Boolean, {7}, 1};
  const dbObjectValue record{1, 2, &value};
  const char *encoded = nullptr;
  size_t length = 0;
  ASSERT_EQ(encodeDbObjectValue(&record, &encoded, &length), 0);
  auto *decoded = static_cast<dbObjectValue *>(decodeDbObjectValue(encoded, length));
  EXPECT_EQ(decoded->value->value.number, 1);
  EXPECT_EQ(decoded->value->valueFlag, 0);
  freeDbObjectValue(decoded);

  value.type = 9;
  EXPECT_LT(encodeDbObjectValue(&record, &encoded, &length), 0);
}

TEST(Records, ANullAddressHasNoRecord) {
  XDR stream{};
  stream.x_op = XDR_FREE;
  EXPECT_FALSE(xdr_dbkey(&stream, nullptr) || xdr_fieldValue(&stream, nullptr) ||
               xdr_fieldInfo(&stream, nullptr) || xdr_dbFieldInfo(&stream, nullptr) ||
               xdr_dbObject(&stream, nullptr) || xdr_dbObjectValue(&stream, nullptr) ||
               xdr_dbEnumConstants(&stream, nullptr) || xdr_enumConstants(&stream, nullptr));
}

void release(size_t table, void *record) {
  if (table == 1) freeDbFieldInfo(static_cast<dbFieldInfo *>(record));
  if (table == 3) freeDbObjectValue(static_cast<dbObjectValue *>(record));
  if (table == 5) _NQ_freeit_xdr(static_cast<dbEnumConstants *>(record), xdr_dbEnumConstants);
}

// Runs a step with its first allocation failing, then with its second and so on until none fails:
// that one alone may succeed. The _NQwError behind each failure.
template <typename Step>
std::vector<int> failEachAllocation(Step step) {
  for (std::vector<int> codes;; codes.push_back(_NQwError)) {
    _NQwError = NQw_NO_ERROR;
    allocationsLeft = static_cast<int>(codes.size());
    const bool succeeded = step();
    const bool failed = std::exchange(allocationsLeft, -1) < 0;
    EXPECT_NE(succeeded, failed) << codes.size();
    if (!failed) return codes;
  }
}

TEST(Records, NoFailingAllocationIsOverlooked) {
  testing::internal::CaptureStderr();  // where the XDR library complains of what it cannot have
  size_t failures = 0;
  for (const Golden &golden : goldens) {
    SCOPED_TRACE(golden.line);
    const StoredRecord stored = recordFromJson(Json::parse(golden.line));
    void *record = nullptr;
    const std::vector<int> codes = failEachAllocation([&] {
      record = tableFormats[stored.table].decode(stored.bytes.data(), stored.bytes.size());
      return record != nullptr;
    });
    EXPECT_TRUE(codes.empty() || codes[0] == NQw_NO_MEMORY) << "no code for the record itself";
    release(stored.table, record);
    failures += codes.size();
  }
  EXPECT_GT(failures, 30u);
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "");

  std::string name(5'000'000, 'z');  // longer than any buffer that there is by now
  char *names[] = {name.data()};
  enumConstants constants{1, names};
  const dbEnumConstants record{1, &constants};
  const char *encoded = nullptr;
  size_t length = 0;
  failEachAllocation([&] { return encodeDbEnumConstants(&record, &encoded, &length) == 0; });
  EXPECT_EQ(length, 5'000'016u);
}

TEST(Records, AppendedBindingsAreCopies) {
  char text[] = "abc";
  NQwFieldValue value{0, String, {.string = text}, 0};
  const NQwFieldBinding source{7, &value};
  auto *list = static_cast<NQwFieldBindList *>(calloc(1, sizeof(NQwFieldBindList)));
  list->bindings = static_cast<NQwFieldBinding *>(calloc(3, sizeof(NQwFieldBinding)));
  EXPECT_EQ(appendFieldBinding(appendFieldBinding(list, &source), &source), list);
  ValueListEntry entry{{5}, 0};
  ValueList numbers{1, &entry};
  NQwFieldValue many{1, Integer, {.list = &numbers}, 0};
  const NQwFieldBinding second{8, &many};
  appendFieldBinding(list, &second);
  EXPECT_EQ(list->count, 3);
  EXPECT_NE(list->bindings[2].value->value.list, &numbers);
  EXPECT_EQ(list->bindings[2].value->value.list->entries[0].value.number, 5);
  EXPECT_EQ(list->bindings[1].fieldId, 7u);
  EXPECT_STREQ(list->bindings[1].value->value.string, "abc");
  EXPECT_NE(list->bindings[1].value->value.string, text);
  NQwDbFreeFieldBindList(list);
}

}  // namespace
