// Part of the first rooms of the lock code: waking this process's waiters
// when a lock file they wait for goes. Depends on common.h only.
//
// Across hosts the locks must poll: no notification crosses a network file
// system. Between processes of one host, the kernel tells a watcher the
// moment a file goes (inotify), and the waiter looks again at once. The
// 10 ms poll stays, as the safety net and for changes made elsewhere.
//
// A waiter watches the one file in its way (the level below, the write
// lock, a reader), not the directory: a directory watch would wake every
// waiter of the process at every change in the directory, and with a queue
// of n waiters each handoff moves n files, so n * n wake-ups a handoff. A
// file watch wakes one waiter per handoff step, and never for the rewrites
// that waiters make at every poll (those are writes; only a link-count or
// attribute change, a rename or a removal wakes). The process has one
// inotify descriptor, and a file that several of its threads wait for has
// one watch. Where watching is not possible (no inotify, its limits
// reached, a sandbox that forbids it) each sleep lasts its time, as it
// always did.
#ifndef KORVEL_FS_LOCK_WATCH_H_
#define KORVEL_FS_LOCK_WATCH_H_

#include <cstdint>
#include <string>

#include "fs_lock/common.h"

namespace korvel_detail {

// One waiting thread's watch; it follows the file the thread waits for.
class FileWatch {
 public:
  FileWatch() = default;
  ~FileWatch();
  FileWatch(const FileWatch&) = delete;
  FileWatch& operator=(const FileWatch&) = delete;

  // Where the changes stand now: taken before the look that found the file
  // in the way, so that a change right after the look still ends the sleep.
  static uint64_t mark();
  // Sleeps for ms, not past deadline: less when the file at path (a name
  // that was in the way at the look begun at `since`) changes since then,
  // and not at all when nothing is at path any more.
  void sleepWhileThere(const std::string& path, unsigned ms, const Deadline& deadline,
                       uint64_t since);

 private:
  int watch_ = -1;
};

}  // namespace korvel_detail

using korvel_detail::FileWatch;

#endif  // KORVEL_FS_LOCK_WATCH_H_
