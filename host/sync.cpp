// Default synchronisation classes and the unit of time.
#include "host/sync.h"

#include <cstdlib>

namespace Zentha {
namespace System {
namespace {

// A failing pthread call here means a corrupted object: nothing sensible
// can go on.
void check(int rc) {
  if (rc != 0) std::abort();
}

}  // namespace

const TimeUnit& TimeUnit::sSeconds() {
  static const TimeUnit unit(1000);
  return unit;
}

const TimeUnit& TimeUnit::sMilliseconds() {
  static const TimeUnit unit(1);
  return unit;
}

unsigned long TimeUnit::toMillis(unsigned long n) const {
  return n * millisPerUnit_;
}

unsigned long TimeUnit::toSeconds(unsigned long n) const {
  return millisPerUnit_ >= 1000 ? n * (millisPerUnit_ / 1000) : n / (1000 / millisPerUnit_);
}

MutexLock::MutexLock(int /*kind*/, int /*flags*/) {
  check(pthread_mutex_init(&mutex_, nullptr));
}
MutexLock::~MutexLock() {
  pthread_mutex_destroy(&mutex_);
}
void MutexLock::lock() {
  check(pthread_mutex_lock(&mutex_));
}
void MutexLock::unlock() {
  check(pthread_mutex_unlock(&mutex_));
}

Condition::Condition(MutexLock& mutex) : mutex_(mutex) {
  check(pthread_cond_init(&cond_, nullptr));
}
Condition::~Condition() {
  pthread_cond_destroy(&cond_);
}
void Condition::wait() {
  check(pthread_cond_wait(&cond_, &mutex_.mutex_));
}
void Condition::signal() {
  check(pthread_cond_signal(&cond_));
}
void Condition::signalAll() {
  check(pthread_cond_broadcast(&cond_));
}

Event::Event(bool manualReset, bool signalled)
    : mutex_(0, 0), condition_(mutex_), manualReset_(manualReset), signalled_(signalled) {}

void Event::set() {
  MutexGuard guard(mutex_);
  signalled_ = true;
  condition_.signalAll();
}

void Event::wait() {
  MutexGuard guard(mutex_);
  while (!signalled_) condition_.wait();
  if (!manualReset_) signalled_ = false;
}

}  // namespace System
}  // namespace Zentha
