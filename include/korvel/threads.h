// Threads: the thread object, thread factories with a pool of recyclable
// threads, and the synchronized loop thread.
//
// A koThread is started once and joined once by its owner; it is not
// thread-safe itself. The factories are thread-safe. A
// koSynchronizedLoopThread is driven only with its owner's mutex held.
//
// Results: a failure is an exception, never a false or null result:
// koThread::StartError when no system thread can be had, InvalidStateError
// for a call the object's state does not allow (joining a detached thread,
// using a pool that could not start). Nothing here leaves a reason in
// errno. A null from join() is the body's own result (do_nothing's, and
// always a koRecyclableThread's). The loop context's waits return true when
// woken for a stop, false when the time ran out.
#ifndef KORVEL_THREADS_H_
#define KORVEL_THREADS_H_

#include "korvel/export.h"
#if KORVEL_HEADERS_USABLE

#include <boost/bind/bind.hpp>
#include <boost/function.hpp>
#include <boost/noncopyable.hpp>
#include <boost/thread/condition.hpp>
#include <boost/thread/exceptions.hpp>
#include <boost/thread/xtime.hpp>
#include <exception>
#include <memory>

#include "korvel/time_unit.h"

// The default body of a thread: does nothing, returns null.
KORVEL_EXPORT void* do_nothing();

// A thread of the host that runs a body (a nullary callable returning
// void*). Start it joinable and join it once, or start it detached and never
// join it. It neither joins nor detaches on destruction.
class KORVEL_EXPORT koThread : private boost::noncopyable {
 public:
  class KORVEL_EXPORT StartError : public std::exception {
   public:
    const char* what() const noexcept override;
  };

  class KORVEL_EXPORT InvalidStateError : public std::exception {
   public:
    // The message is "The thread is in an invalid state: " + detail.
    explicit InvalidStateError(const char* detail);
    InvalidStateError(const InvalidStateError& other);
    InvalidStateError& operator=(const InvalidStateError&) = delete;
    ~InvalidStateError() override;
    const char* what() const noexcept override;

   private:
    char* message_;
  };

  koThread();
  explicit koThread(const boost::function0<void*>& body);

  // Runs the body and returns its result; runs on the new thread.
  virtual void* run();
  virtual ~koThread();
  // Makes the system thread (detached or joinable) running run(). Only
  // StartError may escape.
  virtual void start(bool detached);
  // Waits for a joinable thread and returns run()'s result. Throws
  // InvalidStateError for a detached thread; nothing else may escape.
  virtual void* join();
  // Always 0; a pool treats 2 as defunct.
  int status() const;

 protected:
  boost::function0<void*>& body() { return body_; }

 private:
  unsigned long long handle_ = 0;
  bool detached_ = false;
  boost::function0<void*> body_;
};

// Makes threads and takes them back. A thread from createThread is not yet
// started: the caller starts it, joins it and hands it back with recycle,
// never deleting it.
class KORVEL_EXPORT koThreadFactory : private boost::noncopyable {
 public:
  virtual ~koThreadFactory();
  virtual koThread* createThread(const boost::function0<void*>& body) = 0;
  virtual void recycle(koThread* thread) = 0;
};

// A fresh koThread per request, deleted on recycle.
class KORVEL_EXPORT koBasicThreadFactory : public koThreadFactory {
 public:
  koThread* createThread(const boost::function0<void*>& body) override;
  // Deletes thread (null is ignored); the caller has joined it.
  void recycle(koThread* thread) override;
};

// Keeps finished threads alive on an idle stack and reuses them, most
// recently used first. At most maxIdleThreads stay idle ((unsigned long)-1:
// no limit); a surplus thread is destroyed as it is recycled. Destroying the
// factory never waits for a body: a detached clean-up thread, started with
// the first thread taken, ends and joins every pooled thread (a factory that
// never handed one out ends its idle threads itself). Every thread taken
// must be recycled before that.
class KORVEL_EXPORT koPooledThreadFactory : public koThreadFactory {
 public:
  class CleanupThread;

  // Makes initialThreads threads ahead. If they or the clean-up thread
  // cannot be made or started the factory is unusable: createThread (from
  // the first that tries) and recycle throw InvalidStateError.
  koPooledThreadFactory(unsigned long initialThreads, unsigned long maxIdleThreads);
  ~koPooledThreadFactory() override;
  koThread* createThread(const boost::function0<void*>& body) override;
  void recycle(koThread* thread) override;

 private:
  CleanupThread* cleanup_;
};

namespace Zentha {
namespace System {
class MutexLock;
class Condition;
}  // namespace System
}  // namespace Zentha

// A thread whose system thread outlives its bodies: the kind the pooled
// factory keeps. Its system thread starts with the object and waits; each
// start() runs the body once more on it, join() waits for that run, and
// reset() gives it another body between runs. The body runs under the
// thread's own mutex, so join, reset, start and the destructor all wait for
// a running body. One owner drives it.
//
//   koRecyclableThread worker(boost::bind(&work, 1));
//   worker.start(false);
//   worker.join();
//   worker.reset(boost::bind(&work, 2));
//   worker.start(false);
//   worker.join();
class KORVEL_EXPORT koRecyclableThread : public koThread {
 public:
  // Throw StartError when no system thread can be made.
  koRecyclableThread();
  explicit koRecyclableThread(const boost::function0<void*>& body);
  // Ends the system thread (after a running body) and joins it.
  ~koRecyclableThread() override;

  // Runs the bodies; the system thread's life.
  void* run() override;
  // Asks for one run of the body. detached = true throws StartError.
  void start(bool detached) override;
  // Waits until the body has run to its end since construction or the last
  // reset(); returns null, not the body's result. REQUIRES: start() since
  // then. A second start() without a reset() runs the body again, but
  // join() does not wait for that run.
  void* join() override;
  // Replaces the body (unless it is this thread's own) for the next start().
  virtual void reset(const boost::function0<void*>& body);

 private:
  // The host mutex and conditions live in Sync (thread_pool.cpp), so that
  // this header needs no host type; the references name its members.
  struct Sync;
  std::unique_ptr<Sync> sync_;
  Zentha::System::MutexLock& mutex_;
  Zentha::System::Condition& startCondition_;
  Zentha::System::Condition& doneCondition_;
  bool quitRequested_ = false;
  bool runRequested_ = false;
  bool finished_ = false;
};

// Runs a clean-up action when it goes out of scope, unless disarmed.
class KORVEL_EXPORT koCleanupFunctionGuard : private boost::noncopyable {
 public:
  template <class Action>
  explicit koCleanupFunctionGuard(Action action) : action_(new Holder<Action>(action)) {}
  ~koCleanupFunctionGuard();
  // Drops the action without running it.
  void disarm();

 private:
  struct ActionBase {
    virtual ~ActionBase() = default;
    virtual void operator()() = 0;
  };
  template <class Action>
  struct Holder : ActionBase {
    explicit Holder(Action a) : action(a) {}
    void operator()() override { action(); }
    Action action;
  };
  ActionBase* action_;
};

// ---- Synchronized loop thread ----

namespace korvel_detail {
class LoopWait;  // the library's own waits inside its loops
}  // namespace korvel_detail

// What a loop function receives: waits that end early when a stop is
// requested, and a way to end the loop.
class KORVEL_EXPORT koSynchronizedLoopContext {
 public:
  virtual ~koSynchronizedLoopContext();
  // Waits until woken or for amount cut down to whole seconds, on the
  // steady clock. A wait shorter than a second returns at once: callers
  // use waitFor(1, TimeUnit::sMilliseconds()) to ask whether a stop is
  // pending without waiting. True when woken: a stop is pending.
  virtual bool waitFor(unsigned long amount, const Zentha::System::TimeUnit& unit) = 0;
  // Waits until woken; true when woken.
  virtual bool waitForWakeUp() = 0;
  // Ends the loop; does not return.
  [[noreturn]] virtual void breakLoop() = 0;
};

// Thrown by breakLoop; the loop catches it.
class KORVEL_EXPORT koSynchronizedLoopBreak : public std::exception {
 public:
  const char* what() const noexcept override;
};

template <class Lock>
class koSynchronizedLoopContextImpl : public koSynchronizedLoopContext {
 public:
  koSynchronizedLoopContextImpl(bool* wakeRequested, boost::condition* wakeCondition, Lock* lock)
      : wakeRequested_(wakeRequested), wakeCondition_(wakeCondition), lock_(lock) {}

  bool waitFor(unsigned long amount, const Zentha::System::TimeUnit& unit) override {
    if (*wakeRequested_) return true;
    if (!lock_->owns_lock()) throw boost::lock_error();
    // Once, on the steady clock: no re-wait on time-out or spurious wake.
    wakeCondition_->wait_for(*lock_, boost::chrono::seconds(unit.toSeconds(amount)));
    return takeWake();
  }

  bool waitForWakeUp() override {
    if (*wakeRequested_) return true;
    if (!lock_->owns_lock()) throw boost::lock_error();
    wakeCondition_->wait(*lock_);
    return takeWake();
  }

  [[noreturn]] void breakLoop() override {
    *wakeRequested_ = true;
    throw koSynchronizedLoopBreak();
  }

 private:
  friend class korvel_detail::LoopWait;

  bool takeWake() {
    bool woken = *wakeRequested_;
    *wakeRequested_ = false;
    return woken;
  }

  bool* wakeRequested_;
  boost::condition* wakeCondition_;
  Lock* lock_;
};

// Runs loopFunction over and over on a worker thread from factory, always
// with the owner's mutex held; the mutex is free only while the function
// waits and between iterations. Starts and stops are counted.
//
// Every operation must be called with the owner's mutex held through the lock
// it is given. Lock order: the owner's mutex, then the factory's locks.
template <class Mutex>
class koSynchronizedLoopThread : private boost::noncopyable {
 public:
  typedef boost::function<void(koSynchronizedLoopContext&)> LoopFunction;

  // State shared by the owner and the worker, guarded by the owner's mutex.
  class LoopFunctionDriver {
   public:
    LoopFunctionDriver(Mutex* ownerMutex, const LoopFunction& function)
        : mutex(ownerMutex), loopFunction(function) {}

    // The worker's body.
    void* drive() {
      typename Mutex::scoped_lock lock(*mutex);
      started = true;
      startedCondition.notify_one();
      koSynchronizedLoopContextImpl<typename Mutex::scoped_lock> context(&wakeRequested,
                                                                         &wakeCondition, &lock);
      while (!stopRequested) {
        wakeRequested = false;
        try {
          loopFunction(context);
        } catch (const koSynchronizedLoopBreak&) {
          stopRequested = true;
          break;
        }
        if (!lock.owns_lock()) throw boost::lock_error();
        lock.unlock();  // one chance for waiting threads between iterations
        lock.lock();
      }
      finished = true;
      finishedCondition.notify_one();
      return nullptr;
    }

    bool started = false;
    bool stopRequested = false;
    bool wakeRequested = false;
    bool finished = false;
    boost::condition startedCondition;
    boost::condition wakeCondition;
    boost::condition finishedCondition;
    Mutex* mutex;
    LoopFunction loopFunction;
  };

  koSynchronizedLoopThread(Mutex& mutex, const LoopFunction& loopFunction, koThreadFactory* factory)
      : mutex_(mutex), loopFunction_(loopFunction), factory_(factory) {}

  // Stops a running worker (whatever the count), joins and recycles it.
  // Swallows every exception.
  ~koSynchronizedLoopThread() {
    try {
      typename Mutex::scoped_lock lock(mutex_);
      if (thread_ != nullptr) {
        try {
          if (driver_ != nullptr) requestStopAndWait(*driver_, lock);
          thread_->join();
          factory_->recycle(thread_);
        } catch (...) {
        }
      }
      delete driver_;
    } catch (...) {
      // The owner's mutex could not be taken: a worker may still use the
      // driver, so it is left alone.
    }
  }

  // The first start runs the worker and returns once it has begun its first
  // iteration and released the mutex; later ones only count. Throws
  // koThread::StartError when no worker can be had.
  template <class Lock>
  void start(Lock& lock) {
    if (useCount_ != 0) {
      ++useCount_;
      return;
    }
    useCount_ = 1;
    if (driver_ == nullptr) driver_ = new LoopFunctionDriver(&mutex_, loopFunction_);
    try {
      thread_ = factory_->createThread(boost::bind(&LoopFunctionDriver::drive, driver_));
    } catch (const koThread::InvalidStateError&) {
      throw koThread::StartError();
    }
    thread_->start(false);
    while (!driver_->started) driver_->startedCondition.wait(lock);
  }

  // The last stop ends the worker (waiting for its current iteration),
  // joins and recycles it. A stop without a start does nothing.
  template <class Lock>
  void stop(Lock& lock) {
    if (useCount_ > 1) {
      --useCount_;
      return;
    }
    if (useCount_ < 1) return;
    koThread* thread = thread_;
    LoopFunctionDriver* driver = driver_;
    thread_ = nullptr;
    driver_ = nullptr;
    useCount_ = 0;
    if (thread->status() != 2) {
      requestStopAndWait(*driver, lock);
      thread->join();
    }
    factory_->recycle(thread);
    delete driver;
  }

 private:
  template <class Lock>
  static void requestStopAndWait(LoopFunctionDriver& driver, Lock& lock) {
    driver.stopRequested = true;
    driver.wakeRequested = true;
    driver.wakeCondition.notify_one();
    while (!driver.finished) driver.finishedCondition.wait(lock);
  }

  int useCount_ = 0;
  Mutex& mutex_;
  LoopFunction loopFunction_;
  koThreadFactory* factory_;
  koThread* thread_ = nullptr;
  LoopFunctionDriver* driver_ = nullptr;
};

#endif  // KORVEL_HEADERS_USABLE
#endif  // KORVEL_THREADS_H_
