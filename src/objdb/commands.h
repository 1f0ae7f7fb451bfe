// The subcommands, one file each. Every one returns an exit status and writes its findings to
// standard output, everything else to standard error.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

enum ObjdbStatus {
  objdbFine = 0,     // nothing to report
  objdbRefused = 1,  // findings, or a request that was refused
  objdbFailed = 2,   // could not look: usage, no database, input or output failed
};

// Which database: its directory, and the version below that.
struct DatabaseName {
  std::string directory = "/usr/NQ/databases/nqwdb";
  std::string version = "current";
};

// Which records to dump: of one table, of one object, of the fields with one name.
struct DumpChoice {
  std::string table;
  std::optional<uint32_t> object;
  std::optional<std::string> field;
};

// Writes every record as a line (record_lines.h), between a header and a trailer line. With a
// choice those lines alone: only a whole dump is sealed, so that nothing less is loaded for one.
int dumpDatabase(const DatabaseName &database, const DumpChoice &choice);

// Makes a database from such lines on standard input. Nothing is stored unless the header and the
// trailer are there and agree with the lines between them, and nothing takes its place in the
// database directory before it is complete and on the disk. Refuses a version that holds anything.
// Lines that are not sealed by a header and a trailer, written by hand or picked from a dump, are
// taken as they come.
int loadDatabase(const DatabaseName &database, bool sealed);

// Writes every finding of a look at all six tables, as text or as lines of JSON, and in the last
// line how many records were looked at and how many findings there are.
int checkDatabase(const DatabaseName &database, bool json);

// Writes the names of the archived versions, a line each; "unfinished" behind the name of one that
// a run has left marked, which is a finding.
int printVersions(const DatabaseName &database);

// Makes an archived version of "current" and writes its name.
int archiveDatabase(const DatabaseName &database);

// Puts the tables of a version in place of "current" and takes its mark away; the version stays.
// Refuses while another process holds the tables.
int restoreDatabase(const DatabaseName &database, const std::string &name, bool dryRun);

// Makes an archived version of every record that can still be read of a version ("current" too),
// mends what check would find in it, writes its name, and says on standard error what was lost,
// which is a finding. The version itself is not touched.
int salvageDatabase(const std::string &directory, const std::string &name);

// Writes how many objects a sweep of each protocol would delete, most first, and which names of the
// platform's capability_map have no field; or the ids of one protocol's objects in the order in
// which they would go. Records that cannot be read are passed over, as in a sweep, and are a
// finding.
int printProtocols(const DatabaseName &database, const std::string &idsOf);

// Writes the records that stand in one of two versions alone, or differ, as lines after "- " (the
// first) and "+ ", in the order of objects and fields. A name with a slash is a directory.
int diffDatabases(const std::string &directory, const std::string &before,
                  const std::string &after);
