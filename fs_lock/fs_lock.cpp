// Directory locks: how they work and what they promise. The code lives in
// rooms that depend one way only: common.h (diagnostics, deadlines,
// numbers), lock_file.h (lock-file primitives), stale_test.h (the stale
// test), holding.h (a holding, its lease and loss), exclusive_lock.h (the
// exclusive queue) and read_write_lock.h (the read-write lock). This file
// holds the notes below and the objects both lock classes share.
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
//                                                  taken over like level 0, and
//                                                  swept by the next holder
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
// file by rewriting it every 5 s (kRefreshPeriodMs): a new number, and a new
// modification time. A holder that stopped rewriting for 15 s
// (kStaleSeconds) is dead, and its file may be taken over or removed.
//
// A DEAD HOLDER, AND HOW A WAITER KNOWS
//
// File times alone never decide that a recently active holder is dead: a
// file server's clock may step (an NTP step, a resumed virtual machine),
// and some file systems stamp writes with the writing client's clock. A
// waiter judges by what it sees itself: a file is stale when this host has
// seen it unchanged (same device and inode, size, modification time and
// number; read with open and fstat, which a cached stat cannot fake) for
// more than kObservationSeconds = kLeaseSeconds + 1 = 15 s by its own
// monotonic clock. Monotonic clocks on different hosts run at one rate,
// whatever their settings. The arithmetic: the holder's last successful
// refresh started at S and was written before the waiter first saw its
// result, at W >= S; the holder gives the lock up at S + 14 <= W + 14; the
// waiter takes over after W + 15: a second after the holder let go. A
// waiter that was waiting when the holder died first sees the last state
// within a poll of it, and takes over about 15 s after the last refresh
// (at most 17.5 s). One that arrives later waits a full observation period
// from its arrival. This host's earlier sightings count too: each waiter
// leaves what it saw of files that stood still in a record of its user's
// under hostLocalStateDirectory() (trusted only when the user's own, and
// closed to others), so that a single attempt (a time-out of 0, a cron
// job's "korvel-lock -n") takes over once an earlier attempt on this host
// saw the same file 15 s before.
//
// A file more than kLongDeadSeconds (10 minutes) old by the file server's
// clock is taken at once. The server's time is learnt by writing a fresh
// file beside the lock file (once per state seen) and reading its time:
// both times come from the same clock, so skew between hosts does not
// matter. The window this leaves: a server clock step, or a client-stamped
// time, more than 10 minutes off makes a live holder's file look long
// dead.
//
// THE EXCLUSIVE LOCK'S QUEUE
//
// Level 0 is the holder. A newcomer takes the first free level counting up
// from 0, then works its way down: it creates the next lower level
// exclusively and removes its own. Waiters already queued go first: a free
// level with a waiter right above it is that waiter's next step, so the
// newcomer gives it one 10 ms poll to move in, and then looks on up from
// there; a free level with nobody above is claimed at once. While the level
// below is taken a waiter polls every 10 ms (kPollMs), rewriting its own
// queue file, and looks at the level below at every poll. A stale level is
// taken over by the waiter directly above it, which writes its own number
// into the file in place; only that waiter may, since it alone owns the
// level above. A time-out of 0 makes one pass of this: one level down, the
// stale test included, no waiting. After an acquisition the holder looks at
// the levels above (once a refresh period at most) and removes the places
// of killed waiters that are stale (by the same rule), so that they do not
// stay for good once the lock is free.
//
// ON ONE HOST
//
// Waiters on this host are woken by the kernel the moment the file in their
// way goes (watch.h), instead of at their next poll; the poll stays for
// other hosts' changes. Where the file system renames without replacing
// (renameat2 RENAME_NOREPLACE; not over NFS, which answers EINVAL), a
// waiter whose place was rewritten within the last poll moves it down whole:
// the level below appears, holding the number and times of that rewrite, as
// the own place goes. To any other process this is a create of the level
// below and a removal of the own place with nothing between them, and the
// lease runs from the rewrite. A holding registers itself in this host's
// registry (this_host.h), so that a holder that dies is known dead at once
// by waiters of the same host.
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
// 10 ms. A name whose state cannot be told (an lstat error other than
// "no such file") counts as a blocker, never as absent. Read locks
// are found by listing the directory literally, never through a wildcard
// in the directory's own name; a directory that cannot be listed keeps the
// writer out. A release tries the directory lock once and removes its file
// with or without it: removing one's own file cannot let a conflicting
// holder in.
//
// ACTING ON A JUDGEMENT
//
// Every act on a lock file is made through one step (Judgement): a waiter's
// removal of a stale file or takeover of a stale level, a holder's refresh
// and its release. Right before the act it checks (a) that the actor still
// holds what entitles it: a read-write waiter its directory lock (its lease,
// and the level-0 file read back as it wrote it), a queue waiter its own
// place (its lease, and its place rewritten after reading it back), a holder
// its own lease; and (b) that the file is still the one judged (its state,
// as above). Otherwise it does nothing, and the file is judged afresh. A
// takeover writes through the descriptor it checked, then makes sure that
// the name still leads to that file.
//
// WHAT A HOLDER KNOWS
//
// A holder remembers the state of each file it holds as it last wrote it
// (the number, and what fstat said right after: size, modification time,
// inode). A file that is missing, or in any other state, has been taken over
// (its holder was stopped or cut off for more than 15 s), even when the
// bytes it reads look like its own (a cache may serve old content): the
// holder neither rewrites, re-creates nor removes it, stops refreshing it,
// writes one warning line naming it and records the loss (lost(), and the
// lost handler).
//
// A holder also keeps a lease: it gives its lock up for lost 14 s
// (kLeaseSeconds) after the start of its last successful refresh, on its
// own clock (one that never steps and counts a suspend), whether or not the
// file system answers; a waiter takes over only a second later (above). A
// lease timer thread that never touches the file system ends leases on time
// even while the lock's own threads hang in a dead mount.
//
// Known windows, which no protocol on plain files can close:
//   - Between the check of a judgement and the act (microseconds), another
//     holder could take the file over; an unlink would then remove its
//     file. It takes an actor stopped for more than 15 s exactly there, and
//     a waiter taking over at that very moment.
//   - A refresh write that the file server applies more than a second after
//     it was sent (a stalled network) may land after a takeover.
//   - A server clock step, or client-stamped file times, more than 10
//     minutes off (kLongDeadSeconds) make a live holder's file look long
//     dead.
//   - Mutual exclusion needs the holder to refresh within 15 s: a lock taken
//     without refresh must be released sooner, and a job that empties the
//     locked directory drops the lock with it.
//
// SHARED DIRECTORIES
//
// Whatever sits under a lock-file name may have been planted by another
// user. The locks never follow a symbolic link there (O_NOFOLLOW, lstat,
// and O_EXCL on every create), never block in open (O_NONBLOCK), look at
// the name before they open a file they do not own, and act only on
// regular files. Anything else is foreign: it blocks the lock like a live
// holder, is named once on the warning channel, and is never read, written
// or removed (korvel-lock --clean --force removes it). Lock files are
// removed with unlink, never remove(3), which would take an empty
// directory. A stale file that this user may not break (another user's, in
// a sticky directory) is waited out until the deadline, and named once with
// its owner.
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
//       handler run with any lock's mutex held (handlers run, one at a
//       time, on a thread of their own; closing a holding waits only for a
//       handler running on another thread, so a handler may destroy any
//       lock, its own included).
// The first ERROR is checked at run time (KORVEL_CHECK). A waiting acquirer
// holds only its handle's own acquisition mutex, never the object's, so
// releases and the refresh go on meanwhile. A holding's file operations are
// serialised by its io mutex (a refresh against a release), which is taken
// last. The lease timer takes only its own mutex and, briefly, a holding's.
#include "korvel/fs_lock.h"

#include <boost/shared_ptr.hpp>
#include <boost/thread/mutex.hpp>

#include "korvel/threads.h"

namespace {

// The process-wide lock thread pool, made on first use.
boost::mutex poolMutex;
boost::shared_ptr<koThreadFactory> pool;

}  // namespace

koNoSuchDirectory::~koNoSuchDirectory() = default;

const char* koNoSuchDirectory::what() const noexcept {
  return message_.c_str();
}

boost::shared_ptr<koThreadFactory> koDirectoryLockThreadPool() {
  boost::mutex::scoped_lock lock(poolMutex);
  if (!pool) pool.reset(new koPooledThreadFactory(0, 16));
  return pool;
}
