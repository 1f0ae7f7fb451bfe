// Opening a dbm table for reading alone.
#pragma once

extern "C" {  // ndbm.h has no guards for C++
#include <ndbm.h>
}

#include <string>

// Opens PATH.pag and PATH.dir, which must both be there and be files, so that nothing is created or
// written and no access time is left: the library's own dbm_open leaves an empty .dir where there
// is none. Closed with dbm_close. Null with errno or the library's error on failure.
DBM *openReadOnlyDbm(const std::string &path);
