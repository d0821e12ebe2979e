// The directory locks behind one face, for the helper programs (lock_child,
// the explorer's contenders): a directory's exclusive lock, or the read and
// write handles of its read-write lock, the handle chosen per acquisition.
// Not thread-safe: one thread acquires and releases.
#ifndef KORVEL_TESTS_SUPPORT_ANY_LOCK_H_
#define KORVEL_TESTS_SUPPORT_ANY_LOCK_H_

#include <functional>
#include <memory>
#include <string>

#include "korvel/fs_lock.h"

namespace korvel_test {

class AnyLock {
 public:
  using TimeUnit = Zentha::System::TimeUnit;
  using Handle = koDirectoryReadWriteLock::AbstractLock;

  AnyLock(const std::string& dir, bool exclusive, const char* name) {
    if (exclusive) {
      exclusive_.reset(new koDirectoryExclusiveLock(dir, name));
      return;
    }
    rw_.reset(new koDirectoryReadWriteLock(dir));
    reading_.reset(new koDirectoryReadWriteLock::ReadLock(rw_->getReadLock()));
    writing_.reset(new koDirectoryReadWriteLock::WriteLock(rw_->getWriteLock()));
  }

  // write: the read-write lock's write handle, from here on; else its read
  // handle.
  bool acquire(unsigned long ms, bool write = true) {
    write_ = write;
    return exclusive_ ? exclusive_->acquire(ms, TimeUnit::sMilliseconds(), false)
                      : handle().acquire(ms, TimeUnit::sMilliseconds());
  }
  bool release() {
    return exclusive_ ? exclusive_->release(koForever, TimeUnit::sSeconds())
                      : handle().release(koForever, TimeUnit::sSeconds());
  }
  bool lost() const { return exclusive_ ? exclusive_->lost() : handle().lost(); }
  void onLost(const std::function<void()>& told) {
    if (exclusive_) return exclusive_->onLost(told);
    reading_->onLost(told);
    writing_->onLost(told);
  }
  // X, W or R: the lock the last acquisition asked for.
  const char* kind() const { return exclusive_ ? "X" : write_ ? "W" : "R"; }

 private:
  Handle& handle() const { return write_ ? static_cast<Handle&>(*writing_) : *reading_; }

  bool write_ = true;
  std::unique_ptr<koDirectoryExclusiveLock> exclusive_;
  std::unique_ptr<koDirectoryReadWriteLock> rw_;
  std::unique_ptr<koDirectoryReadWriteLock::ReadLock> reading_;
  std::unique_ptr<koDirectoryReadWriteLock::WriteLock> writing_;
};

}  // namespace korvel_test

#endif  // KORVEL_TESTS_SUPPORT_ANY_LOCK_H_
