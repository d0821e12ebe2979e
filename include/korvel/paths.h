// Path strings, file queries and the directory walker.
//
// The C functions edit caller-owned buffers and answer questions about files.
// None of them allocates, throws or prints; every failure is a return value
// (false, 0, null or an all-ones sentinel). What it means, and where to
// learn why:
//   - false from koFileOrDirExists, koFileExists or koIsDirectory is an
//     answer: the path cannot be stat'ed (errno is stat's), or is not of
//     that kind (errno untouched).
//   - 0 from koGetFileSize, koGetFilePermissions, koEnableWritePermission or
//     koDisableWritePermission: the path cannot be stat'ed, and errno is
//     stat's (an empty file has size 0 too: koFileOrDirExists tells them
//     apart). A chmod that the last two attempt and that fails is not
//     reported.
//   - false from koGetFileSystemAvailableSpace (with the all-ones sentinel
//     in *bytes) or koMkdirP, -1 from koSetFilePermissions: errno is that of
//     the system call that failed (statvfs, mkdir, chmod; EEXIST when a
//     component is a plain file). koMkdirP fails on a null or empty path
//     with errno untouched.
//   - koRemoveRF, the walker and koGetLoadedModuleFullPath make many calls,
//     and errno says nothing reliable after them: look at the file system.
//   - koCanonicalizePath, koGetTempName and koGetCurrentModulePath always
//     produce a result; koAddPathSep is false only for null.
// errno is as the default host services leave it; a host that replaces a
// service decides what it sets.
//
// Paths are NUL-terminated byte strings and '/' is the only separator. The
// functions may be called from any thread; the temporary-directory cache and
// the temporary-name counter are process-wide and deliberately unlocked (a
// race only recomputes the same text or weakens a seed).
#ifndef KORVEL_PATHS_H_
#define KORVEL_PATHS_H_

#include "korvel/export.h"
#if KORVEL_HEADERS_USABLE

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <iterator>
#include <memory>
#include <string>

extern "C" {

// ---- Separators ----

// True exactly when c is '/'.
KORVEL_EXPORT bool koIsPathSep(int c);
// Overwrites every separator in path with the byte c. Null or empty: no-op.
KORVEL_EXPORT void koReplacePathSeps(char* path, int c);
// Turns every '/' and '\' in path into '/'. Null: no-op.
KORVEL_EXPORT void koWashPathSep(char* path);
// Makes path end in '/', appending one if needed (an empty string becomes
// "/"). False only for null. REQUIRES: room for one more character.
KORVEL_EXPORT bool koAddPathSep(char* path);
// Inserts '/' at pos unless the character before pos is already a
// separator; returns the number of characters inserted (0 or 1).
// REQUIRES: room for one more character.
KORVEL_EXPORT size_t koAddPathSepAt(char* path, size_t pos);
// True only for the one-character string "/". REQUIRES: path is not null.
KORVEL_EXPORT bool koIsRootDir(const char* path);

// ---- Collapsed and canonical paths ----

// Copies at most the first n characters of src into dst with empty, "." and
// ".." segments resolved textually; dst may equal src. Returns dst. Reads
// nothing past the NUL of src. REQUIRES: dst holds n + 1 bytes.
KORVEL_EXPORT char* koCollapsePath(char* dst, const char* src, size_t n);
// Turns the first inLen characters of in into an absolute path with symbolic
// links resolved as far as the path exists, then collapsed. Writes at most
// outSize characters plus a NUL into out and always returns a usable string
// (normally out; at worst the collapsed, possibly relative, input).
// REQUIRES: out holds outSize + 1 bytes.
KORVEL_EXPORT char* koCanonicalizePath(char* out, size_t outSize, const char* in, size_t inLen);

// ---- File queries (all follow symbolic links) ----

KORVEL_EXPORT bool koFileOrDirExists(const char* path);
// Exists and is not a directory.
KORVEL_EXPORT bool koFileExists(const char* path);
// Null or missing: false.
KORVEL_EXPORT bool koIsDirectory(const char* path);
// Size in bytes; 0 when the path cannot be stat-ed.
KORVEL_EXPORT int64_t koGetFileSize(const char* path);
// Sets *bytes to block size times free blocks of the file system holding
// path and returns true; on failure returns false with *bytes all ones.
KORVEL_EXPORT bool koGetFileSystemAvailableSpace(const char* path, uint64_t* bytes);

// ---- Temporary files ----

// The temporary directory ($TMP, default /tmp), always ending in '/'. Read
// once per process; the result lives as long as the process.
KORVEL_EXPORT const char* koGetTempDir();
// Writes into buf a path in the temporary directory ("tp" and six digits)
// that names nothing at the time of the call, and returns buf. The file is
// not created. REQUIRES: buf holds strlen(koGetTempDir()) + 9 bytes.
KORVEL_EXPORT char* koGetTempName(char* buf);

}  // extern "C"

// ---- Directory walker ----

// A procedure the walker applies to each entry it reports.
class KORVEL_EXPORT koStringProcedure {
 public:
  virtual ~koStringProcedure();
  virtual void operator()(const char* path) const = 0;
};

// Does nothing.
class KORVEL_EXPORT koIgnoreString : public koStringProcedure {
 public:
  void operator()(const char* path) const override;
};

// Adds koGetFileSize(path) to a running total owned by the caller.
class KORVEL_EXPORT koDirectorySizeAdder : public koStringProcedure {
 public:
  explicit koDirectorySizeAdder(int64_t* total) : total_(total) {}
  void operator()(const char* path) const override;

 private:
  int64_t* total_;
};

// Lists the entries matching the wildcard ('*') in the last component of
// pattern and calls onDir for each directory (links followed) and onFile for
// everything else, in listing order. With depth > 0 it descends into each
// directory right after reporting it (pre-order), depth - 1 levels further.
// With stopAtFirst it returns after the first report of the top level.
// Wildcards in the directory part are refused. "." and "./" mean the current
// directory (entries reported by bare names) and, like "/", need depth >= 1.
// Returns the number of procedure calls; 0 for a null, empty or over-long
// (> 4096) pattern. Entries whose path would not fit the walker's buffers are
// skipped. An exception from a procedure ends the walk and reaches the caller.
KORVEL_EXPORT int koFindMatchingFilesAndDirs(const char* pattern, const koStringProcedure& onFile,
                                             const koStringProcedure& onDir, int depth,
                                             bool stopAtFirst);
// True when at least one entry matches pattern (no descent).
KORVEL_EXPORT bool koMatchingFileOrDirExists(const char* pattern);
// Sum of the sizes of all non-directory entries below dir, at any depth; 0
// for an empty or missing directory.
KORVEL_EXPORT int64_t koGetDirectorySize(const char* dir);

// ---- Permissions, recursive create and remove ----
//
// Modes are the whole st_mode word, file-type bits included; 0 when the path
// cannot be stat'ed (no chmod is attempted then). Nothing here prints or
// throws for file-system errors.

extern "C" {

// chmod(2); returns its result (0 or -1).
KORVEL_EXPORT int koSetFilePermissions(const char* path, unsigned mode);
KORVEL_EXPORT unsigned koGetFilePermissions(const char* path);
// Adds, or takes away, the owner, group and other write bits (0222);
// returns the mode before the change.
KORVEL_EXPORT unsigned koEnableWritePermission(const char* path);
KORVEL_EXPORT unsigned koDisableWritePermission(const char* path);

// Creates the directory and every missing parent with mode 0775 (less the
// umask). True when every component is a directory afterwards; on failure
// the directories already made stay. False for a null or empty path.
KORVEL_EXPORT bool koMkdirP(const char* path);

// Removes a file or a whole tree, children first, making each object
// writable before trying it. Whatever cannot be removed stays with the mode
// it had; the directories above it stay too. Symbolic links are removed, never
// followed. The root directory is refused.
//
// Returns true when the path existed (its mode could be read), not when
// everything went: test for existence afterwards when that matters.
KORVEL_EXPORT bool koRemoveRF(const char* path);

}  // extern "C"

// A walker procedure calling a plain function with each path, ignoring its
// result. Holds a reference to the caller's function pointer.
template <class Function>
class koStringProcedureAdapter : public koStringProcedure {
 public:
  explicit koStringProcedureAdapter(Function& function) : function_(function) {}
  void operator()(const char* path) const override { function_(path); }

 private:
  Function& function_;
};

// ---- Loaded modules ----

extern "C" {

// The file of the module (executable or shared library) that contains
// address, as the dynamic linker recorded it (possibly relative); empty when
// no module does. Clears size bytes of buffer and writes at most size - 1
// characters. Always true.
KORVEL_EXPORT bool koGetCurrentModulePath(void* address, char* buffer, unsigned long size);

// Searches the executable mappings of this process, in order, for the module
// whose resolved path best matches name and that exports every one of the
// symbolCount symbols (loaded with hostLoadLibrary to check). A module whose
// file name begins with name wins at once; otherwise the first with name in
// its file name, else the first with name anywhere in its path (every module
// when name is null). Writes the path to output (room for 8706 characters)
// and returns output, or null when no module qualified.
KORVEL_EXPORT char* koGetLoadedModuleFullPath(char* output, const char* name, const char** symbols,
                                              unsigned long symbolCount);

}  // extern "C"

class KORVEL_EXPORT koStringPredicate {
 public:
  virtual ~koStringPredicate();
  // True: the answer is found, stop.
  virtual bool operator()(const char* path) = 0;
};

// Judges module paths for koGetLoadedModuleFullPath and keeps the best.
class KORVEL_EXPORT koLoadedModuleNameChecker : public koStringPredicate {
 public:
  // name may be null (every module matches). output receives the chosen
  // path and needs room for 8706 characters.
  koLoadedModuleNameChecker(const char* name, char* output, const char** symbols,
                            unsigned long symbolCount);
  bool operator()(const char* path) override;
  // output once a module was chosen, else null.
  char* result() const { return result_; }
  int bestScore() const { return bestScore_; }

 private:
  const char* name_;
  char* output_;
  char* result_ = nullptr;
  const char** symbols_;
  unsigned long symbolCount_;
  int bestScore_ = -1;
  bool libraryFlag_ = false;
};

// The module paths of a mappings file ("/proc/<pid>/maps"): the pathname of
// every readable, executable, private mapping, in file order; a module
// mapped several times appears each time. Tokens are separated by blanks,
// so a path with blanks is cut at the first. An input iterator.
class KORVEL_EXPORT koLoadedModuleListIterator {
 public:
  typedef std::input_iterator_tag iterator_category;
  typedef const char* value_type;
  typedef std::ptrdiff_t difference_type;
  typedef const char* const* pointer;
  typedef const char* reference;

  static const int END = 2147483647;

  // Positioned at the module with that index (0 is the first), or at the
  // end when there are fewer. Reads stream when given (left open), else
  // opens mapsPath. END makes the end iterator without reading.
  koLoadedModuleListIterator(const char* mapsPath, int index, FILE* stream);

  const char* operator*() const { return current_.c_str(); }
  koLoadedModuleListIterator& operator++();
  bool operator==(const koLoadedModuleListIterator& other) const {
    return position_ == other.position_;
  }
  bool operator!=(const koLoadedModuleListIterator& other) const { return !(*this == other); }

 private:
  // Reads up to the next module path; at the end of the stream moves to END.
  void readNext();

  std::shared_ptr<FILE> stream_;
  char format_[16];
  int position_ = -1;
  std::string current_;
};

#endif  // KORVEL_HEADERS_USABLE
#endif  // KORVEL_PATHS_H_
