// The directory read-write lock.
//
// On disk: "<dir>/.deploy_write_lock" while a writer holds the directory,
// "<dir>/.deploy_read_lock.<n>" for each read lock held, by any process. A
// lock is granted by looking at those files and creating one, both under the
// directory's exclusive lock, so that two processes never both see a free
// directory. Waiters poll every 10 ms and, on each poll, remove lock files
// that have gone stale.
//
// In-process: one Impl per front object, shared with every handle; its
// mutex guards the Impl and the handles' counts and is always taken before
// the directory lock.
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <limits>
#include <sstream>

#include "fs_lock/fs_lock_internal.h"
#include "host/exception_list.h"
#include "host/host.h"
#include "korvel/fs_lock.h"

using Zentha::System::TimeUnit;

namespace {

constexpr unsigned int kPollingCycleMs = 10;

typedef koDirectoryReadWriteLock::ScopedLock ScopedLock;

// What a lock operation hands to the directory lock. The remaining time is
// divided by 1000 and given as milliseconds: below 1000 s left, the
// directory lock gets one immediate attempt. Callers rely on a finite wait
// never queueing behind another process inside the directory lock.
unsigned long dirLockTimeout(bool infinite, double deadline) {
  if (infinite) return kInfiniteTimeout;
  const double x = std::trunc((deadline - hostRealtime()) / 1000.0);
  if (!(x >= 0.0) || x >= static_cast<double>(std::numeric_limits<unsigned long>::max())) return 0;
  return static_cast<unsigned long>(x);
}

bool acquireDirLock(koDirectoryExclusiveLock& dirLock, bool infinite, double deadline,
                    bool noRefreshLoop) {
  return dirLock.acquire(dirLockTimeout(infinite, deadline), TimeUnit::sMilliseconds(),
                         noRefreshLoop);
}

void releaseDirLock(koDirectoryExclusiveLock& dirLock) {
  dirLock.release(kInfiniteTimeout, TimeUnit::sSeconds());
}

double deadlineFor(unsigned long n, const TimeUnit& unit) {
  return n == kInfiniteTimeout ? 0.0 : realtimeDeadline(n, unit);
}

}  // namespace

const double koDirectoryReadWriteLock::AbstractLock::STALE_TIMEOUT_SEC = 15.0;

// Rewrites the held lock files every 5 s: only the write-lock file while the
// write lock is owned (read-lock files are then held only during a
// downgrade), otherwise every read-lock file. Runs with the Impl's mutex
// held.
class koDirectoryReadWriteLock::Impl::RefreshLoop {
 public:
  explicit RefreshLoop(Impl* owner) : owner_(owner) {}

  bool operator()(koSynchronizedLoopContext& context) const {
    return koOnlyLet<koNoSuchDirectory>([&] {
      // A loop function may not let an error out: the loop would end
      // without telling its owner, whose next stop would then wait forever.
      // So a vanished directory is logged here even when the directory lock
      // itself reports it.
      try {
        refresh();
      } catch (const koNoSuchDirectory&) {
        warningLog
            << "RefreshLoop thread: trying to touch lock file threw koNoSuchDirectory exception"
            << std::endl;
      }
      return context.waitFor(5000, TimeUnit::sMilliseconds());
    });
  }

 private:
  void refresh() const {
    Impl& impl = *owner_;
    const bool locked = impl.dirLock.acquire(kInfiniteTimeout, TimeUnit::sSeconds(), true);
    try {
      // Write failures are left for the next round.
      if (impl.writeLockOwned) {
        writeIntToFile(impl.writeLockName.c_str(), impl.counter++);
      } else {
        std::for_each(impl.readLocks.begin(), impl.readLocks.end(), RefreshFile(impl.counter));
      }
    } catch (...) {
      if (locked) releaseDirLock(impl.dirLock);
      throw;
    }
    if (locked) releaseDirLock(impl.dirLock);
  }

  Impl* owner_;
};

koDirectoryReadWriteLock::Impl::Impl(const std::string& directory)
    : dirLock(directory, ""),
      directory(directory),
      counter(getpid()),
      refreshLoop(new RefreshLoop(this)),
      pool(koDirectoryLockThreadPool()),
      refreshThread(new LoopThread(mutex, *refreshLoop, pool.get())),
      writeLockName(directory + "/.deploy_write_lock"),
      readLockPattern(directory + "/.deploy_read_lock.*") {}

koDirectoryReadWriteLock::Impl::~Impl() {
  // The loop thread locks the mutex and calls the functor while stopping:
  // both must outlive it.
  refreshThread.reset();
  refreshLoop.reset();
}

void koDirectoryReadWriteLock::Impl::createWriteLockFile(ScopedLock& lock, bool noRefresh) {
  koOnlyLet<koThread::StartError, koNoSuchDirectory>([&] {
    if (!writeLockOwned) {
      writeLockOwned = true;
      if (!noRefresh) {
        refreshThread->start(lock);
        loopRunning = true;
      }
    }
    // A failed write while the directory exists still counts as held: the
    // file is refreshed (and so recreated) by the loop.
    if (!writeIntToFile(writeLockName.c_str(), counter++) && !koIsDirectory(directory.c_str())) {
      throwNoSuchDirectory(directory);
    }
  });
}

std::string koDirectoryReadWriteLock::Impl::createReadLockFile(ScopedLock& lock, bool noRefresh) {
  return koOnlyLet<koThread::StartError, koNoSuchDirectory>([&] {
    std::string name;
    for (;;) {
      std::ostringstream candidate;
      candidate << directory << "/.deploy_read_lock." << counter++;
      name = candidate.str();
      // Unique per process by the counter; between processes only the
      // exclusive create decides, so a taken name moves on to the next.
      if (hostOpenAndClose(name.c_str(), O_WRONLY | O_CREAT | O_EXCL, 0777) == 0) break;
      if (!koIsDirectory(directory.c_str())) throwNoSuchDirectory(directory);
    }
    if (readLocks.empty() && !noRefresh) {
      refreshThread->start(lock);
      loopRunning = true;
    }
    readLocks.insert(name);
    writeIntToFile(name.c_str(), counter++);
    return name;
  });
}

void koDirectoryReadWriteLock::Impl::removeWriteLockFile(bool infinite, double deadline,
                                                         ScopedLock& lock) {
  koOnlyLet<koNoSuchDirectory>([&] {
    if (writeLockOwned) {
      if (loopRunning) {
        refreshThread->stop(lock);
        loopRunning = false;
      }
      writeLockOwned = false;
    }
    removeFileUnderDirLock(writeLockName, 1570, infinite, deadline);
  });
}

void koDirectoryReadWriteLock::Impl::removeReadLockFile(std::string name, bool infinite,
                                                        double deadline, ScopedLock& lock) {
  koOnlyLet<koNoSuchDirectory>([&] {
    readLocks.erase(name);
    if (readLocks.empty() && loopRunning) {
      refreshThread->stop(lock);
      loopRunning = false;
    }
    removeFileUnderDirLock(name, 1523, infinite, deadline);
  });
}

void koDirectoryReadWriteLock::Impl::removeFileUnderDirLock(const std::string& name, int callSite,
                                                            bool infinite, double deadline) {
  // Without the directory lock by the deadline the file is removed anyway:
  // releasing must not fail for want of it.
  const bool dirLocked = acquireDirLock(dirLock, infinite, deadline, true);
  if (hostRemoveFile(name.c_str()) < 0) {
    if (!koIsDirectory(directory.c_str())) {
      if (dirLocked) releaseDirLock(dirLock);
      throwNoSuchDirectory(directory);
    }
    warningLog << "FS_LOCK: failed to remove " << name << "(" << callSite << ")" << std::endl;
  }
  if (dirLocked) releaseDirLock(dirLock);
}

koDirectoryReadWriteLock::AbstractLock::~AbstractLock() = default;

bool koDirectoryReadWriteLock::AbstractLock::acquire(unsigned long n, const TimeUnit& unit,
                                                     bool noRefresh) {
  return koOnlyLet<koNoSuchDirectory>([&] {
    const bool infinite = n == kInfiniteTimeout;
    const double deadline = deadlineFor(n, unit);
    ScopedLock lock(dir->getMutex());
    if (!dir->invariants()) return false;
    if (*count != 0) {
      ++*count;
      return true;
    }

    koStaleLockRemover remover;
    remover.staleTimeout = STALE_TIMEOUT_SEC;
    remover.useDeadline = !infinite;
    remover.deadline = deadline;
    const UpdateStaleLockStatus judgeStaleness(&remover);
    koDirectoryExclusiveLock& dirLock = dir->getDirLock();

    for (;;) {
      if (!acquireDirLock(dirLock, infinite, deadline, false)) return false;
      bool ok;
      try {
        ok = okToAcquire(lock);
      } catch (...) {
        releaseDirLock(dirLock);
        throw;
      }
      if (ok) {
        // The lock file is made before the directory lock is let go: another
        // process that looked between the two would find the directory free
        // and could take a conflicting lock.
        bool created = true;
        try {
          createLockFile(lock, noRefresh);
        } catch (...) {
          created = false;
        }
        releaseDirLock(dirLock);
        if (!created) return false;
        *count = 1;
        return true;
      }

      // Blocked: clear away whatever lock files have gone stale.
      koFindMatchingFilesAndDirs(dir->getWriteLockName(), judgeStaleness, koIgnoreString(), 0,
                                 false);
      koFindMatchingFilesAndDirs(dir->getReadLockPattern(), judgeStaleness, koIgnoreString(), 0,
                                 false);
      for (const std::string& stale : remover.staleFiles) remover.removeStaleFile(stale);
      remover.staleFiles.clear();

      releaseDirLock(dirLock);
      sleepMilliseconds(kPollingCycleMs);
      if (!infinite && hostRealtime() >= deadline) return false;
    }
  });
}

bool koDirectoryReadWriteLock::AbstractLock::release(unsigned long n, const TimeUnit& unit) {
  return koOnlyLet<koNoSuchDirectory>([&] {
    const bool infinite = n == kInfiniteTimeout;
    const double deadline = deadlineFor(n, unit);
    ScopedLock lock(dir->getMutex());
    if (!dir->invariants() || *count <= 0) return false;
    if (*count == 1) {
      removeLockFile(infinite, deadline, lock);
      *count = 0;
    } else {
      --*count;
    }
    return true;
  });
}

bool koDirectoryReadWriteLock::AbstractLock::isAcquired() const {
  ScopedLock lock(dir->getMutex());
  return *count > 0;
}

koDirectoryReadWriteLock::ReadLock::~ReadLock() = default;

koDirectoryReadWriteLock::ReadLock::Impl::~Impl() {
  ScopedLock lock(dir->getMutex());
  if (!hasFile) return;
  try {
    dir->removeReadLockFile(fileName, true, 0.0, lock);
  } catch (const koNoSuchDirectory&) {
  }
}

bool koDirectoryReadWriteLock::ReadLock::okToAcquire(ScopedLock&) {
  return koOnlyLet<koNoSuchDirectory>([&] {
    if (dir->ownsWriteLock()) return false;
    return !koFileOrDirExists(dir->getWriteLockName());
  });
}

void koDirectoryReadWriteLock::ReadLock::createLockFile(ScopedLock& lock, bool noRefresh) {
  koOnlyLet<koThread::StartError, koNoSuchDirectory>([&] {
    impl->fileName = dir->createReadLockFile(lock, noRefresh);
    impl->hasFile = true;
  });
}

void koDirectoryReadWriteLock::ReadLock::removeLockFile(bool infinite, double deadline,
                                                        ScopedLock& lock) {
  koOnlyLet<koNoSuchDirectory>([&] {
    dir->removeReadLockFile(impl->fileName, infinite, deadline, lock);
    impl->hasFile = false;
  });
}

koDirectoryReadWriteLock::WriteLock::~WriteLock() = default;

koDirectoryReadWriteLock::WriteLock::Impl::~Impl() {
  ScopedLock lock(dir->getMutex());
  if (!hasFile) return;
  try {
    dir->removeWriteLockFile(true, 0.0, lock);
  } catch (const koNoSuchDirectory&) {
  }
}

bool koDirectoryReadWriteLock::WriteLock::okToAcquire(ScopedLock&) {
  return koOnlyLet<koNoSuchDirectory>([&] {
    if (dir->ownsReadLock() || dir->ownsWriteLock()) return false;
    if (koFileOrDirExists(dir->getWriteLockName())) return false;
    return !koMatchingFileOrDirExists(dir->getReadLockPattern());
  });
}

void koDirectoryReadWriteLock::WriteLock::createLockFile(ScopedLock& lock, bool noRefresh) {
  koOnlyLet<koThread::StartError, koNoSuchDirectory>([&] {
    dir->createWriteLockFile(lock, noRefresh);
    impl->hasFile = true;
  });
}

void koDirectoryReadWriteLock::WriteLock::removeLockFile(bool infinite, double deadline,
                                                         ScopedLock& lock) {
  koOnlyLet<koNoSuchDirectory>([&] {
    dir->removeWriteLockFile(infinite, deadline, lock);
    impl->hasFile = false;
  });
}

koDirectoryReadWriteLock::ReadLock koDirectoryReadWriteLock::WriteLock::downgrade(
    unsigned long n, const TimeUnit& unit) {
  return koOnlyLet<koThread::StartError, koNoSuchDirectory>([&] {
    const bool infinite = n == kInfiniteTimeout;
    const double deadline = deadlineFor(n, unit);
    // Made before the mutex is taken: should this call fail once the read
    // lock's file exists, the mutex is free again when the last copy of the
    // result goes and removes that file.
    ReadLock result(dir);
    ScopedLock lock(dir->getMutex());
    // Held or not, the files change hands below; other processes are kept
    // out only when the directory lock could be had.
    koDirectoryExclusiveLock& dirLock = dir->getDirLock();
    const bool dirLocked = acquireDirLock(dirLock, infinite, deadline, false);
    try {
      if (dir->invariants()) {
        *result.count = *count;
        if (*result.count > 0) {
          // Read-lock file first, so the directory is never without a lock.
          // A running loop only counts up here; the write lock's removal
          // counts it down again and leaves it refreshing the read lock.
          result.createLockFile(lock, !dir->refreshLoopRunning());
          *count = 0;
          removeLockFile(infinite, deadline, lock);
        }
      }
    } catch (...) {
      if (dirLocked) releaseDirLock(dirLock);
      throw;
    }
    if (dirLocked) releaseDirLock(dirLock);
    return result;
  });
}
