// A directory beside the versions for what is not a version yet, or not any more.
//
// The database directory is open to everybody, so a fixed name in it could be anybody's. A work
// directory has a name that nobody can guess (".dbsweep-" and six characters), is its owner's alone
// (mode 0700), and is held open: whatever is made, linked or removed in it is so by its descriptor,
// wherever its name leads meanwhile. It is locked while the process lives, so that what a dead
// process has left can be told from what a live one works in.
#pragma once

#include <sys/stat.h>

#include <memory>
#include <string>

#include "platform/descriptor.h"

class WorkDirectory {
 public:
  // Makes an empty one. Null, and *error says why, on failure.
  static std::unique_ptr<WorkDirectory> make(const std::string &database, std::string *error);

  // Makes the version NAME a work directory: it loses its name at once and for good, and is removed
  // with its files by remove() or the destructor.
  static std::unique_ptr<WorkDirectory> adopt(const std::string &database, const std::string &name,
                                              std::string *error);

  // Removes the directory with the files in it, unless it is published, and what it has replaced.
  ~WorkDirectory();
  WorkDirectory(const WorkDirectory &) = delete;
  WorkDirectory &operator=(const WorkDirectory &) = delete;

  int fd() const { return directory_.get(); }
  bool isPublished() const { return published_; }

  // The same directory for those who take no descriptors. Nobody can change where it leads.
  std::string path() const;

  // A copy of the file at a path, on the disk when it returns; or a hard link to it, which writes
  // none of its bytes. False, and *error says why, on failure; for a link that
  // cannot be had (no regular file, another file system, a rule against it) errno says so.
  bool copy(const std::string &from, const std::string &as, std::string *error);
  bool link(const std::string &from, const std::string &as);

  // Gives it a name that nothing has yet, with what is in it on the disk, and then the owner, group
  // and mode of the directory `like`. False with errno EEXIST, and nothing is changed, when the
  // name is taken; on any other failure it is a work directory again.
  bool publish(const std::string &name, const struct stat &like, std::string *error);

  // The same where a directory without entries may stand, whose place it takes.
  bool publishOver(const std::string &name, const struct stat &like, std::string *error);

  // Exchanges the names of this published directory and of another one, at once.
  bool exchange(const std::string &name, std::string *error);

  // Puts it, unpublished, in the place of the database's directory NAME, at once and with the
  // owner, group and mode of `like`. What stood there is removed by removeReplaced (false, and
  // *error says why, when that fails), or at the latest by the destructor.
  bool replace(const std::string &database, const std::string &name, const struct stat &like,
               std::string *error);
  bool removeReplaced(std::string *error);

  // Takes a published directory's name away again; the destructor will remove it. When that fails,
  // it keeps the name, if it can.
  bool retract(std::string *error);

  // Removes it now. False, and *error says why, when that fails.
  bool remove(std::string *error);

 private:
  WorkDirectory(Descriptor database, Descriptor directory, std::string name)
      : database_(std::move(database)), directory_(std::move(directory)), name_(std::move(name)) {}

  bool publishAs(const std::string &name, unsigned flags, const struct stat &like,
                 std::string *error);

  // Null with errno ENOENT when the directory was removed again before it was locked.
  static std::unique_ptr<WorkDirectory> makeOnce(const std::string &database, std::string *error);

  // Exchanges the names of an entry of a directory and of a directory of the database.
  bool exchangeNames(int from, const std::string &entry, const std::string &name,
                     std::string *error);

  // Whether the directory still stands under that name.
  bool hasName(const std::string &name) const;

  Descriptor database_;
  Descriptor directory_;
  std::string name_;
  bool published_ = false;
  std::unique_ptr<WorkDirectory> replaced_;  // the work directory in which the replaced one lies
};

// Removes what dead processes have left of work directories of this user.
void removeLeftovers(const std::string &database);

// "could not ATTEMPT "PATH": reason of errno" in *error; false.
bool failAttempt(const char *attempt, const std::string &path, std::string *error);
