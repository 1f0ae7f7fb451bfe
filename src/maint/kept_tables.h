// The kept version, a run's way back: an archived version beside "current" that holds the tables as
// they were. It is there from before the run's first change of a table file until the run has
// looked at its result, and has the mark of an unfinished run (store/tables.h) all that time.
#pragma once

#include <cstddef>

// How the version gets its files. A run that will remove the old files of the object tables links
// them, which costs next to nothing; one that changes tables in place needs a copy of all.
enum class KeepBy { linking, copying };

// Ends the process with status 1 when a version carries the mark of an unfinished run. Called once
// the database is open, so that of two live runs the second is told that it cannot open it. The
// open may have made empty tables in a torso by then; a restore replaces them together with it.
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
// version is removed. Otherwise it stays without its mark, so that the next run is not refused:
// this one has run to its end, and standard error says where the version is and why it stays.
// runStatus becomes 1.
void removeOrReportKeptVersion();
