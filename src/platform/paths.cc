#include "platform/paths.h"

#include <sys/stat.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

namespace {

constexpr size_t pathSize = 1024;
constexpr char databases[] = "/usr/NQ/databases";

}  // namespace

const char *_NQwDbBuildDbPath(const char *name, const char *service) {
  static char path[pathSize];
  snprintf(path, sizeof path, "%s", databases);
  if (_NQConcatPath(path, sizeof path, name) != 0) return nullptr;
  if (_NQConcatPath(path, sizeof path, service) != 0) return nullptr;
  return path;
}

int _NQwDbMakeDbDir(const char *name) {
  const char *built = _NQwDbBuildDbPath(name, "nqwdb");
  if (built == nullptr) return -1;
  char path[pathSize];
  snprintf(path, sizeof path, "%s", built);
  for (char *slash = strchr(path + 1, '/'); slash != nullptr; slash = strchr(slash + 1, '/')) {
    *slash = '\0';
    if (_NQMakeDir(path, 0777, 1) < 0) return -1;
    *slash = '/';
  }
  return _NQMakeDir(path, 0777, 1);
}

int _NQConcatPath(char *path, size_t size, const char *component) {
  if (component == nullptr || *component == '\0') return 0;
  const size_t length = strlen(path);
  if (length + 1 + strlen(component) + 1 > size) return -1;
  snprintf(path + length, size - length, "/%s", component);
  return 0;
}

int _NQMakeDir(const char *path, mode_t mode, int existingOk) {
  if (mkdir(path, mode) == 0) return 0;
  if (errno != EEXIST || existingOk != 1) return -1;
  // Something is there, which may be a file.
  struct stat status {};
  return stat(path, &status) == 0 && S_ISDIR(status.st_mode) ? 0 : -1;
}
