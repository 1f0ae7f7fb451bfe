// How the database layer reports: the error code, the platform's log, the platform's trace. None of
// these functions writes to standard error, and none fails in a way that the caller sees.
#pragma once

#include "platform/report.h"

// Sets _NQwError to the code and traces its name.
void traceError(int code);

// Sets _NQwError to NQw_OBJECT_NOT_FOUND and traces it with the operation's source name.
void traceObjectNotFound(const char *source, unsigned objectId);

// Sets _NQwError to NQw_DB_OPEN_FAILED and logs "Database failed to open.": an operation that needs
// the current database could not get it.
void logDatabaseNotOpen();

// These write one trace record, or one log record of the given severity, of component 85 and
// application "nqw".
[[gnu::format(printf, 1, 2)]] void traceMessage(const char *format, ...);
[[gnu::format(printf, 2, 3)]] void logMessage(int severity, const char *format, ...);
