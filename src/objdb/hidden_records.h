// Records of a damaged table file that no scan reads: those in blocks that the file's directory
// does not lead to.
#pragma once

#include <functional>
#include <string>

// Calls `visit` with key and bytes of each record of such a block whose stored hash is that of its
// key. Passes over space that the file calls free: there lie old records, which were changed or
// deleted.
void forEachHiddenRecord(
    int fd, const std::function<void(const std::string &key, const std::string &bytes)> &visit);
