// Records of a damaged table file that no scan reads: those in blocks that the file's directory
// does not lead to.
#pragma once

#include <functional>
#include <string>

// Hands over key and bytes of each record of such a block, as long as its hash is its key's. Space
// that the file calls free is left alone: it has old records, which were changed or deleted.
void forEachHiddenRecord(
    int fd, const std::function<void(const std::string &key, const std::string &bytes)> &take);
