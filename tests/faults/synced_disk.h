// A disk that loses its power: it keeps what was synced, and of the rest what it is told to.
// Everything that is there at the start counts as synced.
#pragma once

#include <sys/types.h>

#include <filesystem>
#include <map>
#include <string>

class SyncedDisk {
 public:
  // Watches the directory and all below it.
  explicit SyncedDisk(const std::filesystem::path &directory) : root_(directory) {
    keepTree(root_, Written::contents);
    keepTree(root_, Written::entries);
  }

  // A file's content (as far as [begin, end) is concerned) or a directory's entries are on the
  // disk.
  void synced(const std::filesystem::path &path, size_t begin = 0, size_t end = SIZE_MAX);

  // What was written although nobody had waited for it.
  enum class Written { nothing, contents, entries, removals };

  // Puts the directory into the state after the cut.
  void losePower(Written written);

 private:
  void keepTree(const std::filesystem::path &path, Written written);
  void put(const std::filesystem::path &directory, ino_t number);

  std::filesystem::path root_;
  std::map<ino_t, std::string> files_;
  std::map<ino_t, std::map<std::string, ino_t>> directories_;
  std::map<ino_t, mode_t> modes_;  // of directories
};
