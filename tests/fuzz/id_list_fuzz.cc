// A list of object ids as the command line takes it: what is taken is within the limits and reads
// the same once more; what is refused changes nothing.

#include <cstdlib>
#include <string>
#include <vector>

#include "driver/options.h"
#include "maint/run.h"

extern "C" int LLVMFuzzerTestOneInput(const char *data, size_t size) {
  numofobj = -1;
  if (!parseObjectIdList(std::string(data, size).c_str())) {
    if (numofobj != -1) abort();
    return 0;
  }
  if (numofobj < 1 || numofobj > mostObjectIds) abort();
  const std::vector<uint32_t> ids(objectids, objectids + numofobj);
  std::string again;
  for (const uint32_t id : ids) again += std::to_string(id) + '\n';
  if (!parseObjectIdList(again.c_str())) abort();
  if (ids != std::vector(objectids, objectids + numofobj)) abort();
  return 0;
}
