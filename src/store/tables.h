// The six tables of a version, and every name that has to do with their files. A version is one
// directory of the database directory; a table is two files in it.
#pragma once

#include <array>
#include <cstddef>
#include <string>

#include "platform/dbm_table.h"
#include "records/codecs.h"

// In the order in which they are opened, dumped and closed.
enum Table : size_t { idKeeper, fieldInfo, objInfo, valueInfo, nameInfo, enumInfo };
constexpr size_t tableCount = 6;

struct TableFormat {
  const char *name;
  DbmDecoder decode;  // in the current data format
  DbmEncoder encode;
  bool isLocked;   // as a whole, against other processes, while it is open
  bool isRebuilt;  // by a sweep; the others it leaves alone
};

inline constexpr std::array<TableFormat, tableCount> tableFormats{{
    {"id_keeper", decodeDbKey, encodeDbKey, false, false},
    {"field_info", decodeDbFieldInfo, encodeDbFieldInfo, true, false},
    {"obj_info", decodeDbObject, encodeDbObject, true, true},
    {"value_info", decodeDbObjectValue, encodeDbObjectValue, true, true},
    {"name_info", decodeDbObject, encodeDbObject, true, true},
    {"enum_info", decodeDbEnumConstants, encodeDbEnumConstants, true, false},
}};

// The two files of a table: 16 bytes that name the library and its version, and all the rest.
constexpr char directorySuffix[] = ".dir";
constexpr char pageSuffix[] = ".pag";
constexpr const char *tableSuffixes[] = {directorySuffix, pageSuffix};

// The version that the platform works on. Archived ones are named by their time (directory.h).
constexpr char currentName[] = "current";

// The mark of an unfinished run: a file of this name in a version says that a run has begun to
// change "current" and has not finished. The version then holds the tables as they were.
constexpr char unfinishedMark[] = "unfinished";

inline std::string tableFile(size_t table, const char *suffix) {
  return std::string(tableFormats[table].name) + suffix;
}

inline std::string pathIn(const std::string &directory, const std::string &name) {
  return directory + "/" + name;
}

inline std::string tablePath(const std::string &directory, size_t table, const char *suffix) {
  return pathIn(directory, tableFile(table, suffix));
}
