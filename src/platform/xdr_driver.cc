#include "platform/xdr_driver.h"

#include <algorithm>
#include <cerrno>
#include <memory>
#include <new>

namespace {

// Room for a list of 1,000 strings of 256 characters.
constexpr size_t initialSize = size_t{512} * 1024;

size_t capacity = 0;
std::unique_ptr<char[]> storage;

}  // namespace

uint32_t recordsWithRest = 0;

XdrBuffer xdrBuffer(size_t atLeast) {
  if (capacity < atLeast) {
    // The old contents need not be kept: an encoding that did not fit is done once more.
    const size_t size = std::max(atLeast, initialSize);
    std::unique_ptr<char[]> larger(new (std::nothrow) char[size]);
    if (larger == nullptr) {
      errno = ENOMEM;
      return {nullptr, 0};
    }
    storage = std::move(larger);
    capacity = size;
  }
  return {storage.get(), capacity};
}
