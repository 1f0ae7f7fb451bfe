// The state of one run: what it was asked to do, the database it holds, and its cleanup.
//
// The road of a run, as main (driver/) takes it:
//
// 1. openStandardStreams, the check for the super-user, sanitizeEnvironment, parseOptions, the
//    confirmation, checkDaemons. The new-handler is nqwDbOutOfMemory from here on.
// 2. loadAndPurge opens the database, refuses when a version has the mark of an unfinished run,
//    fills the caches and deletes. A run with -d alone changes the tables there; for it, 6 follows.
// 3. installSignalHandlers with cleanupCaches.
// 4. removeCurrentFiles plans the rewrite, makes the kept version and removes the old files.
// 5. Between blockSignals and unblockSignals, rewriteDatabase makes the new tables, proves them and
//    removes or reports the kept version.
// 6. cleanupCaches(1), and exit with runStatus.
#pragma once

#include <cstddef>
#include <cstdint>

#include "platform/exit_status.h"
#include "store/database.h"

// What to delete; filled from the command line.
constexpr int32_t mostObjectIds = 50;
extern uint32_t objectids[mostObjectIds];
extern int32_t numofobj;  // ids in objectids

// "is" followed by the protocol's name: the Boolean field that is true in the protocol's objects.
constexpr size_t protocolNameSize = 80;
extern char protocolName[protocolNameSize];

// The status with which the run ends when it gets to its end.
extern ExitStatus runStatus;

// Null before the load and whenever the run holds no open database.
extern ObjectDatabase *runDb;

// The shared handle (shared_database.h), through which all deletions go, while it is under bulk
// access in a run that will rewrite the tables: then the deletions stay in memory. Null before the
// first deletion, once the old files have been removed, and in other runs.
extern ObjectDatabase *deletingDb;

// Closes runDb with its field list and sets it to null.
void closeRunDb();

// Frees the caches and closes runDb. The cleanup of every run that got as far as the load: doFree
// is 1, or the number of the signal that ends the run; with 0 nothing is done. A second call finds
// nothing left to do.
void cleanupCaches(int doFree);
