#include "measure.h"

#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>

namespace {

double seconds(const timeval &time) {
  return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_usec) / 1e6;
}

double anonymousBytes(pid_t process) {
  std::ifstream status("/proc/" + std::to_string(process) + "/status");
  for (std::string word; status >> word;) {
    double kilobytes = 0;
    if (word == "RssAnon:" && status >> kilobytes) return kilobytes * 1024;
  }
  return 0;
}

}  // namespace

void shell(const std::string &line) {
  if (system(line.c_str()) == 0) return;
  fprintf(stderr, "failed: %s\n", line.c_str());
  exit(1);
}

void makeDatabase(const std::string &binaries, const char *maker, const std::string &place) {
  shell("rm -rf /usr/NQ/databases " + place + " && mkdir -p /usr/NQ/log && echo yes >" + answer +
        " && " + binaries + "/bench/make_network " + maker + " && mv /usr/NQ/databases " + place);
}

void measure(Command &command) {
  shell("rm -rf /usr/NQ/databases /usr/NQ/scratch && mkdir -p /usr/NQ/scratch && cp -a " +
        command.database + " /usr/NQ/databases && sync -f /usr/NQ");
  const auto start = std::chrono::steady_clock::now();
  const pid_t child = fork();
  if (child == 0) {
    execl("/bin/sh", "sh", "-ec", command.line.c_str(), nullptr);
    _exit(127);
  }
  int status = 0;
  rusage usage{};
  double heap = 0;
  while (wait4(child, &status, WNOHANG, &usage) == 0) {
    heap = std::max(heap, anonymousBytes(child));
    usleep(2000);
  }
  const std::chrono::duration<double> wall = std::chrono::steady_clock::now() - start;
  if (status != 0) {
    fprintf(stderr, "%s failed: %s\n", command.name.c_str(), command.line.c_str());
    exit(1);
  }
  command.costs.push_back({wall.count(), seconds(usage.ru_utime) + seconds(usage.ru_stime),
                           static_cast<double>(usage.ru_maxrss) * 1024, heap});
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

double medianRatio(const Command &above, const Command &below, double Cost::*figure) {
  std::vector<double> ratios;
  for (size_t i = 0; i < above.costs.size(); ++i) {
    ratios.push_back((above.costs[i].*figure) / (below.costs[i].*figure));
  }
  return median(ratios);
}

std::string sweepLine(const std::string &binaries, const std::string &options) {
  return "exec " + binaries + "/dbsweep " + options + " <" + answer + " 2>/usr/NQ/scratch/messages";
}

std::string dumpLine() {
  return std::string("for table in obj_info value_info name_info; do gdbm_dump ") + current +
         "/$table.pag /usr/NQ/scratch/$table.dump; done";
}

std::string reloadLine(const std::string &options) {
  return std::string("for table in obj_info value_info name_info; do gdbm_dump ") + current +
         "/$table.pag /usr/NQ/scratch/$table.dump; gdbm_load " + options +
         " /usr/NQ/scratch/$table.dump /usr/NQ/scratch/$table.pag; done";
}

std::string floorLine(const std::string &binaries) {
  return "exec " + binaries + "/bench/raw_copy " + current + " /usr/NQ/scratch";
}

std::string fileSystem() {
  // Of several mounts in one place the last is seen. Its type stands behind a lone dash.
  std::ifstream mounts("/proc/self/mountinfo");
  std::string type = "unknown";
  for (std::string line; std::getline(mounts, line);) {
    const size_t dash = line.find(" - ");
    if (line.find(" /usr/NQ ") > dash) continue;
    type = line.substr(dash + 3, line.find(' ', dash + 3) - dash - 3);
  }
  return type;
}
