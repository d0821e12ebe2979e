// The fourth room of the lock code: a holder's hold on one lock file, its
// lease, the lease timer, and the telling of losses. Depends on
// lock_file.h and common.h.
#ifndef KORVEL_FS_LOCK_HOLDING_H_
#define KORVEL_FS_LOCK_HOLDING_H_

#include <sys/types.h>

#include <condition_variable>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "fs_lock/lock_file.h"
#include "fs_lock/this_host.h"
#include "korvel/threads.h"
#include "threads/loop_wait.h"

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

  // Starts holding file, written as `written` by a write that started at
  // `start`; clears a past loss and arms the lease. The holder is this
  // process: in a child made by fork() the holding counts as not held, so
  // that the child never rewrites or removes its parent's file.
  void hold(const std::string& file, const FileState& written, double start);
  // Nothing held any more: the lease is disarmed, lost() keeps its value.
  // REQUIRES: io() held.
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
  // The file as this holder last wrote it (number, size, time, inode).
  FileState written() const;

  // Whether this process holds the file and the lease allows a write that
  // starts now; records the loss if the lease ran out.
  bool mayWrite();
  // A write that started at `start` left the file as `written`.
  // REQUIRES: io() held.
  void wrote(const FileState& written, double start);
  // Whether the lease allows a change made now and the file is still as
  // this holder last wrote it; records a loss otherwise. A read-back, for
  // an act that this holding entitles.
  bool confirm();
  // Records a loss (once per hold): one warning line naming the file; the
  // handler then runs on the loss notifier's thread.
  void lose(const char* why);
  bool lost() const;

  void setHandler(std::unique_ptr<LostHandler> handler);
  // No handler runs after this returns (one already running on another
  // thread is waited for). Called by the lock that owns the holding before
  // it goes.
  void close();
  // For the loss notifier: runs the handler unless closed.
  void runHandler();

  // For the lease timer: when the lease ends, or 0 when nothing is armed.
  double leaseEnd() const;
  // Ends the lease if it is over. Returns the time the lease ends, or 0 when
  // nothing is armed.
  double checkLease(double now);
  // When the file is next due to be rewritten: a refresh period after the
  // start of its last write. 0 when nothing is held.
  double refreshDue() const;

 private:
  mutable std::mutex mutex_;
  std::mutex io_;
  std::string file_;
  pid_t owner_ = 0;
  FileState written_;
  bool held_ = false;
  bool lost_ = false;
  bool closed_ = false;
  double leaseEnd_ = 0.0;
  std::shared_ptr<LostHandler> handler_;
  std::unique_ptr<Registration> registration_;  // this host's record of it; guarded by io_
  bool handlerRunning_ = false;
  std::thread::id handlerThread_;
  std::condition_variable handlerDone_;
};

}  // namespace korvel_detail

using korvel_detail::LockHolding;
using korvel_detail::LoopWait;

// Makes the lease timer watch holding until its lease ends.
void watchLease(const std::shared_ptr<LockHolding>& holding);
// Queues a call of holding's handler on the loss notifier's thread.
void notifyLoss(const std::shared_ptr<LockHolding>& holding);

// Rewrites a held file once, for a refresh: checks the lease, then the
// content, then writes the next number. Returns false on a write error
// (worth a retry); a loss is recorded in the holding.
bool refreshHolding(LockHolding& holding, LockNumbers& numbers);
enum class Released {
  kRemoved,  // the file was ours and is gone
  kLost,     // it was no longer ours: left alone
  kError,    // it could not be removed; errno says why
};

// Gives a held file up: removes it if the lease allows and it is still as
// the holder last wrote it, retrying errors until the deadline; then drops
// the holding. kLost is recorded in the holding as a loss, unless the whole
// directory has gone (the caller reports that).
Released releaseHolding(LockHolding& holding, const std::string& directory,
                        const Deadline& deadline);

typedef std::vector<std::shared_ptr<LockHolding>> Holdings;

// Seconds until the first of holdings is due for its refresh, between a
// poll and a refresh period. Counted from the last write, not from the last
// wake: an acquisition that was slow in getting its file written must not
// push the first refresh past the lease.
double untilRefresh(const Holdings& holdings);
// Refreshes each holding once; returns those whose writes failed.
Holdings refreshOnce(const Holdings& holdings, LockNumbers& numbers);
// Retries failed refreshes with back-off for up to 2.5 s, or until a stop
// is pending (the waits are the loop's). Warns once when some still fail.
void retryRefresh(Holdings failed, LockNumbers& numbers, koSynchronizedLoopContext& context);

#endif  // KORVEL_FS_LOCK_HOLDING_H_
