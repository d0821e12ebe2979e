// Internal classes of the pooled thread factory: the recyclable thread and
// the pool's clean-up thread.
//
// Lock order: the pool mutex, then a pooled thread's own mutex; never the
// reverse.
#ifndef KORVEL_THREADS_THREAD_POOL_H_
#define KORVEL_THREADS_THREAD_POOL_H_

#include <boost/shared_ptr.hpp>
#include <map>
#include <vector>

#include "host/sync.h"
#include "korvel/threads.h"

// A thread whose system thread outlives its bodies: it waits between runs
// and runs each body given by reset on the next start. The body runs under
// the thread's own mutex, so join, reset, start and the destructor all wait
// for a running body, and no wake-up is lost between a flag test and a wait.
class koRecyclableThread : public koThread {
 public:
  koRecyclableThread();
  explicit koRecyclableThread(const boost::function0<void*>& body);
  // Ends the system thread (after a running body) and joins it.
  ~koRecyclableThread() override;

  // Runs the bodies; the system thread's life.
  void* run() override;
  // Asks for one run of the body. detached = true throws StartError.
  void start(bool detached) override;
  // Waits until the current body has finished; returns null.
  void* join() override;
  // Replaces the body (unless it is this thread's own) and clears finished.
  virtual void reset(const boost::function0<void*>& body);

 private:
  Zentha::System::MutexLock mutex_;
  Zentha::System::Condition startCondition_;
  Zentha::System::Condition doneCondition_;
  bool quitRequested_ = false;
  bool runRequested_ = false;
  bool finished_ = false;
};

// The pool itself, owned by a detached thread that waits for the factory to
// go and then deletes the pool, so the destroying thread never waits.
class koPooledThreadFactory::CleanupThread : public koThread {
 public:
  CleanupThread(unsigned long initialThreads, unsigned long maxIdleThreads);
  // Releases every active, then every idle thread; those that lose their
  // last reference end and are joined here, on the clean-up thread.
  ~CleanupThread() override;

  // Waits for dispose, then deletes this object.
  void* run() override;
  void dispose();
  koThread* createThread(const boost::function0<void*>& body);
  void recycle(koThread* thread);

  // Threads on the idle stack (for tests and diagnostics).
  size_t idleCount();

 private:
  Zentha::System::Event disposeEvent_;
  Zentha::System::MutexLock mutex_;  // guards the two containers
  std::vector<boost::shared_ptr<koRecyclableThread>> idleThreads_;
  std::map<koThread*, boost::shared_ptr<koRecyclableThread>> activeThreads_;
  unsigned long maxIdleThreads_;
};

#endif  // KORVEL_THREADS_THREAD_POOL_H_
