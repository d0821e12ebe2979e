// Permissions, and the recursive create and remove built on them.
#include <sys/stat.h>

#include <cstring>

#include "host/host.h"
#include "korvel/paths.h"
#include "paths/path_string.h"

namespace {

constexpr unsigned kWriteBits = S_IWUSR | S_IWGRP | S_IWOTH;

// 0 when path cannot be stat'ed.
unsigned modeOf(const char* path) {
  struct stat st;
  return hostStat(path, &st) == 0 ? static_cast<unsigned>(st.st_mode) : 0;
}

bool isSymbolicLink(const char* path) {
  struct stat st;
  return hostLstat(path, &st) == 0 && S_ISLNK(st.st_mode);
}

}  // namespace

int koSetFilePermissions(const char* path, unsigned mode) {
  return hostChmod(path, mode);
}

unsigned koGetFilePermissions(const char* path) {
  return modeOf(path);
}

unsigned koEnableWritePermission(const char* path) {
  const unsigned mode = modeOf(path);
  if (mode != 0) koSetFilePermissions(path, mode | kWriteBits);
  return mode;
}

unsigned koDisableWritePermission(const char* path) {
  const unsigned mode = modeOf(path);
  if (mode != 0) koSetFilePermissions(path, mode & ~kWriteBits);
  return mode;
}

bool koMkdirP(const char* path) {
  if (path == nullptr || *path == '\0') return false;
  koPathString prefix;
  for (const std::string& component : koPathString(path).components()) {
    prefix = prefix.str().empty() ? koPathString(component) : prefix.join(component);
    if (koIsDirectory(prefix.c_str())) continue;
    // A plain file in the chain makes this fail, and nothing goes below it.
    if (hostMkdir(prefix.c_str(), 0775) != 0) return false;
  }
  return true;
}

bool koRemoveRF(const char* path) {
  if (path == nullptr || *path == '\0' || koIsRootDir(path)) return false;
  // A link goes by itself: following it would empty, and chmod, whatever
  // it points to.
  if (isSymbolicLink(path)) {
    hostRemoveFile(path);
    return true;
  }
  const unsigned oldMode = koEnableWritePermission(path);
  // Children first: each entry of a directory is removed by a recursive
  // call before the directory itself. A plain file lists nothing.
  bool (*removeOne)(const char*) = koRemoveRF;
  const koStringProcedureAdapter<bool (*)(const char*)> removeEach(removeOne);
  koFindMatchingFilesAndDirs(koPathString(path).join("*").c_str(), removeEach, removeEach, 0,
                             false);
  if (hostRemoveFile(path) != 0 && oldMode != 0) koSetFilePermissions(path, oldMode);
  return oldMode != 0;
}
