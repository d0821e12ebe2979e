// Directory locks: how they work, what they promise, and the pieces both
// lock classes share.
//
// THE FILES
//
// A directory lock is a set of small files in the locked directory, which
// may be shared by several hosts over a network file system. No
// operating-system lock is used. Each file holds one decimal number and
// nothing else; the number only tells holders apart and is never
// interpreted by anyone else.
//
//   file                  made by                  removed by
//   .deploy_lock.0        the exclusive lock's     its holder on release; a
//                         holder (exclusive        waiter takes a stale one over
//                         create, or a waiter      by writing its own number
//                         taking a stale one over) into it (and removes it only
//                                                  when it cannot write it)
//   .deploy_lock.N, N>0   a waiter's queue place   its owner, once it moved down
//                         (exclusive create)       or gave up; a stale one is
//                                                  taken over like level 0
//                                                  (korvel-lock --clean removes
//                                                  stale files of any kind)
//   .deploy_write_lock    the writer, under the    the writer on release (or
//                         directory lock           downgrade); a waiting reader or
//                                                  writer when it is stale
//   .deploy_read_lock.N   each reader, under the   the reader on release; a
//                         directory lock           waiting writer when stale
//   .<digits>             the stale test, beside   the stale test, at once
//                         the file it judges
//
// Ownership is decided by exclusive creation (O_CREAT|O_EXCL), the one
// atomic step a network file system reliably offers. An owner keeps its
// file by rewriting it every 5 s (kRefreshPeriodMs), which moves its
// modification time. A file more than 15 s (kStaleSeconds) behind belongs to
// a dead holder and may be taken over or removed.
//
// AGE
//
// Age is judged only by the file server's clock. The tester writes a fresh
// file beside the lock file and compares the two modification times, both
// set by the same server, so skew between client hosts never matters. Times
// have whole-second resolution: a dead holder's file is broken 15 to 17 s
// after its last refresh.
//
// THE EXCLUSIVE LOCK'S QUEUE
//
// Level 0 is the holder. A newcomer takes the first free level counting up
// from 0 (after one 10 ms poll, so that waiters already queued go first),
// then works its way down: it creates the next lower level exclusively and
// removes its own. While the level below is taken it polls every 10 ms
// (kPollMs), rewriting its own queue file, and runs the stale test on the
// level below, afresh at every poll. A stale level is taken over by the
// waiter directly above it, which writes its own number into the file in
// place; only that waiter may, since it alone owns the level above, so it
// makes sure of its own level (its lease, and its number read back) right
// before. A time-out of 0 makes one pass of this: one level down, the stale
// test included, no waiting.
//
// THE READ-WRITE LOCK
//
// It keeps one exclusive lock per directory (the "directory lock") and
// holds it only around each look at, and change of, its own files (for
// milliseconds, so without a refresh loop of its own): a writer enters when
// neither .deploy_write_lock nor any .deploy_read_lock.N exists, a reader
// when .deploy_write_lock does not. The new file is made before the
// directory lock is let go, so no other process can look in between; and
// only while the directory lock is still this process's (its lease, once
// before the create and once after: a file made under a lock lost meanwhile
// is taken back). A blocked acquirer removes whatever lock files have gone
// stale, looks again, then lets the directory lock go and polls again after
// 10 ms. A file whose existence cannot be told (a stat error other than
// "no such file") counts as a blocker, never as absent. Read locks
// are found by listing the directory literally, never through a wildcard
// in the directory's own name; a directory that cannot be listed keeps the
// writer out. A release tries the directory lock once and removes its file
// with or without it: removing one's own file cannot let a conflicting
// holder in.
//
// WHAT A HOLDER KNOWS
//
// A holder remembers the number it last wrote into each file it holds. It
// reads the file back before every rewrite and before every removal. A file
// that is missing, or holds another number, has been taken over (its holder
// was stopped or cut off for more than 15 s): the holder neither rewrites,
// re-creates nor removes it, stops refreshing it, writes one warning line
// naming it and records the loss (lost(), and the lost handler).
//
// A holder also keeps a lease: it gives its lock up for lost 14 s
// (kLeaseSeconds) after the start of its last successful refresh, on its
// own clock (one that never steps and counts a suspend), whether or not the
// file system answers. A waiter can
// judge the file stale only when the server's whole-second times differ by
// more than 15, more than 15 real seconds after that refresh reached the
// server; so the holder learns first, by about a second. A lease timer
// thread that never touches the file system ends leases on time even while
// the lock's own threads hang in a dead mount.
//
// Known windows, which no protocol on plain files can close:
//   - Between reading a file back and unlinking or rewriting it, or taking
//     the level below over (microseconds), another holder could take it
//     over; the unlink or write would then hit its file. It takes a holder
//     stopped for more than 15 s exactly there, and a waiter taking over at
//     that very moment.
//   - A refresh write that the file server applies more than a second after
//     it was sent (a stalled network) may land after a takeover.
//   - Mutual exclusion needs the holder to refresh within 15 s: a lock taken
//     without refresh must be released sooner, and a job that empties the
//     locked directory drops the lock with it.
//
// KEPT ON PURPOSE
//
//   - A failed exclusive create is read as "taken" whenever a file of that
//     name exists, whatever the error: some network file systems answer the
//     loser with EPERM rather than EEXIST.
//   - Warnings carry fixed call-site numbers, "FS_LOCK: failed to remove
//     <file>(723)", which scripts already match.
//   - The refresh of the read-write lock still takes the directory lock, as
//     other processes have always seen it do, but waits for it for a
//     bounded time only, then rewrites its own files without it.
//
// LOCK ORDER (in-process)
//
//   OK: a handle's acquisition mutex -> the read-write lock's mutex -> a
//       holding's mutexes.
//   OK: a handle's acquisition mutex -> the directory lock's (an exclusive
//       lock's) mutex, for as long as the directory lock takes; it is let
//       go before the read-write lock's mutex is taken.
//   OK: a read-write lock's mutex -> its refresh loop's mutex, or the
//       directory lock's mutex, tried at once and held only while a held
//       directory lock is counted down (never while waiting for others).
//   OK: the read-write refresh loop's mutex -> the directory lock's mutex,
//       with a bounded wait only.
//   ERROR: waiting for a refresh loop (its mutex) while holding the
//       directory lock; anything while holding a holding's mutex; a loss
//       handler run with any lock's mutex held (handlers run on a thread of
//       their own).
// The first ERROR is checked at run time (KORVEL_CHECK). A waiting acquirer
// holds only its handle's own acquisition mutex, never the object's, so
// releases and the refresh go on meanwhile. A holding's file operations are
// serialised by its io mutex (a refresh against a release), which is taken
// last. The lease timer takes only its own mutex and, briefly, a holding's.
#include "korvel/fs_lock.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <boost/thread/mutex.hpp>
#include <cerrno>
#include <cmath>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <iostream>
#include <limits>
#include <map>
#include <set>
#include <sstream>
#include <system_error>
#include <thread>

#include "fs_lock/fs_lock_internal.h"
#include "host/host.h"
#include "paths/path_string.h"

namespace {

bool environmentHas(const char* name) {
  return getenv(name) != nullptr;  // NOLINT(concurrency-mt-unsafe): load time only
}

// Makes temporary names unique between threads of this process.
std::atomic<unsigned> tempFileCounter{0};

// The process-wide lock thread pool, made on first use.
boost::mutex poolMutex;
boost::shared_ptr<koThreadFactory> pool;

// The longest a back-off between retries grows to.
constexpr unsigned kMaxBackOffMs = 1000;

// The text of a number as written into a lock file, and its length.
struct NumberText {
  explicit NumberText(int value) : length(snprintf(text, sizeof text, "%d", value)) {}
  char text[16];
  int length;
};

// Reads the number at the start of an open file; false when there is none.
bool readNumber(int fd, int& value, off_t* size) {
  char text[64];
  const ssize_t n = hostPread(fd, text, sizeof text - 1, 0);
  if (n <= 0) return false;
  text[n] = '\0';
  if (size != nullptr) *size = n;
  return sscanf(text, "%d", &value) == 1;  // NOLINT(cert-err34-c): content is checked by value
}

bool isRefusal(int error) {
  return error == EACCES || error == EPERM || error == EROFS || error == ENAMETOOLONG ||
         error == ENOTDIR || error == ELOOP;
}

}  // namespace

// Decided once, while the library is loaded.
LogStream verboseLog = {environmentHas("KORVEL_FSLOCK_VERBOSE"), &std::cout};
LogStream warningLog = {
    environmentHas("KORVEL_FSLOCK_VERBOSE") || environmentHas("KORVEL_FSLOCK_WARNING"), &std::cerr};

const LogStream& operator<<(const LogStream& log, std::ostream& (*manipulator)(std::ostream&)) {
  if (log.enabled) *log.stream << manipulator;
  return log;
}

std::string errorText(int error) {
  char buffer[256];
  // The GNU strerror_r returns the text, in buffer or in static storage.
  return strerror_r(error, buffer, sizeof buffer);
}

thread_local int directoryLocksHeld = 0;

void korvelCheckFailed(const char* what) {
  std::cerr << "libkorvel: broken invariant: " << what << std::endl;
  std::abort();
}

void throwNoSuchDirectory(const std::string& directory) {
  throw koNoSuchDirectory("Tried to obtain a lock on a non-existent directory" + directory);
}

bool directoryGone(const std::string& directory) {
  const int error = errno;
  const bool gone = !koIsDirectory(directory.c_str());
  errno = error;
  return gone;
}

// ---- Time ----

namespace korvel_detail {

Deadline Deadline::after(unsigned long n, const Zentha::System::TimeUnit& unit) {
  if (n == koForever) return forever();
  const double seconds = static_cast<double>(unit.toMillis(n)) / 1000.0;
  // toMillis wraps: a count whose milliseconds do not fit is forever too.
  if (unit.toSeconds(n) > unit.toMillis(n) / 1000 + 1) return forever();
  return afterSeconds(seconds);
}

Deadline Deadline::afterSeconds(double seconds) {
  // Beyond a hundred years nobody is waiting for a deadline.
  if (!(seconds < 100.0 * 365 * 86400)) return forever();
  Deadline deadline;
  deadline.infinite_ = false;
  deadline.at_ = hostMonotonic() + seconds;
  return deadline;
}

bool Deadline::passed() const {
  return !infinite_ && hostMonotonic() >= at_;
}

double Deadline::remaining() const {
  if (infinite_) return std::numeric_limits<double>::max();
  return std::max(0.0, at_ - hostMonotonic());
}

unsigned long Deadline::remainingMillis() const {
  if (infinite_) return koForever;
  return static_cast<unsigned long>(std::ceil(remaining() * 1000.0));
}

Deadline Deadline::capped(double seconds) const {
  const Deadline cap = afterSeconds(seconds);
  return !infinite_ && at_ < cap.at_ ? *this : cap;
}

}  // namespace korvel_detail

void sleepWithin(unsigned ms, const Deadline& deadline) {
  const double left = deadline.remaining() * 1000.0;
  if (left <= 0.0) return;
  hostSleepMilliseconds(left < ms ? static_cast<unsigned>(std::ceil(left)) : ms);
}

// ---- Lock-file primitives ----

bool readIntFromFile(const char* path, int& value) {
  const int fd = hostOpen(path, O_RDONLY, 0);
  if (fd < 0) return false;
  const bool read = readNumber(fd, value, nullptr);
  hostClose(fd);
  return read;
}

bool writeIntToFile(const char* path, int value) {
  const int fd = hostOpen(path, O_RDWR | O_CREAT | O_TRUNC, 0666);
  if (fd < 0) return false;
  const NumberText number(value);
  const bool written = hostWrite(fd, number.text, number.length) == number.length;
  hostClose(fd);
  return written;
}

bool removeFileWithTenacity(const char* path, const Deadline& deadline) {
  for (;;) {
    if (hostRemoveFile(path) == 0) return true;
    if (deadline.passed()) return false;
    sleepWithin(1, deadline);
  }
}

bool removeFileWithTenacity(const char* path) {
  return removeFileWithTenacity(path, Deadline::afterSeconds(0.02));
}

korvel_detail::LockNumbers::LockNumbers() : value_(hostRandom()) {}

int korvel_detail::LockNumbers::next() {
  // Non-negative, as "%d" writes it; wraps at 2^31.
  return static_cast<int>(value_.fetch_add(1) & 0x7fffffffu);
}

std::string freshNameBeside(const std::string& path) {
  const unsigned count = ++tempFileCounter;
  std::ostringstream name;
  name << "." << static_cast<unsigned long>(hostRealtime() * 100000.0) << hostProcessId() << count
       << reinterpret_cast<unsigned long>(&name);  // NOLINT: only a distinct number per thread
  const size_t slash = path.rfind('/');
  return (slash == std::string::npos ? std::string() : path.substr(0, slash + 1)) + name.str();
}

Create createLockFile(const std::string& directory, const std::string& path, unsigned mode,
                      int value) {
  const int fd = hostOpen(path.c_str(), O_WRONLY | O_CREAT | O_EXCL, mode);
  if (fd >= 0) {
    const NumberText number(value);
    bool written = hostWrite(fd, number.text, number.length) == number.length;
    int error = errno;
    if (hostClose(fd) != 0 && written) {
      written = false;  // a network file system may report the write only here
      error = errno;
    }
    if (written) return Create::kMade;
    // An empty file would read as somebody else's: give it back.
    hostRemoveFile(path.c_str());
    errno = error;
    return Create::kTransient;
  }
  const int error = errno;
  if (error == EEXIST) return Create::kTaken;
  if (directoryGone(directory)) throwNoSuchDirectory(directory);
  struct stat st;
  if (hostStat(path.c_str(), &st) == 0) return Create::kTaken;
  if (!isRefusal(error)) {
    errno = error;
    return Create::kTransient;
  }
  if (error == EACCES || error == EPERM) {
    // Also what a network file system may answer the loser of a race whose
    // winner has already gone again. A fresh name tells the two apart.
    const std::string probe = freshNameBeside(path);
    const int probeFd = hostOpen(probe.c_str(), O_WRONLY | O_CREAT | O_EXCL, 0666);
    if (probeFd >= 0) {
      hostClose(probeFd);
      hostRemoveFile(probe.c_str());
      return Create::kTaken;
    }
  }
  errno = error;
  return Create::kRefused;
}

Owned rewriteIfOurs(const std::string& path, int expected, int value) {
  const int fd = hostOpen(path.c_str(), O_RDWR, 0);
  if (fd < 0) return errno == ENOENT ? Owned::kLost : Owned::kError;
  int found = 0;
  off_t size = 0;
  Owned result = Owned::kLost;
  if (readNumber(fd, found, &size) && found == expected) {
    const NumberText number(value);
    result = hostPwrite(fd, number.text, number.length, 0) == number.length &&
                     (number.length >= size || hostFtruncate(fd, number.length) == 0)
                 ? Owned::kYes
                 : Owned::kError;
  }
  const int error = errno;
  // A network file system may report a failed write only here.
  if (hostClose(fd) != 0 && result == Owned::kYes) return Owned::kError;
  errno = error;
  return result;
}

Owned removeIfOurs(const std::string& path, int expected) {
  const int fd = hostOpen(path.c_str(), O_RDONLY, 0);
  if (fd < 0) return errno == ENOENT ? Owned::kLost : Owned::kError;
  int found = 0;
  const bool read = readNumber(fd, found, nullptr);
  hostClose(fd);
  if (!read || found != expected) return Owned::kLost;
  if (hostRemoveFile(path.c_str()) == 0) return Owned::kYes;
  return errno == ENOENT ? Owned::kLost : Owned::kError;
}

Owned removeIfOursWithin(const std::string& path, int expected, const Deadline& deadline) {
  unsigned backOff = 1;
  for (;;) {
    const Owned result = removeIfOurs(path, expected);
    // Retrying a refusal only delays the warning.
    if (result != Owned::kError || isRefusal(errno) || deadline.passed()) return result;
    const int error = errno;
    sleepWithin(backOff, deadline);
    backOff = std::min(2 * backOff, kMaxBackOffMs);
    errno = error;
  }
}

bool overwrite(const std::string& path, int value) {
  const int fd = hostOpen(path.c_str(), O_WRONLY, 0);
  if (fd < 0) return false;
  const NumberText number(value);
  const bool written = hostPwrite(fd, number.text, number.length, 0) == number.length &&
                       hostFtruncate(fd, number.length) == 0;
  hostClose(fd);
  return written;
}

// ---- Holding, lease and loss ----

namespace korvel_detail {

LockHolding::~LockHolding() = default;

void LockHolding::hold(const std::string& file, int written, double start) {
  {
    std::lock_guard<std::mutex> lock(mutex_);
    file_ = file;
    written_ = written;
    owner_ = hostProcessId();
    held_ = true;
    lost_ = false;
    leaseEnd_ = start + korvel_protocol::kLeaseSeconds;
  }
  watchLease(shared_from_this());
}

void LockHolding::drop() {
  std::lock_guard<std::mutex> lock(mutex_);
  held_ = false;
  leaseEnd_ = 0.0;
}

bool LockHolding::held() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return held_ && owner_ == hostProcessId();
}

bool LockHolding::heldElsewhere() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return held_ && owner_ != hostProcessId();
}

std::string LockHolding::file() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return file_;
}

int LockHolding::written() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return written_;
}

bool LockHolding::mayWrite() {
  {
    std::lock_guard<std::mutex> lock(mutex_);
    if (lost_ || !held_ || owner_ != hostProcessId()) return false;
    if (hostMonotonic() < leaseEnd_) return true;
  }
  lose("not refreshed for 14 s");
  return false;
}

void LockHolding::wrote(int value, double start) {
  std::lock_guard<std::mutex> lock(mutex_);
  if (lost_ || !held_) return;
  written_ = value;
  leaseEnd_ = start + korvel_protocol::kLeaseSeconds;
}

void LockHolding::lose(const char* why) {
  std::string file;
  bool notify = false;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    if (lost_ || !held_) return;
    lost_ = true;
    leaseEnd_ = 0.0;
    file = file_;
    if (!closed_ && handler_) {
      notify = true;
      ++handlersPending_;
    }
  }
  warningLog << "FS_LOCK: lost the lock " << file << ": " << why << std::endl;
  if (notify) notifyLoss(shared_from_this());
}

bool LockHolding::lost() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return lost_;
}

void LockHolding::setHandler(std::function<void()> handler) {
  std::lock_guard<std::mutex> lock(mutex_);
  handler_ = std::move(handler);
}

void LockHolding::close() {
  std::unique_lock<std::mutex> lock(mutex_);
  closed_ = true;
  // A handler that destroys its own lock must not wait for itself.
  const int mine = handlerRunning_ && handlerThread_ == std::this_thread::get_id() ? 1 : 0;
  handlerDone_.wait(lock, [this, mine] { return handlersPending_ == mine; });
}

void LockHolding::runHandler() {
  std::function<void()> handler;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    if (!closed_) {
      handler = handler_;
      handlerRunning_ = true;
      handlerThread_ = std::this_thread::get_id();
    }
  }
  if (handler) {
    try {
      handler();
    } catch (...) {
      // A handler's failure is its own; the lock stays lost either way.
    }
  }
  std::lock_guard<std::mutex> lock(mutex_);
  handlerRunning_ = false;
  --handlersPending_;
  handlerDone_.notify_all();
}

double LockHolding::checkLease(double now) {
  {
    std::lock_guard<std::mutex> lock(mutex_);
    if (!held_ || lost_ || leaseEnd_ == 0.0) return 0.0;
    if (now < leaseEnd_) return leaseEnd_;
  }
  lose("not refreshed for 14 s");
  return 0.0;
}

}  // namespace korvel_detail

namespace {

// Starts a detached thread for the life of the process. Without one, the
// refreshes still notice a lapsed lease, only later; so a failure is
// reported and tried again at the next use.
bool startThread(std::function<void()> body, const char* what) {
  try {
    std::thread(std::move(body)).detach();
    return true;
  } catch (const std::system_error& e) {
    warningLog << "FS_LOCK: cannot start the " << what << " thread: " << e.what() << std::endl;
    return false;
  }
}

// One thread for the process that ends leases on time. It waits on its own
// condition only and never touches the file system, so a hung mount cannot
// hold it up. Made on first use and never destroyed: it may still be
// waiting when the process exits.
class LeaseTimer {
 public:
  static LeaseTimer& instance() {
    static LeaseTimer* timer = new LeaseTimer;  // NOLINT: lives until exit, see above
    return *timer;
  }

  void watch(const std::shared_ptr<LockHolding>& holding) {
    std::lock_guard<std::mutex> lock(mutex_);
    if (!started_) started_ = startThread([this] { run(); }, "lease timer");
    // A holding taken again and again is listed once.
    const bool listed = !watched_.empty() && !watched_.back().owner_before(holding) &&
                        !holding.owner_before(watched_.back());
    if (!listed) watched_.push_back(holding);
    // A busy timer checks again within a second, long before this lease
    // can end: waking it would only cost each acquisition two futex calls.
    if (idle_) wake_.notify_one();
  }

 private:
  void run() {
    std::unique_lock<std::mutex> lock(mutex_);
    for (;;) {
      // Check every holding without the timer's mutex: a check may call a
      // loss handler.
      std::vector<std::weak_ptr<LockHolding>> watched;
      watched.swap(watched_);
      lock.unlock();
      const double now = hostMonotonic();
      double next = 0.0;
      std::vector<std::weak_ptr<LockHolding>> still;
      std::set<const LockHolding*> seen;  // a holding held again is listed again
      for (const std::weak_ptr<LockHolding>& weak : watched) {
        const std::shared_ptr<LockHolding> holding = weak.lock();
        if (!holding || !seen.insert(holding.get()).second) continue;
        const double end = holding->checkLease(now);
        if (end == 0.0) continue;
        still.push_back(weak);
        if (next == 0.0 || end < next) next = end;
      }
      lock.lock();
      watched_.insert(watched_.end(), still.begin(), still.end());
      if (next == 0.0) {
        idle_ = true;
        wake_.wait(lock, [this] { return !watched_.empty(); });
        idle_ = false;
      } else {
        // A renewed lease moves its end later, which the next check finds.
        // At least once a second: the wait runs
        // on a clock that stops while the system sleeps, the lease on one
        // that does not.
        const double wait = std::min(1.0, std::max(0.0, next - hostMonotonic()));
        wake_.wait_for(lock, std::chrono::duration<double>(hostRealSeconds(wait + 0.001)));
      }
    }
  }

  std::mutex mutex_;
  std::condition_variable wake_;
  bool started_ = false;
  bool idle_ = false;  // waiting with nothing to watch; guarded by mutex_
  std::vector<std::weak_ptr<LockHolding>> watched_;
};

// Runs loss handlers, one at a time, on a thread of their own: never on a
// thread that holds a lock's mutex (a handler may release its lock), and
// never on the lease timer (a slow handler must not delay other leases).
// Made on first use and never destroyed, like the timer.
class LossNotifier {
 public:
  static LossNotifier& instance() {
    static LossNotifier* notifier = new LossNotifier;  // NOLINT: lives until exit
    return *notifier;
  }

  void post(std::shared_ptr<LockHolding> holding) {
    std::lock_guard<std::mutex> lock(mutex_);
    if (!started_) started_ = startThread([this] { run(); }, "loss notifier");
    pending_.push_back(std::move(holding));
    wake_.notify_one();
  }

 private:
  void run() {
    std::unique_lock<std::mutex> lock(mutex_);
    for (;;) {
      wake_.wait(lock, [this] { return !pending_.empty(); });
      std::shared_ptr<LockHolding> holding = std::move(pending_.front());
      pending_.pop_front();
      lock.unlock();
      holding->runHandler();
      holding.reset();
      lock.lock();
    }
  }

  std::mutex mutex_;
  std::condition_variable wake_;
  bool started_ = false;
  std::deque<std::shared_ptr<LockHolding>> pending_;
};

}  // namespace

void notifyLoss(const std::shared_ptr<LockHolding>& holding) {
  LossNotifier::instance().post(holding);
}

void watchLease(const std::shared_ptr<LockHolding>& holding) {
  LeaseTimer::instance().watch(holding);
}

bool refreshHolding(LockHolding& holding, LockNumbers& numbers) {
  std::lock_guard<std::mutex> io(holding.io());
  if (!holding.held() || !holding.mayWrite()) return true;
  const double start = hostMonotonic();
  const int value = numbers.next();
  switch (rewriteIfOurs(holding.file(), holding.written(), value)) {
    case Owned::kYes:
      holding.wrote(value, start);
      return true;
    case Owned::kLost:
      holding.lose("the file was taken over");
      return true;
    case Owned::kError:
      break;
  }
  return false;
}

Owned releaseHolding(LockHolding& holding, const std::string& directory, const Deadline& deadline) {
  std::lock_guard<std::mutex> io(holding.io());
  // A lost lock's file is somebody else's now, or soon will be.
  Owned removed = Owned::kLost;
  if (holding.mayWrite()) {
    removed = removeIfOursWithin(holding.file(), holding.written(), deadline);
    const int error = errno;
    if (removed == Owned::kLost && !directoryGone(directory)) {
      holding.lose("the file was taken over");
    }
    errno = error;
  }
  holding.drop();
  return removed;
}

Holdings refreshOnce(const Holdings& holdings, LockNumbers& numbers) {
  Holdings failed;
  for (const std::shared_ptr<LockHolding>& holding : holdings) {
    if (!refreshHolding(*holding, numbers)) failed.push_back(holding);
  }
  return failed;
}

void retryRefresh(Holdings failed, LockNumbers& numbers, koSynchronizedLoopContext& context) {
  const Deadline giveUp = Deadline::afterSeconds(2.5);
  unsigned backOff = 10;
  while (!failed.empty()) {
    if (giveUp.passed()) {
      warningLog << "Failed to refresh lock!" << std::endl;
      return;
    }
    if (LoopWait::waitFor(context, backOff / 1000.0)) return;  // stopping
    backOff = std::min(2 * backOff, 500u);
    failed = refreshOnce(failed, numbers);
  }
}

// ---- Stale-lock test ----

void koStaleLockRemover::update(const char* lockFile) {
  verboseLog << "koStaleLockRemover::update: Updating stale status for " << lockFile << std::endl;
  const koPathString tempPath(freshNameBeside(lockFile));
  verboseLog << "koStaleLockRemover::update: writing temp file " << tempPath << std::endl;

  const bool written = writeIntToFile(tempPath.c_str(), static_cast<int>(++tempFileCounter));
  koCleanupFunctionGuard removeTemp([&tempPath] { removeFileWithTenacity(tempPath.c_str()); });
  if (!written) warningLog << "koStaleLockRemover::update: write to temp failed" << std::endl;

  int ignored;
  if (!readIntFromFile(lockFile, ignored)) {
    warningLog << "koStaleLockRemover::update: read from lock failed" << std::endl;
  }
  if (!written) return;

  verboseLog << "koStaleLockRemover::update: stat-ing temp file and lock file... " << std::endl;
  struct stat lockStat = {};
  struct stat tempStat = {};
  if (hostStat(lockFile, &lockStat) == 0 && hostStat(tempPath.c_str(), &tempStat) == 0) {
    const double difference = static_cast<double>(tempStat.st_mtime - lockStat.st_mtime);
    if (difference > staleTimeout) {
      verboseLog << "koStaleLockRemover::update: adding " << lockFile << " to stale list."
                 << std::endl;
      staleFiles.push_back(lockFile);
    }
  }
  verboseLog << "koStaleLockRemover::update: temp file time: "
             << static_cast<long>(tempStat.st_mtime) << std::endl;
  verboseLog << "koStaleLockRemover::update: lock file time: "
             << static_cast<long>(lockStat.st_mtime) << std::endl;
}

void koStaleLockRemover::removeStaleFile(const std::string& name) {
  if (removeFileWithTenacity(name.c_str(), deadline.capped(0.02)) || errno == ENOENT) return;
  // Once per file, not once per poll.
  if (!warned->insert(name).second) return;
  warningLog << "FS_LOCK: cannot remove the stale lock file " << name << ": " << errorText(errno)
             << std::endl;
}

// ---- Shared objects ----

koNoSuchDirectory::~koNoSuchDirectory() = default;

const char* koNoSuchDirectory::what() const noexcept {
  return message_.c_str();
}

boost::shared_ptr<koThreadFactory> koDirectoryLockThreadPool() {
  boost::mutex::scoped_lock lock(poolMutex);
  if (!pool) pool.reset(new koPooledThreadFactory(0, 16));
  return pool;
}
