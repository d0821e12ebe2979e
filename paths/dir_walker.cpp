// The wildcard directory walker and the procedures built on it.
#include <fcntl.h>
#include <sys/stat.h>

#include <cstdint>
#include <cstring>
#include <memory>

#include "host/host.h"
#include "korvel/paths.h"
#include "paths/scoped_resource.h"

namespace {

constexpr size_t kLongestPattern = 4096;
// Every directory text the walker builds lives in one buffer of this size,
// extended and cut back as the walk goes. The buffers are on the heap:
// procedures may walk again (a recursive remove walks once per level).
constexpr size_t kDirBuffer = 4352;

// True when dir (of length dirLength) joined with name fits the buffer.
bool fitsAfterJoin(size_t dirLength, const char* name) {
  return dirLength + 1 + strlen(name) + 1 <= kDirBuffer;
}

// What the walker does with an entry: onDir(path) for a directory (links
// followed), onFile(path, st) for anything else, where st is the entry's
// stat, or null when the stat failed. The path is the walker's buffer.
struct ReportToProcedures {
  void onDir(const char* path) const { dirProcedure(path); }
  void onFile(const char* path, const struct stat*) const { fileProcedure(path); }
  const koStringProcedure& fileProcedure;
  const koStringProcedure& dirProcedure;
};

// Sums the sizes of the files from the stat the walker made anyway.
struct AddFileSizes {
  void onDir(const char*) const {}
  void onFile(const char*, const struct stat* st) const {
    if (st != nullptr) *total += st->st_size;
  }
  int64_t* total;
};

// An open directory for the length of a scope; fd is -1 when it cannot be
// opened.
struct DirectoryFd {
  explicit DirectoryFd(const char* path)
      : fd(hostOpen(path, O_RDONLY | O_DIRECTORY | O_CLOEXEC, 0)) {}
  ~DirectoryFd() {
    if (fd >= 0) hostClose(fd);
  }
  DirectoryFd(const DirectoryFd&) = delete;
  DirectoryFd& operator=(const DirectoryFd&) = delete;
  const int fd;
};

// Walks the directory text in dir (a kDirBuffer buffer) with the name pattern
// namePattern; see koFindMatchingFilesAndDirs. One stat per entry.
template <class Visitor>
int walk(char* dir, const char* namePattern, const Visitor& visitor, int depth, bool stopAtFirst) {
  const size_t dirLength = strlen(dir);
  if (!fitsAfterJoin(dirLength, namePattern)) return 0;
  hpConcatPathName(dir, namePattern);
  koScopedResource<char*> listing(hostGetDirList(dir, 0), hostFree);
  dir[dirLength] = '\0';
  const char* name = listing.get();
  if (name == nullptr) return 0;
  // Entries are stat'ed relative to their directory: the kernel then walks
  // one name, not the whole path, per entry.
  const DirectoryFd dirFd(dirLength == 0 ? "." : dir);

  int count = 0;
  for (; *name != '\0'; name += strlen(name) + 1) {
    if (strcmp(name, ".") == 0 || strcmp(name, "..") == 0) continue;
    dir[dirLength] = '\0';
    if (!fitsAfterJoin(dirLength, name)) continue;  // a path too long to report
    hpConcatPathName(dir, name);
    struct stat st;
    const bool found = (dirFd.fd >= 0 ? hostStatAt(dirFd.fd, name, &st) : hostStat(dir, &st)) == 0;
    if (found && S_ISDIR(st.st_mode)) {
      visitor.onDir(dir);
      ++count;
      if (stopAtFirst) return count;
      if (depth > 0) count += walk(dir, "*", visitor, depth - 1, false);
    } else {
      visitor.onFile(dir, found ? &st : nullptr);
      ++count;
      if (stopAtFirst) return count;
    }
  }
  return count;
}

// koFindMatchingFilesAndDirs with any visitor.
template <class Visitor>
int findMatching(const char* pattern, const Visitor& visitor, int depth, bool stopAtFirst) {
  if (pattern == nullptr) return 0;
  const size_t patternLength = strnlen(pattern, kLongestPattern + 1);
  if (patternLength == 0 || patternLength > kLongestPattern) return 0;

  std::unique_ptr<char[]> dirBuffer(new char[kDirBuffer]);
  char* dir = dirBuffer.get();
  if (strcmp(pattern, ".") == 0 || strcmp(pattern, ".\\") == 0 || strcmp(pattern, "./") == 0) {
    if (depth < 1) return 0;
    dir[0] = '\0';
    return walk(dir, "*", visitor, depth - 1, stopAtFirst);
  }
  if (koIsRootDir(pattern)) {
    if (depth < 1) return 0;
    strcpy(dir, "/");  // NOLINT: fits
    return walk(dir, "*", visitor, depth - 1, stopAtFirst);
  }

  const char* name = hpSeparatePathName(pattern, dir);
  if (name == nullptr || strchr(dir, '*') != nullptr) return 0;
  std::unique_ptr<char[]> parent;  // holds the name below, when needed
  if (*name == '\0') {
    // "/a/b/" means the directory b itself: walk /a for the name b.
    parent.reset(new char[kDirBuffer]);
    strcpy(parent.get(), dir);  // NOLINT: same size
    name = hpSeparatePathName(parent.get(), dir);
    if (name == nullptr) return 0;
  }
  koWashPathSep(dir);
  return walk(dir, name, visitor, depth, stopAtFirst);
}

}  // namespace

koStringProcedure::~koStringProcedure() = default;

void koIgnoreString::operator()(const char* /*path*/) const {}

void koDirectorySizeAdder::operator()(const char* path) const {
  *total_ += koGetFileSize(path);
}

int koFindMatchingFilesAndDirs(const char* pattern, const koStringProcedure& onFile,
                               const koStringProcedure& onDir, int depth, bool stopAtFirst) {
  return findMatching(pattern, ReportToProcedures{onFile, onDir}, depth, stopAtFirst);
}

bool koMatchingFileOrDirExists(const char* pattern) {
  koIgnoreString ignore;
  return koFindMatchingFilesAndDirs(pattern, ignore, ignore, 0, true) == 1;
}

int64_t koGetDirectorySize(const char* dir) {
  char pattern[kLongestPattern + 3];
  size_t n = strnlen(dir, kLongestPattern);
  memcpy(pattern, dir, n);
  pattern[n] = '\0';
  koAddPathSep(pattern);
  strcat(pattern, "*");  // NOLINT: room reserved above
  int64_t total = 0;
  // As koFindMatchingFilesAndDirs with a koDirectorySizeAdder, without its
  // second stat of every file.
  findMatching(pattern, AddFileSizes{&total}, 4096, false);
  return total;
}
