// Default thread services, on POSIX threads.
#include <pthread.h>

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

}  // extern "C"
