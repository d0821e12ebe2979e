// The directory exclusive lock: a queue of levels, walked down one level at
// a time (see exclusive_lock.h, and the notes at the top of fs_lock.cpp).
#include "fs_lock/exclusive_lock.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <new>
#include <sstream>
#include <vector>

#include "host/exception_list.h"
#include "host/host.h"

using korvel_protocol::kLeaseSeconds;
using korvel_protocol::kPollMs;
using korvel_protocol::kRefreshPeriodMs;
using Zentha::System::TimeUnit;

namespace {

typedef koDirectoryExclusiveLock::Impl::ScopedLock ScopedLock;

}  // namespace

const double koDirectoryExclusiveLock::STALE_TIMEOUT_SEC = korvel_protocol::kStaleSeconds;

// Keeps ".deploy_lock.0" fresh while the lock is held: a rewrite every 5 s,
// after the wait (the file was just written), retried for up to 2.5 s when
// it fails. Runs with processMutex_ held, which the waits release.
class koDirectoryExclusiveLock::Impl::RefreshLoop {
 public:
  explicit RefreshLoop(Impl* owner) : owner_(owner) {}

  void operator()(koSynchronizedLoopContext& context) const {
    if (LoopWait::waitFor(context, kRefreshPeriodMs / 1000.0)) return;  // stopping
    verboseLog << "Touching lock file..." << std::endl;
    Holdings failed = refreshOnce({owner_->holding_}, owner_->numbers_);
    if (failed.empty()) verboseLog << "Lock successfully refreshed" << std::endl;
    retryRefresh(std::move(failed), owner_->numbers_, context);
  }

 private:
  Impl* owner_;
};

// One acquisition's way down the queue: join at the first free level, then
// step down one level at a time, taking over a level whose owner is dead,
// until level 0 is ours. A queue place that was lost (this process was
// stopped for longer than its lease) starts the walk again. REQUIRES: the
// lock's processMutex_ is held throughout.
class koDirectoryExclusiveLock::Impl::QueueWalk {
 public:
  QueueWalk(Impl& lock, const Deadline& deadline, bool singleAttempt)
      : lock_(lock), deadline_(deadline), singleAttempt_(singleAttempt) {}

  // True when level 0 is ours; it holds written() since a write that
  // started at since(). False: errno says why.
  bool run() {
    for (;;) {
      if (!joinQueue()) return false;
      if (level_ > 0 && !singleAttempt_) {
        if (deadline_.passed()) return giveUp(ETIMEDOUT);
        sleepWithin(kPollMs, deadline_);
      }
      if (walkDown()) {
        // Stopped since level 0 became ours: it may be somebody else's now.
        if (hostMonotonic() - since_ < kLeaseSeconds) return true;
        placeLost("not refreshed for 14 s");
      }
      if (!placeLost_) return false;  // given up
      placeLost_ = false;
    }
  }

  int written() const { return written_; }
  double since() const { return since_; }

 private:
  enum class Step { kDown, kWait, kFail, kLost };

  // Claims the first free level, counting up from 0.
  bool joinQueue() {
    verboseLog << "Queuing for lock acquire in directory " << lock_.directory_ << std::endl;
    int level = 0;
    for (;;) {
      while (exists(level)) {
        verboseLog << "Lock file exists at level " << level << ".  Going to next level..."
                   << std::endl;
        ++level;
      }
      if (!singleAttempt_) {
        if (deadline_.passed()) return fail(timedOut());
        // Waiters already queued go first.
        verboseLog << "No lock found at level " << level << ".  Sleeping for one polling cycle..."
                   << std::endl;
        sleepWithin(kPollMs, deadline_);
      }
      verboseLog << "Attempting to create queue file..." << std::endl;
      const double start = hostMonotonic();
      const int value = lock_.numbers_.next();
      switch (createLockFile(lock_.directory_, lock_.levelFile(level), 0777, value)) {
        case Create::kMade:
          verboseLog << "queue file created at level " << level << std::endl;
          level_ = level;
          written_ = value;
          since_ = start;
          return true;
        case Create::kTaken:  // another process was faster
          if (singleAttempt_) return fail(ETIMEDOUT);
          ++level;
          break;
        case Create::kRefused:
          return refused(level);
        case Create::kTransient:
          transient(level);
          if (singleAttempt_ || deadline_.passed()) return fail(timedOut());
          sleepWithin(backOff_, deadline_);
          break;
      }
    }
  }

  // From level_ down to 0. False when given up (placeLost_ unset) or when
  // the queue place was lost (placeLost_ set: the caller starts again).
  bool walkDown() {
    while (level_ > 0) {
      switch (stepDown()) {
        case Step::kDown:
          continue;
        case Step::kFail:
        case Step::kLost:
          return false;
        case Step::kWait:
          break;
      }
      if (singleAttempt_ || deadline_.passed()) return giveUp(timedOut());
      verboseLog << lock_.name_ << ": Sleeping" << std::endl;
      sleepWithin(backOff_, deadline_);
      if (!keepPlace()) return false;
    }
    return true;
  }

  // One try at the level below.
  Step stepDown() {
    const int target = level_ - 1;
    verboseLog << lock_.name_ << ": Trying to acquire level " << target << std::endl;
    const double start = hostMonotonic();
    const int value = lock_.numbers_.next();
    switch (createLockFile(lock_.directory_, lock_.levelFile(target), 0777, value)) {
      case Create::kMade:
        verboseLog << lock_.name_ << ": Success! removing level " << level_ << std::endl;
        moveDown(value, start, 723);  // call-site number kept: scripts match it
        return Step::kDown;
      case Create::kRefused:
        refused(target);
        giveUp(errno);
        return Step::kFail;
      case Create::kTransient:
        transient(target);
        return Step::kWait;
      case Create::kTaken:
        break;
    }
    backOff_ = kPollMs;
    verboseLog << lock_.name_ << ": Could not acquire; trying to detect stale lock at level "
               << target << std::endl;
    // Judged afresh each time: a judgement from before a long stop of this
    // process could be about a file somebody else has taken over since.
    koStaleLockRemover remover;
    remover.update(lock_.levelFile(target).c_str());
    if (remover.staleFiles.empty()) return Step::kWait;
    return takeOver(target);
  }

  // The level below belongs to a dead holder: write our number into it.
  // Only the owner of the level above may, so the own place is made sure of
  // first: the takeover follows it at once.
  Step takeOver(int target) {
    if (!keepPlace()) return Step::kLost;
    const std::string file = lock_.levelFile(target);
    const double start = hostMonotonic();
    const int value = lock_.numbers_.next();
    if (overwrite(file, value)) {
      moveDown(value, start, 0);
      return Step::kDown;
    }
    // Gone meanwhile, or not ours to write: claim the level afresh.
    if (errno != ENOENT && !removeFileWithTenacity(file.c_str(), deadline_.capped(0.02))) {
      // Names the current level, as this warning always has; the call-site
      // number is kept: scripts match this line.
      warningLog << "FS_LOCK: failed to remove " << lock_.levelFile(level_) << "(" << 735 << ")"
                 << std::endl;
      giveUp(errno);
      return Step::kFail;
    }
    switch (createLockFile(lock_.directory_, file, 0777, value)) {
      case Create::kMade:
        moveDown(value, start, 0);
        return Step::kDown;
      case Create::kRefused:
        refused(target);
        giveUp(errno);
        return Step::kFail;
      case Create::kTaken:
      case Create::kTransient:
        break;
    }
    return Step::kWait;
  }

  // The level below is ours, holding value: give up the current one. If
  // that was taken over meanwhile, its new owner queues behind us.
  void moveDown(int value, double start, int callSite) {
    const std::string file = lock_.levelFile(level_);
    if (removeIfOursWithin(file, written_, deadline_.capped(kReleaseEffortSeconds)) ==
            Owned::kError &&
        callSite != 0) {
      warningLog << "FS_LOCK: failed to remove " << file << "(" << callSite << ")" << std::endl;
    }
    --level_;
    written_ = value;
    since_ = start;
  }

  // Rewrites the own queue file. False when the place was lost: not
  // refreshed for the lease's time, or taken over.
  bool keepPlace() {
    if (hostMonotonic() - since_ >= kLeaseSeconds) return placeLost("not refreshed for 14 s");
    const double start = hostMonotonic();
    const int value = lock_.numbers_.next();
    switch (rewriteIfOurs(lock_.levelFile(level_), written_, value)) {
      case Owned::kYes:
        written_ = value;
        since_ = start;
        return true;
      case Owned::kLost:
        return placeLost("the file was taken over");
      case Owned::kError:
        break;  // again at the next poll; the lease keeps running
    }
    return true;
  }

  bool placeLost(const char* why) {
    warningLog << "FS_LOCK: lost the queue place " << lock_.levelFile(level_) << ": " << why
               << std::endl;
    level_ = -1;
    placeLost_ = true;
    return false;
  }

  // A missing directory reads as a free level here; the create that
  // follows finds it gone.
  bool exists(int level) const {
    return hostOpenAndClose(lock_.levelFile(level).c_str(), O_RDONLY, 0777) == 0;
  }

  bool refused(int level) {
    const int error = errno;
    warningLog << "FS_LOCK: cannot create " << lock_.levelFile(level) << ": " << errorText(error)
               << std::endl;
    return fail(error);
  }

  // A create that failed for now: said once per walk, retried with
  // back-off; a wait that ends meanwhile reports this error.
  void transient(int level) {
    transientError_ = errno;
    if (!transientWarned_) {
      warningLog << "FS_LOCK: cannot create " << lock_.levelFile(level)
                 << " for now: " << errorText(transientError_) << std::endl;
      transientWarned_ = true;
    }
    backOff_ = std::min(2 * backOff_, kMaxBackOffMs);
  }

  int timedOut() const { return transientError_ != 0 ? transientError_ : ETIMEDOUT; }

  // Leaves the queue, removing the own queue file if it is still ours.
  bool giveUp(int error) {
    if (level_ > 0) {
      const std::string file = lock_.levelFile(level_);
      if (removeIfOursWithin(file, written_, Deadline::afterSeconds(0.02)) == Owned::kError) {
        // The call-site number is kept: scripts match this line.
        warningLog << "FS_LOCK: failed to remove " << file << "(" << 768 << ")" << std::endl;
      }
    }
    level_ = -1;
    return fail(error);
  }

  static bool fail(int error) {
    errno = error;
    return false;
  }

  Impl& lock_;
  const Deadline& deadline_;
  const bool singleAttempt_;
  int level_ = -1;
  int written_ = 0;
  double since_ = 0.0;
  bool placeLost_ = false;  // the walk must start again
  unsigned backOff_ = kPollMs;
  int transientError_ = 0;
  bool transientWarned_ = false;
};

koDirectoryExclusiveLock::Impl::Impl(std::string directory, const char* name)
    : directory_(std::move(directory)),
      name_(name != nullptr ? name : ""),
      holding_(std::make_shared<LockHolding>()),
      refreshFunctor_(new RefreshLoop(this)),
      pool_(koDirectoryLockThreadPool()),
      refreshLoop_(new LoopThread(processMutex_, boost::ref(*refreshFunctor_), pool_.get())) {}

koDirectoryExclusiveLock::Impl::~Impl() {
  try {
    holding_->close();
    if (holding_->heldElsewhere()) {
      // A forked child: the refresh thread and the file are its parent's.
      refreshLoop_.release();     // NOLINT(bugprone-unused-return-value): left to the exit
      refreshFunctor_.release();  // NOLINT(bugprone-unused-return-value)
      return;
    }
    for (;;) {
      {
        ScopedLock lock(processMutex_);
        if (acquireCount_ == 0) break;
      }
      if (!releaseUntil(Deadline::forever())) break;
    }
  } catch (...) {
    // A destructor must not throw: what could not be released goes stale.
  }
  refreshLoop_.reset();
}

bool koDirectoryExclusiveLock::Impl::acquireUntil(const Deadline& deadline, bool singleAttempt,
                                                  bool noRefreshLoop) {
  ScopedLock lock(processMutex_, boost::defer_lock);
  if (!lockBy(lock, deadline)) {
    errno = ETIMEDOUT;
    return false;
  }
  return acquireHeld(deadline, singleAttempt, noRefreshLoop, lock);
}

bool koDirectoryExclusiveLock::Impl::releaseUntil(const Deadline& deadline) {
  ScopedLock lock(processMutex_, boost::defer_lock);
  if (!lockBy(lock, deadline)) {
    errno = ETIMEDOUT;
    return false;
  }
  return releaseHeld(deadline, lock);
}

bool koDirectoryExclusiveLock::Impl::acquireHeld(const Deadline& deadline, bool singleAttempt,
                                                 bool noRefreshLoop, ScopedLock& lock) {
  if (acquireCount_ > 0) {
    // A lock already lost protects nothing more: it must be released first.
    if (holding_->lost()) {
      errno = ENOLCK;
      return false;
    }
    ++acquireCount_;
    return true;
  }
  QueueWalk walk(*this, deadline, singleAttempt);
  if (!walk.run()) return false;
  acquireCount_ = 1;
  holding_->hold(levelFile(0), walk.written(), walk.since());
  if (!noRefreshLoop) {
    refreshLoop_->start(lock);
    refreshRunning_ = true;
  }
  return true;
}

bool koDirectoryExclusiveLock::Impl::releaseHeld(const Deadline& deadline, ScopedLock& lock) {
  if (acquireCount_ == 0) {
    errno = EPERM;
    return false;
  }
  if (acquireCount_ > 1) {
    --acquireCount_;
    return true;
  }
  acquireCount_ = 0;
  if (holding_->heldElsewhere()) {  // a forked child: all of it is the parent's
    errno = EPERM;
    return false;
  }
  if (refreshRunning_) {
    refreshLoop_->stop(lock);
    refreshRunning_ = false;
  }
  const std::string file = levelFile(0);
  const Owned removed =
      releaseHolding(*holding_, directory_, deadline.capped(kReleaseEffortSeconds));
  if (removed == Owned::kYes) return true;
  if (directoryGone(directory_)) throwNoSuchDirectory(directory_);
  if (removed == Owned::kLost) {
    errno = ENOLCK;
    return false;
  }
  const int error = errno;
  warningLog << "FS_LOCK: cannot remove " << file << ": " << errorText(error) << std::endl;
  errno = error;
  return false;
}

bool koDirectoryExclusiveLock::Impl::tryAtOnce() {
  ScopedLock lock(processMutex_, boost::try_to_lock);
  if (!lock.owns_lock()) return false;
  if (acquireCount_ > 0) {
    if (holding_->lost()) return false;
    ++acquireCount_;
    return true;
  }
  const double start = hostMonotonic();
  const int value = numbers_.next();
  try {
    if (createLockFile(directory_, levelFile(0), 0777, value) != Create::kMade) return false;
  } catch (const koNoSuchDirectory&) {
    return false;  // whoever goes on finds the directory gone
  }
  acquireCount_ = 1;
  holding_->hold(levelFile(0), value, start);
  return true;
}

std::string koDirectoryExclusiveLock::Impl::levelFile(int level) const {
  std::ostringstream name;
  name << directory_ << korvel_protocol::kLevelPrefix << level;
  return name.str();
}

// ---- The public face ----

koDirectoryExclusiveLock::koDirectoryExclusiveLock(std::string directory, const char* name)
    : impl_(new Impl(std::move(directory), name)) {}

koDirectoryExclusiveLock::~koDirectoryExclusiveLock() = default;

bool koDirectoryExclusiveLock::acquire(unsigned long timeout, const TimeUnit& unit,
                                       bool noRefreshLoop) & {
  return koOnlyLet<koNoSuchDirectory, koThread::StartError, std::bad_alloc>([&] {
    return impl_->acquireUntil(Deadline::after(timeout, unit), timeout == 0, noRefreshLoop);
  });
}

bool koDirectoryExclusiveLock::release(unsigned long timeout, const TimeUnit& unit) & {
  return koOnlyLet<koNoSuchDirectory, koThread::StartError, std::bad_alloc>(
      [&] { return impl_->releaseUntil(Deadline::after(timeout, unit)); });
}

bool koDirectoryExclusiveLock::release() & {
  return koOnlyLet<koNoSuchDirectory, koThread::StartError, std::bad_alloc>(
      [&] { return impl_->releaseUntil(Deadline::afterSeconds(kReleaseEffortSeconds)); });
}

bool koDirectoryExclusiveLock::lost() const {
  return impl_->holding().lost();
}

void koDirectoryExclusiveLock::setLostHandler(std::unique_ptr<korvel_detail::LostHandler> handler) {
  impl_->holding().setHandler(std::move(handler));
}

// The standard interfaces: the threads' lock first; on a false result or an
// exception it is let go again. unlock() must not throw.

bool koDirectoryExclusiveLock::tryLockFor(unsigned long ms) {
  return standardTryLock(
      ScopedLock(impl_->threads(), boost::defer_lock), ms,
      [this](unsigned long left) { return acquire(left, TimeUnit::sMilliseconds(), false); },
      impl_->directory(),
      ms == koForever ? "koDirectoryExclusiveLock::lock" : "koDirectoryExclusiveLock::try_lock");
}

void koDirectoryExclusiveLock::lock() {
  if (tryLockFor(koForever)) return;
  lockFailed("koDirectoryExclusiveLock::lock");
}

bool koDirectoryExclusiveLock::try_lock() {
  return tryLockFor(0);
}

void koDirectoryExclusiveLock::unlock() {
  releaseQuietly([this] { return release(koForever, TimeUnit::sSeconds()); });
  impl_->threads().unlock();
}
