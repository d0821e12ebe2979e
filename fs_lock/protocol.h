// The directory-lock protocol's constants: what every process that takes
// part must agree on. Defined once here; the locks and korvel-lock use them.
#ifndef KORVEL_FS_LOCK_PROTOCOL_H_
#define KORVEL_FS_LOCK_PROTOCOL_H_

namespace korvel_protocol {

// A holder rewrites each lock file it holds this often.
constexpr unsigned kRefreshPeriodMs = 5000;
// The stale time-out: a holder that has not refreshed its file for this
// long is taken for dead. Older releases judged it by the file server's
// times alone; this one by what the waiter itself sees (below).
constexpr double kStaleSeconds = 15.0;
// Waiters look again this often.
constexpr unsigned kPollMs = 10;
// A holder gives its lock up for lost this long after the start of its last
// successful refresh, by its own monotonic clock: a second before any waiter
// can judge the file stale (see the notes at the top of fs_lock.cpp).
constexpr double kLeaseSeconds = 14.0;
// A waiter takes a file over only after seeing it unchanged for longer than
// this, by its own monotonic clock: the lease plus a second of margin.
constexpr double kObservationSeconds = kLeaseSeconds + 1.0;
// A file older than this by the file server's clock is taken over at once:
// far beyond any clock step or client-stamped time seen in practice.
constexpr double kLongDeadSeconds = 600.0;

// File names, appended to the locked directory as given. All begin with
// kNamePrefix.
constexpr char kNamePrefix[] = ".deploy_";
constexpr char kLevelPrefix[] = "/.deploy_lock.";          // + level
constexpr char kWriteLockName[] = "/.deploy_write_lock";   //
constexpr char kReadLockPrefix[] = "/.deploy_read_lock.";  // + number

}  // namespace korvel_protocol

#endif  // KORVEL_FS_LOCK_PROTOCOL_H_
