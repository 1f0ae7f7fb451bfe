// How the handle of an object database is opened and closed, and bulk access to its tables.
#pragma once

#include <cstdint>
#include <ctime>
#include <string>

#include "records/object_database.h"

// One of the six by its place in tables.h.
NQ_dbm_db *&tableOf(ObjectDatabase *db, size_t table);

// Bytes that bulk access may hold back; read when a handle is built. All ones: no bound. Only
// handed on: the table layer has no use for it (dbm_table.h).
extern uint32_t ndbm_buffersize;

// These open all six tables of a version for reading and writing, in the current or in the old data
// format. What is missing is created with mode 0777 (the process' file-creation mask is 0 from here
// on); an id keeper and field definitions made just now are seeded. All tables but the id keeper
// are locked against other processes until the handle is closed. Null when a table cannot be opened
// or locked, and then nothing stays open; NQw_NO_MEMORY when there is no memory for the handle.
// They end the process when a directory cannot be made (directory.h).
ObjectDatabase *open_nqwdb_ndbm(time_t version);
ObjectDatabase *open_nqwdb_ndbm_old(time_t version);

// Whether the latest of these calls failed because another process holds a table; the log names it.
bool isHeldByAnother();

// Opens an archived version: no id keeper, no seeding, no locks, a buffer count of 0. Null when a
// table cannot be opened. Ends the process when a directory cannot be made (directory.h).
ObjectDatabase *openVersionDb(time_t version);

// Opens the version in that directory, whatever its name, for programs that only look: nothing is
// created, seeded, locked or changed. No id keeper. `version` is what the handle says of itself.
// Null when a table is not there or cannot be opened.
ObjectDatabase *openForReading(const std::string &directory, time_t version);

// These close what is open of the six tables and free the handle, but not its field list.
void close_nqwdb_ndbm(ObjectDatabase *db);
void close_nqwdb_ndbm_old(ObjectDatabase *db);

// Fills fieldList from field_info, and frees it. Both return the handle; freeing leaves fieldCount.
ObjectDatabase *loadFieldList(ObjectDatabase *db);
ObjectDatabase *freeFieldList(ObjectDatabase *db);

// Bracket bulk access to obj_info, value_info and name_info. The count given for value_info is
// eight times that of the others.
void startBuffering(ObjectDatabase *db);
void stopBuffering(ObjectDatabase *db);
