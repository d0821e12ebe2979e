// The pooled thread factory.
#include "threads/thread_pool.h"

#include "host/exception_list.h"

using Zentha::System::MutexGuard;

namespace {

constexpr int kDefunct = 2;
constexpr unsigned long kNoLimit = static_cast<unsigned long>(-1);

}  // namespace

// ---- koRecyclableThread ----

koRecyclableThread::koRecyclableThread()
    : mutex_(0, 0), startCondition_(mutex_), doneCondition_(mutex_) {
  koThread::start(false);
}

koRecyclableThread::koRecyclableThread(const boost::function0<void*>& body)
    : koThread(body), mutex_(0, 0), startCondition_(mutex_), doneCondition_(mutex_) {
  koThread::start(false);
}

koRecyclableThread::~koRecyclableThread() {
  mutex_.lock();
  quitRequested_ = true;
  startCondition_.signal();
  mutex_.unlock();
  try {
    koThread::join();
  } catch (...) {
  }
}

void* koRecyclableThread::run() {
  MutexGuard guard(mutex_);
  while (!quitRequested_) {
    if (runRequested_) {
      runRequested_ = false;
      finished_ = false;
      try {
        body()();
      } catch (...) {
        // A failing body must not end the pooled thread.
      }
      finished_ = true;
      doneCondition_.signalAll();
    }
    startCondition_.wait();
  }
  return nullptr;
}

void koRecyclableThread::start(bool detached) {
  koOnlyLet<StartError>([&] {
    if (detached) throw StartError();
    MutexGuard guard(mutex_);
    runRequested_ = true;
    startCondition_.signal();
  });
}

void* koRecyclableThread::join() {
  return koOnlyLet<InvalidStateError>([&]() -> void* {
    MutexGuard guard(mutex_);
    while (!finished_) doneCondition_.wait();
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
    return;
  }
  try {
    cleanup_->start(true);
  } catch (const koThread::StartError&) {
    delete cleanup_;
    cleanup_ = nullptr;
  }
}

koPooledThreadFactory::~koPooledThreadFactory() {
  if (cleanup_ != nullptr) {
    cleanup_->dispose();
    cleanup_ = nullptr;
  }
}

koThread* koPooledThreadFactory::createThread(const boost::function0<void*>& body) {
  if (cleanup_ == nullptr) throw koThread::InvalidStateError("Thread pool failed to initialize");
  return cleanup_->createThread(body);
}

void koPooledThreadFactory::recycle(koThread* thread) {
  if (cleanup_ == nullptr) throw koThread::InvalidStateError("Thread pool failed to initialize");
  cleanup_->recycle(thread);
}
