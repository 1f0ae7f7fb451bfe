#include "platform/table_growth.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <algorithm>
#include <utility>

#include "platform/table_structure.h"

namespace {

uint64_t fileLength(int fd) {
  struct stat file {};
  return fstat(fd, &file) == 0 ? static_cast<uint64_t>(file.st_size) : 0;
}

// The end of what is in use; 0 when the header does not say. The header of a damaged table may name
// a place beyond the file.
uint64_t endOfUse(int fd) {
  return std::min(nextFreeBlock(fd), fileLength(fd));
}

}  // namespace

bool TableGrowth::reserve(int fd, size_t bytes) {
  constexpr uint64_t smallest = uint64_t{256} * 1024;
  constexpr size_t placeOfKey = 64;  // in the blocks that hold the keys, which may be half empty
  if (wasTrimmed_) return false;
  // Most stores end here: the header is read again only when the room seen last is used up.
  bytes += placeOfKey;
  if (bytes <= roomLeft_) {
    roomLeft_ -= bytes;
    return false;
  }
  roomLeft_ = smallest;  // also where nothing can be reserved
  const uint64_t used = endOfUse(fd);
  if (used == 0) return false;
  // Less was used than the stores were charged with: an eighth of reserve is still there.
  if (used + used / 8 < reserved_) {
    roomLeft_ = (reserved_ - used) / 2;
    return false;
  }
  uint64_t length = std::max(used + used / 2, smallest);
  struct statvfs disk {};
  if (fstatvfs(fd, &disk) != 0) return false;
  // Nothing on a nearly full disk: what one table reserves in vain, the next would lack.
  const uint64_t plenty = disk.f_bavail * disk.f_frsize / 4;
  if (plenty <= length) return false;
  const uint64_t expected = std::exchange(expected_, 0);
  if (expected < plenty) length = std::max(length, expected);
  if (reserved_ == 0) lengthBefore_ = fileLength(fd);
  reserved_ = length;  // a failure may have made the file longer too
  if (posix_fallocate(fd, 0, static_cast<off_t>(length)) != 0) return false;
  roomLeft_ = (length - used) / 2;
  return true;
}

bool TableGrowth::trim(int fd) {
  const uint64_t used = endOfUse(fd);
  const auto length = static_cast<off_t>(std::max(used, lengthBefore_));
  wasTrimmed_ = true;
  reserved_ = 0;
  roomLeft_ = 0;
  return used != 0 && ftruncate(fd, length) == 0;
}
