// The state of one run: what it was asked to do, the database it holds, and its cleanup.
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

// The handle through which a run deletes that will rewrite the tables: under bulk access, so that
// the tables do not change, until their files have been removed; else null.
extern ObjectDatabase *purgedDb;

// Closes runDb with its field list and sets it to null.
void closeRunDb();

// Frees the caches and closes runDb when doFree is not 0; nothing otherwise. The cleanup of every
// run that got as far as the load: doFree is 1, or the signal that ends the run. A second call
// finds nothing left to do.
void cleanupCaches(int doFree);
