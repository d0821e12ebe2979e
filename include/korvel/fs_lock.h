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
#include <boost/thread/locks.hpp>
#include <boost/thread/mutex.hpp>
#include <exception>
#include <memory>
#include <set>
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

// Many readers or one writer on a directory, between processes and hosts.
// The lock state is only files in the directory: "<dir>/.deploy_write_lock"
// for the writer and "<dir>/.deploy_read_lock.<n>" per read lock, each
// holding a number that changes on every refresh. Every check and change of
// those files is made under the directory's exclusive lock. Held files are
// rewritten every 5 s; a file 15 s behind the file server's clock is stale
// and is removed by whoever waits for the lock.
//
//   koDirectoryReadWriteLock rw("/shared/dir");
//   koDirectoryReadWriteLock::ReadLock reading = rw.getReadLock();
//   if (reading.acquire((unsigned long)-1, TimeUnit::sSeconds())) { ...; reading.release(...); }
//
// Handles are cheap to copy; copies share one acquisition count, and the
// last copy of a held handle removes its lock file. Readers of a process
// block that process's own writer.
//
// Time-outs: (unsigned long)-1 waits forever. A finite time-out gives a
// single immediate attempt at the directory lock per poll, so an acquirer
// with a time-out gives up as soon as another process is busy in the
// directory lock; only infinite waits ride out contention.
//
// Lock order: the shared state's mutex, then the directory lock.
class KORVEL_EXPORT koDirectoryReadWriteLock {
 public:
  class Impl;
  class AbstractLock;
  class ReadLock;
  class WriteLock;
  typedef boost::timed_mutex::scoped_lock ScopedLock;

  explicit koDirectoryReadWriteLock(const std::string& directory);

  ReadLock getReadLock() const;
  WriteLock getWriteLock() const;
  const boost::shared_ptr<Impl>& getImpl() const { return impl_; }

 private:
  boost::shared_ptr<Impl> impl_;
};

// The state of one directory's read-write lock in this process, shared by
// the front object and every handle. Every accessor and operation requires
// getMutex() to be held; the operations take the caller's lock on it so that
// the refresh loop can be started and stopped under it.
class KORVEL_EXPORT koDirectoryReadWriteLock::Impl : private boost::noncopyable {
 public:
  explicit Impl(const std::string& directory);
  // Stops the refresh loop; removes no lock file.
  ~Impl();

  koDirectoryExclusiveLock& getDirLock() { return dirLock; }
  bool ownsWriteLock() const { return writeLockOwned; }
  bool ownsReadLock() const { return !readLocks.empty(); }
  bool refreshLoopRunning() const { return loopRunning; }
  boost::timed_mutex& getMutex() const { return mutex; }
  const char* getWriteLockName() const { return writeLockName.c_str(); }
  const char* getReadLockPattern() const { return readLockPattern.c_str(); }
  const std::string& getDirectory() const { return directory; }
  bool invariants() const { return refreshThread != nullptr; }

  // Exclusive create of a new read-lock file; returns its full name.
  std::string createReadLockFile(ScopedLock& lock, bool noRefresh);
  void createWriteLockFile(ScopedLock& lock, bool noRefresh);
  // Removal goes ahead even when the directory lock cannot be had by the
  // deadline; a file that cannot be removed is left to go stale (warning).
  void removeReadLockFile(std::string name, bool infinite, double deadline, ScopedLock& lock);
  void removeWriteLockFile(bool infinite, double deadline, ScopedLock& lock);

 private:
  class RefreshLoop;
  friend class RefreshLoop;
  typedef koSynchronizedLoopThread<boost::timed_mutex> LoopThread;

  void removeFileUnderDirLock(const std::string& name, int callSite, bool infinite,
                              double deadline);

  koDirectoryExclusiveLock dirLock;
  bool writeLockOwned = false;
  std::string directory;
  int counter;  // names and contents of lock files; starts at the pid
  std::unique_ptr<RefreshLoop> refreshLoop;
  boost::shared_ptr<koThreadFactory> pool;  // keeps the loop's factory alive
  std::unique_ptr<LoopThread> refreshThread;
  bool loopRunning = false;
  mutable boost::timed_mutex mutex;
  std::string writeLockName;
  std::string readLockPattern;
  std::set<std::string> readLocks;  // full names of the read-lock files held
};

// A handle on the lock. Copies share the acquisition count.
class KORVEL_EXPORT koDirectoryReadWriteLock::AbstractLock {
 public:
  static const double STALE_TIMEOUT_SEC;

  explicit AbstractLock(const boost::shared_ptr<koDirectoryReadWriteLock::Impl>& dir)
      : dir(dir), count(new int(0)) {}
  virtual ~AbstractLock();

  // Takes the lock (nested acquisitions count up); true when held. Blocked
  // acquirers poll every 10 ms and remove stale lock files. noRefresh: no
  // refresh loop for this lock, whose file then goes stale after 15 s.
  bool acquire(unsigned long n, const Zentha::System::TimeUnit& unit, bool noRefresh = false);
  // Undoes one acquisition; the last one removes the lock file. False when
  // not held. Never times out: without the directory lock by the deadline
  // the file is removed anyway.
  bool release(unsigned long n, const Zentha::System::TimeUnit& unit);
  bool isAcquired() const;

 protected:
  virtual bool okToAcquire(ScopedLock& lock) = 0;
  virtual void createLockFile(ScopedLock& lock, bool noRefresh) = 0;
  virtual void removeLockFile(bool infinite, double deadline, ScopedLock& lock) = 0;

  boost::shared_ptr<koDirectoryReadWriteLock::Impl> dir;
  boost::shared_ptr<int> count;  // guarded by dir's mutex
};

class KORVEL_EXPORT koDirectoryReadWriteLock::ReadLock : public AbstractLock {
 public:
  // Shared by a handle's copies; the last one removes a file still held.
  class KORVEL_EXPORT Impl : private boost::noncopyable {
   public:
    explicit Impl(const boost::shared_ptr<koDirectoryReadWriteLock::Impl>& dir) : dir(dir) {}
    ~Impl();

    boost::shared_ptr<koDirectoryReadWriteLock::Impl> dir;
    bool hasFile = false;  // guarded by dir's mutex
    std::string fileName;  // guarded by dir's mutex
  };

  explicit ReadLock(const boost::shared_ptr<koDirectoryReadWriteLock::Impl>& dir)
      : AbstractLock(dir), impl(new Impl(dir)) {}
  ~ReadLock() override;

 protected:
  bool okToAcquire(ScopedLock& lock) override;
  void createLockFile(ScopedLock& lock, bool noRefresh) override;
  void removeLockFile(bool infinite, double deadline, ScopedLock& lock) override;

 private:
  friend class WriteLock;  // downgrade makes the read lock's file

  boost::shared_ptr<Impl> impl;
};

class KORVEL_EXPORT koDirectoryReadWriteLock::WriteLock : public AbstractLock {
 public:
  class KORVEL_EXPORT Impl : private boost::noncopyable {
   public:
    explicit Impl(const boost::shared_ptr<koDirectoryReadWriteLock::Impl>& dir) : dir(dir) {}
    ~Impl();

    boost::shared_ptr<koDirectoryReadWriteLock::Impl> dir;
    bool hasFile = false;  // guarded by dir's mutex
  };

  explicit WriteLock(const boost::shared_ptr<koDirectoryReadWriteLock::Impl>& dir)
      : AbstractLock(dir), impl(new Impl(dir)) {}
  ~WriteLock() override;

  // Turns the held write lock into a read lock held as many times, with no
  // moment in which the directory is unlocked: the read-lock file is made
  // before the write-lock file goes. This handle is left unheld. On a handle
  // that is not held, returns an unheld read lock.
  ReadLock downgrade(unsigned long n, const Zentha::System::TimeUnit& unit);

 protected:
  bool okToAcquire(ScopedLock& lock) override;
  void createLockFile(ScopedLock& lock, bool noRefresh) override;
  void removeLockFile(bool infinite, double deadline, ScopedLock& lock) override;

 private:
  boost::shared_ptr<Impl> impl;
};

inline koDirectoryReadWriteLock::koDirectoryReadWriteLock(const std::string& directory)
    : impl_(new Impl(directory)) {}

inline koDirectoryReadWriteLock::ReadLock koDirectoryReadWriteLock::getReadLock() const {
  return ReadLock(impl_);
}

inline koDirectoryReadWriteLock::WriteLock koDirectoryReadWriteLock::getWriteLock() const {
  return WriteLock(impl_);
}

#endif  // KORVEL_FS_LOCK_H_
