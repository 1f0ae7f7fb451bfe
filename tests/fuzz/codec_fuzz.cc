// Stored bytes of the kind of record that FUZZED names: what decodes must encode, and that encoding
// must come back byte for byte.

#include <cstdlib>
#include <string>

#include "platform/dbm_table.h"
#include "records/codecs.h"

namespace {

template <auto owner, typename Record>
void release(void *record) {
  owner(static_cast<Record *>(record));
}

void leave(void *) {}

void releaseConstants(void *record) {
  freeEnumConstants(static_cast<dbEnumConstants *>(record)->constants);
  free(record);
}

enum Kind { dbkey, field_info, object, value, old_value, enum_constants };

constexpr struct {
  DbmDecoder decode;
  DbmEncoder encode;
  void (*release)(void *record);
} codecs[] = {
    {decodeDbKey, encodeDbKey, leave},
    {decodeDbFieldInfo, encodeDbFieldInfo, release<freeDbFieldInfo, dbFieldInfo>},
    {decodeDbObject, encodeDbObject, leave},
    {decodeDbObjectValue, encodeDbObjectValue, release<freeDbObjectValue, dbObjectValue>},
    {decodeDbObjectValueOf, encodeDbObjectValueOf, release<freeDbObjectValueOld, dbObjectValue>},
    {decodeDbEnumConstants, encodeDbEnumConstants, releaseConstants},
};

// Empty when the bytes do not decode.
std::string recoded(const char *stored, size_t size) {
  void *record = codecs[FUZZED].decode(stored, size);
  if (record == nullptr) return "";
  const char *bytes = nullptr;
  size_t length = 0;
  if (codecs[FUZZED].encode(record, &bytes, &length) != 0) abort();
  codecs[FUZZED].release(record);
  return {bytes, length};
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const char *data, size_t size) {
  const std::string once = recoded(data, size);
  if (recoded(once.data(), once.size()) != once) abort();
  return 0;
}
