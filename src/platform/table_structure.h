// What a table file of GNU dbm says about itself, read without the library, which believes all of
// it. A damaged directory hides records from a scan, or leads it in a circle; a damaged header
// makes the library take more room than the disk has. So a file is looked at before it is believed.
//
// The layout is that of GNU dbm 1.23 with offsets of 8 bytes, in the byte order and alignment of
// this machine: a header, the directory (2^directoryBits offsets), buckets of one block, and the
// records' bytes (each key, then its data) anywhere in between.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

enum class StructureFault {
  none,
  unreadable,  // the file cannot be read, errno says why
  header,      // what the header says cannot be
  nextBlock,   // the header's next free block lies beyond the end of the file
  directory,   // the entries that lead to a bucket are not the neighbours that its bits call for
  bucket,      // a bucket's counters, or a record's place in it, cannot be
  space,       // free space overlaps something that is in use, or another free space
};

struct TableStructure {
  StructureFault fault = StructureFault::none;
  std::string detail;    // the first thing that is wrong, in words; empty when all is sound
  uint64_t records = 0;  // in the buckets that the directory leads to, each bucket met once

  bool isSound() const { return fault == StructureFault::none; }
};

// Where a record lies, as its bucket has it.
struct RecordPlace {
  uint32_t hash;
  uint64_t offset;  // of the key; the data follows it
  uint32_t keyBytes;
  uint32_t dataBytes;
};

struct Bucket {
  uint32_t bits = 0;  // leading bits of the hash that all its records share
  std::vector<RecordPlace> records;
};

// A table file that is open for reading. The descriptor stays the caller's.
class TablePages {
 public:
  explicit TablePages(int fd) : fd_(fd) {}

  // Reads header and directory. False, and the structure says why, when they cannot be read. A
  // wrong next free block is noted, and the directory is read all the same.
  bool readHead(TableStructure *structure);

  // Reads the bucket at an offset. False when the bytes there cannot be a bucket.
  bool readBucket(uint64_t offset, Bucket *bucket);

  // The free spaces of the file that its own lists and those of the buckets name, as far as they
  // can be read: offset and length. False when a list is damaged.
  bool readFreeSpaces(std::vector<std::pair<uint64_t, uint64_t>> *spaces) const;

  uint64_t fileBytes() const { return fileBytes_; }
  uint32_t blockBytes() const { return blockBytes_; }
  uint32_t directoryBits() const { return directoryBits_; }
  uint64_t directoryOffset() const { return directoryOffset_; }
  uint64_t nextBlock() const { return nextBlock_; }
  const std::vector<uint64_t> &directory() const { return directory_; }  // offsets of buckets

 private:
  bool readFreeList(const char *bytes, uint32_t count,
                    std::vector<std::pair<uint64_t, uint64_t>> *spaces) const;

  // Whether so many bytes at that offset lie in the file and after the header's block.
  bool holds(uint64_t offset, uint64_t bytes) const;

  int fd_;
  uint64_t fileBytes_ = 0;
  uint32_t blockBytes_ = 0;
  uint64_t directoryOffset_ = 0;
  uint32_t directoryBits_ = 0;
  uint32_t bucketBytes_ = 0;
  uint32_t bucketRecords_ = 0;
  uint64_t nextBlock_ = 0;
  uint64_t freeListOffset_ = 0;
  std::vector<uint64_t> directory_;
  std::vector<char> bytes_;  // of the bucket that was read last
};

// Where the library will put the next new block of a table: up to there the file is in use. 0 when
// the file does not begin like a table.
uint64_t nextFreeBlock(int fd);

// Looks at header, directory and buckets, with one read a bucket. An empty file is a table that has
// just been made: sound, without records.
TableStructure readStructure(int fd);

// Looks at the free space as well, for a table that is about to be changed in place: the library
// writes into whatever the lists call free. Takes memory and time for every record.
TableStructure readStructureAndSpace(int fd);
