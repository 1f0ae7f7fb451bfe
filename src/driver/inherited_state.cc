#include "driver/inherited_state.h"

#include <fcntl.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "platform/exit_status.h"

void openStandardStreams() {
  for (const int fd : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
    // An open takes the lowest number that is free, which is this one.
    if (fcntl(fd, F_GETFD) < 0 && open("/dev/null", O_RDWR) != fd) _exit(exitRefused);
  }
}

void sanitizeEnvironment() {
  if (getuid() == geteuid()) return;
  // Collected first: unsetenv moves what is being walked over.
  std::vector<std::string> dropped{"IFS"};
  for (char **each = environ; *each != nullptr; ++each) {
    if (strncmp(*each, "LD_", 3) == 0) dropped.emplace_back(*each, strcspn(*each, "="));
  }
  for (const std::string &name : dropped) unsetenv(name.c_str());
  setenv("PATH", "/usr/sbin:/usr/bin:/sbin:/bin", 1);
}
