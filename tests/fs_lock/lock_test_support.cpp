#include "tests/fs_lock/lock_test_support.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cmath>
#include <cstring>
#include <map>
#include <mutex>
#include <regex>
#include <sstream>

#include "host/host.h"
#include "tests/support/process.h"
#include "tests/support/temp_dir.h"

namespace korvel_test {
namespace {

struct Hooks {
  std::map<Fault, std::pair<std::string, int>> faults;
  std::string skewedUnder;
  double skewSeconds = 0;
  double skewSince = 0;
  bool wholeSeconds = false;
  std::map<int, std::string> openFiles;  // descriptor -> path, for fstat
  std::map<std::string, int> writeCounts;
  std::function<void(const char*, int)> openObserver;
  std::function<void(const char*)> removeObserver;
  std::function<void(const char*)> lookObserver;
};

std::mutex hookMutex;
Hooks hooks;  // guarded by hookMutex
std::atomic<double> clockOffset{0.0};
std::atomic<double> frozenAt{0.0};  // 0: the clock runs

// The error to fail an operation of that kind on path with, or 0.
int faultFor(Fault which, const char* path) {
  auto found = hooks.faults.find(which);
  if (found == hooks.faults.end() || found->second.first.empty()) return 0;
  const std::string& prefix = found->second.first;
  return strncmp(path, prefix.c_str(), prefix.size()) == 0 ? found->second.second : 0;
}

}  // namespace

std::atomic<int> removeCalls{0};
std::atomic<double> waitScale{1.0};
std::atomic<bool> watchesFail{false};
std::atomic<bool> renamesRefused{false};

void failUnder(Fault which, const std::string& prefix, int error) {
  std::lock_guard<std::mutex> lock(hookMutex);
  hooks.faults[which] = {prefix, error};
}

void stampWholeSeconds(bool whole) {
  std::lock_guard<std::mutex> lock(hookMutex);
  hooks.wholeSeconds = whole;
}

void skewStamps(const std::string& prefix, double seconds, double since) {
  std::lock_guard<std::mutex> lock(hookMutex);
  hooks.skewedUnder = prefix;
  hooks.skewSeconds = seconds;
  hooks.skewSince = since;
}

void observeOpens(std::function<void(const char*, int)> observer) {
  std::lock_guard<std::mutex> lock(hookMutex);
  hooks.openObserver = std::move(observer);
}

void observeRemoves(std::function<void(const char*)> observer) {
  std::lock_guard<std::mutex> lock(hookMutex);
  hooks.removeObserver = std::move(observer);
}

void observeLooks(std::function<void(const char*)> observer) {
  std::lock_guard<std::mutex> lock(hookMutex);
  hooks.lookObserver = std::move(observer);
}

void freezeClock(bool frozen) {
  frozenAt = frozen ? std::floor(hostDefaultMonotonic()) : 0.0;
}

void advanceClock(double seconds) {
  clockOffset = clockOffset + seconds;
}

const std::string& localStateDirectory() {
  static const TempDir* dir = new TempDir;  // NOLINT: until exit
  return dir->path();
}

void clearHooks() {
  std::lock_guard<std::mutex> lock(hookMutex);
  hooks = Hooks();
  clockOffset = 0.0;
  frozenAt = 0.0;
  waitScale = 1.0;
  watchesFail = false;
  renamesRefused = false;
  removeCalls = 0;
}

int writesTo(const std::string& path) {
  std::lock_guard<std::mutex> lock(hookMutex);
  auto found = hooks.writeCounts.find(path);
  return found == hooks.writeCounts.end() ? 0 : found->second;
}

int WarningCapture::count(const std::string& what) const {
  std::istringstream lines(text());
  int n = 0;
  for (std::string line; std::getline(lines, line);) n += line.find(what) != std::string::npos;
  return n;
}

std::string withoutTimes(const std::string& text) {
  return std::regex_replace(text, std::regex(" [0-9]{4,}"), "");
}

bool waitForFileText(const std::string& path, const std::string& text, double seconds) {
  return eventually([&] { return withoutTimes(readFile(path)) == text; }, seconds);
}

}  // namespace korvel_test

using korvel_test::Fault;
using korvel_test::faultFor;
using korvel_test::hookMutex;
using korvel_test::hooks;

namespace {

// Shifts the modification time of a file under the skewed prefix.
// REQUIRES: hookMutex held.
void skew(const char* path, struct stat* st) {
  if (hooks.wholeSeconds) st->st_mtim.tv_nsec = 0;
  if (hooks.skewedUnder.empty() ||
      strncmp(path, hooks.skewedUnder.c_str(), hooks.skewedUnder.size()) != 0) {
    return;
  }
  const double changed = static_cast<double>(st->st_mtim.tv_sec) + st->st_mtim.tv_nsec / 1e9;
  if (changed < hooks.skewSince) return;
  const double shifted = changed + hooks.skewSeconds;
  st->st_mtim.tv_sec = static_cast<time_t>(std::floor(shifted));
  st->st_mtim.tv_nsec = static_cast<long>((shifted - std::floor(shifted)) * 1e9);
}

int fail(int error) {
  errno = error;
  return -1;
}

}  // namespace

extern "C" int hostOpen(const char* path, int flags, unsigned mode) {
  int error = 0;
  bool slow = false;
  {
    std::lock_guard<std::mutex> lock(hookMutex);
    if (hooks.openObserver) hooks.openObserver(path, flags);
    if ((flags & O_CREAT) != 0 && (flags & O_EXCL) != 0) {
      error = faultFor(Fault::kCreate, path);
    } else if ((flags & O_ACCMODE) != O_RDONLY) {
      ++hooks.writeCounts[path];
      error = faultFor(Fault::kWrite, path);
      slow = faultFor(Fault::kSlowWrite, path) != 0;
    }
  }
  if (slow) usleep(300000);
  if (error != 0) return fail(error);
  const int fd = hostDefaultOpen(path, flags, mode);
  if (fd >= 0) {
    std::lock_guard<std::mutex> lock(hookMutex);
    hooks.openFiles[fd] = path;
  }
  return fd;
}

extern "C" int hostClose(int fd) {
  {
    std::lock_guard<std::mutex> lock(hookMutex);
    hooks.openFiles.erase(fd);
  }
  return hostDefaultClose(fd);
}

extern "C" double hostMonotonic() {
  const double frozen = korvel_test::frozenAt;
  return (frozen != 0.0 ? frozen : hostDefaultMonotonic()) + korvel_test::clockOffset;
}

extern "C" double hostRealSeconds(double seconds) {
  return seconds / korvel_test::waitScale;
}

extern "C" int hostInotifyAddWatch(int fd, const char* path, uint32_t mask) {
  if (korvel_test::watchesFail) return fail(ENOSPC);
  return hostDefaultInotifyAddWatch(fd, path, mask);
}

// The kernel ends the watch of a file that went, and its removal then
// fails (EINVAL). Here every removal fails so, as on a busy share.
extern "C" int hostInotifyRmWatch(int fd, int watch) {
  hostDefaultInotifyRmWatch(fd, watch);
  return fail(EINVAL);
}

// What the locks learn on this host stays with this test run, and with the
// lock_child processes it starts (KORVEL_TEST_STATE_DIR).
extern "C" const char* hostLocalStateDirectory() {
  return korvel_test::localStateDirectory().c_str();
}

extern "C" int hostLstat(const char* path, struct stat* st) {
  {
    std::lock_guard<std::mutex> lock(hookMutex);
    if (hooks.lookObserver) hooks.lookObserver(path);
    if (const int error = faultFor(Fault::kStat, path)) return fail(error);
  }
  const int rc = hostDefaultLstat(path, st);
  std::lock_guard<std::mutex> lock(hookMutex);
  if (rc == 0) skew(path, st);
  return rc;
}

extern "C" int hostFstat(int fd, struct stat* st) {
  const int rc = hostDefaultFstat(fd, st);
  std::lock_guard<std::mutex> lock(hookMutex);
  const auto found = hooks.openFiles.find(fd);
  if (rc == 0 && found != hooks.openFiles.end()) skew(found->second.c_str(), st);
  return rc;
}

// A move is a create at its new name and a removal at its old one; with
// renames refused it fails as on a file system that cannot promise them.
extern "C" int hostRenameExclusive(const char* from, const char* to) {
  int error;
  {
    std::lock_guard<std::mutex> lock(hookMutex);
    error = korvel_test::renamesRefused ? EINVAL : faultFor(Fault::kCreate, to);
    if (error == 0) error = faultFor(Fault::kRemove, from);
  }
  if (error != 0) return fail(error);
  return hostDefaultRenameExclusive(from, to);
}

extern "C" int hostUnlink(const char* path) {
  ++korvel_test::removeCalls;
  int error;
  {
    std::lock_guard<std::mutex> lock(hookMutex);
    if (hooks.removeObserver) hooks.removeObserver(path);
    error = faultFor(Fault::kRemove, path);
  }
  if (error != 0) return fail(error);
  return hostDefaultUnlink(path);
}

extern "C" char* hostGetDirList(const char* pattern, int flags) {
  int error;
  {
    std::lock_guard<std::mutex> lock(hookMutex);
    error = faultFor(Fault::kList, pattern);
  }
  if (error != 0) {
    errno = error;
    return nullptr;
  }
  return hostDefaultGetDirList(pattern, flags);
}
