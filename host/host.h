// The host services layer: everything libkorvel needs from its environment.
//
// The library runs inside a host process that may already provide these
// services. Every operation below has a default implementation in this
// folder, built on POSIX, so the library also works in a plain process. The
// defaults are weak, default-visibility symbols: a process that defines an
// operation itself (same name, same signature, C linkage) has its own
// definition used by the library instead, because the dynamic linker binds
// the library's calls to the first definition in the global scope, which is
// the executable's. The same seam lets tests inject faults (a skewed clock,
// a failing write, a fast poll) by linking their own definitions.
//
// The clock, sleep, process id and file operations also have their default
// under a second, strong name (hostDefault...), so that a host or a test that
// wraps one of them can call through to what the library would have done.
//
// All operations may be called from any thread.
#ifndef KORVEL_HOST_HOST_H_
#define KORVEL_HOST_HOST_H_

#include <fcntl.h>
#include <semaphore.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <sys/types.h>
#include <sys/vfs.h>
#include <time.h>

#include <cstdarg>
#include <cstddef>
#include <cstdint>

#include "korvel/export.h"

// Size of every path buffer the library keeps for itself: paths of up to
// 8705 characters plus the terminating NUL.
#define KORVEL_PATH_BUFFER_SIZE 8706

#define KORVEL_HOST_API extern "C" KORVEL_EXPORT

// ---- Time and memory ----

// Wall-clock time in seconds since the epoch.
KORVEL_HOST_API double hostRealtime();
// Seconds on a clock that never steps and keeps counting while the system
// is suspended (CLOCK_BOOTTIME); for waits and leases.
KORVEL_HOST_API double hostMonotonic();
// Suspends the calling thread for about ms milliseconds.
KORVEL_HOST_API void hostSleepMilliseconds(unsigned ms);
// The real seconds a timed wait (on a condition or a mutex) must last for
// `seconds` to pass on hostMonotonic(). The default returns seconds; a host
// whose clocks run faster than real time (a test compressing time) returns
// less. Every timed wait of the directory locks goes through it, as their
// sleeps go through hostSleepMilliseconds.
KORVEL_HOST_API double hostRealSeconds(double seconds);
// 32 unpredictable bits (getrandom(2)), for numbers that must differ
// between processes and hosts.
KORVEL_HOST_API unsigned hostRandom();
// This process's id. The default asks the kernel once per process (and
// again in a child made by fork()), not on every call.
KORVEL_HOST_API pid_t hostProcessId();
// The real user id of this process (getuid(2)).
KORVEL_HOST_API uid_t hostUserId();
// A directory on this host, shared by its processes and gone at reboot,
// where the locks keep what this host has learnt about lock files (what it
// has seen of them, and which of its own processes hold them). The default
// is "/dev/shm"; null means there is none.
KORVEL_HOST_API const char* hostLocalStateDirectory();

// Releases a block returned by a host operation (hostGetDirList). Accepts
// null.
KORVEL_HOST_API void hostFree(void* block);

// ---- Paths and files ----

// Rewrites an automounter prefix of the path in p in place, if it has one,
// and returns p; returns null for null. The default leaves p unchanged.
KORVEL_HOST_API char* hostFixAutoMountPrefix(char* p);

// If src begins with a tilde form that can be expanded ("~" or "~user",
// alone or followed by a separator), writes the expanded path into dst and
// returns dst; otherwise returns src. REQUIRES: dst holds
// KORVEL_PATH_BUFFER_SIZE bytes; a longer expansion is cut to fit.
KORVEL_HOST_API const char* hpTildeExpansion(char* dst, const char* src);

// True when p is an absolute path.
KORVEL_HOST_API bool hpIsAbsolutePath(const char* p);

// Writes the working directory into buf (at most size bytes with the NUL)
// and returns buf, or null on failure.
KORVEL_HOST_API char* hostGetcwd(char* buf, size_t size);

// Writes the directory part of path (everything before the last separator)
// into dirOut and returns a pointer to the last component inside path (an
// empty string when path ends in a separator). The directory part of a path
// directly under the root ("/x") is "/"; that of a path without separator is
// empty. Returns null for null. REQUIRES: dirOut holds strlen(path) + 2 bytes.
KORVEL_HOST_API const char* hpSeparatePathName(const char* path, char* dirOut);

// Appends name to the path in dir, with one separator between them unless dir
// is empty or already ends in one. REQUIRES: dir has room for the result.
KORVEL_HOST_API void hpConcatPathName(char* dir, const char* name);

// Lists the directory part of pathPattern. Returns one heap block of the
// NUL-terminated names whose entries match the last component (where '*'
// matches any run of characters, including a leading dot), ended by an empty
// name; or null when the directory cannot be read. The block is released with
// hostFree. The default reads the directory once and stats nothing. flags is
// reserved (0).
KORVEL_HOST_API char* hostGetDirList(const char* pathPattern, int flags);

// Multibyte-aware substring search; the default is a byte search, which is
// equivalent for UTF-8 text.
KORVEL_HOST_API const char* hostMultiByteStrStr(const char* haystack, const char* needle);

// ---- Threads ----

// Host thread handle, written by host_create_thread.
typedef unsigned long long korvel_host_thread_t;
typedef void* (*korvel_thread_entry)(void*);

// Starts entry(argument) on a new joinable thread and stores its handle.
// Returns 0 on success, an error number otherwise.
KORVEL_HOST_API int host_create_thread(korvel_host_thread_t* handle, korvel_thread_entry entry,
                                       void* argument);
// Starts entry(argument) on a new detached thread. Returns 0 on success.
KORVEL_HOST_API int host_create_detached_thread(korvel_thread_entry entry, void* argument);
// Waits for the thread and returns entry's result (null if it cannot wait).
KORVEL_HOST_API void* host_join_thread(korvel_host_thread_t handle);
// The processors this process may run on at once, at least 1: those of the
// calling thread's affinity mask, fewer when a cgroup v2 CPU quota
// (/sys/fs/cgroup/cpu.max, read through hostOpen and hostRead) allows less.
// A quota of 1.5 processors counts as 1.
KORVEL_HOST_API int hostUsableProcessors();

// ---- Files ----

// remove(3): unlinks a file or removes an empty directory. Returns 0, or -1
// with errno set.
KORVEL_HOST_API int hostRemoveFile(const char* path);
// unlink(2): removes a name, never a directory. Returns 0, or -1 with errno
// set. The locks remove their files with it.
KORVEL_HOST_API int hostUnlink(const char* path);
// rename(2). Returns 0, or -1 with errno set.
KORVEL_HOST_API int hostRename(const char* from, const char* to);
// renameat2(2) with RENAME_NOREPLACE: fails with EEXIST when to exists, and
// with EINVAL where the file system cannot promise that.
KORVEL_HOST_API int hostRenameExclusive(const char* from, const char* to);

// open(2) followed by close(2): creates or opens the file with flags and
// mode and closes it at once. Returns 0, or -1 with errno set.
KORVEL_HOST_API int hostOpenAndClose(const char* path, int flags, unsigned mode);

// The system calls of the same names: -1 (null for hostRealpath) with errno
// set on failure. hostRealpath's resolved holds PATH_MAX bytes.
KORVEL_HOST_API int hostOpen(const char* path, int flags, unsigned mode);
KORVEL_HOST_API int hostClose(int fd);
KORVEL_HOST_API ssize_t hostRead(int fd, void* buffer, size_t size);
KORVEL_HOST_API ssize_t hostWrite(int fd, const void* buffer, size_t size);
KORVEL_HOST_API ssize_t hostPread(int fd, void* buffer, size_t size, off_t offset);
KORVEL_HOST_API ssize_t hostPwrite(int fd, const void* buffer, size_t size, off_t offset);
KORVEL_HOST_API int hostFtruncate(int fd, off_t length);
KORVEL_HOST_API int hostFstat(int fd, struct stat* st);
// futimens(2): sets the access and modification times of an open file.
KORVEL_HOST_API int hostFutimens(int fd, const struct timespec times[2]);
KORVEL_HOST_API int hostStat(const char* path, struct stat* st);
KORVEL_HOST_API int hostLstat(const char* path, struct stat* st);
// fstatat(2) following links: name relative to the open directory dirfd.
KORVEL_HOST_API int hostStatAt(int dirfd, const char* name, struct stat* st);
KORVEL_HOST_API int hostStatvfs(const char* path, struct statvfs* st);
// statfs(2): what file system path is on (f_type).
KORVEL_HOST_API int hostStatfs(const char* path, struct statfs* st);
KORVEL_HOST_API char* hostRealpath(const char* path, char* resolved);
KORVEL_HOST_API int hostMkdir(const char* path, unsigned mode);
KORVEL_HOST_API int hostChmod(const char* path, unsigned mode);

// Watching directories for changes (inotify(7)), waiting for a descriptor
// and open-file-description locks. The same conventions: -1 (or 0 from
// hostPoll on a time-out) with errno set.
// inotify_init1(2).
KORVEL_HOST_API int hostInotifyInit(int flags);
// inotify_add_watch(2) and inotify_rm_watch(2).
KORVEL_HOST_API int hostInotifyAddWatch(int fd, const char* path, uint32_t mask);
KORVEL_HOST_API int hostInotifyRmWatch(int fd, int watch);
// Waits up to ms milliseconds (-1: without limit) until fd can be read:
// 1, 0 on a time-out, -1 on failure.
KORVEL_HOST_API int hostWaitReadable(int fd, int ms);
// fcntl(2) with an open-file-description lock command (F_OFD_SETLK,
// F_OFD_GETLK) and its struct flock.
KORVEL_HOST_API int hostLockControl(int fd, int command, struct flock* lock);

// ---- Shared libraries ----

// Loads (or takes another reference to) the shared library at path; null on
// failure. *status, when status is not null, is 0 on success and 1 on
// failure.
KORVEL_HOST_API void* hostLoadLibrary(const char* path, int* status);
// The address of symbol in the library (or its dependencies); null if none.
KORVEL_HOST_API void* hostFindSymbolInLibrary(void* library, const char* symbol);
// Gives back a reference taken by hostLoadLibrary.
KORVEL_HOST_API void hostUnloadLibrary(void* library);

// ---- Messages ----

// A catalogue of numbered messages, as handed to the host's message service.
// An identifier is (facility << 16) | number.
struct korvel_message_table {
  int32_t count;     // messages in the catalogue
  int32_t facility;  // the high 16 bits of every identifier
  // (number, facility) per message in order, ended by 0xFFFF, 0xFFFF.
  const uint16_t* numbers;
  const char* const* names;  // symbolic identifier names, in order
  const char* const* texts;  // printf-style texts, in order
  const char* extra;         // service-specific; may be empty
};

// The contexts of the host's memory and message services; the defaults have
// none and return null.
KORVEL_HOST_API void* hostGetMemoryContext();
KORVEL_HOST_API void* hostGetMessageContext();
// Makes the table's identifiers known to the message service. The table
// must outlive the process's use of it. Returns 0.
KORVEL_HOST_API int host_add_primary_message_table(void* memoryContext,
                                                   const korvel_message_table* table);
// Formats the message identifier with args into buffer (at most size bytes
// including the NUL). Returns the characters written, or a value below 1
// when the identifier is unknown or nothing could be written. The default
// looks the identifier up in the tables added so far and uses vsnprintf.
KORVEL_HOST_API int host_vsprintm(void* messageContext, char* buffer, size_t size,
                                  int32_t identifier, va_list args);

// ---- Named semaphores ----

// POSIX named semaphores (sem_overview(7)). hostSemOpen returns null, the
// others -1, on failure, with errno set.
KORVEL_HOST_API sem_t* hostSemOpen(const char* name, int flags, unsigned mode, unsigned value);
KORVEL_HOST_API int hostSemClose(sem_t* semaphore);
KORVEL_HOST_API int hostSemUnlink(const char* name);
KORVEL_HOST_API int hostSemWait(sem_t* semaphore);
// deadline is absolute, on the system clock.
KORVEL_HOST_API int hostSemTimedWait(sem_t* semaphore, const struct timespec* deadline);
KORVEL_HOST_API int hostSemTryWait(sem_t* semaphore);
KORVEL_HOST_API int hostSemPost(sem_t* semaphore);
KORVEL_HOST_API int hostSemGetValue(sem_t* semaphore, int* value);

// ---- Defaults under their own names ----

KORVEL_HOST_API double hostDefaultRealtime();
KORVEL_HOST_API double hostDefaultMonotonic();
KORVEL_HOST_API void hostDefaultSleepMilliseconds(unsigned ms);
KORVEL_HOST_API double hostDefaultRealSeconds(double seconds);
KORVEL_HOST_API pid_t hostDefaultProcessId();
KORVEL_HOST_API char* hostDefaultGetDirList(const char* pathPattern, int flags);
KORVEL_HOST_API int hostDefaultRemoveFile(const char* path);
KORVEL_HOST_API int hostDefaultUnlink(const char* path);
KORVEL_HOST_API int hostDefaultRename(const char* from, const char* to);
KORVEL_HOST_API int hostDefaultRenameExclusive(const char* from, const char* to);
KORVEL_HOST_API const char* hostDefaultLocalStateDirectory();
KORVEL_HOST_API int hostDefaultInotifyInit(int flags);
KORVEL_HOST_API int hostDefaultInotifyAddWatch(int fd, const char* path, uint32_t mask);
KORVEL_HOST_API int hostDefaultInotifyRmWatch(int fd, int watch);
KORVEL_HOST_API int hostDefaultWaitReadable(int fd, int ms);
KORVEL_HOST_API int hostDefaultLockControl(int fd, int command, struct flock* lock);
KORVEL_HOST_API int hostDefaultOpenAndClose(const char* path, int flags, unsigned mode);
KORVEL_HOST_API int hostDefaultOpen(const char* path, int flags, unsigned mode);
KORVEL_HOST_API int hostDefaultClose(int fd);
KORVEL_HOST_API ssize_t hostDefaultRead(int fd, void* buffer, size_t size);
KORVEL_HOST_API ssize_t hostDefaultWrite(int fd, const void* buffer, size_t size);
KORVEL_HOST_API ssize_t hostDefaultPread(int fd, void* buffer, size_t size, off_t offset);
KORVEL_HOST_API ssize_t hostDefaultPwrite(int fd, const void* buffer, size_t size, off_t offset);
KORVEL_HOST_API int hostDefaultFtruncate(int fd, off_t length);
KORVEL_HOST_API int hostDefaultFstat(int fd, struct stat* st);
KORVEL_HOST_API int hostDefaultFutimens(int fd, const struct timespec times[2]);
KORVEL_HOST_API int hostDefaultStat(const char* path, struct stat* st);
KORVEL_HOST_API int hostDefaultLstat(const char* path, struct stat* st);
KORVEL_HOST_API int hostDefaultStatAt(int dirfd, const char* name, struct stat* st);
KORVEL_HOST_API int hostDefaultStatvfs(const char* path, struct statvfs* st);
KORVEL_HOST_API int hostDefaultStatfs(const char* path, struct statfs* st);
KORVEL_HOST_API char* hostDefaultRealpath(const char* path, char* resolved);
KORVEL_HOST_API int hostDefaultMkdir(const char* path, unsigned mode);
KORVEL_HOST_API int hostDefaultChmod(const char* path, unsigned mode);

#endif  // KORVEL_HOST_HOST_H_
