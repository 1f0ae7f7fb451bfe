// The client library's error code and the platform's two report sinks.
#pragma once

// 0 means no error; the next failing (or explicitly clearing) operation overwrites it, so read it
// right after the call that failed.
extern int _NQwError;

int NQwError();

// The codes this program sets in _NQwError.
enum {
  NQw_NO_ERROR = 0,
  NQw_NO_MEMORY = 3,
  NQw_VERSION_ALREADY_EXISTS = 13,
  NQw_DB_VERSION_NOT_FOUND = 14,
  NQw_DB_OPEN_FAILED = 24,
  NQw_FIELD_NOT_FOUND = 62,
  NQw_FIELD_TYPE_MISMATCH = 64,
  NQw_FIELD_INVALID_FLAG = 67,
  NQw_FIELD_VALUE_NULL = 69,
  NQw_OBJECT_NOT_FOUND = 80,
};

// The fixed leading arguments of every report of the object database.
constexpr int databaseComponent = 85;
constexpr int severityError = 8;
constexpr int severityDeletion = 4;
constexpr int databaseTraceClass = 0x2000000;

// Appends one line to "/usr/NQ/log/nqw.log": time, process id, component, severity, application and
// the formatted text with its line ends escaped. A log that cannot be opened or written loses the
// line and nothing else; errno is left as it was. The two integers before the format are reserved
// (1 and 0).
[[gnu::format(printf, 6, 7)]] void NQuLogS(int component, int severity, const char *application,
                                           int, int, const char *format, ...);

// Last words: a line for that log, ready in memory for an end that leaves no time, no memory or no
// stack to make one. Preparing replaces what was prepared before. Saying writes it, once, with
// calls that are safe in a signal handler. Severity 8, application "nqw"; the line has the time at
// which it was prepared. None of these takes memory.
[[gnu::format(printf, 1, 2)]] void prepareLastWords(const char *format, ...);
void forgetLastWords();
void sayLastWords();

// From here on every signal whose default action would end the process says the last words first.
// Signals that are caught or ignored stay so.
void sayLastWordsBySignal();

// Like NQuLogS for "/usr/NQ/log/nqw.trace", with the trace class in hexadecimal. Every trace is
// kept.
[[gnu::format(printf, 6, 7)]] void NQuTraceS(int component, int traceClass, const char *application,
                                             int, int, const char *format, ...);

// Drops every report from here on: for programs that only look and must leave nothing behind.
void dropReports();
