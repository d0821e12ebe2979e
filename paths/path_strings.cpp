// Path strings and file queries over caller-owned buffers. koCanonicalizePath
// is put together from the steps declared in paths/canonical_path.h.
#include <sys/stat.h>
#include <sys/statvfs.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "host/host.h"
#include "korvel/paths.h"
#include "paths/canonical_path.h"

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

// Cuts a path before one of its '/' for the life of the object: the prefix
// before it, or "/" for a leading '/'.
class PrefixCut {
 public:
  PrefixCut(char* path, char* slash) : at_(slash == path ? slash + 1 : slash), saved_(*at_) {
    *at_ = '\0';
  }
  ~PrefixCut() { *at_ = saved_; }
  PrefixCut(const PrefixCut&) = delete;
  PrefixCut& operator=(const PrefixCut&) = delete;

 private:
  char* at_;
  char saved_;
};

// The n-th '/' of path, counted from 1. REQUIRES: path has n of them.
char* nthSlash(char* path, size_t n) {
  char* p = path;
  for (;; ++p) {
    if (*p == '/' && --n == 0) return p;
  }
}

// Whether the prefix before the n-th '/' resolves; if so, into dst (a
// buffer, which keeps room for one more '/').
bool resolvePrefix(char* dst, char* path, size_t n) {
  PrefixCut cut(path, nthSlash(path, n));
  return canonical::resolveInto(dst, kPathBuffer - 1, path) != nullptr;
}

// Whether lstat finds nothing at resolved (a real path in a buffer) joined
// with the name of nameLength characters, nor a directory to look in; false
// also for ".", ".." and the empty name, and when the join is too long.
// resolved is extended during the call and restored.
bool nothingBelow(char* resolved, const char* name, size_t nameLength) {
  if (nameLength == 0 ||
      (name[0] == '.' && (nameLength == 1 || (nameLength == 2 && name[1] == '.')))) {
    return false;
  }
  const size_t used = strlen(resolved);
  const size_t start = used > 0 && resolved[used - 1] == '/' ? used : used + 1;
  if (start + nameLength >= PATH_MAX) return false;
  if (start > used) resolved[used] = '/';
  memcpy(resolved + start, name, nameLength);
  resolved[start + nameLength] = '\0';
  struct stat st;
  const bool nothing = hostLstat(resolved, &st) != 0 && (errno == ENOENT || errno == ENOTDIR);
  resolved[used] = '\0';
  return nothing;
}

bool prefixExists(char* path, size_t n) {
  PrefixCut cut(path, nthSlash(path, n));
  struct stat st;
  return hostStat(path, &st) == 0;
}

}  // namespace

namespace canonical {

void appendBounded(char* dst, size_t dstSize, const char* src) {
  size_t used = strnlen(dst, dstSize - 1);
  size_t n = strnlen(src, dstSize - 1 - used);
  memcpy(dst + used, src, n);
  dst[used + n] = '\0';
}

char* resolveInto(char* dst, size_t dstSize, const char* path) {
  char resolved[PATH_MAX];
  if (hostRealpath(path, resolved) == nullptr) return nullptr;
  size_t len = strlen(resolved);
  if (len >= dstSize) return nullptr;
  memcpy(dst, resolved, len + 1);
  return dst;
}

PathText trimInput(const char* in, size_t inLen, char* copy) {
  size_t length = strnlen(in, inLen);
  const char* text = in;
  if (length < inLen || (inLen <= kLongestPath && in[inLen] != '\0')) {
    length = std::min(length, kLongestPath);
    memcpy(copy, in, length);
    copy[length] = '\0';
    text = copy;
  }
  while (length > 0 && isspace(static_cast<unsigned char>(*text))) {
    ++text;
    --length;
  }
  while (length > 0 && isspace(static_cast<unsigned char>(text[length - 1]))) --length;
  if (length == 0) return {".", 1};
  return {text, length};
}

// The prefixes that realpath resolves are the shortest ones, up to some n:
// it resolves a prefix whenever it resolves a longer one, since it walks the
// same components first and checks no more of them. Trying them from the
// longest down costs one readlink per component per prefix; instead a
// bisection by stat (one call each) guesses n, and the guess is confirmed the
// way realpath itself would decide: prefix n resolves, and prefix n + 1 does
// not. For the second, when prefix n resolved to R and the next component is
// a plain name c, realpath would read the link at R/c next and fail if
// nothing is there, which one lstat of R/c tells; otherwise realpath is asked.
// Should the guess be wrong (a host's own realpath, a path beyond the
// system's length limit that resolves to a shorter one), every prefix is
// tried from the longest down.
bool resolveExistingPrefix(char* dst, char* path) {
  size_t cuts = 0;
  for (const char* p = path; *p != '\0'; ++p) cuts += *p == '/';
  if (cuts == 0) return false;

  size_t low = 0;
  size_t high = cuts;
  while (low < high) {
    const size_t middle = low + (high - low + 1) / 2;
    if (prefixExists(path, middle)) {
      low = middle;
    } else {
      high = middle - 1;
    }
  }
  size_t found = low;
  bool confirmed = found == 0 || resolvePrefix(dst, path, found);
  if (confirmed && found < cuts) {
    // dst is written only when prefix found + 1 resolves, and then the
    // search starts over anyway.
    const char* name = found == 0 ? path : nthSlash(path, found) + 1;
    const size_t nameLength = static_cast<size_t>(nthSlash(path, found + 1) - name);
    confirmed =
        (found > 0 && nothingBelow(dst, name, nameLength)) || !resolvePrefix(dst, path, found + 1);
  }
  if (!confirmed) {
    for (found = cuts; found > 0 && !resolvePrefix(dst, path, found);) --found;
  }
  if (found == 0) return false;
  koAddPathSep(dst);
  appendBounded(dst, kPathBuffer, nthSlash(path, found) + 1);
  return true;
}

PathText expandTilde(char* dst, PathText path) {
  if (path.text[0] != '~' || hpTildeExpansion(dst, path.text) == path.text) return path;
  return {dst, strnlen(dst, kLongestPath)};
}

PathText makeAbsolute(char* out, size_t outSize, PathText path, char* copy) {
  if (hpIsAbsolutePath(path.text)) return path;
  if (path.text == out) {
    // The working directory is written into out.
    path.length = std::min(path.length, kLongestPath);
    memcpy(copy, out, path.length);
    copy[path.length] = '\0';
    path.text = copy;
  }
  if (hostGetcwd(out, outSize) == nullptr) return path;
  const size_t cwdLength = strlen(out);
  if (cwdLength + 1 >= outSize) return path;
  const size_t start = cwdLength + koAddPathSepAt(out, cwdLength);
  const size_t copied = std::min(path.length, outSize - start - 1);
  memcpy(out + start, path.text, copied);
  out[start + copied] = '\0';
  return {out, start + copied};
}

}  // namespace canonical

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
  using canonical::PathText;
  char work[kPathBuffer];   // the input's copy, then the resolved prefix and the rest
  char spare[kPathBuffer];  // the tilde's expansion, or a relative path moved out of out

  PathText path = canonical::trimInput(in, inLen, work);
  if (outSize == 0) {
    out[0] = '\0';
    return out;
  }
  // The whole path exists: its real path is the answer, and the only one that
  // may fill all outSize characters (the trailing blanks are still in the
  // text here). Every other answer is cut to outSize - 1.
  if (canonical::resolveInto(out, outSize + 1, path.text) != nullptr) {
    char* fixed = hostFixAutoMountPrefix(out);
    if (fixed != nullptr) return fixed;
  }

  path.length = std::min(path.length, outSize);
  memmove(out, path.text, path.length);
  out[path.length] = '\0';
  path.text = out;
  if (canonical::resolveExistingPrefix(work, out)) path = {work, strlen(work)};
  path = canonical::expandTilde(spare, path);
  path = canonical::makeAbsolute(out, outSize, path, spare);
  return koCollapsePath(out, path.text, std::min(path.length, outSize - 1));
}

bool koFileOrDirExists(const char* path) {
  struct stat st;
  return hostStat(path, &st) == 0;
}

bool koFileExists(const char* path) {
  struct stat st;
  return hostStat(path, &st) == 0 && !S_ISDIR(st.st_mode);
}

bool koIsDirectory(const char* path) {
  struct stat st;
  return path != nullptr && hostStat(path, &st) == 0 && S_ISDIR(st.st_mode);
}

int64_t koGetFileSize(const char* path) {
  struct stat st;
  if (hostStat(path, &st) != 0) return 0;
  return st.st_size;
}

bool koGetFileSystemAvailableSpace(const char* path, uint64_t* bytes) {
  *bytes = ~uint64_t{0};
  struct statvfs fs;
  if (hostStatvfs(path, &fs) != 0) return false;
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
  // The time of day in whole seconds and microseconds.
  const double now = hostRealtime();
  const uint64_t seconds = static_cast<uint64_t>(now);
  const uint64_t micros = static_cast<uint64_t>((now - static_cast<double>(seconds)) * 1e6);
  uint64_t v = counter + seconds * 1000000u + micros;
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
