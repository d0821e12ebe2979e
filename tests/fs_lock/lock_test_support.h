// Support for the lock tests. Fault injection and observation go through
// the host layer: this test binary defines hostOpen, hostLstat, hostFstat,
// hostUnlink, hostGetDirList and the clocks, so the library's file
// operations pass through here. Switches may be flipped by one thread while
// another uses a lock.
#ifndef KORVEL_TESTS_FS_LOCK_LOCK_TEST_SUPPORT_H_
#define KORVEL_TESTS_FS_LOCK_LOCK_TEST_SUPPORT_H_

#include <sys/types.h>

#include <atomic>
#include <fstream>
#include <functional>
#include <string>

#include "fs_lock/read_write_lock.h"
#include "tests/support/temp_dir.h"

namespace korvel_test {

enum class Fault {
  kCreate,     // exclusive creates (O_CREAT|O_EXCL)
  kWrite,      // any other open for writing
  kRemove,     // removals
  kList,       // directory listings
  kStat,       // looks at a name (lstat)
  kSlowWrite,  // opens for writing take 300 ms, then succeed
};

// Moves this process's monotonic clock (hostMonotonic) forward, as a stop
// of that long would; clearHooks() sets it back.
void advanceClock(double seconds);

// Stops this process's monotonic clock at a whole second, so that only
// advanceClock moves it: a limit can be met exactly. No timed wait may run
// meanwhile. freezeClock(false) and clearHooks() let it run again.
void freezeClock(bool frozen);

// This test run's stand-in for /dev/shm, where the locks keep what this
// host knows; lock_child takes it from KORVEL_TEST_STATE_DIR.
const std::string& localStateDirectory();

// Switches that clearHooks() turns off. While watchesFail, directory
// watches fail as when the inotify limit is reached (ENOSPC); while
// renamesRefused, renames that must not replace fail as where the file
// system cannot promise that (EINVAL). Timed waits of the lock code (not
// its sleeps) pass waitScale times faster than the clock: 5 s of refresh
// period take 5 / waitScale real seconds.
extern std::atomic<bool> watchesFail;
extern std::atomic<bool> renamesRefused;
extern std::atomic<double> waitScale;

// Operations of that kind on paths starting with prefix fail with error
// (EPERM, as some network mounts answer, unless told otherwise); an empty
// prefix turns the fault off.
void failUnder(Fault which, const std::string& prefix, int error = 1 /* EPERM */);

// Files under prefix are stamped `seconds` off: every modification time
// read of them (lstat, fstat) is shifted by that much, as when a client
// with a skewed clock stamps its own writes. From files changed at or after
// `since` (wall-clock seconds) on, as when a server's clock steps then.
void skewStamps(const std::string& prefix, double seconds, double since = 0.0);

// Modification times are read in whole seconds, as some servers keep them.
void stampWholeSeconds(bool whole);

// Called before each host open or remove; an empty function stops it.
void observeOpens(std::function<void(const char* path, int flags)> observer);
void observeRemoves(std::function<void(const char* path)> observer);
// Called before each look at a name (lstat).
void observeLooks(std::function<void(const char* path)> observer);

// Turns off every fault and observer, and clears the counts.
void clearHooks();

// Host unlinks made so far.
extern std::atomic<int> removeCalls;
// Opens for writing (not exclusive creates) of path so far.
int writesTo(const std::string& path);

// A lock_child's output without its times: "held\nlost\nreleased 0\n".
std::string withoutTimes(const std::string& text);
// Polls every 10 ms until path holds exactly text, times aside; false after
// `seconds`.
bool waitForFileText(const std::string& path, const std::string& text, double seconds);

// Turns the warning channel on, into a file, for the life of the object.
// A file because background threads write while the test reads.
class WarningCapture {
 public:
  WarningCapture() : saved_(warningLog), stream_(dir_ / "warnings") {
    warningLog = {true, &stream_};
  }
  ~WarningCapture() { warningLog = saved_; }
  std::string text() const { return readFile(dir_ / "warnings"); }
  // How many lines contain what.
  int count(const std::string& what) const;

 private:
  TempDir dir_;
  LogStream saved_;
  std::ofstream stream_;
};

}  // namespace korvel_test

#endif  // KORVEL_TESTS_FS_LOCK_LOCK_TEST_SUPPORT_H_
