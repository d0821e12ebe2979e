// The fifth room of the lock code: the exclusive lock's queue of levels and
// the state behind a koDirectoryExclusiveLock. Depends on holding.h,
// stale_test.h, lock_file.h and common.h.
//
// Every check and change is made with processMutex held, so the object's
// threads and its refresh loop never interleave. The loss of level 0 is
// recorded in holding, whose lease the lease timer watches.
#ifndef KORVEL_FS_LOCK_EXCLUSIVE_LOCK_H_
#define KORVEL_FS_LOCK_EXCLUSIVE_LOCK_H_

#include <boost/shared_ptr.hpp>
#include <boost/thread/mutex.hpp>
#include <memory>
#include <string>

#include "fs_lock/holding.h"
#include "fs_lock/stale_test.h"
#include "korvel/fs_lock.h"
#include "korvel/threads.h"

class koDirectoryExclusiveLock::Impl {
 public:
  typedef boost::timed_mutex::scoped_lock ScopedLock;

  Impl(std::string directory, const char* name);
  // Releases every counted acquisition and stops the refresh loop.
  ~Impl();
  Impl(const Impl&) = delete;
  Impl& operator=(const Impl&) = delete;

  // holderPatience: give up once the holder of level 0 has been seen
  // unchanged this long (0: never).
  bool acquireUntil(const Deadline& deadline, bool singleAttempt, bool noRefreshLoop,
                    double holderPatience = 0.0);
  bool releaseUntil(const Deadline& deadline);
  // Takes level 0 if it is free, at once: no queue, no stale test.
  bool tryAtOnce();

  const std::string& directory() const { return directory_; }
  LockHolding& holding() { return *holding_; }
  boost::timed_mutex& threads() { return threads_; }

 private:
  class RefreshLoop;
  class QueueWalk;
  typedef koSynchronizedLoopThread<boost::timed_mutex> LoopThread;

  // REQUIRES (all three): processMutex_ is held.
  bool acquireHeld(const Deadline& deadline, bool singleAttempt, bool noRefreshLoop,
                   double holderPatience, ScopedLock& lock);
  bool releaseHeld(const Deadline& deadline, ScopedLock& lock);
  // Has the refresh loop keep level 0 fresh, starting it unless it lingers.
  void startRefresh(ScopedLock& lock);
  // Removes the queue places that killed waiters left above level 0.
  void sweepUpperLevels();
  // False (errno set) when this object cannot lock its directory at all: an
  // empty or too long path, or a child made by fork() using its parent's.
  bool usable() const;
  std::string levelFile(int level) const;
  // Whether a queue place may move down by a rename that never replaces:
  // on a local file system, until one refuses. REQUIRES: processMutex_ held.
  bool movesWhole();

  // Guards the object and runs its refresh loop. Lock order: processMutex_,
  // then the holding's; see fs_lock.cpp.
  boost::timed_mutex processMutex_;
  std::string directory_;  // absolute
  std::string name_;
  const pid_t creator_;                   // the process whose threads serve this object
  int acquireCount_ = 0;                  // guarded by processMutex_
  LockNumbers numbers_;                   // thread-safe
  std::shared_ptr<LockHolding> holding_;  // level 0 while held
  koStaleLockRemover judge_;              // guarded by processMutex_
  double lastSweep_ = 0.0;                // hostMonotonic(), guarded by processMutex_
  // Whether places move down by rename: 1 yes, -1 no, 0 not known yet.
  // Guarded by processMutex_.
  int movesWhole_ = 0;
  std::unique_ptr<RefreshLoop> refreshFunctor_;
  boost::shared_ptr<koThreadFactory> pool_;  // keeps the refresh loop's factory alive
  std::unique_ptr<LoopThread> refreshLoop_;
  // The refresh loop's state, guarded by processMutex_.
  bool refreshRunning_ = false;   // started, and not yet stopped and joined
  bool refreshEnded_ = false;     // it ended itself after lingering
  bool refreshWanted_ = false;    // the current holding is to be refreshed
  bool refreshLingered_ = false;  // it waited a period with nothing to refresh
  boost::timed_mutex threads_;    // the standard interfaces' own, taken first
};

#endif  // KORVEL_FS_LOCK_EXCLUSIVE_LOCK_H_
