#include "platform/table_refusal.h"

#include <fcntl.h>
#include <gdbm.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstring>

namespace {

// The words at the head of a .pag file that say which library can read it.
struct PageHead {
  uint32_t magic;
  uint32_t blockBytes;
  uint64_t directory;
  uint32_t directoryBytes;
  uint32_t directoryBits;
  uint32_t bucketBytes;
  uint32_t bucketRecords;
};

// The two word sizes lay out the same file but for the alignment of offsets in a bucket, so that a
// bucket of theirs has room for another number of records than one of ours.
bool isOfOtherWordSize(const PageHead &head) {
  constexpr uint32_t recordBytes = 24;
  constexpr uint32_t otherOverhead = sizeof(void *) == 8 ? 108 : 136;
  return head.bucketBytes > otherOverhead &&
         head.bucketRecords == (head.bucketBytes - otherOverhead) / recordBytes + 1;
}

}  // namespace

std::string whyNotPageFile(int fd) {
  const int error = gdbm_errno;
  PageHead head{};
  if (pread(fd, &head, sizeof head, 0) < 0) return strerror(errno);
  constexpr char otherSize[] = "made by a build of the other word size";
  switch (error) {
    case GDBM_BAD_MAGIC_NUMBER:
      return "not a dbm table";
    case GDBM_BYTE_SWAPPED:
      return "made on a machine of the other byte order";
    case GDBM_BAD_FILE_OFFSET:
      return otherSize;
    case GDBM_EMPTY_DATABASE:
      return "the file is empty";
    case GDBM_BAD_HEADER:
      return isOfOtherWordSize(head) ? otherSize : "its header is damaged";
    default:
      return gdbm_strerror(error);
  }
}

std::string whyNotDirectoryFile(int fd) {
  unsigned char head[17];
  if (pread(fd, head, sizeof head, 0) != 16 || memcmp(head, "GDBM", 4) != 0) {
    return "not the .dir file of a dbm table";
  }
  int version[3];
  for (size_t i = 0; i < 3; ++i) {
    const unsigned char *word = head + 4 + 4 * i;
    version[i] = static_cast<int>(uint32_t{word[0]} << 24 | uint32_t{word[1]} << 16 |
                                  uint32_t{word[2]} << 8 | word[3]);
  }
  const int compared = gdbm_version_cmp(version, gdbm_version_number);
  if (compared == 0) return "";
  return compared > 0 ? "made by a newer dbm library" : "made by an older dbm library";
}
