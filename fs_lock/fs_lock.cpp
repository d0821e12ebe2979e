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
