#include "maint/run.h"

#include <utility>

#include "internal/caches.h"

uint32_t objectids[mostObjectIds];
int32_t numofobj = 0;
char protocolName[protocolNameSize];

ExitStatus runStatus = exitNormal;

ObjectDatabase *runDb = nullptr;
ObjectDatabase *deletingDb = nullptr;

void closeRunDb() {
  if (runDb != nullptr) close_nqwdb_ndbm(freeFieldList(std::exchange(runDb, nullptr)));
}

// In the order that caches.h asks for. Each pointer is cleared before what it points at is freed: a
// signal may run this a second time.
void cleanupCaches(int doFree) {
  if (doFree == 0) return;
  if (enumconstantstable != nullptr) destroyEnumTable(std::exchange(enumconstantstable, nullptr));
  delete std::exchange(FieldNameCache, nullptr);
  delete std::exchange(FieldInfoCache, nullptr);
  delete std::exchange(SFieldInfoCache, nullptr);
  delete std::exchange(ObjValCache, nullptr);
  closeRunDb();
}
