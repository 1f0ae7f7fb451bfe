// How the database layer reports: the error code, the platform's log, the platform's trace. It
// never writes to standard error, and a report never fails in a way that the caller sees.
#pragma once

#include "platform/report.h"

// Set _NQwError to the code and trace its name.
void traceError(int code);

// Set _NQwError to NQw_OBJECT_NOT_FOUND and trace it with the operation's source name.
void traceObjectNotFound(const char *source, unsigned objectId);

// Set _NQwError to NQw_DB_OPEN_FAILED and log "Database failed to open.": an operation that needs
// the current database could not get it.
void logDatabaseNotOpen();

// One trace record, and one log record of the given severity, of component 85 and application
// "nqw".
[[gnu::format(printf, 1, 2)]] void traceMessage(const char *format, ...);
[[gnu::format(printf, 2, 3)]] void logMessage(int severity, const char *format, ...);
