// What fault_preload.cc tells of a process, in memory shared with the one that started it.
#pragma once

#include <atomic>

struct FaultCount {
  long calls;     // so far
  char name[48];  // the function that was called at the fault; empty before it
  // How often the process has come to a stop, and how often it was told to go on. Not by signals,
  // which are something else that the process under test has to do with.
  std::atomic<int> stops;
  std::atomic<int> starts;
};
