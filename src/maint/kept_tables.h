// The way back: from before a rewriting run's first change of a table file until its new tables are
// complete on the disk, a marked copy of the old ones stands beside them (versions.h).
#pragma once

#include <cstdint>

// Ends the process with status 1 when an earlier run has not finished. The database must be open,
// so that of two live runs the second is told that it cannot open it.
void refuseUnfinished();

// Makes the copy; a second call does nothing. Ends the process with status 1, and nothing is
// changed or left behind, when it cannot be made or there is no room for it and the new tables.
void keepTables();

// What the end of a rewrite depends on.
struct RewriteOutcome {
  uint32_t unread;     // records that could not be read
  uint32_t unwritten;  // values that were left out or could not be stored
  bool synced;         // every old file is gone, every new one is on the disk
};

// Removes the copy after a rewrite that lost nothing. After any other it takes the mark away, says
// where the copy is, and the run ends with status 1.
void settleKeptTables(const RewriteOutcome &outcome);
