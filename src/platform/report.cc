#include "platform/report.h"

#include <fcntl.h>
#include <signal.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <ctime>
#include <initializer_list>

int _NQwError = 0;

int NQwError() {
  return _NQwError;
}

namespace {

constexpr size_t longestText = 2048;

constexpr char logFile[] = "/usr/NQ/log/nqw.log";
constexpr char traceFile[] = "/usr/NQ/log/nqw.trace";

bool dropped = false;

struct Line {
  char bytes[2 * longestText + 256];
  size_t length = 0;
};

// The head as it is, the text with its line ends escaped: a name from the database must not make
// lines of its own in the log. The room holds the longest text with every character escaped.
void formatLine(Line *line, const char *head, const char *text) {
  line->length = static_cast<size_t>(snprintf(line->bytes, 256, "%s", head));
  for (const char *p = text; *p != '\0'; ++p) {
    if (*p == '\n' || *p == '\r') {
      line->bytes[line->length++] = '\\';
      line->bytes[line->length++] = *p == '\n' ? 'n' : 'r';
    } else {
      line->bytes[line->length++] = *p;
    }
  }
  line->bytes[line->length++] = '\n';
}

// One write per line, so that the lines of several processes never mix.
void appendLine(const char *path, const Line &line) {
  const int savedErrno = errno;
  const int fd =
      open(path, O_WRONLY | O_CREAT | O_APPEND | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC, 0644);
  if (fd >= 0) {
    [[maybe_unused]] const ssize_t written = write(fd, line.bytes, line.length);
    close(fd);
  }
  errno = savedErrno;
}

void report(const char *path, const char *head, const char *format, va_list arguments) {
  if (dropped) return;
  const int savedErrno = errno;
  char text[longestText];
  vsnprintf(text, sizeof text, format, arguments);
  Line line;
  formatLine(&line, head, text);
  appendLine(path, line);
  errno = savedErrno;
}

Line lastWords;
volatile sig_atomic_t hasLastWords = 0;

// "2026-11-22 23:59:59 4711 85 ", the part of the head that log and trace share.
// Not cached: a run may last past midnight.
int formatStamp(char *buffer, size_t size, int component) {
  const time_t now = time(nullptr);
  tm local{};
  localtime_r(&now, &local);
  char stamp[32];
  strftime(stamp, sizeof stamp, "%Y-%m-%d %H:%M:%S", &local);
  return snprintf(buffer, size, "%s %d %d ", stamp, static_cast<int>(getpid()), component);
}

// The part of the head that is the log's alone.
void formatLogHead(char *head, size_t size, int component, int severity, const char *application) {
  const int length = formatStamp(head, size, component);
  snprintf(head + length, size - static_cast<size_t>(length), "%d %s ", severity, application);
}

}  // namespace

void NQuLogS(int component, int severity, const char *application, int, int, const char *format,
             ...) {
  char head[256];
  formatLogHead(head, sizeof head, component, severity, application);
  va_list arguments;
  va_start(arguments, format);
  report(logFile, head, format, arguments);
  va_end(arguments);
}

void dropReports() {
  dropped = true;
}

void prepareLastWords(const char *format, ...) {
  hasLastWords = 0;  // a signal in between must not say half of a line
  char head[256];
  formatLogHead(head, sizeof head, databaseComponent, severityError, "nqw");
  char text[longestText];
  va_list arguments;
  va_start(arguments, format);
  vsnprintf(text, sizeof text, format, arguments);
  va_end(arguments);
  formatLine(&lastWords, head, text);
  hasLastWords = 1;
}

void forgetLastWords() {
  hasLastWords = 0;
}

void sayLastWords() {
  if (hasLastWords == 0) return;
  hasLastWords = 0;  // first: a signal may come while the line is written
  appendLine(logFile, lastWords);
}

void sayLastWordsBySignal() {
  struct sigaction action {};
  // The signal waits until the handler returns, and finds the default action then.
  action.sa_handler = [](int number) {
    sayLastWords();
    raise(number);
  };
  action.sa_flags = static_cast<int>(SA_RESETHAND);
  sigfillset(&action.sa_mask);
  for (const int number :
       {SIGHUP, SIGINT, SIGQUIT, SIGILL, SIGTRAP, SIGABRT, SIGBUS, SIGFPE, SIGUSR1, SIGSEGV,
        SIGUSR2, SIGPIPE, SIGALRM, SIGTERM, SIGXCPU, SIGXFSZ, SIGSYS}) {
    struct sigaction present {};
    if (sigaction(number, nullptr, &present) == 0 && present.sa_handler == SIG_DFL) {
      sigaction(number, &action, nullptr);
    }
  }
}

void NQuTraceS(int component, int traceClass, const char *application, int, int, const char *format,
               ...) {
  char head[256];
  const int length = formatStamp(head, sizeof head, component);
  snprintf(head + length, sizeof head - static_cast<size_t>(length), "0x%x %s ",
           static_cast<unsigned>(traceClass), application);
  va_list arguments;
  va_start(arguments, format);
  report(traceFile, head, format, arguments);
  va_end(arguments);
}
