// One line on standard error for work that takes its time, on a terminal only.
#pragma once

#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <string>

class Progress {
 public:
  explicit Progress(std::string what) : what_(std::move(what)) {}
  ~Progress() {
    if (shown_) fputs("\r\033[K", stderr);
  }
  Progress(const Progress &) = delete;
  Progress &operator=(const Progress &) = delete;

  void count() {
    constexpr uint64_t every = 1 << 16;
    if (++done_ % every == 0 && onTerminal_) show();
  }

 private:
  void show() {
    shown_ = true;
    fprintf(stderr, "\r%s: %llu records", what_.c_str(), static_cast<unsigned long long>(done_));
  }

  std::string what_;
  uint64_t done_ = 0;
  bool shown_ = false;
  bool onTerminal_ = isatty(STDERR_FILENO) == 1;
};
