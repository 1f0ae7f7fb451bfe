#include "objdb/hidden_records.h"

#include <unistd.h>

#include <algorithm>
#include <unordered_set>
#include <vector>

#include "platform/dbm_table.h"
#include "platform/table_structure.h"

namespace {

using Spaces = std::vector<std::pair<uint64_t, uint64_t>>;  // offset and length

bool isFree(const Spaces &spaces, uint64_t offset, uint64_t bytes) {
  return std::any_of(spaces.begin(), spaces.end(), [&](const auto &space) {
    return space.first < offset + bytes && offset < space.first + space.second;
  });
}

bool readAt(int fd, uint64_t offset, size_t count, std::string *bytes) {
  bytes->resize(count);
  return pread(fd, bytes->data(), count, static_cast<off_t>(offset)) == static_cast<ssize_t>(count);
}

}  // namespace

void forEachHiddenRecord(
    int fd, const std::function<void(const std::string &key, const std::string &bytes)> &visit) {
  TableStructure structure;
  TablePages pages(fd);
  // A wrong next free block says nothing against the blocks that are there.
  if (!pages.readHead(&structure) && structure.fault != StructureFault::nextBlock) return;
  if (pages.blockBytes() == 0) return;  // an empty file
  // Every block is taken for a bucket; the bucket's own numbers and the records' hashes tell
  // whether it is one. The blocks of records are mostly refused at the first.
  const std::unordered_set<uint64_t> reached(pages.directory().begin(), pages.directory().end());
  Spaces spaces;
  pages.readFreeSpaces(&spaces);
  Bucket bucket;
  std::string key;
  std::string bytes;
  for (uint64_t offset = pages.blockBytes(); offset < pages.fileBytes();
       offset += pages.blockBytes()) {
    if (reached.contains(offset) || isFree(spaces, offset, pages.blockBytes()) ||
        !pages.readBucket(offset, &bucket)) {
      continue;
    }
    for (const RecordPlace &record : bucket.records) {
      if (readAt(fd, record.offset, record.keyBytes, &key) &&
          _NQ_dbm_db_order(key.data(), key.size()) == record.hash &&
          readAt(fd, record.offset + record.keyBytes, record.dataBytes, &bytes)) {
        visit(key, bytes);
      }
    }
  }
}
