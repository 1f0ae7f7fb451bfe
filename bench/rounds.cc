// Whole runs side by side: in every round each command gets a fresh copy of the same database.
// Prints the median wall time, processor time and peak memory of each, and the ratios that matter.
//
// Times belong to the machine and the moment; only the ratios of one run say something.
//
//   rounds DIRECTORY ROUNDS OBJECTS
//
// DIRECTORY has dbsweep and the programs of the benchmarks; works in /usr/NQ, see script/bench.

#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <string>
#include <vector>

#include "network.h"

namespace {

struct Cost {
  double wall;  // seconds
  double processor;
  double peakBytes;
};

struct Command {
  const char *name;
  const char *database;  // which of the two prepared ones it gets
  std::string line;
  std::vector<Cost> costs;
};

constexpr char large[] = "/usr/NQ/large";
constexpr char small[] = "/usr/NQ/small";
constexpr char lines[] = "/usr/NQ/lines";  // a dump of the large one
constexpr char current[] = "/usr/NQ/databases/nqwdb/current";
constexpr uint32_t sizeRatio = 10;  // of the two databases

void shell(const std::string &line) {
  if (system(line.c_str()) == 0) return;
  fprintf(stderr, "rounds: failed: %s\n", line.c_str());
  exit(1);
}

double seconds(const timeval &time) {
  return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_usec) / 1e6;
}

Cost measure(const Command &command) {
  shell(std::string("rm -rf /usr/NQ/databases /usr/NQ/scratch && mkdir -p /usr/NQ/scratch "
                    "/usr/NQ/log && cp -a ") +
        command.database + " /usr/NQ/databases");
  const auto start = std::chrono::steady_clock::now();
  const pid_t child = fork();
  if (child == 0) {
    execl("/bin/sh", "sh", "-ec", command.line.c_str(), nullptr);
    _exit(127);
  }
  int status = 0;
  rusage usage{};
  wait4(child, &status, 0, &usage);
  const std::chrono::duration<double> wall = std::chrono::steady_clock::now() - start;
  if (status != 0) {
    fprintf(stderr, "rounds: %s failed: %s\n", command.name, command.line.c_str());
    exit(1);
  }
  return {wall.count(), seconds(usage.ru_utime) + seconds(usage.ru_stime),
          static_cast<double>(usage.ru_maxrss) * 1024};
}

double median(std::vector<double> values) {
  std::sort(values.begin(), values.end());
  return values[values.size() / 2];
}

double medianOf(const Command &command, double Cost::*figure) {
  std::vector<double> values;
  for (const Cost &cost : command.costs) values.push_back(cost.*figure);
  return median(values);
}

// The median of the rounds' ratios: both sides of each come from one round.
double medianRatio(const Command &above, const Command &below) {
  std::vector<double> ratios;
  for (size_t i = 0; i < above.costs.size(); ++i) {
    ratios.push_back(above.costs[i].wall / below.costs[i].wall);
  }
  return median(ratios);
}

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
  const auto prepare = [&](const char *place, uint32_t count) {
    shell("rm -rf /usr/NQ/databases && " + directory + "/bench/make_network " +
          std::to_string(count) + " && mv /usr/NQ/databases " + place);
  };
  prepare(large, objects);
  shell(directory + "/objdb dump --dir " + large + "/nqwdb >" + lines);
  prepare(small, objects / sizeRatio);

  const auto sweep = [&](const char *options) {
    return "echo yes | " + directory + "/dbsweep " + options + " 2>/usr/NQ/scratch/messages";
  };
  const auto dumpAndLoad = [](const char *options) {
    return std::string("for table in obj_info value_info name_info; do gdbm_dump ") + current +
           "/$table.pag /usr/NQ/scratch/$table.dump; gdbm_load " + options +
           " /usr/NQ/scratch/$table.dump /usr/NQ/scratch/$table.pag; done";
  };
  std::string fifty;
  for (uint32_t id = 1; id <= 50; ++id) fifty += std::to_string(id) + " ";
  const std::string objdb = directory + "/objdb";
  enum {
    sweepOne,
    sweepAll,
    sweepSmall,
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
      {"dbsweep -m", large, sweep("-m"), {}},
      {"dbsweep -d 99", large, sweep("-d 99"), {}},
      {"dbsweep -d, 50 objects", large, sweep(("-d '" + fifty + "'").c_str()), {}},
      {"gdbm_dump + gdbm_load", large, dumpAndLoad(""), {}},
      {"gdbm_dump + gdbm_load -M", large, dumpAndLoad("-M"), {}},
      {"raw scan + raw copy",
       large,
       directory + "/bench/raw_copy " + current + " /usr/NQ/scratch",
       {}},
      {"gdbm_dump",
       large,
       std::string("for table in obj_info value_info name_info; do gdbm_dump ") + current +
           "/$table.pag /usr/NQ/scratch/$table.dump; done",
       {}},
      {"objdb check", large, objdb + " check >/usr/NQ/scratch/findings", {}},
      {"objdb dump", large, objdb + " dump >/usr/NQ/scratch/lines", {}},
      {"objdb load", large, objdb + " load --dir /usr/NQ/scratch/new <" + lines, {}},
  };
  for (int round = 0; round < rounds; ++round) {
    for (Command &command : commands) command.costs.push_back(measure(command));
  }

  printf("%-40s %8s %8s %10s\n", "median of each", "wall s", "cpu s", "peak MB");
  for (const Command &command : commands) {
    printf("%-40s %8.2f %8.2f %10.1f\n", command.name, medianOf(command, &Cost::wall),
           medianOf(command, &Cost::processor), medianOf(command, &Cost::peakBytes) / 1e6);
  }
  const struct {
    const char *name;
    double value;
    double bound;
  } figures[] = {
      {"sweep / (gdbm_dump + gdbm_load)", medianRatio(commands[sweepOne], commands[plainLoad]),
       0.75},
      {"sweep / (gdbm_dump + gdbm_load -M)",
       medianRatio(commands[sweepOne], commands[unmappedLoad]), 1.5},
      {"sweep / (raw scan + raw copy)", medianRatio(commands[sweepOne], commands[floor]), 2.0},
      {"cost a value, against a tenth of them",
       medianRatio(commands[sweepOne], commands[sweepSmall]) / sizeRatio, 1.4},
      {"sweep of every object / floor", medianRatio(commands[sweepAll], commands[floor]), 1.6},
      {"peak bytes a value", medianOf(commands[sweepOne], &Cost::peakBytes) / values, 370},
      {"objdb check / gdbm_dump", medianRatio(commands[check], commands[plainDump]), 1.0},
      {"objdb dump / (gdbm_dump + gdbm_load -M)",
       medianRatio(commands[dump], commands[unmappedLoad]), 1.5},
      {"objdb load / (gdbm_dump + gdbm_load -M)",
       medianRatio(commands[load], commands[unmappedLoad]), 1.2},
      {"50 objects beyond a count, ms",
       1000 * (medianOf(commands[list], &Cost::wall) - medianOf(commands[count], &Cost::wall)), 50},
  };
  printf("\n%-40s %8s %8s\n", "figure", "is", "at most");
  for (const auto &figure : figures) {
    printf("%-40s %8.2f %8.2f\n", figure.name, figure.value, figure.bound);
  }
}
