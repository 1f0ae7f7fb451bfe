#include "objdb/progress.h"

#include <sys/time.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdio>

// What the signal handler knows. It runs between any two steps of the program, but to its end.
class ProgressLine {
 public:
  static void start(Phase *phase) {
    static const bool onTerminal = isatty(STDERR_FILENO) == 1;
    if (!onTerminal) return;
    const ProgressPause pause;
    current_ = phase;
    if (ticking_) return;
    ticking_ = true;
    struct sigaction action {};
    action.sa_handler = show;
    action.sa_flags = SA_RESTART;
    sigaction(SIGALRM, &action, nullptr);
    // Rarely enough to be read, often enough to be seen moving.
    constexpr itimerval ticks{{0, 250'000}, {1, 0}};
    setitimer(ITIMER_REAL, &ticks, nullptr);
  }

  static Phase *current() { return current_; }

  static void pause() {
    pauses_ = pauses_ + 1;
    if (!shown_) return;
    shown_ = false;
    writeAll("\r\033[K", 4);
  }
  static void resume() { pauses_ = pauses_ - 1; }

 private:
  // Calls nothing that a signal handler must not.
  static void show(int) {
    const int savedErrno = errno;  // the interrupted code may be about to look at it
    const Phase *phase = current_;
    if (phase != nullptr && pauses_ == 0) {
      char *end = line_;
      append(&end, "\r\033[K");
      append(&end, phase->what_);
      const uint64_t done = phase->done_;
      if (done > 0) {
        append(&end, ": ");
        append(&end, done);
        if (phase->all_ >= done) {
          append(&end, " of ");
          append(&end, phase->all_);
        }
        append(&end, " records");
        if (phase->all_ >= done) {
          append(&end, " (");
          append(&end, done * 100 / phase->all_);
          append(&end, " %)");
        }
      }
      shown_ = true;
      writeAll(line_, static_cast<size_t>(end - line_));
    }
    errno = savedErrno;
  }

  static void append(char **end, const char *text) {
    while (*text != '\0') *(*end)++ = *text++;
  }
  static void append(char **end, uint64_t number) {
    char digits[21];
    char *first = digits + sizeof digits - 1;
    *first = '\0';
    do {
      *--first = static_cast<char>('0' + number % 10);
      number /= 10;
    } while (number != 0);
    append(end, first);
  }
  static void writeAll(const char *text, size_t length) {
    [[maybe_unused]] const ssize_t written = write(STDERR_FILENO, text, length);
  }

  static inline Phase *volatile current_ = nullptr;
  static inline volatile sig_atomic_t pauses_ = 0;
  static inline volatile sig_atomic_t shown_ = 0;
  static inline bool ticking_ = false;
  static inline char line_[256];
};

Phase::Phase(const std::string &what, uint64_t all) : all_(all), outer_(ProgressLine::current()) {
  snprintf(what_, sizeof what_, "%s", what.c_str());
  ProgressLine::start(this);
}

Phase::~Phase() {
  ProgressLine::start(outer_);
}

ProgressPause::ProgressPause() {
  ProgressLine::pause();
}

ProgressPause::~ProgressPause() {
  // What stands in the buffer would come out in the middle of a line of progress.
  fflush(stdout);
  ProgressLine::resume();
}
