// korvel-lock's view of a locked directory: what sits at its lock-file
// names, with kinds, owners and ages by the file server's clock, for
// --status, --clean, the line shown while waiting and the one-line
// diagnosis of what keeps a waiter out. Only looks, except for the two
// removals, which re-check the object just before they unlink it.
//
// An object at a lock-file name that is not a regular file (a FIFO, a
// directory, a symbolic link, a socket, a device) is foreign: it is listed,
// never opened or followed, and removed only when the user asks for it.
#ifndef KORVEL_TOOLS_LOCK_FILES_H_
#define KORVEL_TOOLS_LOCK_FILES_H_

#include <sys/types.h>
#include <time.h>

#include <string>
#include <vector>

#include "fs_lock/lock_file.h"

namespace korvel_tool {

enum class Kind {
  kWrite,      // .deploy_write_lock: the read-write lock's writer
  kRead,       // .deploy_read_lock.N: one of its readers
  kDirectory,  // .deploy_lock.0: the directory lock, held for moments by the
               // read-write lock itself (or by a library user for longer)
  kQueue,      // .deploy_lock.N, N > 0: a place in the directory lock's queue
  kStaleTest,  // "." and 30 or more digits: the stale test's fresh file
  kProbe,      // .korvel-lock-probe.XXXXXX: korvel-lock's own clock probe
};

struct LockFile {
  std::string name;
  Kind kind;
  int level = 0;                  // kQueue: N
  const char* foreign = nullptr;  // what it is when not a regular file: "a FIFO", ...
  const char* type = "file";      // the same for --json: "file", "fifo", "symlink", ...
  uid_t owner = 0;
  time_t mtime = 0;  // by the file server's clock
  time_t birth = 0;  // creation time when the file system tells it, else 0
  ino_t inode = 0;
  long long mtimeNanos = 0;
  off_t size = 0;
};

// Lists the objects at lock-file names in directory into *files, sorted by
// name. False, with errno set and *what saying what failed ("cannot list
// it", "cannot examine .deploy_write_lock"), when the directory cannot be
// listed or an entry cannot be examined: then nothing can be said of the
// lock.
bool listLockFiles(const std::string& directory, std::vector<LockFile>* files, std::string* what);

// The file server's idea of now: the modification time of a file made in
// directory this moment under a unique name, and removed at once. False,
// with this host's clock in *now, when the directory is not writable.
bool serverNow(const std::string& directory, time_t* now);

double ageOf(const LockFile& file, time_t now);
// Whether a file looks left by a dead process: older than the stale time-out
// by the file server's clock. Never true of a foreign object, which nobody
// judges. Only a look: what may be removed is decided by confirmDead.
bool isStale(const LockFile& file, time_t now);
// The files whose holders are dead by the lock's own rule (the library's
// stale test), as judged: a holder on this host known to have ended, a file
// long dead by the server's clock, or one this host has seen unchanged for
// longer than a lease. Files that look stale are watched for up to `watch`
// seconds; the others only judged once.
std::vector<Judgement> confirmDead(const std::string& directory, const std::vector<LockFile>& files,
                                   time_t now, double watch);
// file's judgement among judged, or null.
const Judgement* judgementOf(const std::vector<Judgement>& judged, const std::string& directory,
                             const LockFile& file);
// A file confirmed dead was removed: what this host kept of it goes too.
void forgetRemoved(const Judgement& dead);
// Holds a lock (write, read, or the directory lock), as opposed to queueing
// for one or being left over.
bool isHolder(Kind kind);
// "write lock", "internal directory lock, queue place 2", "a FIFO in the
// place of the write lock", ...
std::string describe(const LockFile& file);
// "write", "read", "directory", "queue", "stale-test", "probe"
const char* jsonKind(Kind kind);
// The owner's user name, or the number when it has none.
std::string ownerName(uid_t owner);
// Whether this user may unlink file from directory: write access, and in a
// directory with the sticky bit, owning the file or the directory.
bool mayRemove(const std::string& directory, const LockFile& file);

// Unlinks directory/file.name if it is still the very object that was
// listed (same inode, type, modification time and size); an empty
// directory is removed with rmdir. True when removed; false with errno set
// (0 when the object changed or went, and so was left).
bool removeIfUnchanged(const std::string& directory, const LockFile& file);

// What keeps a waiter out, for the line shown while it waits: "a writer",
// "3 readers", "the internal directory lock"; empty when nothing is
// seen. *since is the oldest blocker's creation time (0 if unknown).
std::string blockers(const std::string& directory, bool shared, time_t* since);

// One line on what no wait can get past, or empty: a foreign object at a
// lock-file name, or a stale file that this user cannot remove, with its
// owner and what would fix it. *unbreakable tells the second case.
std::string obstacle(const std::string& directory, bool* unbreakable);

}  // namespace korvel_tool

#endif  // KORVEL_TOOLS_LOCK_FILES_H_
