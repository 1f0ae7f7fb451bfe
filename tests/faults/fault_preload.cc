// Loaded before the C library into the process under test (and passive in the processes it starts):
// counts the calls that change the file system below /usr/NQ, and with FAULT_LOOKS those that only
// look at it too. At the one that FaultCount::at names it does what FAULT_HOW says:
//   kill           ends the process
//   terminate      asks it to end, by a signal that it may catch
//   stop           stops it, until the one that started it has it go on
//   forget         ends it, and makes the directory FAULT_DISK forget what was not synced
//                  (forget-entries, forget-contents and forget-creations: only that of it). Without
//                  an end by then, at the end of the process.
//   a number       fails the call with that error
// With FAULT_ON "stop" and a number do so at every call from then on.
// FAULT_NOMAP opens tables without mapping them, so that the library writes by calls.
//
// FAULT_COUNT names a file of at least sizeof(FaultCount) bytes that tells what was counted.
// FAULT_ALONE finds no process of the platform without looking for one: the looks start a dozen
// processes, which take ten times as long as all else that a run over a small database does.
//
// FAULT_USER is the number of the user who has started the process, as far as it can tell.
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
#include <sys/mman.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fstream>

#include "faults/fault_count.h"
#include "faults/synced_disk.h"

namespace {

bool passive;  // while the calls are our own

bool isTarget() {
  static const char *name = getenv("FAULT_IN");
  return name != nullptr && strcmp(name, program_invocation_short_name) == 0;
}

// By system calls, since the functions are those that are counted here.
FaultCount *openCount() {
  const long fd = syscall(SYS_open, getenv("FAULT_COUNT"), O_RDWR);
#ifdef SYS_mmap2
  const long memory =
      syscall(SYS_mmap2, 0, sizeof(FaultCount), PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
#else
  const long memory =
      syscall(SYS_mmap, 0, sizeof(FaultCount), PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
#endif
  syscall(SYS_close, fd);
  if (memory == -1) abort();
  return reinterpret_cast<FaultCount *>(memory);
}

FaultCount *sharedCount() {
  static FaultCount *count = openCount();
  return count;
}

void report(FaultReport report) {
  syscall(SYS_write, reportsPipe, &report, sizeof report);
}

bool awaitOrder() {
  char order = 0;
  return syscall(SYS_read, ordersPipe, &order, 1) == 1;
}

// Returns in each copy that shall run.
void runCopies() {
  for (const int pipe : {ordersPipe, reportsPipe}) syscall(SYS_fcntl, pipe, F_SETFD, FD_CLOEXEC);
  report({FaultReport::ready, 0});
  while (awaitOrder()) {
    const pid_t copy = fork();
    if (copy == 0) {
      syscall(SYS_lseek, 0, 0, SEEK_SET);
      report({FaultReport::started, getpid()});
      return;
    }
    int status = 0;
    waitpid(copy, &status, 0);
    report({FaultReport::ended, status});
  }
  _exit(0);
}

#ifdef FAULT_ALLOCATIONS

void losePower() {}

__attribute__((constructor)) void begin() {
  if (isTarget()) runCopies();
}

#else

// Null where nothing is to be forgotten.
SyncedDisk *disk() {
  static const bool forgets =
      isTarget() && strncmp(getenv("FAULT_HOW"), "forget", 6) == 0 && sharedCount()->at != 0;
  static SyncedDisk *watched = forgets ? new SyncedDisk(getenv("FAULT_DISK")) : nullptr;
  return watched;
}

void losePower() {
  if (disk() == nullptr || passive) return;
  passive = true;
  using enum SyncedDisk::Written;
  const std::string how = getenv("FAULT_HOW");
  disk()->losePower(how == "forget-entries" ? contents
                    : how == "forget-contents" ? entries
                    : how == "forget-creations" ? removals
                                                : nothing);
}

__attribute__((constructor)) void begin() {
  if (!isTarget()) return;
  runCopies();
  passive = true;
  disk();
  passive = false;
}

__attribute__((destructor)) void end() {
  losePower();
}

#endif

// Whether the call shall fail; errno is set then.
bool fault(const char *call) {
  if (passive || !isTarget()) return false;
  static const char *how = getenv("FAULT_HOW");
  static const bool on = getenv("FAULT_ON") != nullptr;
  FaultCount *const count = sharedCount();
  const long number = ++count->calls, at = count->at;
  if (at == 0 || (number != at && !(on && number > at))) return false;
  if (number == at) strncpy(count->name, call, sizeof count->name - 1);
  if (strcmp(how, "stop") == 0) {
    report({FaultReport::stopped, 0});
    awaitOrder();
    return false;
  }
  if (strcmp(how, "terminate") == 0) return kill(getpid(), SIGTERM) != 0;
  losePower();
  if (atoi(how) == 0) kill(getpid(), SIGKILL);
  errno = atoi(how);
  return true;
}

template <typename Function>
Function next(const char *name) {
  return reinterpret_cast<Function>(dlsym(RTLD_NEXT, name));
}

bool isAlone() {
  static const bool alone = isTarget() && getenv("FAULT_ALONE") != nullptr;
  return alone;
}

#ifndef FAULT_ALLOCATIONS

// A look counts when it is one at the platform's files.
bool faultyLook(const char *call) {
  static const bool looks = getenv("FAULT_LOOKS") != nullptr;
  return looks && fault(call);
}

bool faultyLook(const char *call, const char *path) {
  return (*path != '/' || strncmp(path, "/usr/NQ", 7) == 0) && faultyLook(call);
}

bool faultyLook(const char *call, int fd) {
  return fd > 2 && faultyLook(call);
}

bool faultyOpen(const char *call, const char *path, int flags) {
  const bool changes = (flags & (O_CREAT | O_TRUNC)) != 0 && strncmp(path, "/dev/", 5) != 0;
  return changes ? fault(call) : faultyLook(call, path);
}

int synced(int fd, int result) {
  if (result == 0 && disk() != nullptr) {
    passive = true;
    disk()->synced(std::filesystem::read_symlink("/proc/self/fd/" + std::to_string(fd)));
    passive = false;
  }
  return result;
}

// The file is the one that is mapped there.
int synced(const void *start, size_t size, int result) {
  if (result != 0 || disk() == nullptr) return result;
  passive = true;
  const auto address = reinterpret_cast<uintptr_t>(start);
  std::ifstream maps("/proc/self/maps");
  for (std::string line; std::getline(maps, line);) {
    unsigned long begin = 0, end = 0, offset = 0;
    int path = 0;
    sscanf(line.c_str(), "%lx-%lx %*s %lx %*s %*s %n", &begin, &end, &offset, &path);
    if (address < begin || address >= end) continue;
    disk()->synced(line.substr(path), offset + address - begin, offset + address - begin + size);
  }
  passive = false;
  return result;
}

#endif

}  // namespace

// Defines the function of the C library with that name. Its own C++ name keeps it apart from the
// declarations in the headers, which differ in exceptions and, on i386, rename some to others.
// `failure` is what it returns for a fault, when `isFault` holds.
#define CALL(result, name, parameters, arguments, isFault, failure) \
  extern "C" result faulty_##name parameters __asm__(#name);        \
  result faulty_##name parameters {                                 \
    static const auto real = next<result(*) parameters>(#name);     \
    return (isFault) ? (failure) : real arguments;                  \
  }

CALL(FILE *, popen, (const char *command, const char *mode), (command, mode), isAlone(),
     fopen("/dev/null", mode))
CALL(int, pclose, (FILE * stream), (stream), isAlone(), fclose(stream))

CALL(uid_t, getuid, (), (), getenv("FAULT_USER") != nullptr,
     static_cast<uid_t>(atoi(getenv("FAULT_USER"))))

#ifdef FAULT_ALLOCATIONS

extern "C" {

void *__libc_malloc(size_t size);
void *__libc_calloc(size_t count, size_t size);
void *__libc_realloc(void *storage, size_t size);

void *malloc(size_t size) {
  return fault("malloc") ? nullptr : __libc_malloc(size);
}

void *calloc(size_t count, size_t size) {
  return fault("calloc") ? nullptr : __libc_calloc(count, size);
}

void *realloc(void *storage, size_t size) {
  return fault("realloc") ? nullptr : __libc_realloc(storage, size);
}

}  // extern "C"

#else

#define CHANGE(name, parameters, arguments) CALL(int, name, parameters, arguments, fault(#name), -1)
#define LOOK(result, name, parameters, arguments, what, failure) \
  CALL(result, name, parameters, arguments, faultyLook(#name, what), failure)
#define BOTH(macro, name, offset, parameters, arguments) \
  macro(name, offset, parameters, arguments) macro(name##64, offset##64, parameters, arguments)

// The mode is read when none was given, too; the system then does not look at it.
#define OPEN(name)                                                                 \
  CALL(int, name, (const char *path, int flags, mode_t mode), (path, flags, mode), \
       faultyOpen(#name, path, flags), -1)
#define OPENAT(name)                                                                           \
  CALL(int, name, (int fd, const char *path, int flags, mode_t mode), (fd, path, flags, mode), \
       faultyOpen(#name, path, flags), -1)
OPEN(open)
OPEN(open64)
OPENAT(openat)
OPENAT(openat64)
// What the library's headers make of them with -D_FORTIFY_SOURCE.
CALL(int, __open_2, (const char *path, int flags), (path, flags), faultyLook("open", path), -1)
CALL(int, __open64_2, (const char *path, int flags), (path, flags), faultyLook("open", path), -1)
CALL(int, __openat_2, (int fd, const char *path, int flags), (fd, path, flags),
     faultyLook("openat", path), -1)
CALL(int, __openat64_2, (int fd, const char *path, int flags), (fd, path, flags),
     faultyLook("openat", path), -1)

#define FOPEN(name)                                                                             \
  CALL(FILE *, name, (const char *path, const char *mode), (path, mode),                        \
       *mode == 'r' ? faultyLook(#name, path) : strncmp(path, "/dev/", 5) != 0 && fault(#name), \
       nullptr)
FOPEN(fopen)
FOPEN(fopen64)

CHANGE(creat, (const char *path, mode_t mode), (path, mode))
CHANGE(creat64, (const char *path, mode_t mode), (path, mode))
CHANGE(ftruncate, (int fd, off_t size), (fd, size))
CHANGE(ftruncate64, (int fd, off64_t size), (fd, size))
CHANGE(truncate, (const char *path, off_t size), (path, size))
CHANGE(truncate64, (const char *path, off64_t size), (path, size))
CHANGE(fallocate, (int fd, int mode, off_t start, off_t size), (fd, mode, start, size))
CHANGE(fallocate64, (int fd, int mode, off64_t start, off64_t size), (fd, mode, start, size))
CHANGE(fchmod, (int fd, mode_t mode), (fd, mode))
CHANGE(chmod, (const char *path, mode_t mode), (path, mode))
CHANGE(fchmodat, (int fd, const char *path, mode_t mode, int flags), (fd, path, mode, flags))
CHANGE(fchown, (int fd, uid_t user, gid_t group), (fd, user, group))
CHANGE(chown, (const char *path, uid_t user, gid_t group), (path, user, group))
CHANGE(fchownat, (int fd, const char *path, uid_t user, gid_t group, int flags),
       (fd, path, user, group, flags))
CHANGE(rename, (const char *from, const char *to), (from, to))
CHANGE(renameat, (int a, const char *from, int b, const char *to), (a, from, b, to))
CHANGE(renameat2, (int a, const char *from, int b, const char *to, unsigned flags),
       (a, from, b, to, flags))
CHANGE(link, (const char *from, const char *to), (from, to))
CHANGE(linkat, (int a, const char *from, int b, const char *to, int flags), (a, from, b, to, flags))
CHANGE(symlink, (const char *to, const char *path), (to, path))
CHANGE(symlinkat, (const char *to, int fd, const char *path), (to, fd, path))
CHANGE(unlink, (const char *path), (path))
CHANGE(unlinkat, (int fd, const char *path, int flags), (fd, path, flags))
CHANGE(remove, (const char *path), (path))
CHANGE(rmdir, (const char *path), (path))
CHANGE(mkdirat, (int fd, const char *path, mode_t mode), (fd, path, mode))
CHANGE(mkostemp, (char *path, int flags), (path, flags))
CHANGE(mkostemp64, (char *path, int flags), (path, flags))
CHANGE(mkstemp, (char *path), (path))
CHANGE(mkstemp64, (char *path), (path))
CHANGE(futimens, (int fd, const void *times), (fd, times))
CHANGE(__futimens64, (int fd, const void *times), (fd, times))
CHANGE(utimensat, (int fd, const char *path, const void *times, int flags),
       (fd, path, times, flags))
CHANGE(__utimensat64, (int fd, const char *path, const void *times, int flags),
       (fd, path, times, flags))
CHANGE(syncfs, (int fd), (fd))
CALL(char *, mkdtemp, (char *path), (path), fault("mkdtemp"), nullptr)
// These return the error.
CALL(int, posix_fallocate, (int fd, off_t start, off_t size), (fd, start, size),
     fault("posix_fallocate"), errno)
CALL(int, posix_fallocate64, (int fd, off64_t start, off64_t size), (fd, start, size),
     fault("posix_fallocate64"), errno)

// Making what is there changes nothing, and does not fail for want of room.
CALL(int, mkdir, (const char *path, mode_t mode), (path, mode),
     syscall(SYS_access, path, F_OK) != 0 && fault("mkdir"), -1)

#define WRITE(name, parameters, arguments) \
  CALL(ssize_t, name, parameters, arguments, fd > 2 && fault(#name), -1)
WRITE(write, (int fd, const void *bytes, size_t size), (fd, bytes, size))
WRITE(pwrite, (int fd, const void *bytes, size_t size, off_t at), (fd, bytes, size, at))
WRITE(pwrite64, (int fd, const void *bytes, size_t size, off64_t at), (fd, bytes, size, at))
WRITE(writev, (int fd, const void *parts, int count), (fd, parts, count))
CALL(ssize_t, copy_file_range,
     (int from, off64_t *a, int to, off64_t *b, size_t size, unsigned flags),
     (from, a, to, b, size, flags), fault("copy_file_range"), -1)
CALL(ssize_t, sendfile, (int to, int from, off_t *at, size_t size), (to, from, at, size),
     fault("sendfile"), -1)
CALL(ssize_t, sendfile64, (int to, int from, off64_t *at, size_t size), (to, from, at, size),
     fault("sendfile64"), -1)

// The library also syncs for itself, when it maps a file anew and when it closes one, and tells
// nobody the result. What matters is synced by order, and the result of that is looked at.
static bool syncing;
extern "C" int faulty_gdbm_sync(GDBM_FILE file) __asm__("gdbm_sync");
int faulty_gdbm_sync(GDBM_FILE file) {
  static const auto real = next<int (*)(GDBM_FILE)>("gdbm_sync");
  syncing = true;
  const int result = real(file);
  syncing = false;
  return result;
}

static bool isByOrder(void *caller) {
  Dl_info where{};
  return syncing || dladdr(caller, &where) == 0 || strstr(where.dli_fname, "libgdbm") == nullptr;
}

#define SYNC(name, parameters, call, ...)                                                \
  extern "C" int faulty_##name parameters __asm__(#name);                                \
  int faulty_##name parameters {                                                         \
    static const auto real = next<int(*) parameters>(#name);                             \
    const bool failed =                                                                  \
        fault(isByOrder(__builtin_return_address(0)) ? #name : #name " of the library"); \
    return failed ? -1 : synced(__VA_ARGS__, real call);                                 \
  }
SYNC(fsync, (int fd), (fd), fd)
SYNC(fdatasync, (int fd), (fd), fd)
SYNC(msync, (void *start, size_t size, int flags), (start, size, flags), start, size)

#define STATUS(name) LOOK(int, name, (const char *path, void *status), (path, status), path, -1)
#define FSTATUS(name) LOOK(int, name, (int fd, void *status), (fd, status), fd, -1)
#define STATUSAT(name)                                                                            \
  LOOK(int, name, (int fd, const char *path, void *status, int flags), (fd, path, status, flags), \
       path, -1)
STATUS(stat)
STATUS(stat64)
STATUS(__stat64_time64)
STATUS(lstat)
STATUS(lstat64)
STATUS(__lstat64_time64)
STATUS(statvfs)
STATUS(statvfs64)
FSTATUS(fstat)
FSTATUS(fstat64)
FSTATUS(__fstat64_time64)
FSTATUS(fstatvfs)
FSTATUS(fstatvfs64)
STATUSAT(fstatat)
STATUSAT(fstatat64)
STATUSAT(__fstatat64_time64)
LOOK(int, statx, (int fd, const char *path, int flags, unsigned mask, void *status),
     (fd, path, flags, mask, status), path, -1)
LOOK(int, access, (const char *path, int mode), (path, mode), path, -1)
LOOK(int, faccessat, (int fd, const char *path, int mode, int flags), (fd, path, mode, flags), path,
     -1)
LOOK(off_t, lseek, (int fd, off_t at, int from), (fd, at, from), fd, -1)
LOOK(off64_t, lseek64, (int fd, off64_t at, int from), (fd, at, from), fd, -1)
LOOK(ssize_t, read, (int fd, void *bytes, size_t size), (fd, bytes, size), fd, -1)
LOOK(ssize_t, __read_chk, (int fd, void *bytes, size_t size, size_t room), (fd, bytes, size, room),
     fd, -1)
LOOK(ssize_t, pread, (int fd, void *bytes, size_t size, off_t at), (fd, bytes, size, at), fd, -1)
LOOK(ssize_t, pread64, (int fd, void *bytes, size_t size, off64_t at), (fd, bytes, size, at), fd,
     -1)
LOOK(ssize_t, __pread64_chk, (int fd, void *bytes, size_t size, off64_t at, size_t room),
     (fd, bytes, size, at, room), fd, -1)
LOOK(ssize_t, readlink, (const char *path, char *text, size_t size), (path, text, size), path, -1)
LOOK(ssize_t, readlinkat, (int fd, const char *path, char *text, size_t size),
     (fd, path, text, size), path, -1)
LOOK(int, flock, (int fd, int operation), (fd, operation), fd, -1)
LOOK(int, dup, (int fd), (fd), fd, -1)
LOOK(void *, opendir, (const char *path), (path), path, nullptr)
LOOK(void *, fdopendir, (int fd), (fd), fd, nullptr)
CALL(void *, readdir, (void *directory), (directory), faultyLook("readdir"), nullptr)
CALL(void *, readdir64, (void *directory), (directory), faultyLook("readdir64"), nullptr)
LOOK(void *, mmap, (void *start, size_t size, int access, int flags, int fd, off_t at),
     (start, size, access, flags, fd, at), fd, MAP_FAILED)
LOOK(void *, mmap64, (void *start, size_t size, int access, int flags, int fd, off64_t at),
     (start, size, access, flags, fd, at), fd, MAP_FAILED)

// A file is closed although the call says that what was written to it is lost.
CALL(int, close, (int fd), (fd), fd > 2 && faultyLook("close") && real(fd) == 0, -1)

namespace {

bool isUnmapped() {
  static const bool unmapped = getenv("FAULT_NOMAP") != nullptr;
  return unmapped;
}

}  // namespace

CALL(int, gdbm_setopt, (GDBM_FILE table, int option, void *value, int size),
     (table, option, value, size), option == GDBM_SETMMAP && isUnmapped(), 0)

extern "C" GDBM_FILE gdbm_open(const char *path, int block, int flags, int mode,
                               void (*fatal)(const char *)) {
  return next<GDBM_FILE (*)(const char *, int, int, int, void (*)(const char *))>("gdbm_open")(
      path, block, isUnmapped() ? flags | GDBM_NOMMAP : flags, mode, fatal);
}

#endif
