// Loaded before the C library into the process under test (and passive in the processes it starts):
// counts the calls that change the file system, and at the one that FAULT_AT names does what
// FAULT_HOW says:
//   kill           stops the process
//   forget         and makes the directory FAULT_DISK forget what was not synced (forget-entries,
//                  forget-contents and forget-creations: only that of it). Without a stop, at the
//                  end of the process.
//   a path         runs the program that is there, and goes on once it has ended
//   a number       fails the call with that error
// With FAULT_ON the last two do so at every call from then on.
// FAULT_NOMAP opens tables without mapping them, so that the library writes by calls. The count so
// far is in the file that FAULT_COUNT names.
//
// Built with FAULT_ALLOCATIONS it counts and fails allocations instead.

#include <dlfcn.h>
#include <errno.h>
#include <fcntl.h>
#include <gdbm.h>
#include <signal.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <fstream>

#include "faults/synced_disk.h"

namespace {

long calls;
bool passive;  // while the calls are our own

bool isTarget() {
  static const char *name = getenv("FAULT_IN");
  return name != nullptr && strcmp(name, program_invocation_short_name) == 0;
}

#ifdef FAULT_ALLOCATIONS

void losePower() {}

#else

// Null where nothing is to be forgotten.
SyncedDisk *disk() {
  static const bool forgets = isTarget() && strncmp(getenv("FAULT_HOW"), "forget", 6) == 0;
  static SyncedDisk *watched = forgets ? new SyncedDisk(getenv("FAULT_DISK")) : nullptr;
  return watched;
}

void losePower() {
  if (disk() == nullptr || passive) return;
  passive = true;
  using enum SyncedDisk::Written;
  const std::string how = getenv("FAULT_HOW");
  disk()->losePower(how == "forget-entries"     ? contents
                    : how == "forget-contents"  ? entries
                    : how == "forget-creations" ? removals
                                                : nothing);
}

__attribute__((constructor)) void startDisk() {
  disk();
}

__attribute__((destructor)) void endDisk() {
  losePower();
}

#endif

// Whether the call shall fail; errno is set then.
bool fault() {
  if (!isTarget() || passive) return false;
  static const long at = atol(getenv("FAULT_AT"));
  static const char *how = getenv("FAULT_HOW");
  static const bool on = getenv("FAULT_ON") != nullptr;
  static const int counter = static_cast<int>(
      syscall(SYS_open, getenv("FAULT_COUNT"), O_WRONLY | O_CREAT | O_TRUNC, 0644));
  ++calls;
  char text[32];
  const int length = snprintf(text, sizeof text, "%ld\n", calls);
  syscall(SYS_pwrite64, counter, text, length, 0L, 0L);  // on i386 an offset takes two words
  if (calls != at && !(on && calls > at)) return false;
  if (*how == '/') {
    [[maybe_unused]] const int status = system(how);
    return false;
  }
  losePower();
  if (atoi(how) == 0) kill(getpid(), SIGKILL);
  errno = atoi(how);
  return true;
}

#ifndef FAULT_ALLOCATIONS

template <typename Function>
Function next(const char *name) {
  return reinterpret_cast<Function>(dlsym(RTLD_NEXT, name));
}

int openFile(const char *name, const char *path, int flags, mode_t mode) {
  const bool changes = (flags & (O_CREAT | O_TRUNC)) != 0 && strncmp(path, "/dev/", 5) != 0;
  if (changes && fault()) return -1;
  return next<int (*)(const char *, int, ...)>(name)(path, flags, mode);
}

int synced(int fd, int result) {
  if (result == 0 && disk() != nullptr) {
    disk()->synced(std::filesystem::read_symlink("/proc/self/fd/" + std::to_string(fd)));
  }
  return result;
}

// The file is the one that is mapped there.
int synced(const void *start, size_t size, int result) {
  if (result != 0 || disk() == nullptr) return result;
  const auto address = reinterpret_cast<uintptr_t>(start);
  std::ifstream maps("/proc/self/maps");
  for (std::string line; std::getline(maps, line);) {
    unsigned long begin = 0, end = 0, offset = 0;
    int path = 0;
    sscanf(line.c_str(), "%lx-%lx %*s %lx %*s %*s %n", &begin, &end, &offset, &path);
    if (address < begin || address >= end) continue;
    disk()->synced(line.substr(path), offset + address - begin, offset + address - begin + size);
  }
  return result;
}

mode_t modeOf(int flags, va_list arguments) {
  return (flags & O_CREAT) != 0 ? static_cast<mode_t>(va_arg(arguments, int)) : 0;
}

#endif

}  // namespace

extern "C" {

#ifdef FAULT_ALLOCATIONS

void *__libc_malloc(size_t size);
void *__libc_calloc(size_t count, size_t size);
void *__libc_realloc(void *storage, size_t size);

void *malloc(size_t size) {
  return fault() ? nullptr : __libc_malloc(size);
}

void *calloc(size_t count, size_t size) {
  return fault() ? nullptr : __libc_calloc(count, size);
}

void *realloc(void *storage, size_t size) {
  return fault() ? nullptr : __libc_realloc(storage, size);
}

#else

#define OPEN(name)                                \
  int name(const char *path, int flags, ...) {    \
    va_list arguments;                            \
    va_start(arguments, flags);                   \
    const mode_t mode = modeOf(flags, arguments); \
    va_end(arguments);                            \
    return openFile(#name, path, flags, mode);    \
  }
OPEN(open)
OPEN(open64)

#define CALL(name, parameters, arguments)                           \
  int name parameters noexcept {                                    \
    return fault() ? -1 : next<int(*) parameters>(#name) arguments; \
  }
CALL(ftruncate, (int fd, off_t size), (fd, size))
CALL(ftruncate64, (int fd, off64_t size), (fd, size))
CALL(fchmod, (int fd, mode_t mode), (fd, mode))
CALL(rename, (const char *from, const char *to), (from, to))
CALL(unlink, (const char *path), (path))
CALL(unlinkat, (int fd, const char *path, int flags), (fd, path, flags))
CALL(rmdir, (const char *path), (path))

// Making what is there changes nothing, and does not fail for want of room.
int mkdir(const char *path, mode_t mode) noexcept {
  if (access(path, F_OK) != 0 && fault()) return -1;
  return next<int (*)(const char *, mode_t)>("mkdir")(path, mode);
}

ssize_t write(int fd, const void *bytes, size_t size) {
  if (fd > 2 && fault()) return -1;
  return next<ssize_t (*)(int, const void *, size_t)>("write")(fd, bytes, size);
}

int fsync(int fd) {
  return fault() ? -1 : synced(fd, next<int (*)(int)>("fsync")(fd));
}

int fdatasync(int fd) {
  return fault() ? -1 : synced(fd, next<int (*)(int)>("fdatasync")(fd));
}

int msync(void *start, size_t size, int flags) {
  return fault()
             ? -1
             : synced(start, size, next<int (*)(void *, size_t, int)>("msync")(start, size, flags));
}

int posix_fallocate64(int fd, off64_t start, off64_t size) {
  return fault() ? errno
                 : next<int (*)(int, off64_t, off64_t)>("posix_fallocate64")(fd, start, size);
}

bool isUnmapped() {
  static const bool unmapped = getenv("FAULT_NOMAP") != nullptr;
  return unmapped;
}

int gdbm_setopt(GDBM_FILE table, int option, void *value, int size) {
  if (option == GDBM_SETMMAP && isUnmapped()) return 0;
  return next<int (*)(GDBM_FILE, int, void *, int)>("gdbm_setopt")(table, option, value, size);
}

GDBM_FILE gdbm_open(const char *path, int block, int flags, int mode, void (*fatal)(const char *)) {
  return next<GDBM_FILE (*)(const char *, int, int, int, void (*)(const char *))>("gdbm_open")(
      path, block, isUnmapped() ? flags | GDBM_NOMMAP : flags, mode, fatal);
}

#endif

}  // extern "C"
