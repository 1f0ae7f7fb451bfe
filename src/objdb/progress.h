// One line on standard error that says how far long work is: on a terminal only, from the second
// second of the program on, and gone before anything else is written.
//
// A timer's signal writes the line, so that work which nobody counts, such as sorting, or waiting
// for the disk, shows as well, and counting costs next to nothing. Only one phase shows at a time:
// the one that started last.
#pragma once

#include <cstdint>
#include <string>

class Phase {
 public:
  // "WHAT", then "WHAT: 5 records" once there is a count, or "WHAT: 5 of 10 records (50 %)" where
  // the number of all records is known.
  explicit Phase(const std::string &what, uint64_t all = 0);
  ~Phase();
  Phase(const Phase &) = delete;
  Phase &operator=(const Phase &) = delete;

  void count() { done_ = done_ + 1; }

 private:
  friend class ProgressLine;

  char what_[80];
  uint64_t all_;
  volatile uint64_t done_ = 0;  // the signal handler reads it
  Phase *outer_;
};

// Nothing shows while it lives, so that something else can be written to the terminal.
class ProgressPause {
 public:
  ProgressPause();
  ~ProgressPause();
  ProgressPause(const ProgressPause &) = delete;
  ProgressPause &operator=(const ProgressPause &) = delete;
};
