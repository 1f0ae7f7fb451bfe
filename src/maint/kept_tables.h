// The way back: from before a run's first change of a table file until its result is proved on the
// disk, a marked version beside "current" holds the tables as they were (store/versions.h).
#pragma once

#include <cstddef>

// How the version gets its files. A run that will remove the old files of the object tables links
// them, which costs next to nothing; one that changes tables in place needs a copy of all.
enum class KeepBy { linking, copying };

// Ends the process with status 1 when an earlier run has not finished. Called once the database is
// open, so that of two live runs the second is told that it cannot open it.
void refuseUnfinished();

// Makes the version, without the tables that were missing (outcome.h), and prepares the last words
// of the run (platform/report.h). A second call does nothing. Ends the process with status 1, and
// nothing is changed or left behind, when it cannot be made or there is no room for it and for the
// new tables.
void keepTables(KeepBy how);

// Before a page file that could not be removed is written over: gives the version a copy of it in
// place of the link. Ends the process with status 1 when that fails; the version stays, marked.
void keepCopyOf(size_t table);

// The end of a run that has kept its tables, successful or not: with nothing in outcome.h the
// version goes. Otherwise its mark alone goes, the run says where the version is and why it is
// there, and ends with status 1.
void settleKeptTables();
