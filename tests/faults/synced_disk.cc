#include "faults/synced_disk.h"

#include <sys/stat.h>

#include <fstream>
#include <set>

namespace fs = std::filesystem;

namespace {

struct stat statusOf(const fs::path &path) {
  struct stat status {};
  stat(path.c_str(), &status);
  return status;
}

}  // namespace

void SyncedDisk::synced(const fs::path &path, size_t begin, size_t end) {
  const struct stat status = statusOf(path);
  if (S_ISDIR(status.st_mode)) {
    auto &entries = directories_[status.st_ino];
    entries.clear();
    modes_[status.st_ino] = status.st_mode & 07777;
    for (const auto &entry : fs::directory_iterator(path)) {
      const ino_t number = statusOf(entry).st_ino;
      entries[entry.path().filename()] = number;
      // What was never synced itself is there and empty.
      if (entry.is_directory()) {
        directories_[number];
        modes_.try_emplace(number, statusOf(entry).st_mode & 07777);
      } else {
        files_[number];
      }
    }
    return;
  }
  std::string now(static_cast<size_t>(status.st_size), '\0');
  std::ifstream(path, std::ios::binary).read(now.data(), status.st_size);
  std::string &content = files_[status.st_ino];
  content.resize(now.size());
  if (begin < now.size()) content.replace(begin, end - begin, now, begin, end - begin);
}

void SyncedDisk::keepTree(const fs::path &path, Written written) {
  if (!fs::is_directory(path)) {
    if (written == Written::contents) synced(path);
    return;
  }
  if (written == Written::entries) synced(path);
  if (written == Written::removals) {
    std::set<ino_t> present;
    for (const auto &entry : fs::directory_iterator(path)) present.insert(statusOf(entry).st_ino);
    std::erase_if(directories_[statusOf(path).st_ino], [&](const auto &entry) {
      const ino_t now = statusOf(path / entry.first).st_ino;
      // Names that were exchanged are not removed: no disk makes one half of that.
      const bool exchanged = now != 0 && present.contains(entry.second);
      return now != entry.second && !exchanged;
    });
  }
  for (const auto &entry : fs::directory_iterator(path)) keepTree(entry, written);
}

void SyncedDisk::put(const fs::path &directory, ino_t number) {
  for (const auto &[name, entry] : directories_[number]) {
    const fs::path path = directory / name;
    if (directories_.contains(entry)) {
      fs::create_directory(path);
      put(path, entry);
      chmod(path.c_str(), modes_[entry]);
    } else {
      std::ofstream(path, std::ios::binary) << files_[entry];
    }
  }
}

void SyncedDisk::losePower(Written written) {
  if (written != Written::nothing) keepTree(root_, written);
  const ino_t number = statusOf(root_).st_ino;
  for (const auto &entry : fs::directory_iterator(root_)) fs::remove_all(entry);
  put(root_, number);
}
