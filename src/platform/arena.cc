#include "platform/arena.h"

#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>

#include "platform/out_of_memory.h"

namespace {

// Each block is twice as large as the one before: a small database takes little, and a large one
// few calls of malloc. Even the first is large enough for a mapping of its own: to free a large
// piece of its heap, malloc would first put together all small ones that are free.
constexpr size_t smallestBlock = size_t{256} * 1024;
constexpr size_t largestBlock = size_t{16} * 1024 * 1024;

// Huge pages save most page faults and most misses of the address cache (TLB). Both cost much here,
// since values are visited in random order. Only a hint: what the kernel answers does not matter.
void useLargePages(char *start, size_t bytes) {
  constexpr size_t largePage = size_t{2} * 1024 * 1024;
  if (bytes < 2 * largePage) return;
  // madvise wants an address on a page boundary, and the block's header lies before the start.
  const auto pageSize = static_cast<uintptr_t>(sysconf(_SC_PAGESIZE));
  const uintptr_t beyondPage = reinterpret_cast<uintptr_t>(start) % pageSize;
  madvise(start - beyondPage, bytes + beyondPage, MADV_HUGEPAGE);
}

}  // namespace

Arena::~Arena() {
  while (newest_ != nullptr) {
    Block *block = newest_;
    newest_ = block->older;
    free(block);
  }
}

void *Arena::take(size_t bytes) {
  constexpr size_t step = alignof(void *) > 8 ? alignof(void *) : 8;
  const size_t size = (bytes + step - 1) / step * step;
  // A large piece gets a block of its own, so that what is left of the shared one stays in use.
  if (size > smallestBlock / 2) return newBlock(size);
  if (room_ < size) {
    blockSize_ = std::clamp(blockSize_ * 2, smallestBlock, largestBlock);
    next_ = newBlock(blockSize_);
    room_ = blockSize_;
    useLargePages(next_, room_);
  }
  char *piece = next_;
  next_ += size;
  room_ -= size;
  return piece;
}

char *Arena::newBlock(size_t bytes) {
  auto *block = static_cast<Block *>(malloc(sizeof(Block) + bytes));
  if (block == nullptr) failForWantOfMemory();
  block->older = newest_;
  newest_ = block;
  return reinterpret_cast<char *>(block + 1);
}
