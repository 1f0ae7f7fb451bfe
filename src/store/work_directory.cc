#include "store/work_directory.h"

#include <dirent.h>
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/file.h>
#include <sys/random.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <vector>

#include "platform/files.h"

namespace {

constexpr char prefix[] = ".dbsweep-";
constexpr char replacedName[] = "replaced";  // in a work directory
constexpr int directoryFlags = O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC;

Descriptor openDatabase(const std::string &database) {
  return Descriptor(open(database.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
}

// A new name for a directory that is there already; mkdtemp makes one only with a directory. No
// need of a loop: the rename refuses a name that is taken.
std::string workName() {
  constexpr char letters[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789";
  unsigned char random[6] = {};
  [[maybe_unused]] const ssize_t got = getrandom(random, sizeof random, 0);
  std::string name = prefix;
  for (const unsigned char each : random) name += letters[each % (sizeof letters - 1)];
  return name;
}

// The files of a work directory, and those of a directory that it was to replace.
int removeContents(int directory) {
  const Descriptor replaced(openat(directory, replacedName, directoryFlags));
  if (replaced.isOpen() &&
      (removeFiles(replaced.get()) != 0 || unlinkat(directory, replacedName, AT_REMOVEDIR) != 0)) {
    return -1;
  }
  return removeFiles(directory);
}

bool isPrivate(const struct stat &directory) {
  return directory.st_uid == geteuid() && (directory.st_mode & 0777) == 0700;
}

}  // namespace

bool failAttempt(const char *attempt, const std::string &path, std::string *error) {
  const int reason = errno;
  *error = std::string("could not ") + attempt + " \"" + path + "\": " + strerror(reason);
  errno = reason;
  return false;
}

std::unique_ptr<WorkDirectory> WorkDirectory::make(const std::string &database,
                                                   std::string *error) {
  constexpr int attempts = 10;
  for (int attempt = 1;; ++attempt) {
    std::unique_ptr<WorkDirectory> work = makeOnce(database, error);
    // Somebody who removes leftovers may have come before the lock.
    if (work != nullptr || errno != ENOENT || attempt == attempts) return work;
  }
}

std::unique_ptr<WorkDirectory> WorkDirectory::makeOnce(const std::string &database,
                                                       std::string *error) {
  // Takes its memory before there is a directory, which a want of memory would leave behind.
  std::unique_ptr<WorkDirectory> work(
      new WorkDirectory(openDatabase(database), Descriptor(), std::string()));
  const Descriptor &parent = work->database_;
  if (!parent.isOpen()) {
    failAttempt("open", database, error);
    return nullptr;
  }
  std::string path = database + "/" + prefix + "XXXXXX";
  if (mkdtemp(path.data()) == nullptr) {
    failAttempt("make", path, error);
    return nullptr;
  }
  const std::string name = path.substr(database.size() + 1);  // too short to take memory
  // Everything from here on is done by descriptors.
  Descriptor directory(openat(parent.get(), name.c_str(), directoryFlags));
  struct stat made {};
  // Somebody else may have put another directory there meanwhile.
  const bool ours = directory.isOpen() && fstat(directory.get(), &made) == 0 && isPrivate(made);
  if (!ours || flock(directory.get(), LOCK_EX | LOCK_NB) != 0) {
    failAttempt("make", path, error);
    const int reason = errno;
    if (ours) unlinkat(parent.get(), name.c_str(), AT_REMOVEDIR);
    errno = reason;
    return nullptr;
  }
  work->directory_ = std::move(directory);
  work->name_ = name;
  if (work->hasName(name)) return work;
  // Removed between mkdtemp and flock, by somebody who took it for a leftover.
  work.reset();
  errno = ENOENT;
  failAttempt("make", path, error);
  return nullptr;
}

std::unique_ptr<WorkDirectory> WorkDirectory::adopt(const std::string &database,
                                                    const std::string &name, std::string *error) {
  Descriptor parent = openDatabase(database);
  Descriptor directory(openat(parent.get(), name.c_str(), directoryFlags));
  if (!directory.isOpen() || flock(directory.get(), LOCK_EX | LOCK_NB) != 0) {
    failAttempt("open", database + "/" + name, error);
    return nullptr;
  }
  std::unique_ptr<WorkDirectory> work(
      new WorkDirectory(std::move(parent), std::move(directory), name));
  work->published_ = true;
  return work->retract(error) ? std::move(work) : nullptr;
}

WorkDirectory::~WorkDirectory() {
  if (!directory_.isOpen()) return;  // none was made, and errno says why
  // Under its own name alone: another directory may have been put there, which is not ours.
  if (published_ || !hasName(name_)) return;
  if (removeContents(fd()) == 0) unlinkat(database_.get(), name_.c_str(), AT_REMOVEDIR);
}

bool WorkDirectory::hasName(const std::string &name) const {
  struct stat opened {};
  struct stat named {};
  return fstat(fd(), &opened) == 0 &&
         fstatat(database_.get(), name.c_str(), &named, AT_SYMLINK_NOFOLLOW) == 0 &&
         identityOf(opened) == identityOf(named);
}

std::string WorkDirectory::path() const {
  return "/proc/self/fd/" + std::to_string(fd());
}

bool WorkDirectory::copy(const std::string &from, const std::string &as, std::string *error) {
  const Descriptor source(openRegular(from, O_RDONLY));
  return (source.isOpen() && copyFileSynced(source.get(), fd(), as) == 0) ||
         failAttempt("copy", from, error);
}

bool WorkDirectory::link(const std::string &from, const std::string &as) {
  // By the descriptor of what was looked at: the name may lead elsewhere a moment later.
  struct stat named {};
  const Descriptor source(openRegular(from, O_RDONLY));
  if (!source.isOpen() || lstat(from.c_str(), &named) != 0) return false;
  struct stat opened {};
  if (fstat(source.get(), &opened) != 0) return false;
  if (identityOf(named) != identityOf(opened)) {
    errno = EINVAL;  // a symbolic link, which a removal of its name would leave without its file
    return false;
  }
  const std::string file = "/proc/self/fd/" + std::to_string(source.get());
  return linkat(AT_FDCWD, file.c_str(), fd(), as.c_str(), AT_SYMLINK_FOLLOW) == 0 &&
         fsync(source.get()) == 0;
}

bool WorkDirectory::publish(const std::string &name, const struct stat &like, std::string *error) {
  return publishAs(name, RENAME_NOREPLACE, like, error);
}

bool WorkDirectory::publishOver(const std::string &name, const struct stat &like,
                                std::string *error) {
  return publishAs(name, 0, like, error);
}

bool WorkDirectory::publishAs(const std::string &name, unsigned flags, const struct stat &like,
                              std::string *error) {
  // The entries first: after a power failure no version may be seen that lacks some of its files.
  if (fsync(fd()) != 0) return failAttempt("sync", name_, error);
  if (renameat2(database_.get(), name_.c_str(), database_.get(), name.c_str(), flags) != 0) {
    return failAttempt("name", name, error);
  }
  const std::string workedAs = std::exchange(name_, name);
  // After the rename, since removeLeftovers knows the work directories of this user by their owner.
  [[maybe_unused]] const int owned = fchown(fd(), like.st_uid, like.st_gid);
  if (hasName(name) && fchmod(fd(), like.st_mode & 07777) == 0 && fsync(fd()) == 0 &&
      fsync(database_.get()) == 0) {
    published_ = true;
    return true;
  }
  failAttempt("name", name, error);
  const int reason = errno;
  if (renameat2(database_.get(), name.c_str(), database_.get(), workedAs.c_str(),
                RENAME_NOREPLACE) == 0) {
    name_ = workedAs;
  }
  errno = reason;
  return false;
}

bool WorkDirectory::retract(std::string *error) {
  const std::string named = name_;
  if (!hasName(named)) {
    errno = ENOENT;
    return failAttempt("find", named, error);
  }
  // Before the rename and on the disk, so that it is known as a leftover as soon as it has the
  // name, should the process die or the power fail.
  [[maybe_unused]] const int owned = fchown(fd(), geteuid(), getegid());
  const std::string fresh = workName();
  if (fchmod(fd(), 0700) != 0 || fsync(fd()) != 0 ||
      renameat2(database_.get(), named.c_str(), database_.get(), fresh.c_str(), RENAME_NOREPLACE) !=
          0) {
    return failAttempt("rename", named, error);
  }
  const bool synced = fsync(database_.get()) == 0 || failAttempt("sync", named, error);
  // What is not surely gone stays, if it can.
  if (!synced && renameat2(database_.get(), fresh.c_str(), database_.get(), named.c_str(),
                           RENAME_NOREPLACE) == 0) {
    return false;
  }
  name_ = fresh;
  published_ = false;
  return synced;
}

bool WorkDirectory::exchangeNames(int from, const std::string &entry, const std::string &name,
                                  std::string *error) {
  struct stat other {};
  // The names of what is no directory are not exchanged: a link leads to files that are elsewhere.
  if (fstatat(database_.get(), name.c_str(), &other, AT_SYMLINK_NOFOLLOW) != 0) {
    return failAttempt("look at", name, error);
  }
  if (!S_ISDIR(other.st_mode)) {
    errno = ENOTDIR;
    return failAttempt("exchange", name, error);
  }
  if (renameat2(from, entry.c_str(), database_.get(), name.c_str(), RENAME_EXCHANGE) != 0) {
    return failAttempt("exchange", name, error);
  }
  name_ = name;
  published_ = true;
  return true;
}

bool WorkDirectory::exchange(const std::string &name, std::string *error) {
  return exchangeNames(database_.get(), name_, name, error);
}

bool WorkDirectory::replace(const std::string &database, const std::string &name,
                            const struct stat &like, std::string *error) {
  // From here on it may be another user's, and so may be what it replaces. Inside a work directory
  // both are still known as a leftover, should the process die.
  auto enclosing = make(database, error);
  if (enclosing == nullptr) return false;
  if (renameat2(database_.get(), name_.c_str(), enclosing->fd(), replacedName, RENAME_NOREPLACE) !=
      0) {
    return failAttempt("rename", name_, error);
  }
  [[maybe_unused]] const int owned = fchown(fd(), like.st_uid, like.st_gid);
  const bool isReady =
      fchmod(fd(), like.st_mode & 07777) == 0 && fsync(fd()) == 0 && fsync(enclosing->fd()) == 0;
  if (!isReady) failAttempt("sync", name_, error);
  replaced_ = std::move(enclosing);
  published_ = true;  // whatever happens, what lies in the other directory goes with that one
  return isReady && exchangeNames(replaced_->fd(), replacedName, name, error);
}

bool WorkDirectory::removeReplaced(std::string *error) {
  return replaced_ == nullptr || replaced_->remove(error);
}

bool WorkDirectory::remove(std::string *error) {
  if (removeContents(fd()) != 0 || unlinkat(database_.get(), name_.c_str(), AT_REMOVEDIR) != 0) {
    return failAttempt("remove", name_, error);
  }
  published_ = true;  // nothing is left for the destructor
  return true;
}

void removeLeftovers(const std::string &database) {
  const Descriptor parent = openDatabase(database);
  if (!parent.isOpen()) return;
  Descriptor own(openat(parent.get(), ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  const std::unique_ptr<DIR, int (*)(DIR *)> entries(fdopendir(own.get()), closedir);
  if (entries == nullptr) return;
  own.release();
  std::vector<std::string> names;  // first all of them: removing changes what is walked over
  while (const dirent *entry = readdir(entries.get())) {
    if (strncmp(entry->d_name, prefix, sizeof prefix - 1) == 0) names.emplace_back(entry->d_name);
  }
  for (const std::string &name : names) {
    // A lock that can be had tells that the process which made it is dead.
    const Descriptor directory(openat(parent.get(), name.c_str(), directoryFlags | O_NONBLOCK));
    struct stat status {};
    // A directory that others may write to could have been moved there by them.
    if (directory.isOpen() && fstat(directory.get(), &status) == 0 && isPrivate(status) &&
        flock(directory.get(), LOCK_EX | LOCK_NB) == 0 && removeContents(directory.get()) == 0) {
      unlinkat(parent.get(), name.c_str(), AT_REMOVEDIR);
    }
  }
}
