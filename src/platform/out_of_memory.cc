#include "platform/out_of_memory.h"

#include <unistd.h>

#include <cstdlib>
#include <new>

#include "platform/exit_status.h"

void nqwDbOutOfMemory() {
  // write and not stdio: nothing here may want memory.
  static constexpr char message[] = "dbsweep: Out of memory.";
  [[maybe_unused]] const ssize_t written = write(STDERR_FILENO, message, sizeof message - 1);
  std::exit(exitNormal);
}

void failForWantOfMemory() {
  const std::new_handler handler = std::get_new_handler();
  if (handler != nullptr) handler();
  throw std::bad_alloc();
}

void *allocateOrEnd(size_t size) {
  void *storage = calloc(1, size);
  if (storage == nullptr) failForWantOfMemory();
  return storage;
}
