// Path strings and file queries over caller-owned buffers.
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <sys/time.h>

#include <algorithm>
#include <cctype>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "host/host.h"
#include "korvel/paths.h"

namespace {

constexpr size_t kPathBuffer = KORVEL_PATH_BUFFER_SIZE;
constexpr size_t kLongestPath = kPathBuffer - 1;

// Temporary-directory cache: computed once, never freed. Unlocked on
// purpose: racing first calls write the same text into the same buffer.
char tempDirBuffer[kPathBuffer];
const char* tempDir = nullptr;

// Temporary-name counter; a lost increment only weakens the seed, uniqueness
// rests on the existence test.
uint64_t tempNameCounter = 0;

// Appends at most what fits of src to the NUL-terminated text in dst (a
// buffer of dstSize bytes).
void appendBounded(char* dst, size_t dstSize, const char* src) {
  size_t used = strnlen(dst, dstSize - 1);
  size_t n = strnlen(src, dstSize - 1 - used);
  memcpy(dst + used, src, n);
  dst[used + n] = '\0';
}

// realpath() into a buffer of the system's maximum path length, copied to
// dst only when it fits dstSize bytes. Never writes past dst.
char* resolveInto(char* dst, size_t dstSize, const char* path) {
  char resolved[PATH_MAX];
  if (realpath(path, resolved) == nullptr) return nullptr;
  size_t len = strlen(resolved);
  if (len >= dstSize) return nullptr;
  memcpy(dst, resolved, len + 1);
  return dst;
}

}  // namespace

extern "C" {

bool koIsPathSep(int c) {
  return c == '/';
}

void koReplacePathSeps(char* path, int c) {
  if (path == nullptr) return;
  for (char* p = path; *p != '\0'; ++p) {
    if (koIsPathSep(static_cast<unsigned char>(*p))) *p = static_cast<char>(c);
  }
}

void koWashPathSep(char* path) {
  if (path == nullptr) return;
  for (char* p = path; *p != '\0'; ++p) {
    if (*p == '/' || *p == '\\') *p = '/';
  }
}

bool koAddPathSep(char* path) {
  if (path == nullptr) return false;
  size_t len = strlen(path);
  if (len > 0 && koIsPathSep(static_cast<unsigned char>(path[len - 1]))) {
    if (path[len - 1] != '/') path[len - 1] = '/';
    return true;
  }
  path[len] = '/';
  path[len + 1] = '\0';
  return true;
}

size_t koAddPathSepAt(char* path, size_t pos) {
  if (path == nullptr) return 0;
  if (pos > 0 && koIsPathSep(static_cast<unsigned char>(path[pos - 1]))) return 0;
  size_t len = strlen(path);
  memmove(path + pos + 1, path + pos, len - pos + 1);
  path[pos] = '/';
  return 1;
}

bool koIsRootDir(const char* path) {
  return path[0] == '/' && path[1] == '\0';
}

char* koCollapsePath(char* dst, const char* src, size_t n) {
  char* w = dst;
  const char* r = src;
  while (n > 0 && *r != '\0') {
    // The segment at r: L characters up to the next '/', A with that '/'.
    // Without a '/' the segment runs to the NUL or to n, whichever is first.
    size_t len = 0;
    while (len < n && r[len] != '\0' && r[len] != '/') ++len;
    size_t advance = (len < n && r[len] == '/') ? len + 1 : len;

    if (len == 1 && r[0] == '.') {
      // "." vanishes with its slash.
    } else if (len == 2 && r[0] == '.' && r[1] == '.') {
      // ".." removes the previous segment; never the leading slash.
      while (w > dst + 1 && w[-1] == '/') --w;
      while (w > dst && w[-1] != '/') --w;
    } else {
      memmove(w, r, advance);
      w += advance;
    }
    n -= advance;
    r += advance;
    while (n > 0 && *r == '/') {
      --n;
      ++r;
    }
  }
  *w = '\0';
  return dst;
}

char* koCanonicalizePath(char* out, size_t outSize, const char* in, size_t inLen) {
  char inCopy[kPathBuffer];
  char scratch[kPathBuffer];
  char tildeBuffer[kPathBuffer];
  char relative[kPathBuffer];

  // Never read past the NUL of in: a shorter string ends where its NUL is.
  size_t length = strnlen(in, inLen);
  const char* path = in;
  if (length < inLen || (inLen <= kLongestPath && in[inLen] != '\0')) {
    length = std::min(length, kLongestPath);
    memcpy(inCopy, in, length);
    inCopy[length] = '\0';
    path = inCopy;
  }

  // Leading blanks are skipped; trailing ones are cut by length only, so the
  // fast path below still sees them.
  while (length > 0 && isspace(static_cast<unsigned char>(*path))) {
    ++path;
    --length;
  }
  while (length > 0 && isspace(static_cast<unsigned char>(path[length - 1]))) --length;
  if (length == 0) {
    path = ".";
    length = 1;
  }
  if (outSize == 0) {
    out[0] = '\0';
    return out;
  }

  // Fast path: the whole path exists.
  if (resolveInto(out, outSize + 1, path) != nullptr) {
    char* fixed = hostFixAutoMountPrefix(out);
    if (fixed != nullptr) return fixed;
  }

  length = std::min(length, outSize);
  memcpy(out, path, length);
  out[length] = '\0';
  path = out;

  // Resolve the longest existing prefix and append the rest to it. Prefixes
  // are cut at each '/' from the last to the first; the root is tried as "/".
  char* cutSlash = nullptr;  // the '/' replaced by NUL in the previous pass
  for (;;) {
    char* slash = strrchr(out, '/');
    if (cutSlash != nullptr) *cutSlash = '/';
    if (slash == nullptr) break;
    const bool atRoot = slash == out;
    char saved = '\0';
    if (atRoot) {
      saved = out[1];
      out[1] = '\0';
    } else {
      *slash = '\0';
    }
    const bool resolved = resolveInto(scratch, sizeof scratch - 1, out) != nullptr;
    if (atRoot) out[1] = saved;
    if (resolved) {
      if (!atRoot) *slash = '/';
      koAddPathSep(scratch);
      appendBounded(scratch, sizeof scratch, slash + 1);
      path = scratch;
      length = strlen(scratch);
      break;
    }
    if (atRoot) break;  // nothing shorter than the root to try
    cutSlash = slash;
  }

  if (path[0] == '~') {
    const char* expanded = hpTildeExpansion(tildeBuffer, path);
    if (expanded != path) {
      path = tildeBuffer;
      length = strnlen(tildeBuffer, kLongestPath);
    }
  }

  if (!hpIsAbsolutePath(path)) {
    // The working directory is written into out, which may hold the path.
    if (path == out) {
      // out may be larger than the library's path buffers.
      length = std::min(length, kLongestPath);
      memcpy(relative, out, length);
      relative[length] = '\0';
      path = relative;
    }
    if (hostGetcwd(out, outSize) != nullptr) {
      size_t cwdLength = strlen(out);
      if (cwdLength + 1 < outSize) {
        size_t inserted = koAddPathSepAt(out, cwdLength);
        size_t room = outSize - (cwdLength + inserted) - 1;
        size_t copied = std::min(length, room);
        memcpy(out + cwdLength + inserted, path, copied);
        out[cwdLength + inserted + copied] = '\0';
        out[outSize - 1] = '\0';
        length = cwdLength + inserted + copied;
        path = out;
      }
    }
  }

  return koCollapsePath(out, path, std::min(length, outSize - 1));
}

bool koFileOrDirExists(const char* path) {
  struct stat st;
  return stat(path, &st) == 0;
}

bool koFileExists(const char* path) {
  struct stat st;
  return stat(path, &st) == 0 && !S_ISDIR(st.st_mode);
}

bool koIsDirectory(const char* path) {
  struct stat st;
  return path != nullptr && stat(path, &st) == 0 && S_ISDIR(st.st_mode);
}

int64_t koGetFileSize(const char* path) {
  struct stat st;
  if (stat(path, &st) != 0) return 0;
  return st.st_size;
}

bool koGetFileSystemAvailableSpace(const char* path, uint64_t* bytes) {
  *bytes = ~uint64_t{0};
  struct statvfs fs;
  if (statvfs(path, &fs) != 0) return false;
  if (fs.f_bsize == 0) return false;
  // Free blocks including those reserved for the superuser, times the
  // preferred block size.
  *bytes = static_cast<uint64_t>(fs.f_bsize) * static_cast<uint64_t>(fs.f_bfree);
  return true;
}

const char* koGetTempDir() {
  if (tempDir != nullptr) return tempDir;
  const char* tmp = getenv("TMP");  // NOLINT(concurrency-mt-unsafe): read once
  if (tmp == nullptr) tmp = "/tmp";
  // Leave room for the separator koAddPathSep may append.
  size_t n = strnlen(tmp, kPathBuffer - 2);
  memcpy(tempDirBuffer, tmp, n);
  tempDirBuffer[n] = '\0';
  koAddPathSep(tempDirBuffer);
  tempDir = tempDirBuffer;
  return tempDir;
}

char* koGetTempName(char* buf) {
  uint64_t counter = ++tempNameCounter;
  struct timeval tv;
  gettimeofday(&tv, nullptr);
  uint64_t v =
      counter + static_cast<uint64_t>(tv.tv_sec) * 1000000u + static_cast<uint64_t>(tv.tv_usec);
  int64_t address = static_cast<int64_t>(reinterpret_cast<intptr_t>(buf));
  uint64_t seed = static_cast<uint64_t>(address >> 21) + (static_cast<uint64_t>(address) << 7) +
                  v * ((uint64_t{1} << 17) + 1);

  const char* dir = koGetTempDir();
  size_t dirLength = strlen(dir);
  memcpy(buf, dir, dirLength + 1);
  do {
    seed = (seed + 1) % 1000000u;
    snprintf(buf + dirLength, 9, "tp%06lu", static_cast<unsigned long>(seed));
  } while (koFileOrDirExists(buf));
  return buf;
}

}  // extern "C"
