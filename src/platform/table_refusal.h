// Why the library refuses a table's files, in words: it tells of most reasons alike.
#pragma once

#include <string>

// Right after the library has refused the open .pag file (gdbm_errno).
std::string whyNotPageFile(int fd);

// Why it would refuse the open .dir file, which holds nothing but its name and its version; empty
// when it would not.
std::string whyNotDirectoryFile(int fd);
