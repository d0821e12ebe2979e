// The directory read-write lock (see read_write_lock.h, and the notes at the
// top of fs_lock.cpp).
#include "fs_lock/read_write_lock.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <new>
#include <sstream>

#include "fs_lock/watch.h"
#include "host/exception_list.h"
#include "host/host.h"

using korvel_protocol::kPollMs;
using Zentha::System::TimeUnit;

namespace {

typedef koDirectoryReadWriteLock::Impl::ScopedLock ScopedLock;
typedef koDirectoryReadWriteLock::AbstractLock::Impl Handle;

// How long a refresh waits for the directory lock before it rewrites its
// files without it. Others hold the directory lock for milliseconds.
constexpr double kRefreshDirLockSeconds = 1.0;
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

// Whether something is at path: 1, 0, or -1 when that cannot be told
// (errno says why). Only a name known to be free lets a reader in.
int lockFilePresent(const std::string& path) {
  FileState seen;
  switch (lookAtName(path, &seen)) {
    case Look::kFile:
    case Look::kForeign:  // named by the stale test; it blocks like a holder
      return 1;
    case Look::kMissing:
      return 0;
    case Look::kError:
      break;
  }
  return -1;
}

// A single attempt waits for the directory lock while others take it for
// moments, but not for a holder that stays: a program holding the
// directory's exclusive lock.
constexpr double kSingleAttemptHolderPatience = 0.02;

}  // namespace

// ---- The directory lock ----

namespace korvel_detail {

DirectoryLockGuard::DirectoryLockGuard(koDirectoryExclusiveLock& lock, const Deadline& deadline,
                                       bool singleAttempt)
    : lock_(*lock.impl_),
      held_(singleAttempt
                ? lock_.tryAtOnce() ||
                      lock_.acquireUntil(Deadline::afterSeconds(kSingleAttemptDirLockSeconds),
                                         false, true, kSingleAttemptHolderPatience)
                : lock_.acquireUntil(deadline, false, true)) {
  directoryLocksHeld += held_;
}

DirectoryLockGuard::DirectoryLockGuard(koDirectoryExclusiveLock& lock, AtOnce)
    : lock_(*lock.impl_), held_(lock_.tryAtOnce()) {
  directoryLocksHeld += held_;
}

DirectoryLockGuard::~DirectoryLockGuard() {
  if (!held_) return;
  --directoryLocksHeld;
  try {
    lock_.releaseUntil(Deadline::forever());
  } catch (const koNoSuchDirectory&) {
    // The directory went while we held it; whoever goes on sees it.
  }
}

bool DirectoryLockGuard::stillHeld() const {
  return held_ && lock_.holding().confirm();
}

bool DirectoryLockGuard::leaseHolds() const {
  return held_ && lock_.holding().mayWrite();
}

}  // namespace korvel_detail

// ---- The shared state and its refresh ----

const double koDirectoryReadWriteLock::AbstractLock::STALE_TIMEOUT_SEC =
    korvel_protocol::kStaleSeconds;

// Rewrites every held file that asks for refresh, every 5 s, after the wait
// (the first when the earliest is due).
// Under the directory lock, as others have always seen it done; but it
// waits for it at most kRefreshDirLockSeconds: the lease matters more.
class koDirectoryReadWriteLock::Impl::RefreshLoop {
 public:
  explicit RefreshLoop(Impl* owner) : owner_(owner) {}

  void operator()(koSynchronizedLoopContext& context) const {
    if (LoopWait::waitFor(context, untilRefresh(owner_->refreshedFiles()))) return;  // stopping
    const Holdings holdings = owner_->refreshedFiles();
    if (holdings.empty()) return;
    Holdings failed;
    // A loop function may not let an error out: the loop would end without
    // telling its owner, whose next stop would then wait forever.
    try {
      DirectoryLockGuard guard(owner_->dirLock, Deadline::afterSeconds(kRefreshDirLockSeconds),
                               false);
      failed = refreshOnce(holdings, owner_->numbers);
    } catch (const koNoSuchDirectory&) {
      warningLog
          << "RefreshLoop thread: trying to touch lock file threw koNoSuchDirectory exception"
          << std::endl;
      failed = refreshOnce(holdings, owner_->numbers);  // finds the files gone: lost
    }
    retryRefresh(std::move(failed), owner_->numbers, context);
  }

 private:
  Impl* owner_;
};

koDirectoryReadWriteLock::Impl::Impl(const std::string& path)
    : dirLock(path, ""),
      directory(path),
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

// ---- A handle's state ----

Handle::Impl(const std::shared_ptr<koDirectoryReadWriteLock::Impl>& shared, bool writes)
    : dir(shared), write(writes), holding(std::make_shared<LockHolding>()) {}

Handle::~Impl() {
  try {
    holding->close();
    ScopedLock lock(dir->getMutex());
    releaseFile(Deadline::forever());
  } catch (...) {
    // A destructor must not throw: what could not be released goes stale.
  }
}

bool Handle::acquire(unsigned long n, const TimeUnit& unit, bool noRefresh) {
  const Deadline deadline = Deadline::after(n, unit);
  // One acquisition at a time per handle. Other handles, releases and the
  // refresh go on meanwhile: the object's mutex is held only for looks.
  ScopedLock acquiring(this->acquiring, boost::defer_lock);
  if (!lockBy(acquiring, deadline)) {
    errno = ETIMEDOUT;
    return false;
  }
  {
    ScopedLock lock(dir->getMutex());
    if (!dir->invariants()) return false;
    if (count != 0) return acquireNested();
  }
  if (!enterWhenFree(deadline, n == 0)) return false;
  // Started once the directory lock is let go (see the lock order). A
  // release on another thread may have come in between.
  ScopedLock lock(dir->getMutex());
  startRefresh(noRefresh);
  // An acquisition whose lease ran out before it returns (a hung call, a
  // stop) has not succeeded.
  if (!hasFile || holding->mayWrite()) return true;
  count = 0;
  releaseFile(Deadline::afterSeconds(0));
  errno = ETIMEDOUT;
  return false;
}

bool Handle::acquireNested() {
  // A lock already lost protects nothing more: it must be released first.
  if (holding->lost()) {
    errno = ENOLCK;
    return false;
  }
  ++count;
  return true;
}

bool Handle::enterWhenFree(const Deadline& deadline, bool singleAttempt) {
  FileWatch watch;  // the file in the way, while waiting
  std::string blocker;
  unsigned backOff = kPollMs;
  int transientError = 0;
  for (;;) {
    const uint64_t looked = FileWatch::mark();
    {
      DirectoryLockGuard guard(dir->dirLock, deadline, singleAttempt);
      if (!guard.held()) return false;  // errno from the directory lock
      ScopedLock lock(dir->getMutex());
      dir->judge.deadline = deadline;
      Entry entry = okToAcquire(&blocker);
      if (entry == Entry::kBlocked && removeStaleFiles(&dir->judge, guard)) {
        entry = okToAcquire(&blocker);
      }
      if (entry == Entry::kRefused) {
        const int error = errno;
        warningLog << "FS_LOCK: cannot look into " << dir->directory << ": " << errorText(error)
                   << std::endl;
        errno = error;
        return false;
      }
      // Made before the directory lock is let go: another process that
      // looked in between would find the directory free.
      const Create created =
          entry == Entry::kFree && guard.stillHeld() ? enter(guard) : Create::kTaken;
      if (created == Create::kMade) return true;
      if (created == Create::kRefused) return false;
      if (created == Create::kTransient) {
        transientError = errno;
        backOff = std::min(2 * backOff, kMaxBackOffMs);
      }
    }
    if (singleAttempt || deadline.passed()) {
      ScopedLock lock(dir->getMutex());
      dir->judge.remember();
      errno = transientError != 0 ? transientError : ETIMEDOUT;
      return false;
    }
    if (blocker.empty()) {
      sleepWithin(backOff, deadline);  // held by this process: no file to watch
    } else {
      watch.sleepWhileThere(blocker, backOff, deadline, looked);
    }
  }
}

void Handle::startRefresh(bool noRefresh) {
  if (noRefresh || !hasFile || refreshed) return;
  try {
    dir->startRefreshing(holding);
  } catch (...) {
    count = 0;
    releaseFile(Deadline::forever());
    throw;
  }
  refreshed = true;
}

Create Handle::enter(const DirectoryLockGuard& guard) {
  std::string made;
  FileState written;
  double since = 0.0;
  const Create created = createFile(&made, &written, &since);
  if (created != Create::kMade) return created;
  if (!guard.stillHeld()) {
    // The directory lock was lost while the file was made: others may have
    // looked meanwhile. Take it back and look again.
    Judgement(made, written).remove(Entitled([] { return true; }));
    return Create::kTaken;
  }
  hasFile = true;
  holding->hold(made, written, since);
  if (write) {
    dir->writeLockOwned = true;
  } else {
    dir->readLocks.insert(made);
  }
  count = 1;
  return Create::kMade;
}

Create Handle::createFile(std::string* made, FileState* written, double* since) {
  for (int tries = 0; tries < kNameTries; ++tries) {
    const double start = hostMonotonic();
    const int value = dir->numbers.next();
    const std::string name = lockFileName(value);
    const Create result = createLockFile(dir->directory, name, write ? 0666 : 0777, value, written);
    if (result == Create::kMade) {
      *made = name;
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
    if (result == Create::kTransient || write) return result;
  }
  return Create::kTaken;
}

bool Handle::removeStaleFiles(koStaleLockRemover* remover, const DirectoryLockGuard& guard) {
  std::vector<std::string> names;
  if (!listNames(dir->directory, korvel_protocol::kNamePrefix, &names)) return false;
  const std::string writeName = korvel_protocol::kWriteLockName + 1;
  const std::string readPrefix = korvel_protocol::kReadLockPrefix + 1;
  for (const std::string& name : names) {
    if (name == writeName || name.compare(0, readPrefix.size(), readPrefix) == 0) {
      remover->update(dir->directory + "/" + name);
    }
  }
  bool removed = false;
  const Entitled entitled([&guard] { return guard.stillHeld(); },
                          [&guard] { return guard.leaseHolds(); });
  for (const Judgement& stale : remover->staleFiles) {
    removed = remover->removeStaleFile(stale, entitled) == Act::kDone || removed;
  }
  remover->staleFiles.clear();
  return removed;
}

Handle::Entry Handle::okToAcquire(std::string* blocker) {
  blocker->clear();
  if (dir->ownsWriteLock() || (write && dir->ownsReadLock())) return Entry::kBlocked;
  switch (lockFilePresent(dir->writeLockName)) {
    case 1:
      *blocker = dir->writeLockName;
      return Entry::kBlocked;
    case -1:
      return Entry::kRefused;
  }
  if (!write) return Entry::kFree;
  std::vector<std::string> readers;
  // A directory that cannot be listed might hide a reader.
  if (!listNames(dir->directory, korvel_protocol::kReadLockPrefix + 1, &readers)) {
    return Entry::kRefused;
  }
  if (readers.empty()) return Entry::kFree;
  *blocker = dir->directory + "/" + readers.front();
  return Entry::kBlocked;
}

std::string Handle::lockFileName(int number) const {
  if (write) return dir->writeLockName;
  std::ostringstream name;
  name << dir->directory << korvel_protocol::kReadLockPrefix << number;
  return name.str();
}

bool Handle::release(const Deadline& deadline) {
  ScopedLock lock(dir->getMutex(), boost::defer_lock);
  if (!lockBy(lock, deadline)) {
    errno = ETIMEDOUT;
    return false;
  }
  if (!dir->invariants() || count <= 0) {
    errno = EPERM;
    return false;
  }
  if (count > 1) {
    --count;
    return true;
  }
  count = 0;
  return releaseFile(deadline);
}

bool Handle::releaseFile(const Deadline& deadline) {
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
  Released removed;
  {
    // Removing our own file cannot let a conflicting holder in: try the
    // directory lock once, as others expect, and go on without it.
    DirectoryLockGuard guard(dir->dirLock, DirectoryLockGuard::kAtOnce);
    removed = releaseHolding(*holding, dir->directory, deadline.capped(kReleaseEffortSeconds));
  }
  // The file went first: the next holder need not wait for the refresh
  // thread to stop.
  const int error = errno;
  if (refreshed) {
    refreshed = false;
    dir->stopRefreshing(holding);
  }
  errno = error;
  if (removed != Released::kRemoved && directoryGone(dir->directory)) {
    throwNoSuchDirectory(dir->directory);
  }
  if (removed == Released::kLost) {
    errno = ENOLCK;
    return false;
  }
  if (removed == Released::kError) {
    const int error = errno;
    // The call-site numbers are kept: scripts match these lines.
    warningLog << "FS_LOCK: failed to remove " << file << "(" << (write ? 1570 : 1523) << ")"
               << std::endl;
    errno = error;
  }
  return true;
}

void Handle::downgrade(const Deadline& deadline, bool singleAttempt, Impl& reader) {
  ScopedLock acquiring(this->acquiring, boost::defer_lock);
  if (!lockBy(acquiring, deadline)) {
    errno = ETIMEDOUT;
    return;
  }
  // Held or not, the files change hands below; other processes are kept
  // out only when the directory lock could be had.
  DirectoryLockGuard guard(dir->dirLock, deadline, singleAttempt);
  ScopedLock lock(dir->getMutex());
  if (!dir->invariants() || count <= 0 || !hasFile || !holding->mayWrite()) return;
  std::string made;
  FileState written;
  double since = 0.0;
  if (reader.createFile(&made, &written, &since) != Create::kMade) return;
  reader.hasFile = true;
  reader.holding->hold(made, written, since);
  dir->readLocks.insert(made);
  reader.count = count;
  if (refreshed) {
    dir->startRefreshing(reader.holding);  // the loop runs on: no start
    reader.refreshed = true;
  }
  // The write-lock file goes only now: the directory is never unlocked.
  count = 0;
  releaseFile(deadline);
}

// ---- The handles ----

koDirectoryReadWriteLock::AbstractLock::AbstractLock(std::shared_ptr<Impl> impl)
    : impl_(std::move(impl)) {}

koDirectoryReadWriteLock::AbstractLock::~AbstractLock() = default;

bool koDirectoryReadWriteLock::AbstractLock::acquire(unsigned long n, const TimeUnit& unit,
                                                     bool noRefresh) & {
  return koOnlyLet<koNoSuchDirectory, koThread::StartError, std::bad_alloc>(
      [&] { return impl_->acquire(n, unit, noRefresh); });
}

bool koDirectoryReadWriteLock::AbstractLock::release(unsigned long n, const TimeUnit& unit) & {
  return koOnlyLet<koNoSuchDirectory, std::bad_alloc>(
      [&] { return impl_->release(Deadline::after(n, unit)); });
}

bool koDirectoryReadWriteLock::AbstractLock::release() & {
  return koOnlyLet<koNoSuchDirectory, std::bad_alloc>(
      [&] { return impl_->release(Deadline::afterSeconds(kReleaseEffortSeconds)); });
}

bool koDirectoryReadWriteLock::AbstractLock::isAcquired() const {
  ScopedLock lock(impl_->dir->getMutex());
  return impl_->count > 0;
}

bool koDirectoryReadWriteLock::AbstractLock::lost() const {
  return impl_->holding->lost();
}

void koDirectoryReadWriteLock::AbstractLock::setLostHandler(
    std::unique_ptr<korvel_detail::LostHandler> handler) {
  impl_->holding->setHandler(std::move(handler));
}

koDirectoryReadWriteLock::ReadLock::ReadLock(
    const std::shared_ptr<koDirectoryReadWriteLock::Impl>& shared)
    : AbstractLock(std::make_shared<Impl>(shared, false)) {}

koDirectoryReadWriteLock::ReadLock::ReadLock(std::shared_ptr<AbstractLock::Impl> impl)
    : AbstractLock(std::move(impl)) {}

koDirectoryReadWriteLock::ReadLock::~ReadLock() = default;

koDirectoryReadWriteLock::WriteLock::WriteLock(
    const std::shared_ptr<koDirectoryReadWriteLock::Impl>& shared)
    : AbstractLock(std::make_shared<Impl>(shared, true)) {}

koDirectoryReadWriteLock::WriteLock::~WriteLock() = default;

koDirectoryReadWriteLock::ReadLock koDirectoryReadWriteLock::WriteLock::downgrade(
    unsigned long n, const TimeUnit& unit) & {
  return koOnlyLet<koThread::StartError, koNoSuchDirectory, std::bad_alloc>([&] {
    // Made before any lock is taken: its destructor takes the mutex.
    ReadLock result(std::make_shared<AbstractLock::Impl>(getImpl()->dir, false));
    getImpl()->downgrade(Deadline::after(n, unit), n == 0, *result.getImpl());
    return result;
  });
}

// ---- The front object ----

koDirectoryReadWriteLock::koDirectoryReadWriteLock(const std::string& directory)
    : impl_(std::make_shared<Impl>(directory)), standard_(std::make_shared<Standard>(impl_)) {}

koDirectoryReadWriteLock::~koDirectoryReadWriteLock() = default;
koDirectoryReadWriteLock::koDirectoryReadWriteLock(const koDirectoryReadWriteLock&) = default;
koDirectoryReadWriteLock& koDirectoryReadWriteLock::operator=(const koDirectoryReadWriteLock&) =
    default;

koDirectoryReadWriteLock::ReadLock koDirectoryReadWriteLock::getReadLock() const {
  return ReadLock(impl_);
}

koDirectoryReadWriteLock::WriteLock koDirectoryReadWriteLock::getWriteLock() const {
  return WriteLock(impl_);
}

bool koDirectoryReadWriteLock::tryLockFor(unsigned long ms) {
  return standardTryLock(
      boost::unique_lock<boost::shared_mutex>(standard_->threads, boost::defer_lock), ms,
      [this](unsigned long left) {
        return standard_->writer.acquire(left, TimeUnit::sMilliseconds());
      },
      impl_->getDirectory(),
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
  releaseQuietly([this] { return standard_->writer.release(koForever, TimeUnit::sSeconds()); });
  standard_->threads.unlock();
}

bool koDirectoryReadWriteLock::tryLockSharedFor(unsigned long ms) {
  return standardTryLock(
      boost::shared_lock<boost::shared_mutex>(standard_->threads, boost::defer_lock), ms,
      [this](unsigned long left) {
        return standard_->reader.acquire(left, TimeUnit::sMilliseconds());
      },
      impl_->getDirectory(),
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
  releaseQuietly([this] { return standard_->reader.release(koForever, TimeUnit::sSeconds()); });
  standard_->threads.unlock_shared();
}
