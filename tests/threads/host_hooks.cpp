#include "tests/threads/host_hooks.h"

#include <pthread.h>

#include "host/host.h"
#include "korvel/threads.h"

namespace hooks {

std::atomic<int> joinableCreated{0};
std::atomic<int> joined{0};
std::atomic<bool> failDetached{false};

namespace {
std::mutex argumentsMutex;
std::vector<void*> arguments;
}  // namespace

std::vector<void*> createdArguments() {
  std::lock_guard<std::mutex> lock(argumentsMutex);
  return arguments;
}

void clearCreatedArguments() {
  std::lock_guard<std::mutex> lock(argumentsMutex);
  arguments.clear();
}

}  // namespace hooks

extern "C" int host_create_thread(korvel_host_thread_t* handle, korvel_thread_entry entry,
                                  void* argument) {
  {
    std::lock_guard<std::mutex> lock(hooks::argumentsMutex);
    hooks::arguments.push_back(argument);
  }
  ++hooks::joinableCreated;
  pthread_t thread;
  int rc = pthread_create(&thread, nullptr, entry, argument);
  if (rc == 0) *handle = static_cast<korvel_host_thread_t>(thread);
  return rc;
}

extern "C" int host_create_detached_thread(korvel_thread_entry entry, void* argument) {
  // A host whose thread service reports failure by the library's own error.
  if (hooks::failDetached) throw koThread::StartError();
  pthread_attr_t attr;
  pthread_attr_init(&attr);
  pthread_attr_setdetachstate(&attr, PTHREAD_CREATE_DETACHED);
  pthread_t thread;
  int rc = pthread_create(&thread, &attr, entry, argument);
  pthread_attr_destroy(&attr);
  return rc;
}

extern "C" void* host_join_thread(korvel_host_thread_t handle) {
  void* result = nullptr;
  pthread_join(static_cast<pthread_t>(handle), &result);
  ++hooks::joined;
  return result;
}
