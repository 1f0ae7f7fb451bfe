// The database that find, show and protocols query: opened for reading alone. The callers load as
// much of it as their question needs; with a limit no more objects than that are in the caches.
#pragma once

#include <algorithm>
#include <cstdint>
#include <memory>
#include <optional>
#include <vector>

#include "internal/object_ids.h"
#include "objdb/command.h"
#include "objdb/table_reader.h"
#include "store/database.h"

class QueryDatabase {
 public:
  // Opens the version, locks it as the other reading commands do, makes it the database that
  // queries ask, and loads the definitions and the constants; with a limit also that many objects
  // at most, while queries find the others in the tables. Throws CommandFailure.
  QueryDatabase(const VersionPath &version, std::optional<uint32_t> mostObjects);

  ObjectDatabase *get() const { return db_; }

  // The objects without a name under the common name field, which queries with a limit pass over.
  // Empty without a limit.
  ObjectIds unlistedObjects() const;

  // The objects whose name under the binding's field is the binding's. All of them: of objects that
  // share a name, queries tell only one.
  ObjectIds objectsNamed(NQwFieldBinding *binding) const;

  // What to end with: objdbFailed, with the reason on standard error, when records that could not
  // be read may be missing from the answer.
  static ObjdbStatus judge(ObjdbStatus status);

 private:
  std::vector<std::unique_ptr<TableReader>> locks_;
  ObjectDatabase *db_ = nullptr;
};

// A query's result, checked. Throws CommandFailure when there is none.
ObjectIds requireIds(NQwObjectIdList *list);

// Leaves those ids in the list that `isKept` says yes to, in their order.
template <typename IsKept>
void keepIds(NQwObjectIdList *list, IsKept isKept) {
  const auto *end = std::remove_if(list->objectIds, list->objectIds + list->count,
                                   [&](uint32_t id) { return !isKept(id); });
  list->count = static_cast<int32_t>(end - list->objectIds);
}
