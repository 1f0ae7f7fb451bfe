// The second phase of a run: read the whole database into the caches, then delete what was asked
// for.
#pragma once

#include <cstdio>

// The trace file "/usr/NQ/log/objectsdb.trace", open only while a list of ids is deleted.
extern FILE *tfp;

// 1. Open the database as runDb, which creates what is missing, and refuse when a version is marked.
//    -m: in the old data format. -d alone: the shared handle. Otherwise: a handle of its own.
// 2. Fill the caches.
// 3. Refuse a protocol that has no field, or several, with status 1, before anything is deleted.
// 4. With dflag: write the number of objects to the trace file and to standard error, then delete
//    the objects in objectids. If the first of them is 99, write the number and end the run.
// 5. With pflag: delete every object whose Boolean field `protocolName` is true.
//
// A run that will rewrite the tables deletes from the caches at once. Its deletions from the tables
// go through deletingDb, a second handle, which holds them back and drops them once the files are
// gone. A run with dflag alone works on the tables; it keeps them
// before and proves them afterwards (kept_tables.h). Failures that end the run print their message
// and exit here, mostly with status 0.
void loadAndPurge(int dflag, int pflag, int mflag);
