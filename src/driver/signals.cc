#include "driver/signals.h"

#include <fcntl.h>
#include <unistd.h>

#include <atomic>

#include "platform/exit_status.h"
#include "platform/report.h"

void (*cleanupRoutine)(int signal) = nullptr;
sigset_t blockedSignals;

namespace {

std::atomic_flag ending;

bool isIgnored(int number) {
  return number == SIGINT || number == SIGQUIT || number == SIGPIPE || number == SIGTERM ||
         number == SIGCHLD;
}

// The cleanup may free what an interrupted call of the allocator has left half changed. The
// allocator would say so and abort, which is no message of ours and nothing to be helped.
void silenceStandardError() {
  dup2(open("/dev/null", O_WRONLY | O_CLOEXEC), STDERR_FILENO);
}

}  // namespace

int installSignalHandlers(void (*cleanup)(int signal)) {
  struct sigaction action {};
  sigemptyset(&action.sa_mask);
  sigemptyset(&blockedSignals);
  cleanupRoutine = cleanup;
  for (const int number : {SIGHUP, SIGSEGV, SIGCHLD}) sigaddset(&blockedSignals, number);
  // Some numbers cannot be caught, and some the C library keeps to itself: they stay as they are.
  for (int number = 1; number <= 63; ++number) {
    action.sa_handler = isIgnored(number) ? SIG_IGN : signalHandler;
    sigaction(number, &action, nullptr);
  }
  return 0;
}

void signalHandler(int signal) {
  if (cleanupRoutine == nullptr) return;
  if (ending.test_and_set()) _exit(exitRefused);
  sayLastWords();  // before the cleanup, which may not come to its end
  // The alarm has to come through also when it was what called us.
  sigset_t alarmAlone;
  sigemptyset(&alarmAlone);
  sigaddset(&alarmAlone, SIGALRM);
  sigprocmask(SIG_UNBLOCK, &alarmAlone, nullptr);
  alarm(10);  // the cleanup may wait for a lock of the allocator that the interrupted code holds
  silenceStandardError();
  cleanupRoutine(signal);
  _exit(exitRefused);
}

int blockSignals() {
  return sigprocmask(SIG_BLOCK, &blockedSignals, nullptr);
}

int unblockSignals() {
  return sigprocmask(SIG_UNBLOCK, &blockedSignals, nullptr);
}
