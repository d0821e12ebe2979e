// The first room of the lock code: diagnostics, deadlines, the numbers
// written into lock files, and the helpers of the standard lock interfaces.
// Depends on nothing else in fs_lock/. The protocol itself is described at
// the top of fs_lock.cpp.
#ifndef KORVEL_FS_LOCK_COMMON_H_
#define KORVEL_FS_LOCK_COMMON_H_

#include <atomic>
#include <boost/chrono/duration.hpp>
#include <cerrno>
#include <ostream>
#include <string>
#include <system_error>

#include "fs_lock/protocol.h"
#include "host/host.h"
#include "korvel/fs_lock.h"
#include "korvel/time_unit.h"

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

// ---- The directory ----

// Throws koNoSuchDirectory with the message that names directory.
[[noreturn]] void throwNoSuchDirectory(const std::string& directory);

// What the locks ask after a file operation failed: has the directory gone
// (then they throw koNoSuchDirectory)? errno is left as the failure set it.
bool directoryGone(const std::string& directory);

// Failures that waiting cannot cure: the lock cannot be had here at all.
bool isRefusal(int error);

// path made absolute against the working directory, without resolving
// links: a deploy's "current -> release-N" keeps meaning what later
// processes mean by it. Empty stays empty.
std::string absolutePath(std::string path);

// ---- Time ----

namespace korvel_detail {

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

using korvel_detail::Deadline;
using korvel_detail::LockNumbers;

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

// The longest a back-off between retries grows to.
constexpr unsigned kMaxBackOffMs = 1000;
// How long a release keeps trying to remove a file that resists, when it
// is not told otherwise.
constexpr double kReleaseEffortSeconds = 2.0;

// ---- The standard lock interfaces ----

// The timed call behind lock, try_lock and try_lock_for: takes threads (a
// deferred boost lock on the object's threads' lock) by the deadline, then
// acquire(the milliseconds left). On success the threads' lock stays taken
// until unlock; on false or an exception it is let go. False only for a
// time-out; any other failure throws std::system_error named what, a
// missing directory with the koNoSuchDirectory nested.
template <class ThreadsLock, class Acquire>
bool standardTryLock(ThreadsLock threads, unsigned long ms, Acquire acquire,
                     const std::string& directory, const char* what);

// A lock() that could not lock: never a time-out.
[[noreturn]] void lockFailed(const char* what);

// The standard unlock must not throw: a directory gone meanwhile is told.
template <class Release>
void releaseQuietly(Release release) {
  try {
    if (!release()) warningLog << "FS_LOCK: unlock: " << errorText(errno) << std::endl;
  } catch (const koNoSuchDirectory& e) {
    warningLog << "FS_LOCK: " << e.what() << std::endl;
  }
}

// Throws the std::system_error that stands for a koNoSuchDirectory at the
// standard interfaces: ENOTDIR when the path names something else, ENOENT
// otherwise, with the original nested. REQUIRES: called in a handler of it.
[[noreturn]] void throwStandardNoSuchDirectory(const std::string& directory, const char* what);

template <class ThreadsLock, class Acquire>
bool standardTryLock(ThreadsLock threads, unsigned long ms, Acquire acquire,
                     const std::string& directory, const char* what) {
  const Deadline deadline = Deadline::after(ms, Zentha::System::TimeUnit::sMilliseconds());
  if (!lockBy(threads, deadline)) return false;
  bool held = false;
  try {
    held = acquire(deadline.remainingMillis());
  } catch (const koNoSuchDirectory&) {
    threads.unlock();
    throwStandardNoSuchDirectory(directory, what);
  }
  if (held) {
    threads.release();
    return true;
  }
  const int error = errno;
  threads.unlock();
  if (error == ETIMEDOUT || error == 0) return false;
  throw std::system_error(error, std::generic_category(), what);
}

#endif  // KORVEL_FS_LOCK_COMMON_H_
