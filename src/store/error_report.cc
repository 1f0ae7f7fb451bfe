#include "store/error_report.h"

#include <cstdarg>
#include <cstdio>

namespace {

constexpr char application[] = "nqw";

const char *codeName(int code) {
  switch (code) {
    case NQw_VERSION_ALREADY_EXISTS:
      return "NQw_VERSION_ALREADY_EXISTS";
    case NQw_DB_VERSION_NOT_FOUND:
      return "NQw_DB_VERSION_NOT_FOUND";
    case NQw_DB_OPEN_FAILED:
      return "NQw_DB_OPEN_FAILED";
    case NQw_FIELD_NOT_FOUND:
      return "NQw_FIELD_NOT_FOUND";
    case NQw_FIELD_INVALID_FLAG:
      return "NQw_FIELD_INVALID_FLAG";
    default:
      return "?";
  }
}

struct Text {
  char characters[1024];

  Text(const char *format, va_list arguments) {
    vsnprintf(characters, sizeof characters, format, arguments);
  }
};

}  // namespace

void traceError(int code) {
  _NQwError = code;
  traceMessage("%s", codeName(code));
}

void traceObjectNotFound(const char *source, unsigned objectId) {
  _NQwError = NQw_OBJECT_NOT_FOUND;
  traceMessage("NQw_OBJECT_NOT_FOUND\nFIle: %s\noid: %d", source, static_cast<int>(objectId));
}

void logDatabaseNotOpen() {
  _NQwError = NQw_DB_OPEN_FAILED;
  logMessage(severityError, "Database failed to open.");
}

void traceMessage(const char *format, ...) {
  va_list arguments;
  va_start(arguments, format);
  const Text text(format, arguments);
  va_end(arguments);
  NQuTraceS(databaseComponent, databaseTraceClass, application, 1, 0, "%s", text.characters);
}

void logMessage(int severity, const char *format, ...) {
  va_list arguments;
  va_start(arguments, format);
  const Text text(format, arguments);
  va_end(arguments);
  NQuLogS(databaseComponent, severity, application, 1, 0, "%s", text.characters);
}
