// Default time, process and memory services.
#include <pthread.h>
#include <sys/random.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <mutex>

#include "host/defaults.h"
#include "host/host.h"

namespace {

double secondsOf(clockid_t clock) {
  struct timespec now;
  clock_gettime(clock, &now);
  return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) / 1e9;
}

// 0 until asked, and again in a child of fork(): the lock code asks on
// every refresh and release, and getpid() is a system call.
std::atomic<pid_t> cachedProcessId{0};

void forgetProcessId() {
  cachedProcessId.store(0, std::memory_order_relaxed);
}

}  // namespace

extern "C" {

double hostDefaultRealtime() {
  return secondsOf(CLOCK_REALTIME);
}

double hostDefaultMonotonic() {
  // Counts the time the system was suspended too: a lease must run out
  // across a suspend, as the file server's clock does.
  return secondsOf(CLOCK_BOOTTIME);
}

void hostDefaultSleepMilliseconds(unsigned ms) {
  struct timespec left = {static_cast<time_t>(ms / 1000), static_cast<long>(ms % 1000) * 1000000L};
  while (nanosleep(&left, &left) != 0 && errno == EINTR) {
  }
}

double hostDefaultRealSeconds(double seconds) {
  return seconds;
}

__attribute__((weak)) unsigned hostRandom() {
  unsigned value = 0;
  if (getrandom(&value, sizeof value, 0) == static_cast<ssize_t>(sizeof value)) return value;
  // No entropy to be had: the clocks and the process id still differ.
  const double now = hostRealtime() * 1e6 + hostMonotonic() * 1e9;
  return static_cast<unsigned>(static_cast<unsigned long long>(now)) * 2654435761u ^
         static_cast<unsigned>(getpid());
}

pid_t hostDefaultProcessId() {
  static std::once_flag registered;
  std::call_once(registered, [] { pthread_atfork(nullptr, nullptr, forgetProcessId); });
  pid_t pid = cachedProcessId.load(std::memory_order_relaxed);
  if (pid == 0) {
    pid = getpid();
    cachedProcessId.store(pid, std::memory_order_relaxed);
  }
  return pid;
}

__attribute__((weak)) uid_t hostUserId() {
  return getuid();
}

__attribute__((weak)) void hostFree(void* block) {
  std::free(block);
}

}  // extern "C"

KORVEL_WEAK_DEFAULT(hostRealtime, hostDefaultRealtime);
KORVEL_WEAK_DEFAULT(hostMonotonic, hostDefaultMonotonic);
KORVEL_WEAK_DEFAULT(hostSleepMilliseconds, hostDefaultSleepMilliseconds);
KORVEL_WEAK_DEFAULT(hostRealSeconds, hostDefaultRealSeconds);
KORVEL_WEAK_DEFAULT(hostProcessId, hostDefaultProcessId);
