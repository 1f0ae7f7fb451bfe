// What the tests share: a private platform to work on, whole commands, databases as text.
#pragma once

#include <gtest/gtest.h>

#include <string>
#include <string_view>
#include <vector>

#include "objdb/record_lines.h"
#include "store/database.h"

using Lines = std::vector<std::string>;

// The current version of the platform's default database.
inline const std::string currentDir = "/usr/NQ/databases/nqwdb/current";

// A test that may touch the platform's paths. Fails at once outside the private namespaces.
class PlatformTest : public testing::Test {
 protected:
  PlatformTest();
};

// The same for tests that fill the caches: they must agree with each other when the test ends, and
// give everything back.
class CacheTest : public PlatformTest {
 protected:
  ~CacheTest() override;
};

struct Outcome {
  int status;  // exit status, or 128 + the signal that ended the command
  std::string out;
  std::string err;
};

// Runs a shell command line with our binaries first in the path.
Outcome run(const std::string &command, const std::string &input = "");

// Makes the current database from lines of records (record_lines.h), and gives back its lines in
// the order of a dump, without header and trailer.
void load(const Lines &lines);
Lines dump();

// The records of a dump without its header and trailer.
Lines dumpLines(const std::string &output);

// Four name and protocol fields and what else a small network needs: the lines of a database that
// has no objects yet.
const Lines &emptyNetwork();

// One line each, as a dump writes them. An object's name stands in both name tables.
std::string valueLine(uint32_t objectId, uint32_t fieldId, const std::string &typeAndValue);
Lines nameLines(uint32_t objectId, uint32_t fieldId, const std::string &name);

Lines operator+(Lines a, const Lines &b);
Lines sorted(Lines lines);

// Without the lines that speak of these objects.
Lines without(const Lines &lines, const std::vector<uint32_t> &objectIds);

std::string readFile(const std::string &path);
void writeFile(const std::string &path, std::string_view content);
bool exists(const std::string &path);

// Hexadecimal digits, blanks allowed, to bytes.
std::string bytes(std::string_view hex);

// The key of every record of a table of the current database, in the order of a scan.
std::vector<std::string> scanKeys(const char *table);

// Reads the current database into the caches, as a run does, through the handle that queries use.
ObjectDatabase *loadCaches();

// Walks all caches and fails the test on the first disagreement: lists against lists, indexes
// against values, the recency order against the table.
void verifyCaches();
