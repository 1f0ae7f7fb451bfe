#include "driver/daemons.h"

#include <signal.h>
#include <sys/types.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "platform/exit_status.h"

namespace {

// "comm" is the kernel's name of a process, without its arguments, so that no grep finds itself.
constexpr char mapGuiCommand[] = "/bin/ps -eo pid,comm | grep nqw_binary | /bin/awk ' {print $1}'";
constexpr char databaseDaemonCommand[] =
    "/bin/ps -eo pid,comm | grep -v dbsweep | grep nqwdb | /bin/awk ' {print $1}'";
constexpr char stopCommand[] = "/usr/NQ/bin/nqstop";

FILE *openPipe(const char *command) {
  FILE *pipe = popen(command, "r");
  if (pipe == nullptr) {
    fprintf(stderr, "dbsweep: unable to open pipe with shell: %s\n", strerror(errno));
    exit(exitRefused);
  }
  return pipe;
}

}  // namespace

void checkDaemons() {
  stopMapGuis();
  if (databaseDaemonRunning() != 0) {
    [[maybe_unused]] const int status = system(stopCommand);
  }
}

void stopMapGuis() {
  FILE *pipe = openPipe(mapGuiCommand);
  int id = 0;
  // Anything but a number ends the reading. Ids below 2 address process groups or init.
  while (fscanf(pipe, "%d", &id) == 1) {
    if (id > 1) kill(static_cast<pid_t>(id), SIGTERM);
  }
  pclose(pipe);
}

int databaseDaemonRunning() {
  FILE *pipe = openPipe(databaseDaemonCommand);
  int id = 0;  // and stays so where no number comes
  [[maybe_unused]] const int read = fscanf(pipe, "%d", &id);
  pclose(pipe);
  return id != 0;
}
