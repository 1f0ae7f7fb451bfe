// The handle that queries and deletions share.
#pragma once

#include <ctime>

#include "store/database.h"

// Non-zero: the next nqwDbGetDb(0) reads the field list of its open handle again and clears it.
// For programs that define fields while it is open.
extern int update_fcache;

// The shared handle of a version, with its field list; null when it cannot be had. Version 0 is
// opened on first use and never closed here; NQw_DB_OPEN_FAILED (traced) when it cannot be opened,
// and the next call tries again. Any other version is openArchiveDb's. Opening ends the process
// when a directory cannot be made (directory.h); for archived versions too.
ObjectDatabase *nqwDbGetDb(time_t version);

// One archived version at a time, for the rest of the run: asked for again the same handle, for
// another version null and NQw_DB_VERSION_NOT_FOUND (traced). NQw_DB_OPEN_FAILED (traced) when it
// cannot be opened.
ObjectDatabase *openArchiveDb(time_t version);

// For programs that only look: makes an open handle (openForReading) the one that nqwDbGetDb
// returns for version 0, which is what every query asks for, and for the version that it was opened
// for.
void shareDatabase(ObjectDatabase *db);

extern ObjectDatabase *snapstruct;      // the handle of the open archived version
extern time_t _NQW_NDBM_snapshot_open;  // which one it is; 0 for none
