#include "platform/table_structure.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstring>
#include <utility>

namespace {

// As the library lays them out in the file; off_t has 8 bytes there on both word sizes, and the
// alignment of the machine.
struct Header {
  uint32_t magic;
  uint32_t blockBytes;
  off_t directory;
  uint32_t directoryBytes;
  uint32_t directoryBits;
  uint32_t bucketBytes;
  uint32_t bucketRecords;
  off_t nextBlock;
};

struct FreeSpace {
  int32_t bytes;
  off_t offset;
};

struct FreeList {  // at the end of the header, and in blocks of its own
  int32_t room;
  int32_t count;
  off_t next;  // the block with the rest of the list; 0 for none
};

struct BucketHead {
  int32_t freeCount;
  FreeSpace free[6];
  int32_t bits;
  int32_t count;
};

struct BucketRecord {
  int32_t hash;  // -1: no record
  char keyStart[4];
  off_t offset;
  int32_t keyBytes;
  int32_t dataBytes;
};

static_assert(sizeof(off_t) == 8 && sizeof(BucketRecord) == 24);
static_assert(sizeof(BucketHead) == (sizeof(void *) == 8 ? 112 : 84));

constexpr uint32_t magicWithSyncCounter = 0x13579AD1;
constexpr uint64_t syncCounterBytes = 32;  // between the header and its list of free space
constexpr uint32_t hashBits = 31;

bool isTable(uint32_t magic) {
  return magic == 0x13579ACE || magic == 0x13579ACF || magic == magicWithSyncCounter;
}

bool readAt(int fd, void *bytes, size_t count, uint64_t offset) {
  const ssize_t got = pread(fd, bytes, count, static_cast<off_t>(offset));
  return got == static_cast<ssize_t>(count);
}

// Notes the first fault alone: later ones are mostly its consequences.
bool fail(TableStructure *structure, StructureFault fault, const std::string &detail) {
  if (structure->isSound()) {
    structure->fault = fault;
    structure->detail = detail;
  }
  return false;
}

std::string at(uint64_t offset) {
  return " at offset " + std::to_string(offset);
}

using Space = std::pair<uint64_t, uint64_t>;  // offset and length

// What is in use, collected while the buckets are read; null when nobody asks.
using Spaces = std::vector<Space>;

// Checks the records of the bucket that the directory's entry `first` leads to: the leading bits of
// their hashes are the entry's number, or no lookup would find them there.
bool checkRecords(const TablePages &pages, const Bucket &bucket, size_t first,
                  TableStructure *structure, Spaces *used) {
  const uint64_t offset = pages.directory()[first];
  structure->records += bucket.records.size();
  if (used != nullptr) used->emplace_back(offset, pages.blockBytes());
  for (const RecordPlace &record : bucket.records) {
    if (record.hash >> (hashBits - bucket.bits) != first >> (pages.directoryBits() - bucket.bits)) {
      return fail(structure, StructureFault::directory,
                  "a record in the wrong bucket" + at(offset));
    }
    const uint64_t bytes = uint64_t{record.keyBytes} + record.dataBytes;
    if (used != nullptr && bytes > 0) used->emplace_back(record.offset, bytes);
  }
  return true;
}

// Every bucket is led to by 2^(directory bits - bucket bits) neighbouring entries, beginning at a
// multiple of that, and by no others. Goes on after a fault, since the number of records in all
// buckets is wanted even for a damaged table.
bool checkDirectory(TablePages *pages, TableStructure *structure, Spaces *used) {
  const std::vector<uint64_t> &directory = pages->directory();
  std::vector<uint64_t> buckets;
  Bucket bucket;
  for (size_t first = 0; first < directory.size();) {
    const uint64_t offset = directory[first];
    size_t next = first + 1;
    while (next < directory.size() && directory[next] == offset) ++next;
    buckets.push_back(offset);
    if (!pages->readBucket(offset, &bucket)) {
      fail(structure, StructureFault::bucket, "no bucket" + at(offset));
    } else {
      const size_t neighbours = size_t{1} << (pages->directoryBits() - bucket.bits);
      if (first % neighbours != 0 || next - first != neighbours) {
        fail(structure, StructureFault::directory,
             "entries of the directory from " + std::to_string(first) + " lead to a wrong bucket");
      }
      checkRecords(*pages, bucket, first, structure, used);
    }
    first = next;
  }
  std::sort(buckets.begin(), buckets.end());
  const auto twice = std::adjacent_find(buckets.begin(), buckets.end());
  if (twice != buckets.end()) {
    fail(structure, StructureFault::directory,
         "distant entries of the directory lead to the bucket" + at(*twice));
  }
  return structure->isSound();
}

// Sorts everything that is in use or free by its offset: no two may overlap. Otherwise the library
// would store a record over another one.
void checkSpace(const TablePages &pages, Spaces *spaces, TableStructure *structure) {
  if (!pages.readFreeSpaces(spaces)) {
    fail(structure, StructureFault::space, "a list of free space is damaged");
    return;
  }
  std::sort(spaces->begin(), spaces->end());
  uint64_t end = pages.blockBytes();  // the first block is the header's
  for (const auto &[offset, bytes] : *spaces) {
    if (offset < end || offset + bytes > pages.nextBlock()) {
      fail(structure, StructureFault::space, "space is taken twice" + at(offset));
      return;
    }
    end = offset + bytes;
  }
}

TableStructure look(int fd, bool spaceToo) {
  TableStructure structure;
  TablePages pages(fd);
  if (!pages.readHead(&structure)) return structure;
  if (pages.fileBytes() == 0) return structure;
  Spaces spaces;
  const bool sound = checkDirectory(&pages, &structure, spaceToo ? &spaces : nullptr);
  if (sound && spaceToo) {
    spaces.emplace_back(pages.directoryOffset(), pages.directory().size() * sizeof(off_t));
    checkSpace(pages, &spaces, &structure);
  }
  return structure;
}

}  // namespace

bool TablePages::readHead(TableStructure *structure) {
  struct stat file {};
  if (fstat(fd_, &file) != 0) {
    return fail(structure, StructureFault::unreadable, strerror(errno));
  }
  fileBytes_ = static_cast<uint64_t>(file.st_size);
  if (fileBytes_ == 0) return true;
  Header header{};
  if (!readAt(fd_, &header, sizeof header, 0)) {
    return fail(structure, StructureFault::header, "the header is cut");
  }
  if (!isTable(header.magic)) {
    return fail(structure, StructureFault::header, "the header is of another kind of file");
  }
  freeListOffset_ = sizeof header;
  if (header.magic == magicWithSyncCounter) freeListOffset_ += syncCounterBytes;
  // Every number is checked here before it is used below or in readBucket, without a sum that could
  // overflow.
  constexpr uint32_t mostBits = hashBits;
  blockBytes_ = header.blockBytes;
  directoryOffset_ = static_cast<uint64_t>(header.directory);
  directoryBits_ = header.directoryBits;
  bucketBytes_ = header.bucketBytes;
  bucketRecords_ = header.bucketRecords;
  nextBlock_ = static_cast<uint64_t>(header.nextBlock);
  if (blockBytes_ < freeListOffset_ + sizeof(FreeList) || blockBytes_ > fileBytes_ ||
      directoryBits_ > mostBits ||
      header.directoryBytes != uint64_t{sizeof(off_t)} << directoryBits_ ||
      !holds(directoryOffset_, header.directoryBytes) || bucketBytes_ > blockBytes_ ||
      bucketBytes_ < sizeof(BucketHead) + sizeof(BucketRecord) ||
      bucketRecords_ != (bucketBytes_ - sizeof(BucketHead)) / sizeof(BucketRecord)) {
    return fail(structure, StructureFault::header, "the header's numbers cannot be");
  }
  // Noted only: a salvage still reads the buckets that are there.
  if (nextBlock_ > fileBytes_) {
    fail(structure, StructureFault::nextBlock,
         "the next free block, " + std::to_string(nextBlock_) +
             ", lies beyond the end of the file, " + std::to_string(fileBytes_));
  }
  directory_.resize(size_t{1} << directoryBits_);
  return readAt(fd_, directory_.data(), header.directoryBytes, directoryOffset_) ||
         fail(structure, StructureFault::unreadable, "the directory cannot be read");
}

bool TablePages::holds(uint64_t offset, uint64_t bytes) const {
  return offset >= blockBytes_ && offset <= fileBytes_ && bytes <= fileBytes_ - offset;
}

bool TablePages::readBucket(uint64_t offset, Bucket *bucket) {
  if (!holds(offset, bucketBytes_)) return false;
  bytes_.resize(bucketBytes_);
  if (!readAt(fd_, bytes_.data(), bytes_.size(), offset)) return false;
  BucketHead head{};
  memcpy(&head, bytes_.data(), sizeof head);
  if (head.bits < 0 || static_cast<uint32_t>(head.bits) > directoryBits_ || head.count < 0 ||
      static_cast<uint32_t>(head.count) > bucketRecords_) {
    return false;
  }
  bucket->bits = static_cast<uint32_t>(head.bits);
  bucket->records.clear();
  for (uint32_t i = 0; i < bucketRecords_; ++i) {
    BucketRecord record{};
    memcpy(&record, &bytes_[sizeof head + i * sizeof record], sizeof record);
    if (record.hash == -1) continue;
    if (record.hash < 0 || record.keyBytes < 0 || record.dataBytes < 0) return false;
    const RecordPlace place{
        static_cast<uint32_t>(record.hash), static_cast<uint64_t>(record.offset),
        static_cast<uint32_t>(record.keyBytes), static_cast<uint32_t>(record.dataBytes)};
    if (!holds(place.offset, uint64_t{place.keyBytes} + place.dataBytes)) return false;
    bucket->records.push_back(place);
  }
  return bucket->records.size() == static_cast<size_t>(head.count);
}

bool TablePages::readFreeList(const char *bytes, uint32_t count,
                              std::vector<std::pair<uint64_t, uint64_t>> *spaces) const {
  for (uint32_t i = 0; i < count; ++i) {
    FreeSpace space{};
    memcpy(&space, bytes + i * sizeof space, sizeof space);
    const auto offset = static_cast<uint64_t>(space.offset);
    if (space.bytes <= 0 || offset < blockBytes_ || offset > nextBlock_) return false;
    spaces->emplace_back(offset, static_cast<uint64_t>(space.bytes));
  }
  return true;
}

bool TablePages::readFreeSpaces(std::vector<std::pair<uint64_t, uint64_t>> *spaces) const {
  std::vector<char> bytes(blockBytes_);
  uint64_t block = 0;  // the header's, then those of the chain
  uint64_t listOffset = freeListOffset_;
  // No more blocks than the file has, since the chain of a damaged one may lead in a circle.
  for (uint64_t most = fileBytes_ / blockBytes_; most > 0; --most) {
    FreeList list{};
    // A block of the chain may be smaller than the others, and lie at the end of the file.
    const uint64_t length = std::min<uint64_t>(blockBytes_, fileBytes_ - block);
    if (length < listOffset + sizeof list || !readAt(fd_, bytes.data(), length, block))
      return false;
    memcpy(&list, &bytes[listOffset], sizeof list);
    const size_t room = (length - listOffset - sizeof list) / sizeof(FreeSpace);
    if (list.count < 0 || static_cast<size_t>(list.count) > room) return false;
    if (!readFreeList(&bytes[listOffset + sizeof list], static_cast<uint32_t>(list.count),
                      spaces)) {
      return false;
    }
    if (list.next == 0) break;
    block = static_cast<uint64_t>(list.next);
    listOffset = 0;
    if (block < blockBytes_ || block > fileBytes_ || most == 1) return false;
  }
  uint64_t before = 0;  // neighbouring entries lead to the same bucket
  for (const uint64_t offset : directory_) {
    if (offset == before) continue;
    before = offset;
    BucketHead head{};
    if (!readAt(fd_, &head, sizeof head, offset) || head.freeCount < 0 ||
        static_cast<size_t>(head.freeCount) > std::size(head.free) ||
        !readFreeList(reinterpret_cast<const char *>(head.free),
                      static_cast<uint32_t>(head.freeCount), spaces)) {
      return false;
    }
  }
  return true;
}

uint64_t nextFreeBlock(int fd) {
  Header header{};
  if (!readAt(fd, &header, sizeof header, 0) || !isTable(header.magic)) return 0;
  return static_cast<uint64_t>(header.nextBlock);
}

TableStructure readStructure(int fd) {
  return look(fd, false);
}

TableStructure readStructureAndSpace(int fd) {
  return look(fd, true);
}
