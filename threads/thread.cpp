// The thread object and the basic factory.
#include <boost/thread/mutex.hpp>
#include <cstring>
#include <new>

#include "host/exception_list.h"
#include "host/host.h"
#include "korvel/threads.h"
#include "threads/loop_wait.h"

namespace {

// The entry routine of every library thread: runs the object's run() on the
// new thread and hands its result back as the thread's exit value.
void* threadEntry(void* argument) {
  return static_cast<koThread*>(argument)->run();
}

const char kInvalidStatePrefix[] = "The thread is in an invalid state: ";

}  // namespace

void* do_nothing() {
  return nullptr;
}

const char* koThread::StartError::what() const noexcept {
  return "An error occurred in koThread::start()";
}

koThread::InvalidStateError::InvalidStateError(const char* detail) {
  const size_t prefix = sizeof kInvalidStatePrefix - 1;
  const size_t length = strlen(detail);
  message_ = new char[prefix + length + 1];
  memcpy(message_, kInvalidStatePrefix, prefix);
  memcpy(message_ + prefix, detail, length + 1);
}

koThread::InvalidStateError::InvalidStateError(const InvalidStateError& other)
    : std::exception(other), message_(new char[strlen(other.message_) + 1]) {
  strcpy(message_, other.message_);  // NOLINT: sized above
}

koThread::InvalidStateError::~InvalidStateError() {
  delete[] message_;
}

const char* koThread::InvalidStateError::what() const noexcept {
  return message_;
}

koThread::koThread() : body_(&do_nothing) {}

koThread::koThread(const boost::function0<void*>& body) : body_(body) {}

koThread::~koThread() = default;

void* koThread::run() {
  return body_();
}

void koThread::start(bool detached) {
  koOnlyLet<StartError>([&] {
    if (detached) {
      host_create_detached_thread(&threadEntry, this);
      detached_ = true;
    } else {
      host_create_thread(&handle_, &threadEntry, this);
    }
  });
}

void* koThread::join() {
  return koOnlyLet<InvalidStateError>([&] {
    if (detached_) throw InvalidStateError("Attempted join to detached thread");
    return host_join_thread(handle_);
  });
}

int koThread::status() const {
  return 0;
}

koThreadFactory::~koThreadFactory() = default;

koThread* koBasicThreadFactory::createThread(const boost::function0<void*>& body) {
  return new koThread(body);
}

void koBasicThreadFactory::recycle(koThread* thread) {
  koOnlyLet<koThread::InvalidStateError>([&] { delete thread; });
}

koCleanupFunctionGuard::~koCleanupFunctionGuard() {
  if (action_ != nullptr) {
    (*action_)();
    delete action_;
  }
}

void koCleanupFunctionGuard::disarm() {
  delete action_;
  action_ = nullptr;
}

koSynchronizedLoopContext::~koSynchronizedLoopContext() = default;

const char* koSynchronizedLoopBreak::what() const noexcept {
  return "Loop broken";
}

namespace korvel_detail {

bool LoopWait::waitFor(koSynchronizedLoopContext& context, double seconds) {
  typedef koSynchronizedLoopContextImpl<boost::timed_mutex::scoped_lock> Context;
  Context& loop = static_cast<Context&>(context);
  if (*loop.wakeRequested_) return true;
  if (!loop.lock_->owns_lock()) throw boost::lock_error();
  const double real = hostRealSeconds(seconds);
  if (real > 0) loop.wakeCondition_->wait_for(*loop.lock_, boost::chrono::duration<double>(real));
  return loop.takeWake();
}

}  // namespace korvel_detail
