// Pieces shared by the directory locks: lock-file primitives, deadlines,
// the stale-lock test, the diagnostics streams. Internal to the library.
#ifndef KORVEL_FS_LOCK_FS_LOCK_INTERNAL_H_
#define KORVEL_FS_LOCK_FS_LOCK_INTERNAL_H_

#include <boost/thread/xtime.hpp>
#include <ostream>
#include <set>
#include <string>
#include <vector>

#include "korvel/paths.h"
#include "korvel/time_unit.h"

constexpr unsigned long kInfiniteTimeout = static_cast<unsigned long>(-1);

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

// Throws koNoSuchDirectory with the message that names directory.
[[noreturn]] void throwNoSuchDirectory(const std::string& directory);

// Reads one "%d" number; false if the file cannot be opened or holds none.
bool readIntFromFile(const char* path, int& value);
// Creates or truncates the file and writes value with "%d" (no newline);
// this is also how a lock file is refreshed. False if it cannot be opened.
bool writeIntToFile(const char* path, int value);
void sleepMilliseconds(unsigned int ms);
// Removes path, retrying every 1 ms until hostRealtime() reaches deadline
// (never giving up when timeout is infinite). One attempt is always made.
bool removeFileWithTenacity(const char* path, unsigned long timeout, double deadline);
// The same with 20 ms of patience.
bool removeFileWithTenacity(const char* path);
// hostRealtime() + the time-out in seconds.
double realtimeDeadline(unsigned long n, const Zentha::System::TimeUnit& unit);
// Now + the time-out cut down to whole seconds, for timed locking of an
// in-process mutex.
boost::xtime xtimeDeadline(unsigned long n, const Zentha::System::TimeUnit& unit);

// Judges lock files by the file server's clock: a fresh temporary file is
// written beside the lock file and the two modification times compared. A
// lock file more than staleTimeout seconds older is stale. Used by one
// thread at a time.
class koStaleLockRemover {
 public:
  // Appends lockFile to staleFiles when it is stale. Never throws for
  // file-system failures; leaves no temporary file behind.
  void update(const char* lockFile);
  // Removes one file with tenacity (bounded by deadline when useDeadline).
  void removeStaleFile(const std::string& name) const;

  std::vector<std::string> staleFiles;
  double staleTimeout = 15.0;
  bool useDeadline = false;
  double deadline = 0.0;
};

// Walker procedure: tests each file it is given for staleness.
class UpdateStaleLockStatus : public koStringProcedure {
 public:
  explicit UpdateStaleLockStatus(koStaleLockRemover* remover) : remover_(remover) {}
  void operator()(const char* path) const override { remover_->update(path); }

 private:
  koStaleLockRemover* remover_;
};

// Rewrites each file it is applied to with the owner's running counter,
// advancing that counter by one per file.
class RefreshFile {
 public:
  explicit RefreshFile(int& counter) : counter_(&counter) {}
  void operator()(const std::string& file) const {
    int value = (*counter_)++;
    writeIntToFile(file.c_str(), value);
  }

 private:
  int* counter_;
};

#endif  // KORVEL_FS_LOCK_FS_LOCK_INTERNAL_H_
