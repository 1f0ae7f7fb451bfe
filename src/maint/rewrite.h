// Rebuilding the three object tables of the current database from the caches.
#pragma once

// Closes runDb and removes the files of name_info, obj_info and value_info from the current version
// directory. From here until the rewrite has ended the caches hold the only copy of the objects. A
// file that cannot be removed is reported and will be written over. Ends the process with status 1,
// before anything is removed, when a path would be too long.
void removeCurrentFiles();

// 1. Open the current database in the current data format, which creates the removed files; when
//    that fails, say so with the way back and end the process with status 0.
// 2. Store every value of every cached object: names in obj_info and name_info, newest object first
//    and in the order of its list; then all others in value_info, in the cheapest order.
// 3. Wait until the tables are on the disk and close the database; runDb is null.
// 4. Remove the kept tables, or say where they are (kept_tables.h).
// 5. With migrate: record the migration in "/usr/NQ/conf/dbsweep.lock" (mode 0600, this process'
//    id).
//
// id_keeper, field_info and enum_info are neither removed nor written.
void rewriteDatabase(int migrate);

// The lock file that says that the database has been migrated.
extern const char migrationLockFile[];
