// Default thread services, on POSIX threads.
#include <fcntl.h>
#include <pthread.h>
#include <sched.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>

#include "host/host.h"

extern "C" {

__attribute__((weak)) int host_create_thread(korvel_host_thread_t* handle,
                                             korvel_thread_entry entry, void* argument) {
  pthread_t thread;
  int rc = pthread_create(&thread, nullptr, entry, argument);
  if (rc == 0) *handle = static_cast<korvel_host_thread_t>(thread);
  return rc;
}

__attribute__((weak)) int host_create_detached_thread(korvel_thread_entry entry, void* argument) {
  pthread_attr_t attr;
  pthread_attr_init(&attr);
  pthread_attr_setdetachstate(&attr, PTHREAD_CREATE_DETACHED);
  pthread_t thread;
  int rc = pthread_create(&thread, &attr, entry, argument);
  pthread_attr_destroy(&attr);
  return rc;
}

__attribute__((weak)) void* host_join_thread(korvel_host_thread_t handle) {
  void* result = nullptr;
  if (pthread_join(static_cast<pthread_t>(handle), &result) != 0) return nullptr;
  return result;
}

__attribute__((weak)) int hostUsableProcessors() {
  cpu_set_t mask;
  long usable = sched_getaffinity(0, sizeof mask, &mask) == 0 ? CPU_COUNT(&mask)
                                                              : sysconf(_SC_NPROCESSORS_ONLN);
  // "max PERIOD" when there is no quota, else "QUOTA PERIOD" in microseconds.
  const int fd = hostOpen("/sys/fs/cgroup/cpu.max", O_RDONLY | O_CLOEXEC | O_NONBLOCK, 0);
  if (fd >= 0) {
    char text[64] = {};
    const ssize_t n = hostRead(fd, text, sizeof text - 1);
    hostClose(fd);
    long long quota = 0, period = 0;
    if (n > 0 && sscanf(text, "%lld %lld", &quota, &period) == 2 && quota > 0 && period > 0) {
      usable = std::min<long long>(usable, quota / period);
    }
  }
  return static_cast<int>(std::max(usable, 1L));
}

}  // extern "C"
