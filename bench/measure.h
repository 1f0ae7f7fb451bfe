// Measuring whole runs, each on a fresh copy of a database, in /usr/NQ.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

struct Cost {
  double wall;  // seconds
  double processor;
  double peakBytes;  // mapped files included
  double heapBytes;  // the most anonymous memory that was seen
};

struct Command {
  std::string name;
  std::string database;  // the directory that is copied in the platform's place
  std::string line;
  std::vector<Cost> costs;
};

constexpr char current[] = "/usr/NQ/databases/nqwdb/current";
constexpr char answer[] = "/usr/NQ/yes";  // a file for standard input

// Runs a shell line that has to succeed, or ends the program.
void shell(const std::string &line);

// Makes the benchmarks' database in that directory.
void makeDatabase(const std::string &binaries, const char *maker, const std::string &place);

// Runs the command once, on a fresh copy, and notes what it cost.
void measure(Command &command);

double median(std::vector<double> values);
double medianOf(const Command &command, double Cost::*figure);
// The median of the rounds' ratios: both sides of each come from one round.
double medianRatio(const Command &above, const Command &below, double Cost::*figure = &Cost::wall);

// Lines for the commands that are compared everywhere.
std::string sweepLine(const std::string &binaries, const std::string &options);
std::string dumpLine();                              // gdbm_dump alone
std::string reloadLine(const std::string &options);  // gdbm_dump and gdbm_load
std::string floorLine(const std::string &binaries);

// The name of the file system that /usr/NQ is on.
std::string fileSystem();
