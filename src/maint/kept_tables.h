// The kept version, a run's way back: from before its first change of a table file until its result
// is proved on the disk, an archived version beside "current" holds the tables as they were, with
// the mark of an unfinished run (store/tables.h).
#pragma once

#include <cstddef>

// How the version gets its files. A run that will remove the old files of the object tables links
// them, which costs next to nothing; one that changes tables in place needs a copy of all.
enum class KeepBy { linking, copying };

// Ends the process with status 1 when there is the kept version of an earlier run that has not
// finished. Called once the database is open, so that of two live runs the second is told that it
// cannot open it.
void refuseUnfinished();

// Makes the kept version, without the tables that were missing (outcome.h), and prepares the last
// words of the run (platform/report.h). A second call does nothing. Ends the process with status 1
// when the version cannot be made, or when there is no room for it and for the new tables; then
// nothing is changed and nothing stays.
void keepTables(KeepBy how);

// Called before a page file that could not be removed is written over: gives the kept version a
// copy of it in place of the link. Ends the process with status 1 when that fails; the kept version
// stays, marked.
void keepCopyOf(size_t table);

// The end of a run that has kept its tables, successful or not. With nothing in outcome.h the kept
// version is removed. Otherwise only its mark goes, standard error says where the version is and
// why it is there, and runStatus becomes 1.
void removeOrReportKeptVersion();
