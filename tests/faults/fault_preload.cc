// Loaded before the C library into the process under test (and passive in the processes it starts):
// counts the calls that change the file system, and at the one that FAULT_AT names stops the
// process (FAULT_HOW=kill) or fails the call with the error number that FAULT_HOW is, from then on
// every call if FAULT_ON is set. FAULT_NOMAP opens tables without mapping them, so that the library
// writes by calls. The count so far is in the file that FAULT_COUNT names.
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

namespace {

long calls;

bool isTarget() {
  static const char *name = getenv("FAULT_IN");
  return name != nullptr && strcmp(name, program_invocation_short_name) == 0;
}

// Whether the call shall fail; errno is set then.
bool fault() {
  if (!isTarget()) return false;
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
  if (strcmp(how, "kill") == 0) kill(getpid(), SIGKILL);
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

int open(const char *path, int flags, ...) {
  va_list arguments;
  va_start(arguments, flags);
  const mode_t mode = modeOf(flags, arguments);
  va_end(arguments);
  return openFile("open", path, flags, mode);
}

int open64(const char *path, int flags, ...) {
  va_list arguments;
  va_start(arguments, flags);
  const mode_t mode = modeOf(flags, arguments);
  va_end(arguments);
  return openFile("open64", path, flags, mode);
}

ssize_t write(int fd, const void *bytes, size_t size) {
  if (fd > 2 && fault()) return -1;
  return next<ssize_t (*)(int, const void *, size_t)>("write")(fd, bytes, size);
}

int fsync(int fd) {
  return fault() ? -1 : next<int (*)(int)>("fsync")(fd);
}

int fdatasync(int fd) {
  return fault() ? -1 : next<int (*)(int)>("fdatasync")(fd);
}

int msync(void *start, size_t size, int flags) {
  return fault() ? -1 : next<int (*)(void *, size_t, int)>("msync")(start, size, flags);
}

int ftruncate(int fd, off_t size) noexcept {
  return fault() ? -1 : next<int (*)(int, off_t)>("ftruncate")(fd, size);
}

int ftruncate64(int fd, off64_t size) noexcept {
  return fault() ? -1 : next<int (*)(int, off64_t)>("ftruncate64")(fd, size);
}

int fchmod(int fd, mode_t mode) noexcept {
  return fault() ? -1 : next<int (*)(int, mode_t)>("fchmod")(fd, mode);
}

int rename(const char *from, const char *to) noexcept {
  return fault() ? -1 : next<int (*)(const char *, const char *)>("rename")(from, to);
}

int unlink(const char *path) noexcept {
  return fault() ? -1 : next<int (*)(const char *)>("unlink")(path);
}

int unlinkat(int fd, const char *path, int flags) noexcept {
  return fault() ? -1 : next<int (*)(int, const char *, int)>("unlinkat")(fd, path, flags);
}

int rmdir(const char *path) noexcept {
  return fault() ? -1 : next<int (*)(const char *)>("rmdir")(path);
}

GDBM_FILE gdbm_open(const char *path, int block, int flags, int mode, void (*fatal)(const char *)) {
  static const bool unmapped = getenv("FAULT_NOMAP") != nullptr;
  return next<GDBM_FILE (*)(const char *, int, int, int, void (*)(const char *))>("gdbm_open")(
      path, block, unmapped ? flags | GDBM_NOMMAP : flags, mode, fatal);
}

#endif

}  // extern "C"
