// Directory locks: cross-process, cross-host locks on a directory, made of
// lock files in that directory (which may be on a network file system).
//
// A lock object is thread-safe. Its holder is told when it loses the lock
// (lost(), onLost()): when its file was taken over because it was not
// refreshed for 15 s, or when its own lease of 14 s ran out first.
//
// Results: the operations return false for ordinary failure, with errno
// saying why: ETIMEDOUT when the time-out ran out (or the error of the
// creates that kept failing meanwhile, ENOSPC and the like), the error that
// keeps the lock from being taken here at all (EACCES, EROFS, ENAMETOOLONG,
// ...), ENOLCK for a lock already lost, EPERM for a release without a
// matching acquire. They throw koNoSuchDirectory when the directory is
// gone, and koThread::StartError when no refresh thread can be had. The
// standard lock interfaces (lock, try_lock_for, ...) throw
// std::system_error instead of returning false for anything but a
// time-out; their unlock never throws.
//
// A loss handler must not keep a copy of the lock or handle it belongs to
// (that copy would keep it alive, and held, for good): capture a reference
// or a pointer. A child made by fork() must not use the lock objects or
// thread pools it inherited; it never rewrites or removes its parent's
// lock files, but may hang waiting for threads it does not have. Use the
// locks after exec().
//
// Time-outs are a count with a unit; koForever, or a time-out too
// large to fit, waits forever; 0 makes one attempt, which still breaks a
// stale lock. Waits run on a monotonic clock; ages are judged by the file
// server's clock.
#ifndef KORVEL_FS_LOCK_H_
#define KORVEL_FS_LOCK_H_

#include <boost/noncopyable.hpp>
#include <boost/shared_ptr.hpp>
#include <boost/thread/locks.hpp>
#include <boost/thread/mutex.hpp>
#include <boost/thread/shared_mutex.hpp>
#include <cerrno>
#include <chrono>
#include <exception>
#include <functional>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <system_error>
#include <vector>

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

class koStaleLockRemover;

namespace korvel_detail {
class Deadline;
class DirectoryLockGuard;
class LockHolding;
class LockNumbers;
enum class Create;

// The standard lock interfaces' time-outs, as the milliseconds the lock
// calls take: rounded up, never negative.
template <class Rep, class Period>
unsigned long lockMillis(const std::chrono::duration<Rep, Period>& d) {
  if (d <= d.zero()) return 0;
  const auto ms = std::chrono::ceil<std::chrono::milliseconds>(d).count();
  return static_cast<unsigned long>(ms);
}
}  // namespace korvel_detail

// Mutual exclusion on a directory between processes and hosts. The holder
// owns "<directory>/.deploy_lock.0"; waiters queue at levels 1, 2, ... and
// move down one level at a time. A holder's file is rewritten every 5 s by a
// background refresh loop; a file more than 15 s behind the file server's
// clock belongs to a dead holder and is taken over.
//
// Re-entrant within the object: acquisitions are counted. Only
// koNoSuchDirectory, koThread::StartError and std::bad_alloc leave the
// operations. Meets the standard's TimedLockable (std::unique_lock,
// std::scoped_lock): lock, try_lock, try_lock_for, try_lock_until, unlock,
// always with refresh.
class KORVEL_EXPORT koDirectoryExclusiveLock : private boost::noncopyable {
 public:
  static const double STALE_TIMEOUT_SEC;

  // Touches no file. name prefixes the verbose messages (may be empty).
  koDirectoryExclusiveLock(std::string directory, const char* name);
  // Releases every counted acquisition and stops the refresh loop; no loss
  // handler runs once it has returned.
  ~koDirectoryExclusiveLock();

  // Takes the lock; true when held. With noRefreshLoop the lock file is not
  // refreshed: the caller must release within 14 s (the lease), or the
  // lock is lost. A nested acquisition of a lock that was lost fails
  // (ENOLCK). False: errno says why.
  bool acquire(unsigned long timeout, const Zentha::System::TimeUnit& unit, bool noRefreshLoop);
  // Undoes one acquisition. False without a matching acquire (EPERM), when
  // the mutex could not be had in time (ETIMEDOUT), when the lock had been
  // lost (ENOLCK; its file is left alone), or when the lock file could not
  // be removed (the object is then no longer held and the file goes stale).
  bool release(unsigned long timeout, const Zentha::System::TimeUnit& unit);

  // True from the moment a loss is seen until the next acquisition from a
  // count of zero.
  bool lost() const;
  // handler runs once per loss, on a thread of the library's (never with a
  // lock's mutex held, so it may call release). Replaces an earlier one.
  void onLost(std::function<void()> handler);

  // The standard interfaces also keep this process's threads apart, as a
  // std::timed_mutex does; acquire and release count per object instead.
  void lock();
  bool try_lock();
  template <class Rep, class Period>
  bool try_lock_for(const std::chrono::duration<Rep, Period>& d) {
    return tryLockFor(korvel_detail::lockMillis(d));
  }
  template <class Clock, class Duration>
  bool try_lock_until(const std::chrono::time_point<Clock, Duration>& t) {
    return try_lock_for(t - Clock::now());
  }
  void unlock();

 private:
  class RefreshLoop;
  class QueueWalk;
  typedef koSynchronizedLoopThread<boost::timed_mutex> LoopThread;
  friend class RefreshLoop;
  friend class QueueWalk;
  friend class korvel_detail::DirectoryLockGuard;  // the read-write lock's directory lock

  // REQUIRES (both): processMutex_ is held.
  bool acquireHeld(const korvel_detail::Deadline& deadline, bool singleAttempt, bool noRefreshLoop,
                   boost::timed_mutex::scoped_lock& lock);
  bool releaseHeld(const korvel_detail::Deadline& deadline, boost::timed_mutex::scoped_lock& lock);
  bool acquireUntil(const korvel_detail::Deadline& deadline, bool singleAttempt,
                    bool noRefreshLoop);
  bool releaseUntil(const korvel_detail::Deadline& deadline);
  // Takes level 0 if it is free, at once: no queue, no stale test.
  bool tryAtOnce();
  std::string levelFile(int level) const;
  // The standard timed calls: the threads' lock, then the lock.
  bool tryLockFor(unsigned long ms);

  // Guards the object and runs its refresh loop. Lock order: processMutex_,
  // then the holding's; see fs_lock.cpp.
  boost::timed_mutex processMutex_;
  std::string directory_;
  std::string name_;
  int acquireCount_ = 0;                                 // guarded by processMutex_
  std::unique_ptr<korvel_detail::LockNumbers> numbers_;  // thread-safe
  std::shared_ptr<korvel_detail::LockHolding> holding_;  // level 0 while held
  std::unique_ptr<RefreshLoop> refreshFunctor_;
  boost::shared_ptr<koThreadFactory> pool_;  // keeps the refresh loop's factory alive
  std::unique_ptr<LoopThread> refreshLoop_;
  bool refreshRunning_ = false;  // guarded by processMutex_
  boost::timed_mutex threads_;   // the standard interfaces' own, taken first
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
//   if (reading.acquire(koForever, TimeUnit::sSeconds())) { ...; reading.release(...); }
//
// Handles are cheap to copy; copies share one acquisition count, and the
// last copy of a held handle removes its lock file. Readers of a process
// block that process's own writer.
//
// The front object meets the standard's SharedTimedMutex (std::unique_lock,
// std::shared_lock): lock and friends take its write lock, lock_shared and
// friends its read lock, through one write and one read handle of its own.
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

  // The standard interfaces also keep this process's threads apart, as a
  // std::shared_timed_mutex does; copies of the front object share that.
  void lock();
  bool try_lock();
  template <class Rep, class Period>
  bool try_lock_for(const std::chrono::duration<Rep, Period>& d);
  template <class Clock, class Duration>
  bool try_lock_until(const std::chrono::time_point<Clock, Duration>& t) {
    return try_lock_for(t - Clock::now());
  }
  void unlock();
  void lock_shared();
  bool try_lock_shared();
  template <class Rep, class Period>
  bool try_lock_shared_for(const std::chrono::duration<Rep, Period>& d);
  template <class Clock, class Duration>
  bool try_lock_shared_until(const std::chrono::time_point<Clock, Duration>& t) {
    return try_lock_shared_for(t - Clock::now());
  }
  void unlock_shared();

 private:
  // The standard timed calls: the threads' lock, then the handle.
  bool tryLockFor(unsigned long ms);
  bool tryLockSharedFor(unsigned long ms);

  boost::shared_ptr<Impl> impl_;
  std::shared_ptr<WriteLock> writer_;  // the standard interfaces' handles
  std::shared_ptr<ReadLock> reader_;
  std::shared_ptr<boost::shared_mutex> threads_;  // taken before either
};

// The state of one directory's read-write lock in this process, shared by
// the front object and every handle. The accessors require getMutex() to be
// held.
class KORVEL_EXPORT koDirectoryReadWriteLock::Impl : private boost::noncopyable {
 public:
  explicit Impl(const std::string& path);
  // Stops the refresh loop; removes no lock file.
  ~Impl();

  koDirectoryExclusiveLock& getDirLock() { return dirLock; }
  bool ownsWriteLock() const { return writeLockOwned; }
  bool ownsReadLock() const { return !readLocks.empty(); }
  // Whether the refresh loop runs: while any held file asks for refresh.
  bool refreshLoopRunning() const;
  boost::timed_mutex& getMutex() const { return mutex; }
  const char* getWriteLockName() const { return writeLockName.c_str(); }
  const char* getReadLockPattern() const { return readLockPattern.c_str(); }
  const std::string& getDirectory() const { return directory; }
  bool invariants() const { return refreshThread != nullptr; }

 private:
  friend class AbstractLock;
  friend class ReadLock;
  friend class WriteLock;
  class RefreshLoop;
  friend class RefreshLoop;
  typedef koSynchronizedLoopThread<boost::timed_mutex> LoopThread;

  // Adds a held file to, or takes it from, those the loop rewrites; the loop
  // runs while there is one. REQUIRES: mutex held.
  void startRefreshing(const std::shared_ptr<korvel_detail::LockHolding>& holding);
  void stopRefreshing(const std::shared_ptr<korvel_detail::LockHolding>& holding);
  std::vector<std::shared_ptr<korvel_detail::LockHolding>> refreshedFiles() const;

  // Lock order: mutex, then dirLock's own, then refreshMutex, then
  // refreshedMutex; the loop holds refreshMutex and waits for dirLock only
  // for a bounded time.
  koDirectoryExclusiveLock dirLock;
  bool writeLockOwned = false;  // guarded by mutex
  std::string directory;
  std::unique_ptr<korvel_detail::LockNumbers> numbers;  // names and contents; thread-safe
  std::unique_ptr<RefreshLoop> refreshLoop;
  boost::shared_ptr<koThreadFactory> pool;  // keeps the loop's factory alive
  boost::timed_mutex refreshMutex;          // the loop's own
  std::unique_ptr<LoopThread> refreshThread;
  mutable std::mutex refreshedMutex;
  std::vector<std::shared_ptr<korvel_detail::LockHolding>> refreshed;  // guarded by refreshedMutex
  mutable boost::timed_mutex mutex;
  std::string writeLockName;
  std::string readLockPattern;
  std::set<std::string> readLocks;    // full names of the read-lock files held; guarded by mutex
  std::set<std::string> staleWarned;  // stale files named once already; guarded by mutex
};

// A handle on the lock. Copies share the acquisition count and the file.
class KORVEL_EXPORT koDirectoryReadWriteLock::AbstractLock {
 public:
  static const double STALE_TIMEOUT_SEC;

  // What a handle's copies share: the file held through them. The last
  // copy removes a file still held.
  class KORVEL_EXPORT Impl : private boost::noncopyable {
   public:
    Impl(const boost::shared_ptr<koDirectoryReadWriteLock::Impl>& shared, bool writes);
    ~Impl();

    boost::shared_ptr<koDirectoryReadWriteLock::Impl> dir;
    const bool write;
    boost::timed_mutex acquiring;  // one acquisition at a time; taken before dir's mutex
    bool hasFile = false;          // guarded by dir's mutex
    bool refreshed = false;        // guarded by dir's mutex
    std::shared_ptr<korvel_detail::LockHolding> holding;

    // Gives the held file up: removes it if it is still ours. False when it
    // was lost. REQUIRES: dir's mutex held.
    bool releaseFile(const korvel_detail::Deadline& deadline);
  };

  AbstractLock(const boost::shared_ptr<koDirectoryReadWriteLock::Impl>& shared, bool writes);
  virtual ~AbstractLock();

  // Takes the lock (nested acquisitions count up); true when held. Blocked
  // acquirers poll every 10 ms and remove stale lock files. noRefresh: no
  // refresh for this lock, which must then be released within 14 s. A
  // single attempt (n = 0) looks once, but may wait up to a second for the
  // directory lock, which others hold for milliseconds. False: errno says
  // why (a directory that cannot be listed keeps a writer out: EACCES and
  // the like). Other handles may be released while this one waits.
  bool acquire(unsigned long n, const Zentha::System::TimeUnit& unit, bool noRefresh = false);
  // Undoes one acquisition; the last one removes the lock file. False when
  // not held (EPERM), or when the lock had been lost (ENOLCK; its file is
  // left alone); a file that cannot be removed is left to go stale, with
  // one warning, and release still says true. Never waits for the
  // directory lock: without it at once the own file is removed anyway.
  bool release(unsigned long n, const Zentha::System::TimeUnit& unit);
  bool isAcquired() const;
  // As for koDirectoryExclusiveLock; shared by the handle's copies.
  bool lost() const;
  void onLost(std::function<void()> handler);

 protected:
  enum class Entry { kFree, kBlocked, kRefused };
  // Whether this handle may enter now. kRefused: it cannot tell, errno says
  // why. REQUIRES: dir's mutex and the directory lock held.
  virtual Entry okToAcquire() = 0;
  // The name of a new lock file for number.
  virtual std::string lockFileName(int number) const = 0;

  // Makes a new lock file for this handle; kMade with its name, number and
  // the time its write started. REQUIRES: dir's mutex and the directory
  // lock held.
  korvel_detail::Create createFile(std::string* made, int* written, double* since);
  // Makes the lock file and records it as held (count 1), if the directory
  // lock was still ours throughout. REQUIRES: as above.
  korvel_detail::Create enter(const korvel_detail::DirectoryLockGuard& guard);
  // Removes the lock files that have gone stale; true when there were any.
  // REQUIRES: as above.
  bool removeStaleFiles(koStaleLockRemover* remover);

  boost::shared_ptr<koDirectoryReadWriteLock::Impl> dir;
  boost::shared_ptr<int> count;  // guarded by dir's mutex
  boost::shared_ptr<Impl> impl;
};

class KORVEL_EXPORT koDirectoryReadWriteLock::ReadLock : public AbstractLock {
 public:
  explicit ReadLock(const boost::shared_ptr<koDirectoryReadWriteLock::Impl>& shared)
      : AbstractLock(shared, false) {}
  ~ReadLock() override;

 protected:
  Entry okToAcquire() override;
  std::string lockFileName(int number) const override;

 private:
  friend class WriteLock;  // downgrade makes the read lock's file
};

class KORVEL_EXPORT koDirectoryReadWriteLock::WriteLock : public AbstractLock {
 public:
  explicit WriteLock(const boost::shared_ptr<koDirectoryReadWriteLock::Impl>& shared)
      : AbstractLock(shared, true) {}
  ~WriteLock() override;

  // Turns the held write lock into a read lock held as many times, with no
  // moment in which the directory is unlocked: the read-lock file is made
  // before the write-lock file goes. This handle is left unheld. On a handle
  // that is not held, or lost, or when no read-lock file can be made (errno
  // says why), returns an unheld read lock and changes nothing. The new
  // handle has no loss handler of its own.
  ReadLock downgrade(unsigned long n, const Zentha::System::TimeUnit& unit);

 protected:
  Entry okToAcquire() override;
  std::string lockFileName(int number) const override;
};

inline koDirectoryReadWriteLock::koDirectoryReadWriteLock(const std::string& directory)
    : impl_(new Impl(directory)),
      writer_(std::make_shared<WriteLock>(impl_)),
      reader_(std::make_shared<ReadLock>(impl_)),
      threads_(std::make_shared<boost::shared_mutex>()) {}

inline koDirectoryReadWriteLock::ReadLock koDirectoryReadWriteLock::getReadLock() const {
  return ReadLock(impl_);
}

inline koDirectoryReadWriteLock::WriteLock koDirectoryReadWriteLock::getWriteLock() const {
  return WriteLock(impl_);
}

template <class Rep, class Period>
bool koDirectoryReadWriteLock::try_lock_for(const std::chrono::duration<Rep, Period>& d) {
  return tryLockFor(korvel_detail::lockMillis(d));
}

template <class Rep, class Period>
bool koDirectoryReadWriteLock::try_lock_shared_for(const std::chrono::duration<Rep, Period>& d) {
  return tryLockSharedFor(korvel_detail::lockMillis(d));
}

#endif  // KORVEL_FS_LOCK_H_
