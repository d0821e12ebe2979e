// The directory exclusive lock.
//
// On disk: "<dir>/.deploy_lock.<level>". Level 0 is the holder; waiters
// create the first free level and move down one level at a time, each step
// claiming the next lower file exclusively and giving up their own. Every
// check and change is made with processMutex_ held, so the object's threads
// and its refresh loop never interleave.
#include <fcntl.h>
#include <unistd.h>

#include <new>
#include <sstream>
#include <vector>

#include "fs_lock/fs_lock_internal.h"
#include "host/exception_list.h"
#include "host/host.h"
#include "korvel/fs_lock.h"

using Zentha::System::TimeUnit;

namespace {

constexpr unsigned int kPollingCycleMs = 10;

typedef boost::timed_mutex::scoped_lock ScopedLock;
typedef boost::timed_mutex::scoped_timed_lock ScopedTimedLock;

}  // namespace

const double koDirectoryExclusiveLock::STALE_TIMEOUT_SEC = 15.0;

// Keeps ".deploy_lock.0" fresh while the lock is held: a touch every 5 s,
// retried for up to 2.5 s when it fails.
class koDirectoryExclusiveLock::RefreshLoop {
 public:
  explicit RefreshLoop(koDirectoryExclusiveLock* owner) : owner_(owner) {}

  void operator()(koSynchronizedLoopContext& ctx) const {
    const double giveUp = hostRealtime() + 2.5;
    verboseLog << "Touching lock file..." << std::endl;
    try {
      for (;;) {
        if (owner_->touchLockFile(0)) {
          verboseLog << "Lock successfully refreshed" << std::endl;
          break;
        }
        // A 1 ms wait returns at once: it only checks for a pending stop.
        if (ctx.waitFor(1, TimeUnit::sMilliseconds()) || hostRealtime() >= giveUp) {
          warningLog << "Failed to refresh lock!" << std::endl;
          break;
        }
      }
    } catch (const koNoSuchDirectory&) {
      warningLog
          << "RefreshLoop thread: trying to touch lock file threw koNoSuchDirectory exception"
          << std::endl;
    }
    ctx.waitFor(5000, TimeUnit::sMilliseconds());
  }

 private:
  koDirectoryExclusiveLock* owner_;
};

koDirectoryExclusiveLock::koDirectoryExclusiveLock(std::string directory, const char* name)
    : directory_(std::move(directory)),
      name_(name != nullptr ? name : ""),
      touchValue_(getpid()),
      refreshFunctor_(new RefreshLoop(this)),
      pool_(koDirectoryLockThreadPool()),
      refreshLoop_(new LoopThread(processMutex_, boost::ref(*refreshFunctor_), pool_.get())) {}

koDirectoryExclusiveLock::~koDirectoryExclusiveLock() {
  for (;;) {
    {
      ScopedLock lock(processMutex_);
      if (acquireCount_ == 0) break;
    }
    try {
      if (!release(kInfiniteTimeout, TimeUnit::sSeconds())) break;
    } catch (...) {
      break;
    }
  }
  delete refreshLoop_;
  delete refreshFunctor_;
}

bool koDirectoryExclusiveLock::acquire(unsigned long timeout, const TimeUnit& unit,
                                       bool noRefreshLoop) {
  return koOnlyLet<koNoSuchDirectory, koThread::StartError, std::bad_alloc>([&] {
    if (timeout == kInfiniteTimeout) {
      ScopedLock lock(processMutex_);
      return acquireWithProcessLock(timeout, unit, 0.0, lock, noRefreshLoop);
    }
    const double deadline = realtimeDeadline(timeout, unit);
    ScopedTimedLock lock(processMutex_, boost::system_time(xtimeDeadline(timeout, unit)));
    return acquireWithProcessLock(timeout, unit, deadline, lock, noRefreshLoop);
  });
}

bool koDirectoryExclusiveLock::release(unsigned long timeout, const TimeUnit& unit) {
  return koOnlyLet<koNoSuchDirectory, koThread::StartError, std::bad_alloc>([&] {
    if (timeout == kInfiniteTimeout) {
      ScopedLock lock(processMutex_);
      return releaseWithProcessLock(timeout, unit, 0.0, lock);
    }
    const double deadline = realtimeDeadline(timeout, unit);
    ScopedTimedLock lock(processMutex_, boost::system_time(xtimeDeadline(timeout, unit)));
    return releaseWithProcessLock(timeout, unit, deadline, lock);
  });
}

template <class Lock>
bool koDirectoryExclusiveLock::acquireWithProcessLock(unsigned long timeout, const TimeUnit&,
                                                      double deadline, Lock& lock,
                                                      bool noRefreshLoop) {
  if (!lock.owns_lock() || refreshLoop_ == nullptr) return false;
  if (acquireCount_ > 0) {
    ++acquireCount_;
    return true;
  }
  const bool infinite = timeout == kInfiniteTimeout;

  int cur = queue(timeout, deadline);
  bool held = cur == 0;
  if (cur > 0) {
    const int q = cur;
    koStaleLockRemover prototype;
    prototype.staleTimeout = STALE_TIMEOUT_SEC;
    prototype.useDeadline = !infinite;
    prototype.deadline = deadline;
    std::vector<koStaleLockRemover> removers(q, prototype);
    // A first look at every level below.
    for (int i = 0; i < q; ++i) removers[i].update(getLockFileName(i).c_str());

    bool failed = false;
    if (!infinite && deadline <= hostRealtime()) {
      failed = true;
    } else {
      sleepMilliseconds(kPollingCycleMs);
      touchLockFile(q);
    }
    while (!failed && cur > 0) {
      const int target = cur - 1;
      verboseLog << name_ << ": Trying to acquire level " << target << std::endl;
      if (createLockFileExclusive(target)) {
        verboseLog << name_ << ": Success! removing level " << cur << std::endl;
        if (!removeLockFileWithTenacity(cur, timeout, deadline)) {
          warningLog << "FS_LOCK: failed to remove " << getLockFileName(cur) << "(" << 723 << ")"
                     << std::endl;
        }
        cur = target;
        continue;
      }
      verboseLog << name_ << ": Could not acquire; trying to detect stale lock at level " << target
                 << std::endl;
      removers[target].update(getLockFileName(target).c_str());
      if (removers[target].staleFiles.empty()) {
        // The level's owner is alive: wait, keeping our own file fresh.
        if (!infinite && hostRealtime() >= deadline) {
          failed = true;
          break;
        }
        verboseLog << name_ << ": Sleeping" << std::endl;
        sleepMilliseconds(kPollingCycleMs);
        touchLockFile(cur);
        continue;
      }
      // The level's owner is dead: take the level over.
      if (!touchLockFile(target)) {
        if (!removeLockFileWithTenacity(target, timeout, deadline)) {
          // Names the current level although the target's removal failed.
          warningLog << "FS_LOCK: failed to remove " << getLockFileName(cur) << "(" << 735 << ")"
                     << std::endl;
        }
        if (!touchLockFile(target)) {
          failed = true;
          break;
        }
      }
      removeLockFileWithTenacity(cur, timeout, deadline);
      cur = target;
    }
    held = !failed;
  }

  if (!held) {
    if (cur > 0 && !removeLockFileWithTenacity(cur)) {
      warningLog << "FS_LOCK: failed to remove " << getLockFileName(cur) << "(" << 768 << ")"
                 << std::endl;
    }
    return false;
  }
  acquireCount_ = 1;
  if (!noRefreshLoop) {
    refreshLoop_->start(lock);
    refreshRunning_ = true;
  }
  return true;
}

template <class Lock>
bool koDirectoryExclusiveLock::releaseWithProcessLock(unsigned long timeout, const TimeUnit&,
                                                      double deadline, Lock& lock) {
  if (!lock.owns_lock() || acquireCount_ == 0 || refreshLoop_ == nullptr) return false;
  if (acquireCount_ > 1) {
    --acquireCount_;
    return true;
  }
  acquireCount_ = 0;
  if (refreshRunning_) {
    refreshLoop_->stop(lock);
    refreshRunning_ = false;
  }
  return removeLockFileWithTenacity(0, timeout, deadline);
}

int koDirectoryExclusiveLock::queue(unsigned long timeout, double deadline) {
  verboseLog << "Queuing for lock acquire in directory " << directory_ << std::endl;
  int level = 0;
  for (;;) {
    while (lockFileExists(level)) {
      verboseLog << "Lock file exists at level " << level << ".  Going to next level..."
                 << std::endl;
      ++level;
    }
    if (timeout != 0) {
      if (timeout != kInfiniteTimeout && hostRealtime() >= deadline) return -1;
      verboseLog << "No lock found at level " << level << ".  Sleeping for one polling cycle..."
                 << std::endl;
      sleepMilliseconds(kPollingCycleMs);
    }
    verboseLog << "Attempting to create queue file..." << std::endl;
    if (createLockFileExclusive(level)) {
      verboseLog << "queue file created at level " << level << std::endl;
      if (!touchLockFile(level)) warningLog << "failed to touch lock file!" << std::endl;
      return level;
    }
    // Another process was faster. Whatever the error: some network file
    // systems answer the loser of an exclusive create with EPERM.
    if (timeout == 0) return -1;
    ++level;
  }
}

std::string koDirectoryExclusiveLock::getLockFileName(int level) const {
  std::ostringstream name;
  name << directory_ << "/.deploy_lock." << level;
  return name.str();
}

bool koDirectoryExclusiveLock::openFile(int level, int flags) const {
  if (hostOpenAndClose(getLockFileName(level).c_str(), flags, 0777) == 0) return true;
  if (koIsDirectory(directory_.c_str())) return false;
  throwNoSuchDirectory(directory_);
}

bool koDirectoryExclusiveLock::createLockFileExclusive(int level) const {
  return openFile(level, O_WRONLY | O_CREAT | O_EXCL);
}

bool koDirectoryExclusiveLock::lockFileExists(int level) const {
  return openFile(level, O_RDONLY);
}

bool koDirectoryExclusiveLock::touchLockFile(int level) {
  const int value = touchValue_++;
  if (writeIntToFile(getLockFileName(level).c_str(), value)) return true;
  if (koIsDirectory(directory_.c_str())) return false;
  throwNoSuchDirectory(directory_);
}

bool koDirectoryExclusiveLock::removeLockFile(int level) const {
  if (hostRemoveFile(getLockFileName(level).c_str()) >= 0) return true;
  if (koIsDirectory(directory_.c_str())) return false;
  throwNoSuchDirectory(directory_);
}

bool koDirectoryExclusiveLock::removeLockFileWithTenacity(int level, unsigned long timeout,
                                                          double deadline) const {
  for (;;) {
    if (removeLockFile(level)) return true;
    if (timeout != kInfiniteTimeout && hostRealtime() >= deadline) return false;
    sleepMilliseconds(1);
  }
}

bool koDirectoryExclusiveLock::removeLockFileWithTenacity(int level) const {
  return removeLockFileWithTenacity(level, 20, hostRealtime() + 0.02);
}
