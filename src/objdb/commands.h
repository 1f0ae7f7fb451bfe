// The subcommands, one file each.
#pragma once

#include "objdb/command.h"

// These only look: no byte, time stamp or directory entry of a database changes.

// Lists everything that is wrong with a version.
extern const Command checkCommand;

// Writes what stands in one of two versions alone.
extern const Command diffCommand;

// Writes every record as a line (record_lines.h), between a header and a trailer line. When
// records are selected, header and trailer are left out, so that a part is not loaded as a whole.
extern const Command dumpCommand;

// Lists the objects that have given values.
extern const Command findCommand;

// Writes all values of objects.
extern const Command showCommand;

// Says how many objects, or which, a sweep of each protocol would delete.
extern const Command protocolsCommand;

// Lists the archived versions.
extern const Command versionsCommand;

// These change what is in the database directory.

// Makes an archived version of "current" and writes its name.
extern const Command archiveCommand;

// Makes a database from the lines of a dump on standard input, where there is none.
extern const Command loadCommand;

// Puts the tables of a version in place of "current".
extern const Command restoreCommand;

// Removes an archived version.
extern const Command removeCommand;

// Makes an archived version of every record that can still be read of a version.
extern const Command salvageCommand;
