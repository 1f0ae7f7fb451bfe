// Signals from the moment on when a run is about to remove the tables. Until then, and in a run
// that only deletes listed objects, they have the system's defaults (but see sayLastWordsBySignal).
//
// Keyboard interrupts, quit, broken pipes and termination requests are ignored, so that they cannot
// break off the rewrite. SIGHUP, and a SIGSEGV that somebody sends, wait while the rewrite runs,
// and every signal waits during keepTables. Every other signal that can be caught runs the cleanup
// and then ends the process, those too that would otherwise do nothing (SIGWINCH) or stop it
// (SIGTSTP).
#pragma once

#include <signal.h>

// Called with the number of the signal; null until installSignalHandlers records one.
extern void (*cleanupRoutine)(int signal);

// SIGHUP, SIGSEGV and SIGCHLD; empty until installSignalHandlers.
extern sigset_t blockedSignals;

// Records the cleanup and sets the disposition of every signal from 1 to 63 that can have one; what
// cannot stays as it is. 0.
int installSignalHandlers(void (*cleanup)(int signal));

// Says the last words of the run (platform/report.h), runs the cleanup once and ends the process
// with status 1, without exit handlers. A further signal during the cleanup, or a cleanup that is
// stuck for ten seconds, ends it at once. The cleanup frees memory and closes the database, and may
// meet structures that the interrupted code has left half changed. That is survivable: the process
// never goes back to that code, and nobody uses the structures afterwards.
void signalHandler(int signal);

// Block and unblock blockedSignals: called before and after the rewrite. 0, or -1.
int blockSignals();
int unblockSignals();
