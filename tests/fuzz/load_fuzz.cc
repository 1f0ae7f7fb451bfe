// Lines as the companion command loads them: whatever is taken and decodes comes back from its line
// byte for byte.

#include <cstdlib>
#include <nlohmann/json.hpp>
#include <sstream>

#include "objdb/dump_reader.h"

extern "C" int LLVMFuzzerTestOneInput(const char *data, size_t size) {
  const std::string text(data, size);
  std::istringstream input(text);
  std::vector<StoredRecord> records;
  try {
    records = readDump(input, text.starts_with("{\"format\""));
  } catch (const std::exception &) {  // refused
  }
  for (const auto &[table, key, bytes] : records) {
    const auto line = recordToJson(table, key, bytes);
    if (!line) continue;
    const StoredRecord back = recordFromJson(Json::parse(line->dump()));
    if (back.table != table || back.key != key || back.bytes != bytes) abort();
  }
  return 0;
}
