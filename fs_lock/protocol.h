// The directory-lock protocol's constants: what every process that takes
// part must agree on. Defined once here; the locks and korvel-lock use them.
#ifndef KORVEL_FS_LOCK_PROTOCOL_H_
#define KORVEL_FS_LOCK_PROTOCOL_H_

namespace korvel_protocol {

// A holder rewrites each lock file it holds this often.
constexpr unsigned kRefreshPeriodMs = 5000;
// A lock file whose modification time is more than this many seconds behind
// a fresh file's, both by the file server's clock, belongs to a dead holder.
constexpr double kStaleSeconds = 15.0;
// Waiters look again this often.
constexpr unsigned kPollMs = 10;
// A holder gives its lock up for lost this long after the start of its last
// successful refresh, by its own monotonic clock: a second before any waiter
// can judge the file stale (see the notes at the top of fs_lock.cpp).
constexpr double kLeaseSeconds = 14.0;

// File names, appended to the locked directory as given. All begin with
// kNamePrefix.
constexpr char kNamePrefix[] = ".deploy_";
constexpr char kLevelPrefix[] = "/.deploy_lock.";          // + level
constexpr char kWriteLockName[] = "/.deploy_write_lock";   //
constexpr char kReadLockPrefix[] = "/.deploy_read_lock.";  // + number

}  // namespace korvel_protocol

#endif  // KORVEL_FS_LOCK_PROTOCOL_H_
