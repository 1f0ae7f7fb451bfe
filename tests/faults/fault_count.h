// What fault_preload.cc and the one that starts a process under it tell each other: in shared
// memory, and through two pipes.
#pragma once

#include <sys/types.h>

struct FaultCount {
  long at;        // the call to fail, counted from 1; 0 for none
  long calls;     // so far
  char name[48];  // the function that was called at the fault; empty before it
};

// The process under test stands before its main function, and each byte that comes through
// ordersPipe has it make a copy of itself, which runs: that spares the start of a program, which
// takes longer than all else that a run over a small database does.
enum : int { ordersPipe = 200, reportsPipe = 201 };

struct FaultReport {
  enum {
    ready,    // for orders
    started,  // a copy; its process id
    stopped,  // the copy, at the fault; a byte through ordersPipe has it go on
    ended     // the copy; its status as of waitpid
  } what;
  int value;
};
