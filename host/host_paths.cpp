// Default path and directory services, on POSIX.
#include <dirent.h>
#include <pwd.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "host/defaults.h"
#include "host/host.h"

namespace {

// Matches name against pattern, where '*' matches any run of characters and
// every other character only itself. Iterative, with one backtrack point:
// linear in practice and never recursive.
bool wildcardMatch(const char* pattern, const char* name) {
  const char* star = nullptr;
  const char* resume = nullptr;
  while (*name != '\0') {
    if (*pattern == '*') {
      star = pattern++;
      resume = name;
    } else if (*pattern == *name) {
      ++pattern;
      ++name;
    } else if (star != nullptr) {
      pattern = star + 1;
      name = ++resume;
    } else {
      return false;
    }
  }
  while (*pattern == '*') ++pattern;
  return *pattern == '\0';
}

// Copies at most dstSize - 1 bytes of src into dst and terminates it.
void copyBounded(char* dst, size_t dstSize, const char* src) {
  size_t n = strnlen(src, dstSize - 1);
  memcpy(dst, src, n);
  dst[n] = '\0';
}

}  // namespace

extern "C" {

__attribute__((weak)) char* hostFixAutoMountPrefix(char* p) {
  return p;
}

__attribute__((weak)) const char* hpTildeExpansion(char* dst, const char* src) {
  if (src == nullptr || src[0] != '~') return src;
  const char* rest = strchr(src, '/');
  if (rest == nullptr) rest = src + strlen(src);
  const char* home = nullptr;
  struct passwd pw;
  struct passwd* found = nullptr;
  char scratch[4096];
  if (rest == src + 1) {
    home = getenv("HOME");  // NOLINT(concurrency-mt-unsafe): read-only use
    if (home == nullptr && getpwuid_r(getuid(), &pw, scratch, sizeof scratch, &found) == 0 &&
        found != nullptr) {
      home = found->pw_dir;
    }
  } else {
    size_t userLen = static_cast<size_t>(rest - (src + 1));
    char user[256];
    if (userLen >= sizeof user) return src;
    memcpy(user, src + 1, userLen);
    user[userLen] = '\0';
    if (getpwnam_r(user, &pw, scratch, sizeof scratch, &found) == 0 && found != nullptr) {
      home = found->pw_dir;
    }
  }
  if (home == nullptr) return src;
  copyBounded(dst, KORVEL_PATH_BUFFER_SIZE, home);
  size_t used = strlen(dst);
  copyBounded(dst + used, KORVEL_PATH_BUFFER_SIZE - used, rest);
  return dst;
}

__attribute__((weak)) bool hpIsAbsolutePath(const char* p) {
  return p != nullptr && p[0] == '/';
}

__attribute__((weak)) char* hostGetcwd(char* buf, size_t size) {
  return getcwd(buf, size);
}

__attribute__((weak)) const char* hpSeparatePathName(const char* path, char* dirOut) {
  if (path == nullptr) return nullptr;
  const char* slash = strrchr(path, '/');
  if (slash == nullptr) {
    dirOut[0] = '\0';
    return path;
  }
  // "/x": the directory is the root itself, not the empty (relative) path.
  size_t dirLen = slash == path ? 1 : static_cast<size_t>(slash - path);
  memcpy(dirOut, path, dirLen);
  dirOut[dirLen] = '\0';
  return slash + 1;
}

__attribute__((weak)) void hpConcatPathName(char* dir, const char* name) {
  size_t len = strlen(dir);
  if (len > 0 && dir[len - 1] != '/') dir[len++] = '/';
  strcpy(dir + len, name);  // NOLINT: room guaranteed by the caller
}

char* hostDefaultGetDirList(const char* pathPattern, int /*flags*/) {
  if (pathPattern == nullptr) return nullptr;
  const char* slash = strrchr(pathPattern, '/');
  const char* namePattern = slash == nullptr ? pathPattern : slash + 1;
  size_t dirLen = slash == nullptr ? 0 : (slash == pathPattern ? 1 : slash - pathPattern);
  char* dirName = static_cast<char*>(malloc(dirLen + 2));
  if (dirName == nullptr) return nullptr;
  if (dirLen == 0) {
    strcpy(dirName, ".");  // NOLINT: fits
  } else {
    memcpy(dirName, pathPattern, dirLen);
    dirName[dirLen] = '\0';
  }
  DIR* dir = opendir(dirName);
  free(dirName);
  if (dir == nullptr) return nullptr;

  size_t capacity = 256;
  size_t used = 0;
  char* block = static_cast<char*>(malloc(capacity));
  while (block != nullptr) {
    errno = 0;
    struct dirent* entry = readdir(dir);  // NOLINT(concurrency-mt-unsafe): private stream
    if (entry == nullptr) {
      // An error in mid-listing would pass for the end of it: a listing
      // with names missing is no listing.
      if (errno != 0) {
        const int error = errno;
        free(block);
        block = nullptr;
        errno = error;
      }
      break;
    }
    if (!wildcardMatch(namePattern, entry->d_name)) continue;
    size_t len = strlen(entry->d_name) + 1;
    if (used + len + 1 > capacity) {
      while (used + len + 1 > capacity) capacity *= 2;
      char* grown = static_cast<char*>(realloc(block, capacity));
      if (grown == nullptr) {
        free(block);
        block = nullptr;
        break;
      }
      block = grown;
    }
    memcpy(block + used, entry->d_name, len);
    used += len;
  }
  const int error = errno;
  closedir(dir);
  errno = error;
  if (block != nullptr) block[used] = '\0';
  return block;
}

__attribute__((weak)) const char* hostMultiByteStrStr(const char* haystack, const char* needle) {
  return strstr(haystack, needle);
}

}  // extern "C"

KORVEL_WEAK_DEFAULT(hostGetDirList, hostDefaultGetDirList);
