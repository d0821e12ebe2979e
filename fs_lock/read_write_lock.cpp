// The directory read-write lock (see the notes at the top of fs_lock.cpp).
//
// In-process: one Impl per front object, shared with every handle. Its
// mutex guards the Impl and the handles' counts and is always taken before
// the directory lock. The refresh loop runs under a mutex of its own and
// never needs the Impl's, so a thread waiting for the lock cannot starve
// the refresh of locks this process already holds.
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <new>
#include <sstream>

#include "fs_lock/fs_lock_internal.h"
#include "host/exception_list.h"
#include "host/host.h"
#include "korvel/fs_lock.h"

using korvel_protocol::kPollMs;
using korvel_protocol::kRefreshPeriodMs;
using Zentha::System::TimeUnit;

namespace {

typedef koDirectoryReadWriteLock::ScopedLock ScopedLock;

// How long a release keeps trying to remove a file that resists.
constexpr double kReleaseEffortSeconds = 2.0;
// How long a refresh waits for the directory lock before it rewrites its
// files without it. Others hold the directory lock for milliseconds.
constexpr double kRefreshDirLockSeconds = 1.0;
// The longest pause between retries of a create that failed for now.
constexpr unsigned kMaxBackOffMs = 1000;
// Tries at a read-lock name before waiting a poll: names are random, so a
// taken one is rare.
constexpr int kNameTries = 16;
// A single attempt looks at the lock files once, but waits this long for the
// directory lock when it is not free at once: others hold it for
// milliseconds only.
constexpr double kSingleAttemptDirLockSeconds = 1.0;

// The names in directory that start with prefix, listed literally: the
// directory's own name is never taken as a pattern. False when the
// directory cannot be listed (errno says why).
bool listNames(const std::string& directory, const char* prefix, std::vector<std::string>* names) {
  errno = 0;
  char* listing = hostGetDirList((directory + "/" + prefix + "*").c_str(), 0);
  if (listing == nullptr) {
    if (errno == 0) errno = EIO;
    return false;
  }
  for (const char* name = listing; *name != '\0'; name += strlen(name) + 1) {
    names->push_back(name);
  }
  hostFree(listing);
  return true;
}

// Whether path exists: 1, 0, or -1 when that cannot be told (errno says
// why). Only a file known to be absent lets a reader in.
int exists(const std::string& path) {
  struct stat st;
  if (hostStat(path.c_str(), &st) == 0) return 1;
  return errno == ENOENT ? 0 : -1;
}

}  // namespace

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
  DirectoryLockGuard(koDirectoryExclusiveLock& lock, const Deadline& deadline, bool singleAttempt)
      : lock_(lock),
        held_(singleAttempt
                  ? lock.tryAtOnce() ||
                        lock.acquireUntil(Deadline::afterSeconds(kSingleAttemptDirLockSeconds),
                                          false, true)
                  : lock.acquireUntil(deadline, false, true)) {
    directoryLocksHeld += held_;
  }
  // Takes the directory lock only if it is free this moment.
  DirectoryLockGuard(koDirectoryExclusiveLock& lock, AtOnce)
      : lock_(lock), held_(lock.tryAtOnce()) {
    directoryLocksHeld += held_;
  }
  DirectoryLockGuard(const DirectoryLockGuard&) = delete;
  DirectoryLockGuard& operator=(const DirectoryLockGuard&) = delete;

  ~DirectoryLockGuard() {
    if (!held_) return;
    --directoryLocksHeld;
    try {
      lock_.releaseUntil(Deadline::forever());
    } catch (const koNoSuchDirectory&) {
      // The directory went while we held it; whoever goes on sees it.
    }
  }

  bool held() const { return held_; }
  // Still ours: not lost, and its lease allows a change made now. A look
  // and a change made under a lock that was lost in between prove nothing.
  bool stillHeld() const { return held_ && lock_.holding_->mayWrite(); }

 private:
  koDirectoryExclusiveLock& lock_;
  const bool held_;
};

}  // namespace korvel_detail

using korvel_detail::DirectoryLockGuard;

const double koDirectoryReadWriteLock::AbstractLock::STALE_TIMEOUT_SEC =
    korvel_protocol::kStaleSeconds;

// Rewrites every held file that asks for refresh, every 5 s, after the wait.
// Under the directory lock, as others have always seen it done; but it
// waits for it at most kRefreshDirLockSeconds: the lease matters more.
class koDirectoryReadWriteLock::Impl::RefreshLoop {
 public:
  explicit RefreshLoop(Impl* owner) : owner_(owner) {}

  void operator()(koSynchronizedLoopContext& context) const {
    if (LoopWait::waitFor(context, kRefreshPeriodMs / 1000.0)) return;  // stopping
    const Holdings holdings = owner_->refreshedFiles();
    if (holdings.empty()) return;
    Holdings failed;
    // A loop function may not let an error out: the loop would end without
    // telling its owner, whose next stop would then wait forever.
    try {
      DirectoryLockGuard guard(owner_->dirLock, Deadline::afterSeconds(kRefreshDirLockSeconds),
                               false);
      failed = refreshOnce(holdings, *owner_->numbers);
    } catch (const koNoSuchDirectory&) {
      warningLog
          << "RefreshLoop thread: trying to touch lock file threw koNoSuchDirectory exception"
          << std::endl;
      failed = refreshOnce(holdings, *owner_->numbers);  // finds the files gone: lost
    }
    retryRefresh(std::move(failed), *owner_->numbers, context);
  }

 private:
  Impl* owner_;
};

koDirectoryReadWriteLock::Impl::Impl(const std::string& path)
    : dirLock(path, ""),
      directory(path),
      numbers(new LockNumbers),
      refreshLoop(new RefreshLoop(this)),
      pool(koDirectoryLockThreadPool()),
      refreshThread(new LoopThread(refreshMutex, *refreshLoop, pool.get())),
      writeLockName(path + korvel_protocol::kWriteLockName),
      readLockPattern(path + korvel_protocol::kReadLockPrefix + "*") {}

koDirectoryReadWriteLock::Impl::~Impl() {
  for (const std::shared_ptr<LockHolding>& holding : refreshedFiles()) {
    if (holding->heldElsewhere()) {
      // A forked child: the refresh thread is its parent's.
      refreshThread.release();  // NOLINT(bugprone-unused-return-value): left to the exit
      refreshLoop.release();    // NOLINT(bugprone-unused-return-value)
      return;
    }
  }
  // The loop thread locks refreshMutex and calls the functor while
  // stopping: both must outlive it.
  refreshThread.reset();
  refreshLoop.reset();
}

bool koDirectoryReadWriteLock::Impl::refreshLoopRunning() const {
  std::lock_guard<std::mutex> lock(refreshedMutex);
  return !refreshed.empty();
}

void koDirectoryReadWriteLock::Impl::startRefreshing(const std::shared_ptr<LockHolding>& holding) {
  bool first;
  {
    std::lock_guard<std::mutex> lock(refreshedMutex);
    first = refreshed.empty();
    refreshed.push_back(holding);
  }
  if (!first) return;
  KORVEL_CHECK(directoryLocksHeld == 0, "the refresh loop starts under the directory lock");
  try {
    ScopedLock loopLock(refreshMutex);
    refreshThread->start(loopLock);
  } catch (...) {
    std::lock_guard<std::mutex> lock(refreshedMutex);
    refreshed.clear();
    throw;
  }
}

void koDirectoryReadWriteLock::Impl::stopRefreshing(const std::shared_ptr<LockHolding>& holding) {
  bool last;
  {
    std::lock_guard<std::mutex> lock(refreshedMutex);
    auto found = std::find(refreshed.begin(), refreshed.end(), holding);
    if (found == refreshed.end()) return;
    refreshed.erase(found);
    last = refreshed.empty();
  }
  if (!last) return;
  KORVEL_CHECK(directoryLocksHeld == 0, "the refresh loop stops under the directory lock");
  ScopedLock loopLock(refreshMutex);
  refreshThread->stop(loopLock);
}

Holdings koDirectoryReadWriteLock::Impl::refreshedFiles() const {
  std::lock_guard<std::mutex> lock(refreshedMutex);
  return refreshed;
}

// ---- Handles ----

koDirectoryReadWriteLock::AbstractLock::Impl::Impl(
    const boost::shared_ptr<koDirectoryReadWriteLock::Impl>& shared, bool writes)
    : dir(shared), write(writes), holding(std::make_shared<LockHolding>()) {}

koDirectoryReadWriteLock::AbstractLock::Impl::~Impl() {
  try {
    holding->close();
    ScopedLock lock(dir->getMutex());
    releaseFile(Deadline::forever());
  } catch (...) {
    // A destructor must not throw: what could not be released goes stale.
  }
}

bool koDirectoryReadWriteLock::AbstractLock::Impl::releaseFile(const Deadline& deadline) {
  if (!hasFile) return true;
  // In a forked child the file and the refresh thread are the parent's.
  if (holding->heldElsewhere()) return false;
  hasFile = false;
  const std::string file = holding->file();
  if (write) {
    dir->writeLockOwned = false;
  } else {
    dir->readLocks.erase(file);
  }
  if (refreshed) {
    refreshed = false;
    dir->stopRefreshing(holding);
  }
  Owned removed;
  {
    // Removing our own file cannot let a conflicting holder in: try the
    // directory lock once, as others expect, and go on without it.
    DirectoryLockGuard guard(dir->dirLock, DirectoryLockGuard::kAtOnce);
    removed = releaseHolding(*holding, dir->directory, deadline.capped(kReleaseEffortSeconds));
  }
  if (removed != Owned::kYes && directoryGone(dir->directory)) {
    throwNoSuchDirectory(dir->directory);
  }
  if (removed == Owned::kLost) {
    errno = ENOLCK;
    return false;
  }
  if (removed == Owned::kError) {
    const int error = errno;
    // The call-site numbers are kept: scripts match these lines.
    warningLog << "FS_LOCK: failed to remove " << file << "(" << (write ? 1570 : 1523) << ")"
               << std::endl;
    errno = error;
  }
  return true;
}

koDirectoryReadWriteLock::AbstractLock::AbstractLock(
    const boost::shared_ptr<koDirectoryReadWriteLock::Impl>& shared, bool writes)
    : dir(shared), count(new int(0)), impl(new Impl(shared, writes)) {}

koDirectoryReadWriteLock::AbstractLock::~AbstractLock() = default;

bool koDirectoryReadWriteLock::AbstractLock::acquire(unsigned long n, const TimeUnit& unit,
                                                     bool noRefresh) {
  return koOnlyLet<koNoSuchDirectory, koThread::StartError, std::bad_alloc>([&] {
    const Deadline deadline = Deadline::after(n, unit);
    const bool singleAttempt = n == 0;
    // One acquisition at a time per handle. Other handles, releases and the
    // refresh go on meanwhile: the object's mutex is held only for looks.
    ScopedLock acquiring(impl->acquiring, boost::defer_lock);
    if (!lockBy(acquiring, deadline)) {
      errno = ETIMEDOUT;
      return false;
    }
    {
      ScopedLock lock(dir->getMutex());
      if (!dir->invariants()) return false;
      if (*count != 0) {
        // A lock already lost protects nothing more: it must be released first.
        if (impl->holding->lost()) {
          errno = ENOLCK;
          return false;
        }
        ++*count;
        return true;
      }
    }

    koStaleLockRemover remover;
    remover.deadline = deadline;
    unsigned backOff = kPollMs;
    int transientError = 0;
    for (bool entered = false; !entered;) {
      {
        DirectoryLockGuard guard(dir->dirLock, deadline, singleAttempt);
        if (!guard.held()) return false;  // errno from the directory lock
        ScopedLock lock(dir->getMutex());
        remover.warned = &dir->staleWarned;
        Entry entry = okToAcquire();
        if (entry == Entry::kBlocked && removeStaleFiles(&remover)) entry = okToAcquire();
        if (entry == Entry::kRefused) {
          const int error = errno;
          warningLog << "FS_LOCK: cannot look into " << dir->directory << ": " << errorText(error)
                     << std::endl;
          errno = error;
          return false;
        }
        if (entry == Entry::kFree && guard.stillHeld()) {
          // Made before the directory lock is let go: another process that
          // looked in between would find the directory free.
          switch (enter(guard)) {
            case Create::kMade:
              entered = true;
              break;
            case Create::kRefused:
              return false;
            case Create::kTransient:
              transientError = errno;
              backOff = std::min(2 * backOff, kMaxBackOffMs);
              break;
            case Create::kTaken:
              break;
          }
        }
      }
      if (entered) break;
      sleepWithin(backOff, deadline);
      if (singleAttempt || deadline.passed()) {
        errno = transientError != 0 ? transientError : ETIMEDOUT;
        return false;
      }
    }
    // Started once the directory lock is let go (see the lock order). A
    // release on another thread may have come in between.
    ScopedLock lock(dir->getMutex());
    if (!noRefresh && impl->hasFile && !impl->refreshed) {
      try {
        dir->startRefreshing(impl->holding);
      } catch (...) {
        *count = 0;
        impl->releaseFile(Deadline::forever());
        throw;
      }
      impl->refreshed = true;
    }
    return true;
  });
}

Create koDirectoryReadWriteLock::AbstractLock::enter(const DirectoryLockGuard& guard) {
  std::string made;
  int written = 0;
  double since = 0.0;
  const Create created = createFile(&made, &written, &since);
  if (created != Create::kMade) return created;
  if (!guard.stillHeld()) {
    // The directory lock was lost while the file was made: others may have
    // looked meanwhile. Take it back and look again.
    removeIfOurs(made, written);
    return Create::kTaken;
  }
  impl->hasFile = true;
  impl->holding->hold(made, written, since);
  if (impl->write) {
    dir->writeLockOwned = true;
  } else {
    dir->readLocks.insert(made);
  }
  *count = 1;
  return Create::kMade;
}

Create koDirectoryReadWriteLock::AbstractLock::createFile(std::string* made, int* written,
                                                          double* since) {
  for (int tries = 0; tries < kNameTries; ++tries) {
    const double start = hostMonotonic();
    const int value = dir->numbers->next();
    const std::string name = lockFileName(value);
    const Create result = createLockFile(dir->directory, name, impl->write ? 0666 : 0777, value);
    if (result == Create::kMade) {
      *made = name;
      *written = value;
      *since = start;
      return result;
    }
    if (result == Create::kRefused) {
      const int error = errno;
      warningLog << "FS_LOCK: cannot create " << name << ": " << errorText(error) << std::endl;
      errno = error;
      return result;
    }
    // A read-lock name another process uses: take the next number. A
    // write-lock file that appeared, or a failure for now: poll again.
    if (result == Create::kTransient || impl->write) return result;
  }
  return Create::kTaken;
}

bool koDirectoryReadWriteLock::AbstractLock::removeStaleFiles(koStaleLockRemover* remover) {
  std::vector<std::string> names;
  if (!listNames(dir->directory, korvel_protocol::kNamePrefix, &names)) return false;
  const std::string writeName = korvel_protocol::kWriteLockName + 1;
  const std::string readPrefix = korvel_protocol::kReadLockPrefix + 1;
  for (const std::string& name : names) {
    if (name == writeName || name.compare(0, readPrefix.size(), readPrefix) == 0) {
      remover->update((dir->directory + "/" + name).c_str());
    }
  }
  const bool found = !remover->staleFiles.empty();
  for (const std::string& stale : remover->staleFiles) remover->removeStaleFile(stale);
  remover->staleFiles.clear();
  return found;
}

bool koDirectoryReadWriteLock::AbstractLock::release(unsigned long n, const TimeUnit& unit) {
  return koOnlyLet<koNoSuchDirectory, std::bad_alloc>([&] {
    const Deadline deadline = Deadline::after(n, unit);
    ScopedLock lock(dir->getMutex(), boost::defer_lock);
    if (!lockBy(lock, deadline)) {
      errno = ETIMEDOUT;
      return false;
    }
    if (!dir->invariants() || *count <= 0) {
      errno = EPERM;
      return false;
    }
    if (*count > 1) {
      --*count;
      return true;
    }
    *count = 0;
    return impl->releaseFile(deadline);
  });
}

bool koDirectoryReadWriteLock::AbstractLock::isAcquired() const {
  ScopedLock lock(dir->getMutex());
  return *count > 0;
}

bool koDirectoryReadWriteLock::AbstractLock::lost() const {
  return impl->holding->lost();
}

void koDirectoryReadWriteLock::AbstractLock::onLost(std::function<void()> handler) {
  impl->holding->setHandler(std::move(handler));
}

koDirectoryReadWriteLock::ReadLock::~ReadLock() = default;

koDirectoryReadWriteLock::AbstractLock::Entry koDirectoryReadWriteLock::ReadLock::okToAcquire() {
  if (dir->ownsWriteLock()) return Entry::kBlocked;
  switch (exists(dir->writeLockName)) {
    case 0:
      return Entry::kFree;
    case 1:
      return Entry::kBlocked;
    default:
      return Entry::kRefused;
  }
}

std::string koDirectoryReadWriteLock::ReadLock::lockFileName(int number) const {
  std::ostringstream name;
  name << dir->directory << korvel_protocol::kReadLockPrefix << number;
  return name.str();
}

koDirectoryReadWriteLock::WriteLock::~WriteLock() = default;

koDirectoryReadWriteLock::AbstractLock::Entry koDirectoryReadWriteLock::WriteLock::okToAcquire() {
  if (dir->ownsReadLock() || dir->ownsWriteLock()) return Entry::kBlocked;
  switch (exists(dir->writeLockName)) {
    case 1:
      return Entry::kBlocked;
    case -1:
      return Entry::kRefused;
  }
  std::vector<std::string> readers;
  // A directory that cannot be listed might hide a reader.
  if (!listNames(dir->directory, korvel_protocol::kReadLockPrefix + 1, &readers)) {
    return Entry::kRefused;
  }
  return readers.empty() ? Entry::kFree : Entry::kBlocked;
}

std::string koDirectoryReadWriteLock::WriteLock::lockFileName(int) const {
  return dir->writeLockName;
}

koDirectoryReadWriteLock::ReadLock koDirectoryReadWriteLock::WriteLock::downgrade(
    unsigned long n, const TimeUnit& unit) {
  return koOnlyLet<koThread::StartError, koNoSuchDirectory, std::bad_alloc>([&] {
    const Deadline deadline = Deadline::after(n, unit);
    // Made before any lock is taken: its destructor takes the mutex.
    ReadLock result(dir);
    ScopedLock acquiring(impl->acquiring, boost::defer_lock);
    if (!lockBy(acquiring, deadline)) {
      errno = ETIMEDOUT;
      return result;
    }
    // Held or not, the files change hands below; other processes are kept
    // out only when the directory lock could be had.
    DirectoryLockGuard guard(dir->dirLock, deadline, n == 0);
    ScopedLock lock(dir->getMutex());
    if (!dir->invariants() || *count <= 0 || !impl->hasFile || !impl->holding->mayWrite()) {
      return result;
    }
    std::string made;
    int written = 0;
    double since = 0.0;
    if (result.createFile(&made, &written, &since) != Create::kMade) return result;
    result.impl->hasFile = true;
    result.impl->holding->hold(made, written, since);
    dir->readLocks.insert(made);
    *result.count = *count;
    if (impl->refreshed) {
      dir->startRefreshing(result.impl->holding);  // the loop runs on: no start
      result.impl->refreshed = true;
    }
    // The write-lock file goes only now: the directory is never unlocked.
    *count = 0;
    impl->releaseFile(deadline);
    return result;
  });
}

// ---- The standard interfaces of the front object ----

bool koDirectoryReadWriteLock::tryLockFor(unsigned long ms) {
  return standardTryLock(
      boost::unique_lock<boost::shared_mutex>(*threads_, boost::defer_lock), ms,
      [this](unsigned long left) { return writer_->acquire(left, TimeUnit::sMilliseconds()); },
      ms == koForever ? "koDirectoryReadWriteLock::lock" : "koDirectoryReadWriteLock::try_lock");
}

void koDirectoryReadWriteLock::lock() {
  if (tryLockFor(koForever)) return;
  lockFailed("koDirectoryReadWriteLock::lock");
}

bool koDirectoryReadWriteLock::try_lock() {
  return tryLockFor(0);
}

void koDirectoryReadWriteLock::unlock() {
  releaseQuietly([this] { writer_->release(koForever, TimeUnit::sSeconds()); });
  threads_->unlock();
}

bool koDirectoryReadWriteLock::tryLockSharedFor(unsigned long ms) {
  return standardTryLock(
      boost::shared_lock<boost::shared_mutex>(*threads_, boost::defer_lock), ms,
      [this](unsigned long left) { return reader_->acquire(left, TimeUnit::sMilliseconds()); },
      ms == koForever ? "koDirectoryReadWriteLock::lock_shared"
                      : "koDirectoryReadWriteLock::try_lock_shared");
}

void koDirectoryReadWriteLock::lock_shared() {
  if (tryLockSharedFor(koForever)) return;
  lockFailed("koDirectoryReadWriteLock::lock_shared");
}

bool koDirectoryReadWriteLock::try_lock_shared() {
  return tryLockSharedFor(0);
}

void koDirectoryReadWriteLock::unlock_shared() {
  releaseQuietly([this] { reader_->release(koForever, TimeUnit::sSeconds()); });
  threads_->unlock_shared();
}
