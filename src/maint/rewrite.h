// Rebuilding the three object tables of the current database from the caches.
#pragma once

// 1. Plan what will be stored, which takes memory.
// 2. Keep the tables as they were, by links (kept_tables.h).
// 3. Close runDb and remove the files of name_info, obj_info and value_info from "current".
//    A page file that cannot be removed is reported, copied into the kept version (keepCopyOf) and
//    will be written over. When it cannot be copied, the process ends with status 1, and the kept
//    version has its mark.
// 4. End the bulk access of deletingDb. It drops the deletions that it holds back, except for a file
//    that could not be removed: from there the deleted objects still have to go.
// Ends the process with status 1, before anything is removed, when a path would be too long or the
// tables cannot be kept. From here until the rewrite has ended the objects are in the caches and in
// the kept version.
void removeCurrentFiles();

// 1. Open the current database in the current data format, which creates the removed files.
//    When that fails, say so with the way back and end the process with status 0, as the
//    platform's scripts expect it. The kept version keeps its mark.
// 2. Store every value of every cached object as planned: the names, then all others.
// 3. Wait until the tables are on the disk, close the database and look at what is there.
// 4. Remove the kept version, or say where it is and why (kept_tables.h).
// 5. With migrate: record the migration in "/usr/NQ/conf/dbsweep.lock".
//    The file has mode 0600 and holds this process' id.
// id_keeper, field_info and enum_info are neither removed nor rewritten.
void rewriteDatabase(int migrate);

// The lock file that says that the database has been migrated.
extern const char migrationLockFile[];
