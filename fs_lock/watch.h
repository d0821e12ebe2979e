// Part of the first rooms of the lock code: waking this process's waiters
// when a lock file they wait for goes. Depends on common.h only.
//
// Across hosts the locks must poll: no notification crosses a network file
// system. Between processes of one host, the kernel tells a watcher the
// moment a name goes (inotify), and the waiter looks again at once. The
// 10 ms poll stays, as the safety net and for changes made elsewhere. The
// process has one inotify descriptor and one watch per directory, shared
// by the waiters on it, and wakes a waiter only for a removal of a name it
// waits for: not for the rewrites that waiters make at every poll. Where
// watching is not possible (no inotify, its limits reached, a sandbox that
// forbids it) each sleep lasts its time, as it always did.
#ifndef KORVEL_FS_LOCK_WATCH_H_
#define KORVEL_FS_LOCK_WATCH_H_

#include <functional>
#include <string>

#include "fs_lock/common.h"

namespace korvel_detail {

class DirectoryWatch {
 public:
  // Which removed names end a sleep.
  typedef std::function<bool(const std::string& name)> Wanted;

  // Watches directory while the object lives; starts nothing else.
  explicit DirectoryWatch(const std::string& directory);
  ~DirectoryWatch();
  DirectoryWatch(const DirectoryWatch&) = delete;
  DirectoryWatch& operator=(const DirectoryWatch&) = delete;

  // Whether removals are reported; false means every sleep lasts its time.
  bool watching() const { return watch_ >= 0; }
  // Sleeps for ms, but not past deadline, and less when a name for which
  // wanted is true goes from the directory (or the watch is lost).
  void sleep(unsigned ms, const Deadline& deadline, const Wanted& wanted);

 private:
  int watch_ = -1;
};

}  // namespace korvel_detail

using korvel_detail::DirectoryWatch;

#endif  // KORVEL_FS_LOCK_WATCH_H_
