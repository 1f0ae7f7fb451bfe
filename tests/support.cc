#include "support.h"

#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <set>
#include <sstream>

#include "internal/loaders.h"
#include "maint/run.h"
#include "store/shared_database.h"

namespace fs = std::filesystem;

PlatformTest::PlatformTest() {
  if (getenv("DBSWEEP_PRIVATE") == nullptr) {
    fprintf(stderr, "run this through script/in_namespace\n");
    abort();
  }
  for (const char *directory : {"bin", "conf", "log", "tmp"}) {
    fs::create_directories(fs::path("/usr/NQ") / directory);
  }
  static const std::string path = std::string(DBSWEEP_BIN_DIR) + ":" + getenv("PATH");
  setenv("PATH", path.c_str(), 1);
}

CacheTest::~CacheTest() {
  verifyCaches();
  cleanupCaches(1);
}

Outcome run(const std::string &command, const std::string &input) {
  writeFile("/usr/NQ/tmp/in", input);
  const std::string line =
      "{ " + command + "\n} </usr/NQ/tmp/in >/usr/NQ/tmp/out 2>/usr/NQ/tmp/err";
  const int status = system(line.c_str());
  return {WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status),
          readFile("/usr/NQ/tmp/out"), readFile("/usr/NQ/tmp/err")};
}

void load(const Lines &lines) {
  std::string input;
  for (const std::string &line : lines) input += line + "\n";
  const Outcome outcome = run("objdb load --unsealed", input);
  ASSERT_EQ(outcome.status, 0) << outcome.err;
}

Lines dump() {
  const Outcome outcome = run("objdb dump");
  EXPECT_EQ(outcome.status, 0) << outcome.err;
  return dumpLines(outcome.out);
}

Lines dumpLines(const std::string &output) {
  Lines lines;
  std::istringstream stream(output);
  for (std::string line; std::getline(stream, line);) lines.push_back(line);
  if (lines.size() < 2) return {};
  return {lines.begin() + 1, lines.end() - 1};
}

const Lines &emptyNetwork() {
  static const Lines lines = {
      R"({"table":"id_keeper","counter":5000})",
      R"({"table":"field_info","field":10,"name":"Selection Name","type":"String","flags":10})",
      R"({"table":"field_info","field":11,"name":"IP Hostname","type":"String","flags":10})",
      R"({"table":"field_info","field":20,"name":"isQRT Session","type":"Boolean","flags":1})",
      R"({"table":"field_info","field":21,"name":"isOSPF","type":"Boolean","flags":1})",
      R"({"table":"field_info","field":22,"name":"Speed","type":"Integer","flags":1})",
      R"({"table":"field_info","field":23,"name":"Status","type":"Enumeration","flags":1})",
      R"({"table":"field_info","field":24,"name":"Description","type":"String","flags":1})",
      R"({"table":"field_info","field":25,"name":"Neighbours","type":"Integer","flags":1})",
      R"({"table":"field_info","field":26,"name":"isNumber","type":"Integer","flags":1})",
      R"({"table":"enum_info","field":23,"constants":["up","down"]})"};
  return lines;
}

std::string valueLine(uint32_t objectId, uint32_t fieldId, const std::string &typeAndValue) {
  return R"({"table":"value_info","object":)" + std::to_string(objectId) + R"(,"field":)" +
         std::to_string(fieldId) + "," + typeAndValue + "}";
}

Lines nameLines(uint32_t objectId, uint32_t fieldId, const std::string &name) {
  const std::string rest = R"(","object":)" + std::to_string(objectId) + R"(,"field":)" +
                           std::to_string(fieldId) + R"(,"name":")" + name + R"("})";
  return {R"({"table":"obj_info)" + rest, R"({"table":"name_info)" + rest};
}

Lines operator+(Lines a, const Lines &b) {
  a.insert(a.end(), b.begin(), b.end());
  return a;
}

Lines sorted(Lines lines) {
  std::sort(lines.begin(), lines.end());
  return lines;
}

Lines without(const Lines &lines, const std::vector<uint32_t> &objectIds) {
  Lines kept = lines;
  for (const uint32_t id : objectIds) {
    const std::string member = R"("object":)" + std::to_string(id) + ",";
    std::erase_if(kept, [&](const std::string &line) { return line.find(member) != line.npos; });
  }
  return kept;
}

std::string readFile(const std::string &path) {
  std::ifstream file(path, std::ios::binary);
  std::string content;
  // In pieces: files of /proc have no size, and byte by byte is half of the time of a fault loop.
  std::array<char, 64 * 1024> piece;
  do {
    file.read(piece.data(), piece.size());
    content.append(piece.data(), static_cast<size_t>(file.gcount()));
  } while (file);
  return content;
}

void writeFile(const std::string &path, std::string_view content) {
  std::ofstream(path, std::ios::binary) << content;
}

bool exists(const std::string &path) {
  return fs::exists(path);
}

std::string bytes(std::string_view hex) {
  std::string result;
  std::string digits;
  for (const char each : hex) {
    if (each == ' ') continue;
    digits += each;
    if (digits.size() < 2) continue;
    result += static_cast<char>(std::stoi(digits, nullptr, 16));
    digits.clear();
  }
  return result;
}

std::vector<std::string> scanKeys(const char *table) {
  NQ_dbm_db *db = _NQ_dbm_db_open(currentDir.c_str(), table, 0, 0, nullptr, nullptr);
  std::vector<std::string> keys;
  DbmRecord record;
  db->first = 1;
  while (_NQ_dbm_db_getnext_raw(db, &record)) keys.emplace_back(record.key);
  _NQ_dbm_db_close(db);
  return keys;
}

ObjectDatabase *loadCaches() {
  ObjectDatabase *db = nqwDbGetDb(0);
  ObjValCache = new ObjTable(1500, 3, 3, 0.333f);
  EXPECT_EQ(buildEnumTable(db) + buildFieldInfoTable(db), 2);
  if (max_objects_cached != 0) {
    EXPECT_EQ(loadObjectsWithinLimit(db), 1);
  } else {
    EXPECT_EQ(loadObjectNames(db) + loadObjectValues(db), 2);
  }
  return db;
}

namespace {

void verifyObject(const ObjCacheEntry *object, std::set<const CachedValue *> &values) {
  for (FieldValIter item(object->values); item() != nullptr; item++) {
    ASSERT_EQ(item()->objectId, object->objectId);
    ASSERT_TRUE(values.insert(item()).second) << "a value stands in two objects";
  }
}

void verifyField(FieldCacheEntry *field, std::set<const CachedValue *> &values) {
  for (FieldValIter item(field->values); item() != nullptr; item++) {
    ASSERT_EQ(item()->field, field->info);
    ASSERT_EQ(values.erase(item()), 1u) << "a field lists a value that no object has";
  }
  if (field->valueIndex == nullptr) return;
  std::set<const uint32_t *> ids;
  for (RecencyIter object(ObjValCache); object() != nullptr; object++) {
    ids.insert(object()->objectId);
  }
  for (_HashIter name(field->valueIndex); name() != nullptr; name++) {
    ASSERT_TRUE(ids.contains(static_cast<const uint32_t *>(name()->data())));
  }
}

}  // namespace

void verifyCaches() {
  std::set<const CachedValue *> values;
  int objects = 0;
  for (RecencyIter object(ObjValCache); object() != nullptr; object++, ++objects) {
    ASSERT_TRUE(ObjValCache->isIn(*object()->objectId));
    verifyObject(object(), values);
  }
  ASSERT_EQ(objects, ObjValCache->size());
  for (_HashIter field(FieldInfoCache); field() != nullptr; field++) {
    verifyField(static_cast<FieldCacheEntry *>(field()->data()), values);
  }
  ASSERT_TRUE(values.empty()) << "an object has a value that no field lists";
}
