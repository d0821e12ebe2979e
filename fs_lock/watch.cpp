// Waking waiters when a lock file goes (see watch.h).
//
// One Watcher per process. Whichever waiting thread finds nobody reading
// the inotify descriptor reads it for everyone (a leader), files the
// removals it sees under their watch, and wakes the others; the others wait
// on a condition. No thread is started for it. Lock order: the watcher's
// mutex alone; no file-system call is made with it held.
#include "fs_lock/watch.h"

#include <sys/inotify.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <map>
#include <mutex>

#include "host/host.h"

namespace korvel_detail {
namespace {

constexpr uint32_t kRemovals = IN_DELETE | IN_MOVED_FROM | IN_DELETE_SELF | IN_MOVE_SELF;
// Removals kept for waiters that have not looked yet; older ones are
// dropped, and a waiter that missed some looks again (as on an overflow).
constexpr size_t kKeptRemovals = 256;

class Watcher {
 public:
  static Watcher& instance() {
    static Watcher* watcher = new Watcher;  // NOLINT: lives until exit, as its waiters may
    return *watcher;
  }

  // A watch on directory shared with its other waiters, or -1.
  int add(const std::string& directory) {
    std::lock_guard<std::mutex> lock(mutex_);
    if (fd_ == -2) fd_ = hostInotifyInit(IN_NONBLOCK | IN_CLOEXEC);
    if (fd_ < 0) return -1;
    const int watch = hostInotifyAddWatch(fd_, directory.c_str(), kRemovals | IN_ONLYDIR);
    if (watch >= 0) ++users_[watch];
    return watch;
  }

  void remove(int watch) {
    std::lock_guard<std::mutex> lock(mutex_);
    if (--users_[watch] > 0) return;
    users_.erase(watch);
    hostInotifyRmWatch(fd_, watch);
  }

  void sleep(int watch, double seconds, const DirectoryWatch::Wanted& wanted) {
    std::unique_lock<std::mutex> lock(mutex_);
    const uint64_t from = next_;
    const double until = hostMonotonic() + seconds;
    for (;;) {
      if (removed(from, watch, wanted)) return;
      const double left = until - hostMonotonic();
      if (left <= 0) return;
      if (reading_) {
        woken_.wait_for(lock, std::chrono::duration<double>(hostRealSeconds(left)));
        continue;
      }
      reading_ = true;
      lock.unlock();
      const int ms = static_cast<int>(std::ceil(hostRealSeconds(left) * 1000.0));
      char buffer[4096] __attribute__((aligned(__alignof__(struct inotify_event))));
      ssize_t n = 0;
      if (hostWaitReadable(fd_, ms) > 0) n = hostRead(fd_, buffer, sizeof buffer);
      lock.lock();
      file(buffer, n);
      reading_ = false;
      woken_.notify_all();
    }
  }

 private:
  struct Removal {
    uint64_t sequence;
    int watch;  // -1: anything may have gone (the queue overflowed)
    std::string name;
  };

  // REQUIRES: mutex_ held.
  bool removed(uint64_t from, int watch, const DirectoryWatch::Wanted& wanted) const {
    if (!removals_.empty() && removals_.front().sequence > from) return true;  // missed some
    for (const Removal& r : removals_) {
      if (r.sequence >= from &&
          (r.watch == -1 || (r.watch == watch && (r.name.empty() || wanted(r.name))))) {
        return true;
      }
    }
    return false;
  }

  // REQUIRES: mutex_ held.
  void file(const char* buffer, ssize_t length) {
    for (ssize_t at = 0; at + static_cast<ssize_t>(sizeof(inotify_event)) <= length;) {
      const auto* event = reinterpret_cast<const inotify_event*>(buffer + at);
      const bool overflow = (event->mask & IN_Q_OVERFLOW) != 0;
      // A directory that went, or whose watch went, wakes all its waiters.
      const bool whole = (event->mask & (IN_DELETE_SELF | IN_MOVE_SELF | IN_IGNORED)) != 0;
      if (overflow || whole || (event->mask & (IN_DELETE | IN_MOVED_FROM)) != 0) {
        removals_.push_back({next_++, overflow ? -1 : event->wd,
                             whole || event->len == 0 ? std::string() : std::string(event->name)});
      }
      at += static_cast<ssize_t>(sizeof(inotify_event) + event->len);
    }
    while (removals_.size() > kKeptRemovals) removals_.pop_front();
  }

  std::mutex mutex_;
  std::condition_variable woken_;
  int fd_ = -2;  // -2: not tried yet; -1: no inotify here
  bool reading_ = false;
  std::map<int, int> users_;  // watch -> waiters on it
  uint64_t next_ = 1;
  std::deque<Removal> removals_;
};

}  // namespace

DirectoryWatch::DirectoryWatch(const std::string& directory)
    : watch_(Watcher::instance().add(directory)) {}

DirectoryWatch::~DirectoryWatch() {
  if (watch_ >= 0) Watcher::instance().remove(watch_);
}

void DirectoryWatch::sleep(unsigned ms, const Deadline& deadline, const Wanted& wanted) {
  if (watch_ < 0) {
    sleepWithin(ms, deadline);
    return;
  }
  const double seconds = std::min(ms / 1000.0, deadline.remaining());
  if (seconds > 0) Watcher::instance().sleep(watch_, seconds, wanted);
}

}  // namespace korvel_detail
