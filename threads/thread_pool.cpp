// The pooled thread factory.
#include "threads/thread_pool.h"

#include <atomic>

#include "host/exception_list.h"
#include "host/host.h"

using Zentha::System::MutexGuard;

namespace {

constexpr int kDefunct = 2;
constexpr unsigned long kNoLimit = static_cast<unsigned long>(-1);

// How long a hand-off spins before it sleeps. Bounded by a count of pauses
// too, in case a host's clock stands still.
constexpr double kSpinSeconds = 20e-6;
constexpr int kMaxSpinPauses = 4096;

// True when a hand-off may spin at all: this process may run on more than
// one processor at once. On one (an affinity mask, a CPU quota) a spin only
// burns the time slice the other side needs. Asked once per process.
bool spinningPays() {
  static const bool pays = hostUsableProcessors() > 1;
  return pays;
}

// Spins while changes stays at seen (and parked, when given, is false), for
// a few microseconds. A start or a join that follows that soon then needs
// neither a sleep nor a wake-up, which costs tens of microseconds when the
// other side's core has gone idle. Only a hint: the caller checks its state
// under the mutex afterwards.
void spinWhileUnchanged(const std::atomic<unsigned>& changes, unsigned seen,
                        const std::atomic<bool>* parked = nullptr) {
  const double until = hostMonotonic() + kSpinSeconds;
  for (int i = 1; i <= kMaxSpinPauses && changes.load(std::memory_order_acquire) == seen &&
                  (parked == nullptr || !parked->load(std::memory_order_relaxed));
       ++i) {
    __builtin_ia32_pause();
    if (i % 16 == 0 && hostMonotonic() >= until) return;
  }
}

}  // namespace

// ---- koRecyclableThread ----

// The spin rule. A side spins only when spinningPays(), and only while the
// other side is on a processor or has just been woken to get one:
//   - the joiner, while the worker is not parked: it is running the body,
//     spinning for a start, or has been woken for the run asked of it;
//   - the worker, after a body, only when its owner has not gone to sleep in
//     join since it asked for that run: the owner is running then (or
//     waiting for the mutex the body held), and a next start is likely soon.
// Nobody spins for a parked worker, nor for an owner asleep in join. The
// flags change only on the way to a sleep and back, so the spinning hand-off
// writes nothing but its counter.
struct koRecyclableThread::Sync {
  Sync() : mutex(0, 0), startCondition(mutex), doneCondition(mutex) {}
  Zentha::System::MutexLock mutex;
  Zentha::System::Condition startCondition;
  Zentha::System::Condition doneCondition;
  // Bumped, under mutex, when a run or the end is asked for and when a run
  // has finished: what the spinning worker or joiner waits for. It and the
  // flags share a cache line that the mutex and conditions do not.
  alignas(64) std::atomic<unsigned> changes{0};
  // Written under mutex, read by the other side's spin without it.
  std::atomic<bool> ownerAwake{false};    // see the spin rule
  std::atomic<bool> workerParked{false};  // asleep with no run asked for
};

// Stores value unless flag holds it already: a spinning reader's cache line
// stays valid.
static void setFlag(std::atomic<bool>& flag, bool value) {
  if (flag.load(std::memory_order_relaxed) != value) flag.store(value, std::memory_order_relaxed);
}

koRecyclableThread::koRecyclableThread()
    : sync_(new Sync),
      mutex_(sync_->mutex),
      startCondition_(sync_->startCondition),
      doneCondition_(sync_->doneCondition) {
  koThread::start(false);
}

koRecyclableThread::koRecyclableThread(const boost::function0<void*>& body)
    : koThread(body),
      sync_(new Sync),
      mutex_(sync_->mutex),
      startCondition_(sync_->startCondition),
      doneCondition_(sync_->doneCondition) {
  koThread::start(false);
}

koRecyclableThread::~koRecyclableThread() {
  mutex_.lock();
  quitRequested_ = true;
  sync_->changes.fetch_add(1, std::memory_order_release);
  mutex_.unlock();
  startCondition_.signal();
  try {
    koThread::join();
  } catch (...) {
  }
}

// Wakes are signalled after the mutex is released, so that the woken thread
// does not wake only to block on the mutex still held by the signaller.
void* koRecyclableThread::run() {
  MutexGuard guard(mutex_);
  bool ownerRunning = false;  // the owner was awake when the last body ended
  for (;;) {
    if (!quitRequested_ && !runRequested_) {
      if (ownerRunning) {
        const unsigned seen = sync_->changes.load(std::memory_order_relaxed);
        mutex_.unlock();
        spinWhileUnchanged(sync_->changes, seen);
        mutex_.lock();
      }
      while (!quitRequested_ && !runRequested_) {
        setFlag(sync_->workerParked, true);
        startCondition_.wait();
      }
      setFlag(sync_->workerParked, false);
    }
    if (quitRequested_) return nullptr;
    runRequested_ = false;
    finished_ = false;
    try {
      body()();
    } catch (...) {
      // A failing body must not end the pooled thread.
    }
    finished_ = true;
    // The counter first: a write takes its cache line once, a read first
    // would take it twice.
    sync_->changes.fetch_add(1, std::memory_order_release);
    ownerRunning = sync_->ownerAwake.load(std::memory_order_relaxed) && spinningPays();
    // A joiner woken here may recycle and destroy this object, but the
    // destructor joins this system thread first, so the members outlive run().
    mutex_.unlock();
    doneCondition_.signalAll();
    mutex_.lock();
  }
}

void koRecyclableThread::start(bool detached) {
  koOnlyLet<StartError>([&] {
    if (detached) throw StartError();
    {
      MutexGuard guard(mutex_);
      runRequested_ = true;
      sync_->changes.fetch_add(1, std::memory_order_release);
      setFlag(sync_->ownerAwake, true);
      setFlag(sync_->workerParked, false);  // woken below
    }
    // Only the owner, who is calling start, recycles (and so may destroy) the
    // thread; the woken worker never does. The condition outlives this call.
    startCondition_.signal();
  });
}

void* koRecyclableThread::join() {
  return koOnlyLet<InvalidStateError>([&]() -> void* {
    MutexGuard guard(mutex_);
    const std::atomic<bool>& parked = sync_->workerParked;
    if (!finished_ && !parked.load(std::memory_order_relaxed) && spinningPays()) {
      const unsigned seen = sync_->changes.load(std::memory_order_relaxed);
      mutex_.unlock();
      spinWhileUnchanged(sync_->changes, seen, &parked);
      mutex_.lock();
    }
    while (!finished_) {
      setFlag(sync_->ownerAwake, false);
      doneCondition_.wait();
    }
    return nullptr;
  });
}

void koRecyclableThread::reset(const boost::function0<void*>& newBody) {
  MutexGuard guard(mutex_);
  if (&newBody != &body()) {
    body().clear();
    body() = newBody;  // on failure the body stays empty
  }
  finished_ = false;
}

// ---- CleanupThread ----

koPooledThreadFactory::CleanupThread::CleanupThread(unsigned long initialThreads,
                                                    unsigned long maxIdleThreads)
    : disposeEvent_(true, false), mutex_(0, 0), maxIdleThreads_(maxIdleThreads) {
  for (unsigned long i = 0; i < initialThreads; ++i) {
    idleThreads_.push_back(boost::shared_ptr<koRecyclableThread>(new koRecyclableThread()));
  }
}

koPooledThreadFactory::CleanupThread::~CleanupThread() {
  // No lock: the factory is gone, nobody else can reach the containers.
  activeThreads_.clear();
  idleThreads_.clear();
}

void* koPooledThreadFactory::CleanupThread::run() {
  try {
    disposeEvent_.wait();
  } catch (...) {
    delete this;
    throw;
  }
  delete this;
  return nullptr;
}

void koPooledThreadFactory::CleanupThread::dispose() {
  disposeEvent_.set();
}

koThread* koPooledThreadFactory::CleanupThread::createThread(const boost::function0<void*>& body) {
  MutexGuard guard(mutex_);
  if (started_ == Started::kNotYet) {
    // Detached: it needs no lock of ours to start, and only waits for dispose.
    try {
      start(true);
      started_ = Started::kYes;
      running_.store(true, std::memory_order_release);
    } catch (const koThread::StartError&) {
      started_ = Started::kFailed;
    }
  }
  if (started_ == Started::kFailed) {
    throw koThread::InvalidStateError("Thread pool failed to initialize");
  }
  boost::shared_ptr<koRecyclableThread> candidate;
  do {
    if (!idleThreads_.empty()) {
      candidate = idleThreads_.back();  // last in, first out: the warmest thread
      idleThreads_.pop_back();
    } else {
      candidate.reset(new koRecyclableThread());
    }
  } while (candidate->status() == kDefunct);
  activeThreads_[candidate.get()] = candidate;
  candidate->reset(body);
  return candidate.get();
}

void koPooledThreadFactory::CleanupThread::recycle(koThread* thread) {
  const bool defunct = thread->status() == kDefunct;
  // Wait for the body before taking the pool mutex, so a long body does not
  // block other users of the pool.
  if (!defunct) thread->join();

  MutexGuard guard(mutex_);
  auto found = activeThreads_.find(thread);
  boost::shared_ptr<koRecyclableThread> recycled = found->second;
  // Release the caller's body, and whatever it binds, now.
  recycled->reset(boost::function0<void*>(&do_nothing));
  if (!defunct && (maxIdleThreads_ == kNoLimit || idleThreads_.size() < maxIdleThreads_)) {
    idleThreads_.push_back(recycled);
  }
  activeThreads_.erase(found);
  // A thread not kept loses its last reference here and is destroyed with
  // the pool mutex held; its body has finished, so this does not block long.
  recycled.reset();
}

bool koPooledThreadFactory::CleanupThread::running() {
  return running_.load(std::memory_order_acquire);
}

size_t koPooledThreadFactory::CleanupThread::idleCount() {
  MutexGuard guard(mutex_);
  return idleThreads_.size();
}

// ---- koPooledThreadFactory ----

koPooledThreadFactory::koPooledThreadFactory(unsigned long initialThreads,
                                             unsigned long maxIdleThreads)
    : cleanup_(nullptr) {
  try {
    cleanup_ = new CleanupThread(initialThreads, maxIdleThreads);
  } catch (const koThread::StartError&) {
    cleanup_ = nullptr;
  }
}

koPooledThreadFactory::~koPooledThreadFactory() {
  if (cleanup_ == nullptr) return;
  if (cleanup_->running()) {
    cleanup_->dispose();
  } else {
    delete cleanup_;  // no thread was ever taken: no body to wait for
  }
  cleanup_ = nullptr;
}

koThread* koPooledThreadFactory::createThread(const boost::function0<void*>& body) {
  if (cleanup_ == nullptr) throw koThread::InvalidStateError("Thread pool failed to initialize");
  return cleanup_->createThread(body);
}

void koPooledThreadFactory::recycle(koThread* thread) {
  // A pool whose clean-up thread is not running has handed out no thread.
  if (cleanup_ == nullptr || !cleanup_->running()) {
    throw koThread::InvalidStateError("Thread pool failed to initialize");
  }
  cleanup_->recycle(thread);
}
