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

// Lists the objects that have all of the given values, as ids or with their names. The object that
// was loaded last comes first; for one value the order is that in which its field's values were
// loaded, and with --max-objects that of the table search. Ends with objdbFindings when there is
// none.
//
// 1. A QueryDatabase opens and locks the version and loads the definitions.
// 2. FIELD=VALUE asks for a value, FIELD~[VALUE,...] for a list that contains all of these. The first
//    "=" or "~" counts, and the value is read as the field's type has it (field_text.h).
// 3. Without --max-objects the names and the values of the fields that were asked for are loaded
//    (selected_load.h). With it the caches have that many objects, and queries go to the tables for
//    the others (value_search.h).
// 4. With a name among the words: the objects with that name (objectsNamed), each asked for the
//    other values. Else listObjects, or objectsWithFieldValue for one word. With --max-objects these
//    pass over objects without a common name, which are asked one by one and come last
//    (unlistedObjects).
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

// Puts the tables of a version in place of "current":
//
// 1. Locks the tables of both, removes leftovers, and surveys the version. One that is not whole is
//    refused, unless told --partial.
// 2. Copies its tables into a work directory and compares the two. If the version has no id keeper,
//    the copy gets one: with the counter of "current", or one above the version's highest id if
//    that is more.
// 3. makeCurrent exchanges the work directory and "current". If the version has no mark, what was
//    current becomes a version, whose name is written. If it has, "current" is what the unfinished
//    run has made of the tables, and is not kept. Marks of other versions stay as they are.
// 4. The mark goes, and then what the unfinished run had made.
//
// Cut short before the exchange "current" is as it was, with a further version (a copy of the one
// that is restored) or a leftover at most. After it the new tables are current, and a version that
// still has its mark can be restored once more. A failure then says that the tables are in place.
extern const Command restoreCommand;

// Removes an archived version.
extern const Command removeCommand;

// Makes an archived version of every record that can still be read of a version.
extern const Command salvageCommand;
