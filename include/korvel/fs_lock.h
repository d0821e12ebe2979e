// Directory locks: cross-process, cross-host locks on a directory, made of
// lock files in that directory (which may be on a network file system).
//
// A lock object is thread-safe: every operation is serialised by the
// object's in-process timed mutex. Lock order: that mutex first, then the
// cross-process directory lock; never the reverse.
#ifndef KORVEL_FS_LOCK_H_
#define KORVEL_FS_LOCK_H_

#include <boost/noncopyable.hpp>
#include <boost/shared_ptr.hpp>
#include <boost/thread/mutex.hpp>
#include <exception>
#include <string>

#include "korvel/export.h"
#include "korvel/threads.h"
#include "korvel/time_unit.h"

// Thrown when a lock-file operation failed and the directory no longer
// exists. The message is "Tried to obtain a lock on a non-existent
// directory" followed directly by the directory.
class KORVEL_EXPORT koNoSuchDirectory : public std::exception {
 public:
  explicit koNoSuchDirectory(const std::string& message) : message_(message) {}
  ~koNoSuchDirectory() override;
  const char* what() const noexcept override;

 private:
  std::string message_;
};

// The process-wide pool the lock refresh loops run on:
// koPooledThreadFactory(0, 16), made on first use, destroyed at unload.
KORVEL_EXPORT boost::shared_ptr<koThreadFactory> koDirectoryLockThreadPool();

// Mutual exclusion on a directory between processes and hosts. The holder
// owns "<directory>/.deploy_lock.0"; waiters queue at levels 1, 2, ... and
// move down one level at a time. A holder's file is rewritten every 5 s by a
// background refresh loop; a file more than 15 s behind the file server's
// clock belongs to a dead holder and is taken over.
//
// Re-entrant within the object: acquisitions are counted. Time-outs are a
// count with a unit; (unsigned long)-1 waits forever, 0 makes one attempt.
// Only koNoSuchDirectory, koThread::StartError and std::bad_alloc leave the
// operations.
class KORVEL_EXPORT koDirectoryExclusiveLock : private boost::noncopyable {
 public:
  static const double STALE_TIMEOUT_SEC;

  // Touches no file. name prefixes the verbose messages (may be empty).
  koDirectoryExclusiveLock(std::string directory, const char* name);
  // Releases every counted acquisition and stops the refresh loop.
  ~koDirectoryExclusiveLock();

  // Takes the lock; true when held. With noRefreshLoop the lock file is not
  // refreshed: the caller must release within 15 s.
  bool acquire(unsigned long timeout, const Zentha::System::TimeUnit& unit, bool noRefreshLoop);
  // Undoes one acquisition; false without a matching acquire, or when the
  // lock file could not be removed by the deadline (the object is then no
  // longer held and the file goes stale).
  bool release(unsigned long timeout, const Zentha::System::TimeUnit& unit);

 private:
  class RefreshLoop;
  typedef koSynchronizedLoopThread<boost::timed_mutex> LoopThread;
  friend class RefreshLoop;

  template <class Lock>
  bool acquireWithProcessLock(unsigned long timeout, const Zentha::System::TimeUnit& unit,
                              double deadline, Lock& lock, bool noRefreshLoop);
  template <class Lock>
  bool releaseWithProcessLock(unsigned long timeout, const Zentha::System::TimeUnit& unit,
                              double deadline, Lock& lock);

  std::string getLockFileName(int level) const;
  bool openFile(int level, int flags) const;
  bool createLockFileExclusive(int level) const;
  bool lockFileExists(int level) const;
  bool touchLockFile(int level);
  bool removeLockFile(int level) const;
  bool removeLockFileWithTenacity(int level, unsigned long timeout, double deadline) const;
  bool removeLockFileWithTenacity(int level) const;
  int queue(unsigned long timeout, double deadline);
  [[noreturn]] void throwNoSuchDirectory() const;

  boost::timed_mutex processMutex_;
  std::string directory_;
  std::string name_;
  int acquireCount_ = 0;  // guarded by processMutex_
  int touchValue_;        // guarded by processMutex_
  RefreshLoop* refreshFunctor_;
  boost::shared_ptr<koThreadFactory> pool_;  // keeps the refresh loop's factory alive
  LoopThread* refreshLoop_;
  bool refreshRunning_ = false;  // guarded by processMutex_
};

#endif  // KORVEL_FS_LOCK_H_
