// Pieces shared by the directory locks: deadlines, lock-file primitives that
// know their owner, leases and loss, the stale-lock test, the diagnostics
// streams. Internal to the library; the protocol itself is described at the
// top of fs_lock.cpp.
#ifndef KORVEL_FS_LOCK_FS_LOCK_INTERNAL_H_
#define KORVEL_FS_LOCK_FS_LOCK_INTERNAL_H_

#include <sys/types.h>

#include <atomic>
#include <cerrno>
#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <ostream>
#include <set>
#include <string>
#include <system_error>
#include <thread>
#include <vector>

#include "fs_lock/protocol.h"
#include "host/host.h"
#include "korvel/fs_lock.h"
#include "korvel/paths.h"
#include "korvel/threads.h"
#include "korvel/time_unit.h"
#include "threads/loop_wait.h"

// ---- Diagnostics ----

// A diagnostics channel: writes only when enabled. Every message ends with
// std::endl, so each is one flushed line.
struct LogStream {
  bool enabled;
  std::ostream* stream;
};

template <class T>
const LogStream& operator<<(const LogStream& log, const T& value) {
  if (log.enabled) *log.stream << value;
  return log;
}
const LogStream& operator<<(const LogStream& log, std::ostream& (*manipulator)(std::ostream&));

// Standard output, when KORVEL_FSLOCK_VERBOSE was set at load.
extern LogStream verboseLog;
// Standard error, when KORVEL_FSLOCK_VERBOSE or KORVEL_FSLOCK_WARNING was
// set at load.
extern LogStream warningLog;

// The text of an errno value; safe from any thread.
std::string errorText(int error);

// ---- Lock order ----

// Stops the process when an invariant of the lock code does not hold. On in
// every build: the checks are a thread-local read.
#define KORVEL_CHECK(condition, what)          \
  do {                                         \
    if (!(condition)) korvelCheckFailed(what); \
  } while (0)
[[noreturn]] void korvelCheckFailed(const char* what);

// How many directory locks this thread holds through a read-write lock.
// Nothing may wait for a refresh loop, or run a loss handler, while it is
// above 0 (see the lock order at the top of fs_lock.cpp).
extern thread_local int directoryLocksHeld;

// ---- Directory existence ----

// Throws koNoSuchDirectory with the message that names directory.
[[noreturn]] void throwNoSuchDirectory(const std::string& directory);

// What the locks ask after a file operation failed: has the directory gone
// (then they throw koNoSuchDirectory)? errno is left as the failure set it.
bool directoryGone(const std::string& directory);

namespace korvel_detail {

// ---- Time ----

// When a wait ends, on the monotonic clock. Time-outs that do not fit
// saturate to forever.
class Deadline {
 public:
  static Deadline forever() { return Deadline(); }
  static Deadline after(unsigned long n, const Zentha::System::TimeUnit& unit);
  static Deadline afterSeconds(double seconds);

  bool infinite() const { return infinite_; }
  bool passed() const;
  // Seconds left, 0 once passed; huge when infinite.
  double remaining() const;
  // Milliseconds left, rounded up, for a wait that takes a count.
  unsigned long remainingMillis() const;
  // The earlier of this and now + seconds.
  Deadline capped(double seconds) const;

 private:
  Deadline() = default;
  bool infinite_ = true;
  double at_ = 0.0;  // hostMonotonic() seconds
};

}  // namespace korvel_detail

using korvel_detail::Deadline;
using korvel_detail::LoopWait;

// Sleeps for ms, but not past the deadline.
void sleepWithin(unsigned ms, const Deadline& deadline);

// Takes a boost lock or lockable by the deadline (at once for a deadline
// already passed). Boost's timed waits are ones the thread checkers see.
template <class Lock>
bool lockBy(Lock& lock, const Deadline& deadline) {
  if (deadline.infinite()) {
    lock.lock();
    return true;
  }
  return lock.try_lock() ||
         lock.try_lock_for(boost::chrono::duration<double>(hostRealSeconds(deadline.remaining())));
}

// ---- The standard lock interfaces ----

// The timed call behind lock, try_lock and try_lock_for: takes threads (a
// deferred boost lock on the object's threads' lock) by the deadline, then
// acquire(the milliseconds left). On success the threads' lock stays taken
// until unlock; on false or an exception it is let go. False only for a
// time-out; any other failure throws std::system_error named what.
template <class ThreadsLock, class Acquire>
bool standardTryLock(ThreadsLock threads, unsigned long ms, Acquire acquire, const char* what) {
  const Deadline deadline = Deadline::after(ms, Zentha::System::TimeUnit::sMilliseconds());
  if (!lockBy(threads, deadline)) return false;
  if (acquire(deadline.remainingMillis())) {
    threads.release();
    return true;
  }
  const int error = errno;
  threads.unlock();
  if (error == ETIMEDOUT || error == 0) return false;
  throw std::system_error(error, std::generic_category(), what);
}

// A lock() that could not lock: never a time-out.
[[noreturn]] inline void lockFailed(const char* what) {
  const int error = errno;
  throw std::system_error(error != 0 ? error : EDEADLK, std::generic_category(), what);
}

// The standard unlock must not throw: a directory gone meanwhile is told.
template <class Release>
void releaseQuietly(Release release) {
  try {
    release();
  } catch (const koNoSuchDirectory& e) {
    warningLog << "FS_LOCK: " << e.what() << std::endl;
  }
}

// ---- Lock-file primitives ----

// Reads one "%d" number; false if the file cannot be opened or holds none.
bool readIntFromFile(const char* path, int& value);
// Creates or truncates the file and writes value with "%d" (no newline).
// False if it cannot be opened. Used for the stale test's fresh file.
bool writeIntToFile(const char* path, int value);
// Removes path, retrying every 1 ms until the deadline. One attempt is
// always made.
bool removeFileWithTenacity(const char* path, const Deadline& deadline);
// The same with 20 ms of patience.
bool removeFileWithTenacity(const char* path);

namespace korvel_detail {

// The numbers a lock object writes into its files: they start at a random
// 31-bit value, so that two holders (also two processes with one pid on two
// hosts) never write the same sequence, and grow by one per write. Nobody
// else interprets them.
class LockNumbers {
 public:
  LockNumbers();
  int next();

 private:
  std::atomic<unsigned> value_;
};

}  // namespace korvel_detail

using korvel_detail::LockNumbers;

namespace korvel_detail {

enum class Create {
  kMade,       // the file is ours, holding the number
  kTaken,      // someone else has it
  kRefused,    // cannot be made, and waiting will not change that; errno says why
  kTransient,  // failed for now (no space, I/O); errno says why
};

}  // namespace korvel_detail

using korvel_detail::Create;

// Exclusive create of path (mode as given, less the umask), writing value
// through the new descriptor. A failed create with no file of that name is
// examined: a name too long, a read-only file system or a directory we may
// not write in is kRefused. Throws koNoSuchDirectory when directory is gone.
Create createLockFile(const std::string& directory, const std::string& path, unsigned mode,
                      int value);

enum class Owned {
  kYes,    // done: the file held our number
  kLost,   // missing, or holding a number not ours: left alone
  kError,  // could not be done; errno says why
};

// Rewrites path in place with value if it still holds expected. Never
// creates the file and never truncates it to zero first.
Owned rewriteIfOurs(const std::string& path, int expected, int value);
// Unlinks path if it still holds expected. Between the read and the unlink
// another holder could take the file over; see the notes in fs_lock.cpp.
Owned removeIfOurs(const std::string& path, int expected);
// The same, retrying errors with back-off until the deadline.
Owned removeIfOursWithin(const std::string& path, int expected, const Deadline& deadline);
// Writes value over whatever path holds (a stale file taken over). Never
// creates the file.
bool overwrite(const std::string& path, int value);

// ---- Holding, lease and loss ----

namespace korvel_detail {

// One holder's hold on one lock file: the number it last wrote, its lease,
// and whether it was lost. The lease runs kLeaseSeconds from the start of
// the last successful write, on the monotonic clock; a lease timer ends it
// even while the holder's threads hang in the file system. Shared by the
// lock's threads and the timer. Its mutex is never held across a
// file-system call or a handler.
class LockHolding : public std::enable_shared_from_this<LockHolding> {
 public:
  LockHolding() = default;
  LockHolding(const LockHolding&) = delete;
  LockHolding& operator=(const LockHolding&) = delete;
  // REQUIRES: no handler call is in progress on another thread, or this is
  // it (close() waits for that).
  ~LockHolding();

  // Starts holding file, which holds `written` since a write started at
  // `start`; clears a past loss and arms the lease. The holder is this
  // process: in a child made by fork() the holding counts as not held, so
  // that the child never rewrites or removes its parent's file.
  void hold(const std::string& file, int written, double start);
  // Nothing held any more: the lease is disarmed, lost() keeps its value.
  void drop();
  bool held() const;
  // Held by the process this one was forked from: nothing may be done with
  // the file or the threads that kept it (they are not in this process).
  bool heldElsewhere() const;
  // Serialises the file operations on the held file (a refresh against a
  // release). Held across file-system calls; no other mutex is taken while
  // it is held.
  std::mutex& io() { return io_; }
  std::string file() const;
  int written() const;

  // Whether this process holds the file and the lease allows a write that
  // starts now; records the loss if the lease ran out.
  bool mayWrite();
  // A write that started at `start` succeeded with value.
  void wrote(int value, double start);
  // Records a loss (once per hold): one warning line naming the file; the
  // handler then runs on the loss notifier's thread.
  void lose(const char* why);
  bool lost() const;

  void setHandler(std::function<void()> handler);
  // No handler runs after this returns (one already running on another
  // thread is waited for). Called by the lock that owns the holding before
  // it goes.
  void close();
  // For the loss notifier: runs the handler unless closed.
  void runHandler();

  // For the lease timer: ends the lease if it is over. Returns the time the
  // lease ends, or 0 when nothing is armed.
  double checkLease(double now);

 private:
  mutable std::mutex mutex_;
  std::mutex io_;
  std::string file_;
  pid_t owner_ = 0;
  int written_ = 0;
  bool held_ = false;
  bool lost_ = false;
  bool closed_ = false;
  double leaseEnd_ = 0.0;
  std::function<void()> handler_;
  int handlersPending_ = 0;  // posted to the notifier, not yet finished
  bool handlerRunning_ = false;
  std::thread::id handlerThread_;
  std::condition_variable handlerDone_;
};

}  // namespace korvel_detail

using korvel_detail::LockHolding;

// Makes the lease timer watch holding until its lease ends.
void watchLease(const std::shared_ptr<LockHolding>& holding);
// Queues a call of holding's handler on the loss notifier's thread.
void notifyLoss(const std::shared_ptr<LockHolding>& holding);

// Rewrites a held file once, for a refresh: checks the lease, then the
// content, then writes the next number. Returns false on a write error
// (worth a retry); a loss is recorded in the holding.
bool refreshHolding(LockHolding& holding, LockNumbers& numbers);
// Gives a held file up: removes it if the lease allows and it still holds
// the holding's number, retrying errors until the deadline; then drops the
// holding. kLost when the file was no longer ours: recorded in the holding,
// unless the whole directory has gone (the caller reports that).
Owned releaseHolding(LockHolding& holding, const std::string& directory, const Deadline& deadline);

typedef std::vector<std::shared_ptr<LockHolding>> Holdings;

// Refreshes each holding once; returns those whose writes failed.
Holdings refreshOnce(const Holdings& holdings, LockNumbers& numbers);
// Retries failed refreshes with back-off for up to 2.5 s, or until a stop
// is pending (the waits are the loop's). Warns once when some still fail.
void retryRefresh(Holdings failed, LockNumbers& numbers, koSynchronizedLoopContext& context);

// ---- Stale-lock test ----

// Judges lock files by the file server's clock: a fresh temporary file is
// written beside the lock file and the two modification times compared. A
// lock file more than staleTimeout seconds older is stale. Used by one
// thread at a time.
class koStaleLockRemover {
 public:
  // Appends lockFile to staleFiles when it is stale. Never throws for
  // file-system failures; leaves no temporary file behind.
  void update(const char* lockFile);
  // Removes one stale file with tenacity (bounded by deadline). A file that
  // cannot be removed is named on the warning channel once per set of
  // warned names (the remover's own, unless given a longer-lived one).
  void removeStaleFile(const std::string& name);

  std::vector<std::string> staleFiles;
  double staleTimeout = korvel_protocol::kStaleSeconds;
  Deadline deadline = Deadline::afterSeconds(0.02);
  std::set<std::string>* warned = &ownWarned_;

 private:
  std::set<std::string> ownWarned_;
};

// A fresh name beside path (same directory, so the same file server),
// unique to this process, thread and moment: "." and digits.
std::string freshNameBeside(const std::string& path);

#endif  // KORVEL_FS_LOCK_FS_LOCK_INTERNAL_H_
