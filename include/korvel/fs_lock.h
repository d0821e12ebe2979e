// Directory locks: cross-process, cross-host locks on a directory, made of
// lock files in that directory (which may be on a network file system).
//
// A lock object is thread-safe. Its holder is told when it loses the lock
// (lost(), onLost()): when its file was taken over because it was not
// refreshed for 15 s, or when its own lease of 14 s ran out first.
//
// Time-outs are a count with a unit; koForever, or a time-out too large to
// fit, waits forever; 0 makes one attempt. Waits run on a monotonic clock.
// The directory is made absolute against the working directory when the
// object is made (links in it are not resolved).
//
// What a false result means, with errno:
//   ETIMEDOUT     the time-out ran out while someone else held the lock (or
//                 its stale file had not yet been watched for long enough).
//   ENOSPC, EDQUOT, EIO, ESTALE, ENOTCONN, EAGAIN
//                 the time-out ran out while the lock files could not be
//                 made for now; the last such error is kept.
//   EACCES, EPERM, EROFS, ENOTDIR, ELOOP
//                 the lock cannot be had here at all: waiting will not help.
//   ENAMETOOLONG  the directory's path leaves no room for the lock's files.
//   EINVAL        the directory is the empty string.
//   ENOLCK        the lock was lost: release it before acquiring it again.
//   EPERM         (release) no matching acquire, or a lock a forked child
//                 inherited from its parent.
// The classic calls (acquire, release, downgrade) throw koNoSuchDirectory
// when the directory is missing or not a directory, and
// koThread::StartError when no refresh thread can be had. The standard
// interfaces (lock, try_lock_for, ...) throw std::system_error instead of
// returning false for anything but a time-out: ENOENT for a missing
// directory, ENOTDIR for one that is not a directory, with the original
// exception nested. Their unlock never throws.
//
// A loss handler must not keep a copy of the lock or handle it belongs to
// (that copy would keep it alive, and held, for good): capture a reference
// or a pointer. A handler may release, acquire or destroy any lock,
// including the one it was called for. A child made by fork() must not use
// the lock objects it inherited: acquiring or releasing them fails (EPERM),
// and it never rewrites or removes its parent's lock files.
#ifndef KORVEL_FS_LOCK_H_
#define KORVEL_FS_LOCK_H_

#include "korvel/export.h"
#if KORVEL_HEADERS_USABLE

#include <chrono>
#include <cstddef>
#include <exception>
#include <memory>
#include <string>
#include <utility>

#include "korvel/time_unit.h"

namespace boost {
template <class T>
class shared_ptr;
}  // namespace boost
class koThreadFactory;

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
// Include korvel/threads.h to use it.
KORVEL_EXPORT boost::shared_ptr<koThreadFactory> koDirectoryLockThreadPool();

namespace korvel_detail {

class DirectoryLockGuard;

// A loss handler without <functional>: the lock owns it and calls it on a
// thread of the library's. Defined here entirely, so that each side has its
// own copy of the type.
class LostHandler {
 public:
  LostHandler() = default;
  LostHandler(const LostHandler&) = delete;
  LostHandler& operator=(const LostHandler&) = delete;
  virtual ~LostHandler() = default;
  virtual void operator()() = 0;
};

template <class Handler>
class LostHandlerOf final : public LostHandler {
 public:
  explicit LostHandlerOf(Handler handler) : handler_(std::move(handler)) {}
  void operator()() override { handler_(); }

 private:
  Handler handler_;
};

template <class Handler>
std::unique_ptr<LostHandler> lostHandler(Handler handler) {
  return std::unique_ptr<LostHandler>(new LostHandlerOf<Handler>(std::move(handler)));
}

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
// background refresh loop; a waiter takes over the file of a holder that
// stopped refreshing once it has seen it unchanged for 15 s.
//
// Re-entrant within the object: acquisitions are counted. Meets the
// standard's TimedLockable (std::unique_lock, std::scoped_lock): lock,
// try_lock, try_lock_for, try_lock_until, unlock, always with refresh.
class KORVEL_EXPORT koDirectoryExclusiveLock {
 public:
  static const double STALE_TIMEOUT_SEC;
  class Impl;

  // Touches no file. name prefixes the verbose messages (may be empty).
  koDirectoryExclusiveLock(std::string directory, const char* name);
  // Releases every counted acquisition and stops the refresh loop; no loss
  // handler runs once it has returned.
  ~koDirectoryExclusiveLock();
  koDirectoryExclusiveLock(const koDirectoryExclusiveLock&) = delete;
  koDirectoryExclusiveLock& operator=(const koDirectoryExclusiveLock&) = delete;

  // Takes the lock; true when held. With noRefreshLoop the lock file is not
  // refreshed: the caller must release within 14 s (the lease), or the
  // lock is lost. A nested acquisition of a lock that was lost fails.
  [[nodiscard]] bool acquire(unsigned long timeout, const Zentha::System::TimeUnit& unit,
                             bool noRefreshLoop) &;
  bool acquire(unsigned long, const Zentha::System::TimeUnit&, bool) && = delete;
  // Undoes one acquisition, trying for up to the time-out to remove the
  // lock file; without arguments, for about 2 s. False without a matching
  // acquire, when the lock had been lost (its file is left alone), or when
  // the file could not be removed (the object is then no longer held and
  // the file goes stale).
  [[nodiscard]] bool release(unsigned long timeout, const Zentha::System::TimeUnit& unit) &;
  bool release(unsigned long, const Zentha::System::TimeUnit&) && = delete;
  [[nodiscard]] bool release() &;
  bool release() && = delete;

  // True from the moment a loss is seen until the next acquisition from a
  // count of zero.
  [[nodiscard]] bool lost() const;
  // handler() runs once per loss, on a thread of the library's (never with
  // a lock's mutex held). Replaces an earlier handler; nullptr removes it.
  template <class Handler>
  void onLost(Handler handler) {
    setLostHandler(korvel_detail::lostHandler(std::move(handler)));
  }
  void onLost(std::nullptr_t) { setLostHandler(nullptr); }

  // The standard interfaces also keep this process's threads apart, as a
  // std::timed_mutex does; acquire and release count per object instead.
  void lock();
  [[nodiscard]] bool try_lock();
  template <class Rep, class Period>
  [[nodiscard]] bool try_lock_for(const std::chrono::duration<Rep, Period>& d) {
    return tryLockFor(korvel_detail::lockMillis(d));
  }
  template <class Clock, class Duration>
  [[nodiscard]] bool try_lock_until(const std::chrono::time_point<Clock, Duration>& t) {
    return try_lock_for(t - Clock::now());
  }
  void unlock();

 private:
  friend class korvel_detail::DirectoryLockGuard;  // the read-write lock's directory lock

  void setLostHandler(std::unique_ptr<korvel_detail::LostHandler> handler);
  bool tryLockFor(unsigned long ms);

  std::unique_ptr<Impl> impl_;
};

// Many readers or one writer on a directory, between processes and hosts.
// The lock state is only files in the directory: "<dir>/.deploy_write_lock"
// for the writer and "<dir>/.deploy_read_lock.<n>" per read lock, each
// holding a number that changes on every refresh. Every check and change of
// those files is made under the directory's exclusive lock. Held files are
// rewritten every 5 s; a waiter removes a file it has seen unchanged for
// 15 s.
//
//   koDirectoryReadWriteLock rw("/shared/dir");
//   koDirectoryReadWriteLock::ReadLock reading = rw.getReadLock();
//   if (reading.acquire(koForever, TimeUnit::sSeconds())) {
//     ...;
//     if (!reading.release()) { /* lost meanwhile: the work was unprotected */ }
//   }
//
// Handles are cheap to copy; copies share one acquisition count, and the
// last copy of a held handle removes its lock file. Readers of a process
// block that process's own writer. Copies of the front object share its
// state.
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

  explicit koDirectoryReadWriteLock(const std::string& directory);
  ~koDirectoryReadWriteLock();
  koDirectoryReadWriteLock(const koDirectoryReadWriteLock&);
  koDirectoryReadWriteLock& operator=(const koDirectoryReadWriteLock&);

  [[nodiscard]] ReadLock getReadLock() const;
  [[nodiscard]] WriteLock getWriteLock() const;
  const std::shared_ptr<Impl>& getImpl() const { return impl_; }

  // The standard interfaces also keep this process's threads apart, as a
  // std::shared_timed_mutex does; copies of the front object share that.
  void lock();
  [[nodiscard]] bool try_lock();
  template <class Rep, class Period>
  [[nodiscard]] bool try_lock_for(const std::chrono::duration<Rep, Period>& d) {
    return tryLockFor(korvel_detail::lockMillis(d));
  }
  template <class Clock, class Duration>
  [[nodiscard]] bool try_lock_until(const std::chrono::time_point<Clock, Duration>& t) {
    return try_lock_for(t - Clock::now());
  }
  void unlock();
  void lock_shared();
  [[nodiscard]] bool try_lock_shared();
  template <class Rep, class Period>
  [[nodiscard]] bool try_lock_shared_for(const std::chrono::duration<Rep, Period>& d) {
    return tryLockSharedFor(korvel_detail::lockMillis(d));
  }
  template <class Clock, class Duration>
  [[nodiscard]] bool try_lock_shared_until(const std::chrono::time_point<Clock, Duration>& t) {
    return try_lock_shared_for(t - Clock::now());
  }
  void unlock_shared();

 private:
  struct Standard;  // the standard interfaces' handles and threads' lock

  bool tryLockFor(unsigned long ms);
  bool tryLockSharedFor(unsigned long ms);

  std::shared_ptr<Impl> impl_;
  std::shared_ptr<Standard> standard_;
};

// A handle on the lock. Copies share the acquisition count and the file.
class KORVEL_EXPORT koDirectoryReadWriteLock::AbstractLock {
 public:
  static const double STALE_TIMEOUT_SEC;
  class Impl;  // what a handle's copies share

  AbstractLock(const AbstractLock&) = default;
  AbstractLock& operator=(const AbstractLock&) = default;
  virtual ~AbstractLock();

  // Takes the lock (nested acquisitions count up); true when held. Blocked
  // acquirers poll every 10 ms and remove the files of dead holders.
  // noRefresh: no refresh for this lock, which must then be released
  // within 14 s. A single attempt (n = 0) looks once. Other handles may be
  // released while this one waits.
  [[nodiscard]] bool acquire(unsigned long n, const Zentha::System::TimeUnit& unit,
                             bool noRefresh = false) &;
  bool acquire(unsigned long, const Zentha::System::TimeUnit&, bool = false) && = delete;
  // Undoes one acquisition; the last one removes the lock file, trying for
  // up to the time-out (without arguments, about 2 s). False when not held,
  // or when the lock had been lost (its file is left alone); a file that
  // cannot be removed is left to go stale, with one warning, and release
  // still says true. Never waits for the directory lock.
  [[nodiscard]] bool release(unsigned long n, const Zentha::System::TimeUnit& unit) &;
  bool release(unsigned long, const Zentha::System::TimeUnit&) && = delete;
  [[nodiscard]] bool release() &;
  bool release() && = delete;
  [[nodiscard]] bool isAcquired() const;
  // As for koDirectoryExclusiveLock; shared by the handle's copies.
  [[nodiscard]] bool lost() const;
  template <class Handler>
  void onLost(Handler handler) {
    setLostHandler(korvel_detail::lostHandler(std::move(handler)));
  }
  void onLost(std::nullptr_t) { setLostHandler(nullptr); }

  const std::shared_ptr<Impl>& getImpl() const { return impl_; }

 protected:
  explicit AbstractLock(std::shared_ptr<Impl> impl);

 private:
  void setLostHandler(std::unique_ptr<korvel_detail::LostHandler> handler);

  std::shared_ptr<Impl> impl_;
};

class KORVEL_EXPORT koDirectoryReadWriteLock::ReadLock : public AbstractLock {
 public:
  explicit ReadLock(const std::shared_ptr<koDirectoryReadWriteLock::Impl>& shared);
  ~ReadLock() override;

 private:
  friend class WriteLock;  // a downgrade hands out a read lock of its making
  explicit ReadLock(std::shared_ptr<AbstractLock::Impl> impl);
};

class KORVEL_EXPORT koDirectoryReadWriteLock::WriteLock : public AbstractLock {
 public:
  explicit WriteLock(const std::shared_ptr<koDirectoryReadWriteLock::Impl>& shared);
  ~WriteLock() override;

  // Turns the held write lock into a read lock held as many times, with no
  // moment in which the directory is unlocked: the read-lock file is made
  // before the write-lock file goes. This handle is left unheld. On a handle
  // that is not held, or lost, or when no read-lock file can be made (errno
  // says why), returns an unheld read lock and changes nothing. The new
  // handle has no loss handler of its own.
  [[nodiscard]] ReadLock downgrade(unsigned long n, const Zentha::System::TimeUnit& unit) &;
  ReadLock downgrade(unsigned long, const Zentha::System::TimeUnit&) && = delete;
};

#endif  // KORVEL_HEADERS_USABLE
#endif  // KORVEL_FS_LOCK_H_
