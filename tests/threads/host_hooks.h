// Thread services of the test host: real POSIX threads, counted, with a
// switch that makes the creation of detached threads fail.
#ifndef KORVEL_TESTS_THREADS_HOST_HOOKS_H_
#define KORVEL_TESTS_THREADS_HOST_HOOKS_H_

#include <atomic>
#include <mutex>
#include <vector>

namespace hooks {

extern std::atomic<int> joinableCreated;
extern std::atomic<int> joined;
extern std::atomic<bool> failDetached;
// The arguments of host_create_thread in call order (the koThread objects).
std::vector<void*> createdArguments();
void clearCreatedArguments();

}  // namespace hooks

#endif  // KORVEL_TESTS_THREADS_HOST_HOOKS_H_
