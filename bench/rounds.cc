// Whole runs side by side: in every round each command gets a fresh copy of the same database.
// Prints the median wall time, processor time and peak memory of each, and the ratios that matter.
//
// Times belong to the machine and the moment; only the ratios of one run say something.
//
//   rounds DIRECTORY ROUNDS OBJECTS
//
// DIRECTORY has dbsweep and the programs of the benchmarks; works in /usr/NQ, see script/bench.

#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "measure.h"
#include "network.h"

namespace {

constexpr char large[] = "/usr/NQ/large";
constexpr char small[] = "/usr/NQ/small";
constexpr char wide[] = "/usr/NQ/wide";      // one object with very many fields
constexpr char narrow[] = "/usr/NQ/narrow";  // as many values in objects of ten
constexpr char lines[] = "/usr/NQ/lines";    // a dump of the large one
constexpr uint32_t sizeRatio = 10;           // of the first two
constexpr uint32_t wideFields = 40'000;

}  // namespace

int main(int argc, char **argv) {
  if (argc != 4) {
    fprintf(stderr, "usage: rounds DIRECTORY ROUNDS OBJECTS\n");
    return 2;
  }
  const std::string directory = argv[1];
  const int rounds = atoi(argv[2]);
  const auto objects = static_cast<uint32_t>(strtoul(argv[3], nullptr, 10));
  const double values = objects * static_cast<double>(valuesAnObject);
  makeDatabase(directory, std::to_string(objects).c_str(), large);
  shell(directory + "/objdb dump --dir " + large + "/nqwdb >" + lines);
  makeDatabase(directory, std::to_string(objects / sizeRatio).c_str(), small);
  makeDatabase(directory, ("1 " + std::to_string(wideFields)).c_str(), wide);
  makeDatabase(directory, (std::to_string(wideFields / 10) + " 10").c_str(), narrow);

  const auto sweep = [&](const std::string &options) { return sweepLine(directory, options); };
  std::string fifty;
  for (uint32_t id = 1; id <= 50; ++id) fifty += std::to_string(id) + " ";
  const std::string objdb = directory + "/objdb";
  enum {
    sweepOne,
    sweepAll,
    sweepSmall,
    sweepWide,
    sweepNarrow,
    migrate,
    count,
    list,
    plainLoad,
    unmappedLoad,
    floor,
    plainDump,
    check,
    dump,
    load,
  };
  Command commands[] = {
      {"dbsweep -p, one object in ten", large, sweep("-p Retired"), {}},
      {"dbsweep -p, every object", large, sweep("-p Every"), {}},
      {"dbsweep -p, a tenth of the database", small, sweep("-p Retired"), {}},
      {"dbsweep -p, one object of 40,000 fields", wide, sweep("-p Every"), {}},
      {"dbsweep -p, 4,000 objects of 10 fields", narrow, sweep("-p Every"), {}},
      {"dbsweep -m", large, sweep("-m"), {}},
      {"dbsweep -d 99", large, sweep("-d 99"), {}},
      {"dbsweep -d, 50 objects", large, sweep("-d '" + fifty + "'"), {}},
      {"gdbm_dump + gdbm_load", large, reloadLine(""), {}},
      {"gdbm_dump + gdbm_load -M", large, reloadLine("-M"), {}},
      {"raw scan + raw copy", large, floorLine(directory), {}},
      {"gdbm_dump", large, dumpLine(), {}},
      {"objdb check", large, objdb + " check >/usr/NQ/scratch/findings", {}},
      {"objdb dump", large, objdb + " dump >/usr/NQ/scratch/lines", {}},
      {"objdb load", large, objdb + " load --dir /usr/NQ/scratch/new <" + lines, {}},
  };
  for (int round = 0; round < rounds; ++round) {
    for (Command &command : commands) measure(command);
  }

  printf("on %s\n\n", fileSystem().c_str());
  printf("%-40s %8s %8s %10s %10s\n", "median of each", "wall s", "cpu s", "peak MB", "heap MB");
  for (const Command &command : commands) {
    printf("%-40s %8.2f %8.2f %10.1f %10.1f\n", command.name.c_str(),
           medianOf(command, &Cost::wall), medianOf(command, &Cost::processor),
           medianOf(command, &Cost::peakBytes) / 1e6, medianOf(command, &Cost::heapBytes) / 1e6);
  }
  // Wall times are what matters. On a machine that does other work, processor times say more.
  const struct {
    const char *name;
    size_t above;
    size_t below;
    double times;
    double bound;
  } ratios[] = {
      {"sweep / (gdbm_dump + gdbm_load)", sweepOne, plainLoad, 1, 0.45},
      {"sweep / (gdbm_dump + gdbm_load -M)", sweepOne, unmappedLoad, 1, 0.9},
      {"sweep / (raw scan + raw copy)", sweepOne, floor, 1, 1.15},
      {"sweep of every object / floor", sweepAll, floor, 1, 1.1},
      {"count / gdbm_dump", count, plainDump, 1, 1.2},
      {"cost a value, against a tenth of them", sweepOne, sweepSmall, 1.0 / sizeRatio, 1.1},
      {"one wide object / objects of ten fields", sweepWide, sweepNarrow, 1, 2},
      {"objdb check / gdbm_dump", check, plainDump, 1, 1},
      {"objdb dump / gdbm_dump", dump, plainDump, 1, 2},
      {"objdb load / (gdbm_dump + gdbm_load -M)", load, unmappedLoad, 1, 1.2},
  };
  printf("\n%-40s %8s %8s %8s\n", "figure", "wall", "cpu", "at most");
  for (const auto &ratio : ratios) {
    const Command &above = commands[ratio.above], &below = commands[ratio.below];
    printf("%-40s %8.2f %8.2f %8.2f\n", ratio.name, ratio.times * medianRatio(above, below),
           ratio.times * medianRatio(above, below, &Cost::processor), ratio.bound);
  }
  const Command &one = commands[sweepOne];
  printf("%-40s %8.0f %8s %8d\n", "peak bytes a value", medianOf(one, &Cost::peakBytes) / values,
         "", 230);
  printf("%-40s %8.0f %8s %8d\n", "heap bytes a value", medianOf(one, &Cost::heapBytes) / values,
         "", 130);
  // Most of it is the copy of all tables that is made, and synced, before the first deletion.
  printf("%-40s %8.0f\n", "50 objects beyond a count, ms",
         1000 * (medianOf(commands[list], &Cost::wall) - medianOf(commands[count], &Cost::wall)));
}
