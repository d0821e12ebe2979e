// Host synchronisation classes: a plain mutex, conditions bound to it, a
// one-shot event, all on POSIX threads. None of them is copyable.
#ifndef KORVEL_HOST_SYNC_H_
#define KORVEL_HOST_SYNC_H_

#include <pthread.h>

#include "korvel/time_unit.h"

namespace Zentha {
namespace System {

// A non-recursive mutex. The constructor arguments are the host's mutex
// attributes; (0, 0) is the only form the library uses: a plain mutex.
class MutexLock {
 public:
  MutexLock(int kind, int flags);
  ~MutexLock();
  MutexLock(const MutexLock&) = delete;
  MutexLock& operator=(const MutexLock&) = delete;

  void lock();
  void unlock();

 private:
  friend class Condition;
  pthread_mutex_t mutex_;
};

// Holds a MutexLock for a scope.
class MutexGuard {
 public:
  explicit MutexGuard(MutexLock& m) : mutex_(m) { mutex_.lock(); }
  ~MutexGuard() { mutex_.unlock(); }
  MutexGuard(const MutexGuard&) = delete;
  MutexGuard& operator=(const MutexGuard&) = delete;

 private:
  MutexLock& mutex_;
};

// A condition bound to one MutexLock.
class Condition {
 public:
  explicit Condition(MutexLock& mutex);
  ~Condition();
  Condition(const Condition&) = delete;
  Condition& operator=(const Condition&) = delete;

  // REQUIRES: the bound mutex is held. Releases it while waiting.
  void wait();
  // Wakes one waiter.
  void signal();
  // Wakes every waiter.
  void signalAll();

 private:
  MutexLock& mutex_;
  pthread_cond_t cond_;
};

// An event that stays signalled once signalled: every wait, also one that
// begins later, returns at once. Constructed with (manualReset, initially
// signalled); the library uses (true, false).
class Event {
 public:
  Event(bool manualReset, bool signalled);
  Event(const Event&) = delete;
  Event& operator=(const Event&) = delete;

  void set();
  void wait();

 private:
  MutexLock mutex_;
  Condition condition_;
  bool manualReset_;
  bool signalled_;
};

}  // namespace System
}  // namespace Zentha

#endif  // KORVEL_HOST_SYNC_H_
