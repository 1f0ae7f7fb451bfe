// Storage that is released all at once: pieces are carved one after another out of large blocks.
#pragma once

#include <cstddef>

class Arena {
 public:
  Arena() = default;
  ~Arena();  // gives all blocks back; nothing that lies in them is destroyed
  Arena(const Arena &) = delete;
  Arena &operator=(const Arena &) = delete;

  // Aligned for words and pointers, not zero-filled. Never null: ends in failForWantOfMemory.
  void *take(size_t bytes);

 private:
  struct alignas(std::max_align_t) Block {  // the pieces after it are aligned, too
    Block *older;
  };

  char *newBlock(size_t bytes);

  Block *newest_ = nullptr;
  char *next_ = nullptr;  // where the next piece begins, in the newest shared block
  size_t room_ = 0;       // bytes left there
  size_t blockSize_ = 0;  // bytes of that block
};
