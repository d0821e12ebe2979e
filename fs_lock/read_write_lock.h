// The sixth room of the lock code: the read-write lock's state in this
// process. Depends on exclusive_lock.h and the rooms below it.
//
// One koDirectoryReadWriteLock::Impl per front object, shared with every
// handle. Its mutex guards it and the handles' counts and is always taken
// before the directory lock. The refresh loop runs under a mutex of its own
// and never needs the Impl's, so a thread waiting for the lock cannot
// starve the refresh of locks this process already holds.
#ifndef KORVEL_FS_LOCK_READ_WRITE_LOCK_H_
#define KORVEL_FS_LOCK_READ_WRITE_LOCK_H_

#include <boost/shared_ptr.hpp>
#include <boost/thread/mutex.hpp>
#include <boost/thread/shared_mutex.hpp>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <vector>

#include "fs_lock/exclusive_lock.h"

namespace korvel_detail {

// Holds a read-write lock's directory lock for a scope: milliseconds, so
// never with a refresh loop of its own. The lock is re-entrant within the
// object, so the refresh loop and a release may take it while another
// thread of this process holds it: their work on files this process
// already owns cannot conflict with that thread's.
class DirectoryLockGuard {
 public:
  enum AtOnce { kAtOnce };

  // Waits for the directory lock until the deadline. For a single attempt,
  // takes it at once when it is free (no poll first), else waits briefly.
  DirectoryLockGuard(koDirectoryExclusiveLock& lock, const Deadline& deadline, bool singleAttempt);
  // Takes the directory lock only if it is free this moment.
  DirectoryLockGuard(koDirectoryExclusiveLock& lock, AtOnce);
  DirectoryLockGuard(const DirectoryLockGuard&) = delete;
  DirectoryLockGuard& operator=(const DirectoryLockGuard&) = delete;
  ~DirectoryLockGuard();

  bool held() const { return held_; }
  // Still ours: not lost, and its lease allows a change made now. A look
  // and a change made under a lock that was lost in between prove nothing.
  bool stillHeld() const;
  // The same by its lease alone, without looking at the file.
  bool leaseHolds() const;

 private:
  koDirectoryExclusiveLock::Impl& lock_;
  const bool held_;
};

}  // namespace korvel_detail

using korvel_detail::DirectoryLockGuard;

// The state of one directory's read-write lock in this process, shared by
// the front object and every handle. The accessors require getMutex() to be
// held.
class koDirectoryReadWriteLock::Impl {
 public:
  typedef boost::timed_mutex::scoped_lock ScopedLock;

  explicit Impl(const std::string& path);
  // Stops the refresh loop; removes no lock file.
  ~Impl();
  Impl(const Impl&) = delete;
  Impl& operator=(const Impl&) = delete;

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
  friend class AbstractLock::Impl;
  friend class WriteLock;
  class RefreshLoop;
  friend class RefreshLoop;
  typedef koSynchronizedLoopThread<boost::timed_mutex> LoopThread;

  // Adds a held file to, or takes it from, those the loop rewrites; the loop
  // runs while there is one. REQUIRES: mutex held.
  void startRefreshing(const std::shared_ptr<LockHolding>& holding);
  void stopRefreshing(const std::shared_ptr<LockHolding>& holding);
  std::vector<std::shared_ptr<LockHolding>> refreshedFiles() const;

  // Lock order: mutex, then dirLock's own, then refreshMutex, then
  // refreshedMutex; the loop holds refreshMutex and waits for dirLock only
  // for a bounded time.
  koDirectoryExclusiveLock dirLock;
  bool writeLockOwned = false;  // guarded by mutex
  std::string directory;
  LockNumbers numbers;  // names and contents; thread-safe
  std::unique_ptr<RefreshLoop> refreshLoop;
  boost::shared_ptr<koThreadFactory> pool;  // keeps the loop's factory alive
  boost::timed_mutex refreshMutex;          // the loop's own
  std::unique_ptr<LoopThread> refreshThread;
  mutable std::mutex refreshedMutex;
  std::vector<std::shared_ptr<LockHolding>> refreshed;  // guarded by refreshedMutex
  mutable boost::timed_mutex mutex;
  std::string writeLockName;
  std::string readLockPattern;
  std::set<std::string> readLocks;  // full names of the read-lock files held; guarded by mutex
  koStaleLockRemover judge;  // what was seen of lock files, from wait to wait; guarded by mutex
};

// What a handle's copies share: the count and the file held through them.
// The last copy removes a file still held.
class koDirectoryReadWriteLock::AbstractLock::Impl {
 public:
  typedef koDirectoryReadWriteLock::Impl::ScopedLock ScopedLock;
  enum class Entry { kFree, kBlocked, kRefused };

  Impl(const std::shared_ptr<koDirectoryReadWriteLock::Impl>& shared, bool writes);
  ~Impl();
  Impl(const Impl&) = delete;
  Impl& operator=(const Impl&) = delete;

  bool acquire(unsigned long n, const Zentha::System::TimeUnit& unit, bool noRefresh);
  bool release(const Deadline& deadline);
  // Turns this held write lock into the read lock `reader`. REQUIRES:
  // this is a write lock's, reader a fresh read lock's.
  void downgrade(const Deadline& deadline, bool singleAttempt, Impl& reader);

  const std::shared_ptr<koDirectoryReadWriteLock::Impl> dir;
  const bool write;
  boost::timed_mutex acquiring;  // one acquisition at a time; taken before dir's mutex
  int count = 0;                 // guarded by dir's mutex
  bool hasFile = false;          // guarded by dir's mutex
  bool refreshed = false;        // guarded by dir's mutex
  std::shared_ptr<LockHolding> holding;

 private:
  // The count is not 0: a nested acquisition (true), or one refused
  // because the lock was lost. REQUIRES: dir's mutex held.
  bool acquireNested();
  // Waits for the way to be clear and makes the lock file. REQUIRES: the
  // acquiring mutex held, not dir's.
  bool enterWhenFree(const Deadline& deadline, bool singleAttempt);
  // Starts the refresh for a file just made. REQUIRES: dir's mutex held.
  void startRefresh(bool noRefresh);
  // Whether this handle may enter now. kRefused: it cannot tell, errno says
  // why. kBlocked: *blocker is a file in the way, if another process's.
  // REQUIRES: dir's mutex and the directory lock held.
  Entry okToAcquire(std::string* blocker);
  // The name of a new lock file for number.
  std::string lockFileName(int number) const;
  // Makes a new lock file for this handle; kMade with its name, number and
  // the time its write started. REQUIRES: dir's mutex and the directory
  // lock held.
  Create createFile(std::string* made, FileState* written, double* since);
  // Makes the lock file and records it as held (count 1), if the directory
  // lock was still ours throughout. REQUIRES: as above.
  Create enter(const DirectoryLockGuard& guard);
  // Removes the lock files that have gone stale, each only while guard
  // still holds the directory lock; true when it removed any. REQUIRES: as
  // above.
  bool removeStaleFiles(koStaleLockRemover* remover, const DirectoryLockGuard& guard);
  // Gives the held file up: removes it if it is still ours. False when it
  // was lost. REQUIRES: dir's mutex held.
  bool releaseFile(const Deadline& deadline);
};

// The front object's standard interfaces: a write and a read handle of its
// own, and the lock that keeps this process's threads apart.
struct koDirectoryReadWriteLock::Standard {
  explicit Standard(const std::shared_ptr<koDirectoryReadWriteLock::Impl>& impl)
      : writer(impl), reader(impl) {}
  WriteLock writer;
  ReadLock reader;
  boost::shared_mutex threads;  // taken before either
};

#endif  // KORVEL_FS_LOCK_READ_WRITE_LOCK_H_
