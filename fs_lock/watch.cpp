// Waking waiters when a lock file goes (see watch.h).
//
// One Watcher per process. Whichever waiting thread finds nobody reading
// the inotify descriptor reads it for everyone (a leader), files the
// changes it sees under their watch, and wakes the others; the others wait
// on a condition. No thread is started for it. Lock order: the watcher's
// mutex alone; no file-system call is made with it held (removing a watch
// looks up no path).
#include "fs_lock/watch.h"

#include <sys/inotify.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <condition_variable>
#include <deque>
#include <map>
#include <mutex>

#include "host/host.h"

namespace korvel_detail {
namespace {

// A removal (the link count changes, then the file goes), a rename, or a
// change of attributes. Never a write: waiters rewrite at every poll.
constexpr uint32_t kChanges = IN_ATTRIB | IN_DELETE_SELF | IN_MOVE_SELF;
// Changes kept for waiters that have not looked yet; older ones are
// dropped, and a waiter that missed some looks again (as on an overflow).
constexpr size_t kKeptChanges = 256;

class Watcher {
 public:
  static Watcher& instance() {
    static Watcher* watcher = new Watcher;  // NOLINT: lives until exit, as its waiters may
    return *watcher;
  }

  uint64_t mark() {
    std::lock_guard<std::mutex> lock(mutex_);
    return next_;
  }

  // Makes *watch the watch of path, sharing it with other threads waiting
  // for the same file. False when path cannot be watched; errno ENOENT
  // when nothing is there.
  bool follow(const std::string& path, int* watch) {
    int fd;
    {
      std::lock_guard<std::mutex> lock(mutex_);
      if (fd_ == -2) fd_ = hostInotifyInit(IN_NONBLOCK | IN_CLOEXEC);
      fd = fd_;
    }
    if (fd < 0) {
      errno = ENOSYS;
      return false;
    }
    // Outside the mutex: the path may lead through a mount that hangs.
    const int now = hostInotifyAddWatch(fd, path.c_str(), kChanges | IN_DONT_FOLLOW);
    const int error = errno;
    std::lock_guard<std::mutex> lock(mutex_);
    if (now != *watch) {
      drop(*watch);
      *watch = now;
      if (now >= 0) ++users_[now];
    }
    errno = error;
    return now >= 0;
  }

  void unfollow(int* watch) {
    std::lock_guard<std::mutex> lock(mutex_);
    drop(*watch);
    *watch = -1;
  }

  void sleep(int watch, double seconds, uint64_t from) {
    std::unique_lock<std::mutex> lock(mutex_);
    const double until = hostMonotonic() + seconds;
    for (;;) {
      if (changed(from, watch)) return;
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
  struct Change {
    uint64_t sequence;
    int watch;  // -1: anything may have changed (the queue overflowed)
  };

  // REQUIRES: mutex_ held.
  void drop(int watch) {
    const auto found = users_.find(watch);
    if (found == users_.end() || --found->second > 0) return;
    users_.erase(found);
    // Fails harmlessly for a watch the kernel ended; it runs as a failed
    // wait unwinds, whose errno the caller is about to read.
    const int error = errno;
    hostInotifyRmWatch(fd_, watch);
    errno = error;
  }

  // REQUIRES: mutex_ held.
  bool changed(uint64_t from, int watch) const {
    if (!changes_.empty() && changes_.front().sequence > from) return true;  // missed some
    return std::any_of(changes_.begin(), changes_.end(), [&](const Change& c) {
      return c.sequence >= from && (c.watch == -1 || c.watch == watch);
    });
  }

  // REQUIRES: mutex_ held.
  void file(const char* buffer, ssize_t length) {
    for (ssize_t at = 0; at + static_cast<ssize_t>(sizeof(inotify_event)) <= length;) {
      const auto* event = reinterpret_cast<const inotify_event*>(buffer + at);
      const bool overflow = (event->mask & IN_Q_OVERFLOW) != 0;
      changes_.push_back({next_++, overflow ? -1 : event->wd});
      // The kernel ended the watch (its file went): a later watch of the
      // same number is somebody else's.
      if ((event->mask & IN_IGNORED) != 0) users_.erase(event->wd);
      at += static_cast<ssize_t>(sizeof(inotify_event) + event->len);
    }
    while (changes_.size() > kKeptChanges) changes_.pop_front();
  }

  std::mutex mutex_;
  std::condition_variable woken_;
  int fd_ = -2;  // -2: not tried yet; -1: no inotify here
  bool reading_ = false;
  std::map<int, int> users_;  // watch -> threads following it
  uint64_t next_ = 1;
  std::deque<Change> changes_;
};

}  // namespace

FileWatch::~FileWatch() {
  if (watch_ >= 0) Watcher::instance().unfollow(&watch_);
}

uint64_t FileWatch::mark() {
  return Watcher::instance().mark();
}

void FileWatch::sleepWhileThere(const std::string& path, unsigned ms, const Deadline& deadline,
                                uint64_t since) {
  Watcher& watcher = Watcher::instance();
  if (!watcher.follow(path, &watch_)) {
    if (errno != ENOENT) sleepWithin(ms, deadline);  // not watchable: the poll alone
    return;
  }
  // Gone between the look and the watch: nothing left to wait for.
  struct stat st;
  if (hostLstat(path.c_str(), &st) != 0 && errno == ENOENT) return;
  const double seconds = std::min(ms / 1000.0, deadline.remaining());
  if (seconds > 0) watcher.sleep(watch_, seconds, since);
}

}  // namespace korvel_detail
