// korvel-lock's view of a locked directory: its lock files with their kinds
// and ages by the file server's clock, for --status, --clean and the line
// shown while waiting. Only looks; --clean's removals re-check each file
// just before they unlink it.
#ifndef KORVEL_TOOLS_LOCK_FILES_H_
#define KORVEL_TOOLS_LOCK_FILES_H_

#include <sys/types.h>
#include <time.h>

#include <string>
#include <vector>

namespace korvel_tool {

enum class Kind {
  kWrite,      // .deploy_write_lock: the read-write lock's writer
  kRead,       // .deploy_read_lock.N: one of its readers
  kDirectory,  // .deploy_lock.0: the directory lock, held for moments by the
               // read-write lock itself (or by a library user for longer)
  kQueue,      // .deploy_lock.N, N > 0: a place in the directory lock's queue
  kStaleTest,  // "." and digits: the stale test's fresh file, left by a dead process
};

struct LockFile {
  std::string name;
  Kind kind;
  int level = 0;     // kQueue: N
  time_t mtime = 0;  // by the file server's clock
  time_t birth = 0;  // creation time when the file system tells it, else 0
  ino_t inode = 0;
  long long mtimeNanos = 0;
  off_t size = 0;
};

// The lock files in directory, sorted by name; empty when it cannot be read.
std::vector<LockFile> listLockFiles(const std::string& directory);

// The file server's idea of now: the modification time of a file made in
// directory this moment under a unique name, and removed at once. False,
// with this host's clock in *now, when the directory is not writable.
bool serverNow(const std::string& directory, time_t* now);

double ageOf(const LockFile& file, time_t now);
bool isStale(const LockFile& file, time_t now);
// Holds a lock (write, read, or the directory lock), as opposed to queueing
// for one or being left over.
bool isHolder(Kind kind);
// "write lock", "internal directory lock, queue place 2", ...
std::string describe(const LockFile& file);
// "write", "read", "directory", "queue", "stale-test"
const char* jsonKind(Kind kind);

// Unlinks directory/file.name if it is still the very file that was listed
// (same inode, modification time and size): one that was taken over or
// made again since stays. True when removed.
bool removeIfUnchanged(const std::string& directory, const LockFile& file);

// What keeps a waiter out, for the line shown while it waits: "a writer",
// "3 readers", "the internal directory lock"; empty when nothing is
// seen. *since is the oldest blocker's creation time (0 if unknown).
std::string blockers(const std::string& directory, bool shared, time_t* since);

}  // namespace korvel_tool

#endif  // KORVEL_TOOLS_LOCK_FILES_H_
