// Internal class of the pooled thread factory: the pool's clean-up thread,
// which owns the recyclable threads (declared in korvel/threads.h).
//
// Lock order: the pool mutex, then a pooled thread's own mutex; never the
// reverse.
#ifndef KORVEL_THREADS_THREAD_POOL_H_
#define KORVEL_THREADS_THREAD_POOL_H_

#include <atomic>
#include <boost/shared_ptr.hpp>
#include <map>
#include <vector>

#include "host/sync.h"
#include "korvel/threads.h"

// The pool itself. Once a thread has been taken it is owned by a detached
// thread, started then, that waits for the factory to go and then deletes
// the pool, so the destroying thread never waits for a body. Before that
// the factory deletes it: its threads are all idle and end at once.
class koPooledThreadFactory::CleanupThread : public koThread {
 public:
  CleanupThread(unsigned long initialThreads, unsigned long maxIdleThreads);
  // Releases every active, then every idle thread; those that lose their
  // last reference end and are joined here, on the clean-up thread.
  ~CleanupThread() override;

  // Waits for dispose, then deletes this object.
  void* run() override;
  void dispose();
  // Starts the clean-up thread with the first thread taken. Throws
  // InvalidStateError when it cannot be started, then and ever after.
  koThread* createThread(const boost::function0<void*>& body);
  // REQUIRES: running().
  void recycle(koThread* thread);
  // True once the clean-up thread runs: it then owns this object.
  bool running();

  // Threads on the idle stack (for tests and diagnostics).
  size_t idleCount();

 private:
  Zentha::System::Event disposeEvent_;
  Zentha::System::MutexLock mutex_;  // guards the two containers
  std::vector<boost::shared_ptr<koRecyclableThread>> idleThreads_;
  std::map<koThread*, boost::shared_ptr<koRecyclableThread>> activeThreads_;
  unsigned long maxIdleThreads_;
  enum class Started { kNotYet, kYes, kFailed } started_ = Started::kNotYet;  // guarded by mutex_
  std::atomic<bool> running_{false};  // started_ == kYes, read without the mutex
};

#endif  // KORVEL_THREADS_THREAD_POOL_H_
