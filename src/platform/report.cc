#include "platform/report.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <ctime>

int _NQwError = 0;

int NQwError() {
  return _NQwError;
}

namespace {

constexpr size_t longestText = 2048;

bool dropped = false;

// One write per line, so that the lines of several processes never mix.
void appendLine(const char *path, const char *head, const char *format, va_list arguments) {
  if (dropped) return;
  const int savedErrno = errno;
  char text[longestText];
  vsnprintf(text, sizeof text, format, arguments);

  char line[2 * longestText + 256];
  size_t length = static_cast<size_t>(snprintf(line, 256, "%s", head));
  for (const char *p = text; *p != '\0'; ++p) {
    if (*p == '\n' || *p == '\r') {
      line[length++] = '\\';
      line[length++] = *p == '\n' ? 'n' : 'r';
    } else {
      line[length++] = *p;
    }
  }
  line[length++] = '\n';

  const int fd = open(path, O_WRONLY | O_CREAT | O_APPEND | O_NOFOLLOW | O_CLOEXEC, 0644);
  if (fd >= 0) {
    [[maybe_unused]] const ssize_t written = write(fd, line, length);
    close(fd);
  }
  errno = savedErrno;
}

// "2026-11-22 23:59:59 4711 85 ", the part of the head that log and trace share.
int formatStamp(char *buffer, size_t size, int component) {
  const time_t now = time(nullptr);
  tm local{};
  localtime_r(&now, &local);
  char stamp[32];
  strftime(stamp, sizeof stamp, "%Y-%m-%d %H:%M:%S", &local);
  return snprintf(buffer, size, "%s %d %d ", stamp, static_cast<int>(getpid()), component);
}

}  // namespace

void NQuLogS(int component, int severity, const char *application, int, int, const char *format,
             ...) {
  char head[256];
  const int length = formatStamp(head, sizeof head, component);
  snprintf(head + length, sizeof head - static_cast<size_t>(length), "%d %s ", severity,
           application);
  va_list arguments;
  va_start(arguments, format);
  appendLine("/usr/NQ/log/nqw.log", head, format, arguments);
  va_end(arguments);
}

void dropReports() {
  dropped = true;
}

void NQuTraceS(int component, int traceClass, const char *application, int, int, const char *format,
               ...) {
  char head[256];
  const int length = formatStamp(head, sizeof head, component);
  snprintf(head + length, sizeof head - static_cast<size_t>(length), "0x%x %s ",
           static_cast<unsigned>(traceClass), application);
  va_list arguments;
  va_start(arguments, format);
  appendLine("/usr/NQ/log/nqw.trace", head, format, arguments);
  va_end(arguments);
}
