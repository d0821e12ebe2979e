// Support for the lock tests. Fault injection and observation go through
// the host layer: this test binary defines hostOpenAndClose and
// hostRemoveFile, so the library's file operations pass through here.
// Switches may be flipped by one thread while another uses a lock.
#ifndef KORVEL_TESTS_FS_LOCK_LOCK_TEST_SUPPORT_H_
#define KORVEL_TESTS_FS_LOCK_LOCK_TEST_SUPPORT_H_

#include <sys/types.h>

#include <atomic>
#include <functional>
#include <set>
#include <string>

namespace korvel_test {

enum class Fault { kCreate, kRemove };

// Creates (open with O_CREAT) or removals of paths starting with prefix fail
// with EPERM, as some network mounts answer; an empty prefix turns it off.
void failUnder(Fault which, const std::string& prefix);

// Called before each host open or remove; an empty function stops it.
void observeOpens(std::function<void(const char* path, int flags)> observer);
void observeRemoves(std::function<void(const char* path)> observer);

// Turns off every fault and observer.
void clearHooks();

// Host removals made so far.
extern std::atomic<int> removeCalls;

// The names in dir, without "." and "..".
std::set<std::string> entries(const std::string& dir);

// Sets the modification (and access) time of path to whole second seconds;
// false on failure.
bool setMtime(const std::string& path, time_t seconds);

// Polls every 10 ms until path holds exactly text; false after `seconds`.
bool waitForFileText(const std::string& path, const std::string& text, double seconds);

}  // namespace korvel_test

#endif  // KORVEL_TESTS_FS_LOCK_LOCK_TEST_SUPPORT_H_
