// The directory exclusive lock: a queue of levels, walked down one level at
// a time (see exclusive_lock.h, and the notes at the top of fs_lock.cpp).
#include "fs_lock/exclusive_lock.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <climits>
#include <new>
#include <vector>

#include "fs_lock/watch.h"
#include "host/exception_list.h"
#include "host/host.h"

using korvel_protocol::kLeaseSeconds;
using korvel_protocol::kPollMs;
using korvel_protocol::kRefreshPeriodMs;
using Zentha::System::TimeUnit;

namespace {

typedef koDirectoryExclusiveLock::Impl::ScopedLock ScopedLock;

// Upper levels looked at after each acquisition, for queue places that
// killed waiters left.
constexpr int kSweptLevels = 64;
// The sweep ends at this many free levels in a row.
constexpr int kSweptGaps = 2;

}  // namespace

const double koDirectoryExclusiveLock::STALE_TIMEOUT_SEC = korvel_protocol::kStaleSeconds;

// Keeps ".deploy_lock.0" fresh while the lock is held: a rewrite every 5 s,
// retried for up to 2.5 s when it fails. Runs with processMutex_ held, which
// the waits release. After a release the thread lingers for a period, so
// that a holder taking the lock again soon (the common case under
// contention) needs no new thread and no handshake with one; then it ends.
// Nothing wakes it: a holding that begins while it waits is refreshed when
// the wait ends, at most a period after it began.
class koDirectoryExclusiveLock::Impl::RefreshLoop {
 public:
  explicit RefreshLoop(Impl* owner) : owner_(owner) {}

  void operator()(koSynchronizedLoopContext& context) const {
    Impl& o = *owner_;
    const double period = kRefreshPeriodMs / 1000.0;
    if (!o.refreshWanted_) {
      if (o.refreshLingered_) {
        o.refreshEnded_ = true;
        context.breakLoop();
      }
      o.refreshLingered_ = true;
      LoopWait::waitFor(context, period);
      return;
    }
    if (!o.refreshLingered_ && LoopWait::waitFor(context, untilRefresh({o.holding_}))) {
      return;  // stopping
    }
    o.refreshLingered_ = false;
    if (!o.refreshWanted_) return;  // released meanwhile
    verboseLog << "Touching lock file..." << std::endl;
    Holdings failed = refreshOnce({o.holding_}, o.numbers_);
    if (failed.empty()) verboseLog << "Lock successfully refreshed" << std::endl;
    retryRefresh(std::move(failed), o.numbers_, context);
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
  // holderPatience: give up once the holder of level 0 has been seen
  // unchanged this long (0: no such limit).
  QueueWalk(Impl& lock, const Deadline& deadline, bool singleAttempt, double holderPatience)
      : lock_(lock),
        deadline_(deadline),
        singleAttempt_(singleAttempt),
        holderPatience_(holderPatience),
        judge_(lock.judge_) {
    judge_.deadline = deadline;
  }

  // True when level 0 is ours; written() is how, by a write that started at
  // since(). False: errno says why.
  bool run() {
    for (;;) {
      if (!joinQueue()) return false;
      if (level_ > 0 && !singleAttempt_) {
        if (deadline_.passed()) return giveUp(ETIMEDOUT);
        pause();
      }
      if (walkDown()) {
        // Stopped since level 0 became ours: it may be somebody else's now.
        if (hostMonotonic() - since_ < kLeaseSeconds) return true;
        placeLost("not refreshed for 14 s", true);
      }
      if (!placeLost_) return false;  // given up
      placeLost_ = false;
    }
  }

  const FileState& written() const { return written_; }
  double since() const { return since_; }

 private:
  enum class Step { kDown, kWait, kFail, kLost };
  enum class Place { kKept, kUnsure, kLost };

  // Claims the first free level, counting up from 0. Waiters already
  // queued go first: a free level with a waiter right above it is that
  // waiter's next step, so the newcomer waits one poll for it to move in
  // (on this host, only until it does), then looks again from there: it
  // follows the gap up a queue on the move, and joins behind it. A free
  // level with nobody above, or one the waiter above did not take within
  // the poll, is claimed at once.
  bool joinQueue() {
    verboseLog << "Queuing for lock acquire in directory " << lock_.directory_ << std::endl;
    int level = 0;
    for (int yieldedAt = -1;;) {
      mark_ = FileWatch::mark();
      while (taken(level)) {
        verboseLog << "Lock file exists at level " << level << ".  Going to next level..."
                   << std::endl;
        ++level;
      }
      if (!singleAttempt_) {
        if (deadline_.passed()) return fail(timedOut());
        const int above = taken(level + 1) ? level + 1 : taken(level + 2) ? level + 2 : 0;
        if (level != yieldedAt && above > 0) {
          verboseLog << "No lock found at level " << level << ".  Sleeping for one polling cycle..."
                     << std::endl;
          // Until the waiter above leaves its place, moving down.
          sleepWhileThere(above, kPollMs);
          yieldedAt = level;
          continue;
        }
      }
      verboseLog << "Attempting to create queue file..." << std::endl;
      const double start = hostMonotonic();
      switch (createLockFile(lock_.directory_, lock_.levelFile(level), 0777, lock_.numbers_.next(),
                             &written_)) {
        case Create::kMade:
          verboseLog << "queue file created at level " << level << std::endl;
          level_ = level;
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
      pause();
      // Woken early, within a poll of the last rewrite: the place is as
      // fresh as the poll keeps it.
      if (hostMonotonic() - since_ >= kPollMs / 1000.0 && keepPlace() == Place::kLost) {
        return false;
      }
    }
    return true;
  }

  // One try at the level below.
  Step stepDown() {
    const int target = level_ - 1;
    mark_ = FileWatch::mark();
    verboseLog << lock_.name_ << ": Trying to acquire level " << target << std::endl;
    const double start = hostMonotonic();
    FileState made;
    // Right after a step down the level below is most often the waiter's
    // ahead, just moved in: a look costs less than a create or a rename,
    // which the directory's writers queue for.
    const bool lookFirst = stepped_ && !singleAttempt_;
    stepped_ = false;
    Create attempt = Create::kTaken;
    if (!lookFirst || !taken(target)) {
      attempt = moveWhole(target);
      if (attempt == Create::kRefused) {
        attempt = createLockFile(lock_.directory_, lock_.levelFile(target), 0777,
                                 lock_.numbers_.next(), &made);
      }
    }
    switch (attempt) {
      case Create::kMade:
        if (moved_) {
          moved_ = false;
        } else {
          verboseLog << lock_.name_ << ": Success! removing level " << level_ << std::endl;
          moveDown(made, start, 723);  // call-site number kept: scripts match it
        }
        stepped_ = true;
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
    // Woken early by a change: staleness is judged at the poll's pace, and
    // what is there now is new, or was judged a moment ago.
    if (!singleAttempt_ && hostMonotonic() - judged_ < kPollMs / 1000.0) return Step::kWait;
    judged_ = hostMonotonic();
    verboseLog << lock_.name_ << ": Could not acquire; trying to detect stale lock at level "
               << target << std::endl;
    const std::string file = lock_.levelFile(target);
    FileState seen;
    switch (judge_.judge(file, &seen)) {
      case koStaleLockRemover::Verdict::kStale:
        return takeOver(Judgement(file, seen));
      case koStaleLockRemover::Verdict::kLive:
        if (target == 0 && holderPatience_ > 0 && judge_.watchedFor(file) > holderPatience_) {
          giveUp(ETIMEDOUT);  // a holder that stays: not worth waiting for
          return Step::kFail;
        }
        break;
      case koStaleLockRemover::Verdict::kMissing:  // gone meanwhile: again at once
      case koStaleLockRemover::Verdict::kForeign:  // named once; only its removal helps
      case koStaleLockRemover::Verdict::kError:
        break;
    }
    return Step::kWait;
  }

  // Where the file system renames without replacing, the own place moves
  // down whole: the level below appears as the own place goes, with the
  // number and times it had, in one step instead of a create, a write and
  // a removal. Only a place rewritten within the last poll moves (nobody can
  // have taken it over since); its lease runs on from that write. kMade:
  // moved; kTaken: the level below is taken; kRefused: not done, make the
  // level below instead.
  Create moveWhole(int target) {
    if (!lock_.movesWhole() || hostMonotonic() - since_ >= kPollMs / 1000.0) {
      return Create::kRefused;
    }
    if (hostRenameExclusive(lock_.levelFile(level_).c_str(), lock_.levelFile(target).c_str()) ==
        0) {
      verboseLog << lock_.name_ << ": Success! moved from level " << level_ << std::endl;
      --level_;
      moved_ = true;
      return Create::kMade;
    }
    if (errno == EEXIST) return Create::kTaken;
    // Not on this file system (EINVAL, ENOSYS), or something to be found
    // out the usual way (a place gone, a directory gone).
    if (errno == EINVAL || errno == ENOSYS || errno == ENOTSUP) lock_.movesWhole_ = -1;
    return Create::kRefused;
  }

  // The level below belongs to a dead holder: write our number into it.
  // Only the owner of the level above may, so the own place is made sure of
  // right before the act (the judgement checks that).
  Step takeOver(const Judgement& stale) {
    const int target = level_ - 1;
    const Entitled entitled([this] { return keepPlace() == Place::kKept; },
                            [this] { return hostMonotonic() - since_ < kLeaseSeconds; });
    double start = 0.0;
    FileState written;
    Act act = stale.writeOver(lock_.numbers_.next(), entitled, &written, &start);
    if (act == Act::kError) {
      // Not ours to write (another user's file): removed and made afresh.
      act = judge_.removeStaleFile(stale, entitled);
      if (act == Act::kDone) return createAfresh(target, hostMonotonic());
    }
    switch (act) {
      case Act::kDone:
        judge_.forget(stale);
        moveDown(written, start, 0);
        return Step::kDown;
      case Act::kNotEntitled:
        return placeLost_ ? Step::kLost : Step::kWait;
      case Act::kChanged:  // judged afresh at the next poll
      case Act::kError:    // named once; waited out until the deadline
        break;
    }
    return Step::kWait;
  }

  Step createAfresh(int target, double start) {
    FileState made;
    switch (createLockFile(lock_.directory_, lock_.levelFile(target), 0777, lock_.numbers_.next(),
                           &made)) {
      case Create::kMade:
        moveDown(made, start, 0);
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

  // The level below is ours, as `made`: give up the current one. If that
  // was taken over meanwhile, its new owner queues behind us.
  void moveDown(const FileState& made, double start, int callSite) {
    if (!leave(lock_.levelFile(level_), Deadline::afterSeconds(kReleaseEffortSeconds)) &&
        callSite != 0) {
      warningLog << "FS_LOCK: failed to remove " << lock_.levelFile(level_) << "(" << callSite
                 << ")" << std::endl;
    }
    --level_;
    written_ = made;
    since_ = start;
  }

  // Removes the own queue file if it is still as written; false when it
  // resisted until the deadline. One rewritten within the last poll is ours
  // without a look: nobody can have found it unchanged for long since. (A
  // queue place lost by mistake costs its owner its place, never the lock.)
  bool leave(const std::string& file, const Deadline& deadline) {
    if (hostMonotonic() - since_ < kPollMs / 1000.0 && hostUnlink(file.c_str()) == 0) return true;
    const Judgement ours(file, written_);
    const Entitled always([] { return true; });
    Act act;
    while ((act = ours.remove(always)) == Act::kError && !isRefusal(errno) && !deadline.passed()) {
      sleepWithin(1, deadline);
    }
    return act != Act::kError;
  }

  // Rewrites the own queue file. kLost when the place was lost: not
  // refreshed for the lease's time, or taken over. kUnsure when it could
  // not be rewritten (again at the next poll; the lease keeps running).
  Place keepPlace() {
    if (hostMonotonic() - since_ >= kLeaseSeconds) {
      placeLost("not refreshed for 14 s", true);
      return Place::kLost;
    }
    double start = 0.0;
    FileState written;
    const Entitled always([] { return true; });
    switch (Judgement(lock_.levelFile(level_), written_)
                .writeOver(lock_.numbers_.next(), always, &written, &start)) {
      case Act::kDone:
        written_ = written;
        since_ = start;
        return Place::kKept;
      case Act::kChanged:
        placeLost("the file was taken over", false);
        return Place::kLost;
      case Act::kNotEntitled:
      case Act::kError:
        break;
    }
    return Place::kUnsure;
  }

  // One poll, cut short when the level below goes (on this host).
  void pause() { sleepWhileThere(level_ - 1, backOff_); }

  // Sleeps for ms, less when the file at level changes after the last look
  // began.
  void sleepWhileThere(int level, unsigned ms) {
    watch_.sleepWhileThere(lock_.levelFile(level), ms, deadline_, mark_);
  }

  // The own place is given up. One whose lease ran out is removed if it is
  // still as written: nobody took it over, and it must not wait to go stale.
  void placeLost(const char* why, bool stillOurs) {
    warningLog << "FS_LOCK: lost the queue place " << lock_.levelFile(level_) << ": " << why
               << std::endl;
    if (stillOurs) leave(lock_.levelFile(level_), Deadline::afterSeconds(0.02));
    level_ = -1;
    placeLost_ = true;
  }

  // Something has the name: a queue place, a holder, or a foreign object.
  // A directory that cannot be looked into reads as free here; the create
  // that follows says why.
  bool taken(int level) const {
    FileState seen;
    const Look look = lookAtName(lock_.levelFile(level), &seen);
    return look == Look::kFile || look == Look::kForeign;
  }

  bool refused(int level) {
    const int error = errno;
    warningLog << "FS_LOCK: cannot create " << lock_.levelFile(level) << ": " << errorText(error)
               << std::endl;
    return fail(error);
  }

  // A create that failed for now: said at the first failure and once a
  // minute after that, retried with back-off; a wait that ends meanwhile
  // reports this error.
  void transient(int level) {
    transientError_ = errno;
    const double now = hostMonotonic();
    if (transientWarned_ == 0.0 || now - transientWarned_ >= 60.0) {
      warningLog << "FS_LOCK: cannot create " << lock_.levelFile(level)
                 << " for now: " << errorText(transientError_) << "; still trying" << std::endl;
      transientWarned_ = now;
    }
    backOff_ = std::min(2 * backOff_, kMaxBackOffMs);
  }

  int timedOut() const { return transientError_ != 0 ? transientError_ : ETIMEDOUT; }

  // Leaves the queue, removing the own queue file if it is still ours.
  bool giveUp(int error) {
    if (level_ > 0 && !leave(lock_.levelFile(level_), Deadline::afterSeconds(0.02))) {
      // The call-site number is kept: scripts match this line.
      warningLog << "FS_LOCK: failed to remove " << lock_.levelFile(level_) << "(" << 768 << ")"
                 << std::endl;
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
  const double holderPatience_;
  koStaleLockRemover& judge_;  // the lock's: its sightings last from walk to walk
  FileWatch watch_;            // the file in the way, while waiting
  uint64_t mark_ = 0;          // where the changes stood as the last look began
  int level_ = -1;
  FileState written_;  // the own place as last written
  double since_ = 0.0;
  double judged_ = 0.0;     // the last judgement of the level below
  bool moved_ = false;      // the last step down was a move whole
  bool stepped_ = false;    // the last step was down
  bool placeLost_ = false;  // the walk must start again
  unsigned backOff_ = kPollMs;
  int transientError_ = 0;
  double transientWarned_ = 0.0;
};

koDirectoryExclusiveLock::Impl::Impl(std::string directory, const char* name)
    : directory_(absolutePath(std::move(directory))),
      name_(name != nullptr ? name : ""),
      creator_(hostProcessId()),
      holding_(std::make_shared<LockHolding>()),
      refreshFunctor_(new RefreshLoop(this)),
      pool_(koDirectoryLockThreadPool()),
      refreshLoop_(new LoopThread(processMutex_, boost::ref(*refreshFunctor_), pool_.get())) {}

koDirectoryExclusiveLock::Impl::~Impl() {
  try {
    holding_->close();
    if (creator_ != hostProcessId()) {
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
                                                  bool noRefreshLoop, double holderPatience) {
  ScopedLock lock(processMutex_, boost::defer_lock);
  if (!lockBy(lock, deadline)) {
    errno = ETIMEDOUT;
    return false;
  }
  return acquireHeld(deadline, singleAttempt, noRefreshLoop, holderPatience, lock);
}

bool koDirectoryExclusiveLock::Impl::releaseUntil(const Deadline& deadline) {
  ScopedLock lock(processMutex_, boost::defer_lock);
  if (!lockBy(lock, deadline)) {
    errno = ETIMEDOUT;
    return false;
  }
  return releaseHeld(deadline, lock);
}

bool koDirectoryExclusiveLock::Impl::usable() const {
  if (directory_.empty()) {
    errno = EINVAL;
    return false;
  }
  if (creator_ != hostProcessId()) {  // a forked child: the threads are the parent's
    errno = EPERM;
    return false;
  }
  // The stale test makes fresh files beside the lock files.
  if (directory_.size() + 1 + kLongestFreshName >= PATH_MAX) {
    warningLog << "FS_LOCK: the path " << directory_ << " is too long for the lock" << std::endl;
    errno = ENAMETOOLONG;
    return false;
  }
  return true;
}

bool koDirectoryExclusiveLock::Impl::acquireHeld(const Deadline& deadline, bool singleAttempt,
                                                 bool noRefreshLoop, double holderPatience,
                                                 ScopedLock& lock) {
  if (!usable()) return false;
  if (acquireCount_ > 0) {
    // A lock already lost protects nothing more: it must be released first.
    if (holding_->lost()) {
      errno = ENOLCK;
      return false;
    }
    ++acquireCount_;
    return true;
  }
  QueueWalk walk(*this, deadline, singleAttempt, holderPatience);
  if (!walk.run()) {
    judge_.remember();  // keeps errno
    return false;
  }
  acquireCount_ = 1;
  holding_->hold(levelFile(0), walk.written(), walk.since());
  if (!noRefreshLoop) startRefresh(lock);
  sweepUpperLevels();
  // The lease may have run out in the steps since level 0 became ours (a
  // hung call, a stop): an acquisition that ends lost has not succeeded.
  if (holding_->mayWrite()) return true;
  releaseHeld(Deadline::afterSeconds(0), lock);
  errno = ETIMEDOUT;
  return false;
}

void koDirectoryExclusiveLock::Impl::startRefresh(ScopedLock& lock) {
  refreshWanted_ = true;
  if (refreshRunning_ && !refreshEnded_) return;  // lingering, or ending the last holding's period
  if (refreshRunning_) refreshLoop_->stop(lock);  // ended by itself: joined
  refreshRunning_ = false;
  refreshEnded_ = false;
  refreshLingered_ = false;
  try {
    refreshLoop_->start(lock);
  } catch (...) {
    refreshWanted_ = false;
    throw;
  }
  refreshRunning_ = true;
}

void koDirectoryExclusiveLock::Impl::sweepUpperLevels() {
  // A place is worth judging only once it looks 15 s old, so a holder that
  // takes the lock again and again sweeps once a refresh period: the cost
  // of a look at every waiter's place stays off most handoffs.
  const double sweptAgo = hostMonotonic() - lastSweep_;
  if (lastSweep_ != 0.0 && sweptAgo >= 0 && sweptAgo < kRefreshPeriodMs / 1000.0) return;
  lastSweep_ = hostMonotonic();
  const double now = hostRealtime();
  int gaps = 0;  // killed waiters leave runs of places, with few gaps
  for (int level = 1; level <= kSweptLevels && gaps < kSweptGaps; ++level) {
    const std::string file = levelFile(level);
    FileState seen;
    const Look look = lookAtName(file, &seen);
    gaps = look == Look::kMissing ? gaps + 1 : 0;
    // A waiter rewrites its place every poll: only a file that looks old
    // by this host's clock is worth judging.
    if (look != Look::kFile ||
        now - static_cast<double>(seen.mtimeSeconds) < korvel_protocol::kObservationSeconds) {
      continue;
    }
    if (judge_.judge(file, &seen) == koStaleLockRemover::Verdict::kStale) {
      judge_.removeStaleFile(Judgement(file, seen),
                             Entitled([this] { return holding_->mayWrite(); }));
    }
  }
  judge_.remember();
}

bool koDirectoryExclusiveLock::Impl::releaseHeld(const Deadline& deadline, ScopedLock& /*held*/) {
  if (creator_ != hostProcessId() || acquireCount_ == 0) {
    errno = EPERM;
    return false;
  }
  if (acquireCount_ > 1) {
    --acquireCount_;
    return true;
  }
  acquireCount_ = 0;
  // The file goes first: the next holder need not wait for the refresh
  // thread to stop. The refresh cannot run meanwhile (processMutex_).
  const std::string file = levelFile(0);
  const Released removed =
      releaseHolding(*holding_, directory_, deadline.capped(kReleaseEffortSeconds));
  const int error = errno;
  refreshWanted_ = false;  // the loop lingers, then ends
  if (removed == Released::kRemoved) return true;
  if (directoryGone(directory_)) throwNoSuchDirectory(directory_);
  if (removed == Released::kLost) {
    errno = ENOLCK;
    return false;
  }
  warningLog << "FS_LOCK: cannot remove " << file << ": " << errorText(error) << std::endl;
  errno = error;
  return false;
}

bool koDirectoryExclusiveLock::Impl::tryAtOnce() {
  ScopedLock lock(processMutex_, boost::try_to_lock);
  if (!lock.owns_lock() || !usable()) return false;
  if (acquireCount_ > 0) {
    if (holding_->lost()) return false;
    ++acquireCount_;
    return true;
  }
  const double start = hostMonotonic();
  FileState made;
  try {
    if (createLockFile(directory_, levelFile(0), 0777, numbers_.next(), &made) != Create::kMade) {
      return false;
    }
  } catch (const koNoSuchDirectory&) {
    return false;  // whoever goes on finds the directory gone
  }
  acquireCount_ = 1;
  holding_->hold(levelFile(0), made, start);
  return true;
}

bool koDirectoryExclusiveLock::Impl::movesWhole() {
  if (movesWhole_ == 0) {
    // Only where the kernel itself keeps the directory: a network or FUSE
    // file system may answer a rename that must not replace with a look
    // and a rename, which two hosts could both pass.
    static const long kLocal[] = {0xEF53 /* ext2-4 */, 0x58465342 /* xfs */, 0x9123683E /* btrfs */,
                                  0x01021994 /* tmpfs */, static_cast<long>(0xF2F52010) /* f2fs */};
    struct statfs st;
    const bool local = hostStatfs(directory_.c_str(), &st) == 0 &&
                       std::find(std::begin(kLocal), std::end(kLocal),
                                 static_cast<long>(st.f_type)) != std::end(kLocal);
    movesWhole_ = local ? 1 : -1;
  }
  return movesWhole_ > 0;
}

std::string koDirectoryExclusiveLock::Impl::levelFile(int level) const {
  return directory_ + korvel_protocol::kLevelPrefix + std::to_string(level);
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
