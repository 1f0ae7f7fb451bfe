// How an exhausted memory ends the run.
#pragma once

#include <cstddef>

// Writes "dbsweep: Out of memory." (no line end) to standard error and ends the process with
// status 0. Installed as the allocator's new-handler by dbsweep.
[[noreturn]] void nqwDbOutOfMemory();

// For code that other programs share: runs the allocator's new-handler, which ends the process, and
// where none is installed throws std::bad_alloc.
[[noreturn]] void failForWantOfMemory();

// Zero-filled malloc storage, released with free. Never null: ends in failForWantOfMemory instead.
void *allocateOrEnd(size_t size);
