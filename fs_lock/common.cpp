// Diagnostics, deadlines, lock numbers and the standard interfaces'
// helpers (see common.h).
#include "fs_lock/common.h"

#include <sys/stat.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <iostream>
#include <limits>

#include "korvel/paths.h"

namespace {

bool environmentHas(const char* name) {
  return getenv(name) != nullptr;  // NOLINT(concurrency-mt-unsafe): load time only
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

bool isRefusal(int error) {
  return error == EACCES || error == EPERM || error == EROFS || error == ENAMETOOLONG ||
         error == ENOTDIR || error == ELOOP || error == EINVAL;
}

std::string absolutePath(std::string path) {
  if (path.empty() || path[0] == '/') return path;
  char cwd[KORVEL_PATH_BUFFER_SIZE];
  if (hostGetcwd(cwd, sizeof cwd) == nullptr) return path;  // the lock then says why it cannot
  std::string absolute(cwd);
  if (absolute.empty() || absolute.back() != '/') absolute += '/';
  return absolute + path;
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

LockNumbers::LockNumbers() : value_(hostRandom()) {}

int LockNumbers::next() {
  // Non-negative, as "%d" writes it; wraps at 2^31.
  return static_cast<int>(value_.fetch_add(1) & 0x7fffffffu);
}

}  // namespace korvel_detail

void sleepWithin(unsigned ms, const Deadline& deadline) {
  const double left = deadline.remaining() * 1000.0;
  if (left <= 0.0) return;
  hostSleepMilliseconds(left < ms ? static_cast<unsigned>(std::ceil(left)) : ms);
}

// ---- The standard lock interfaces ----

void lockFailed(const char* what) {
  const int error = errno;
  throw std::system_error(error != 0 ? error : EDEADLK, std::generic_category(), what);
}

void throwStandardNoSuchDirectory(const std::string& directory, const char* what) {
  struct stat st;
  const bool other = hostStat(directory.c_str(), &st) == 0 && !S_ISDIR(st.st_mode);
  std::throw_with_nested(
      std::system_error(other ? ENOTDIR : ENOENT, std::generic_category(), what));
}
