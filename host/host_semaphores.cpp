// Default named semaphores, on POSIX.
#include <fcntl.h>
#include <limits.h>

#include <cerrno>
#include <cstring>

#include "host/host.h"

namespace {

// The semaphore lives in a file named "sem." + the name without its slash.
constexpr size_t kFilePrefixLength = 4;

}  // namespace

extern "C" {

__attribute__((weak)) sem_t* hostSemOpen(const char* name, int flags, unsigned mode,
                                         unsigned value) {
  sem_t* semaphore = sem_open(name, flags, static_cast<mode_t>(mode), value);
  if (semaphore != SEM_FAILED) return semaphore;
  // The C library answers EINVAL for a name too long to form a file name;
  // callers rely on ENAMETOOLONG, the error that names the problem.
  if (errno == EINVAL) {
    while (*name == '/') ++name;
    if (strlen(name) + kFilePrefixLength > NAME_MAX) errno = ENAMETOOLONG;
  }
  return nullptr;
}

__attribute__((weak)) int hostSemClose(sem_t* semaphore) {
  return sem_close(semaphore);
}

__attribute__((weak)) int hostSemUnlink(const char* name) {
  return sem_unlink(name);
}

__attribute__((weak)) int hostSemWait(sem_t* semaphore) {
  return sem_wait(semaphore);
}

__attribute__((weak)) int hostSemTimedWait(sem_t* semaphore, const struct timespec* deadline) {
  return sem_timedwait(semaphore, deadline);
}

__attribute__((weak)) int hostSemTryWait(sem_t* semaphore) {
  return sem_trywait(semaphore);
}

__attribute__((weak)) int hostSemPost(sem_t* semaphore) {
  return sem_post(semaphore);
}

__attribute__((weak)) int hostSemGetValue(sem_t* semaphore, int* value) {
  return sem_getvalue(semaphore, value);
}

}  // extern "C"
